// Traces: always on, binary, one ring buffer for each process and kind.
//
// A ring is the file `<run dir>/trace/<program>.<pid>.<kind>`, mapped shared, made at the first
// record of its kind. It can be read while its process runs and after it died; a record is lost
// only when a later one overwrites it, or when its writer was stopped in the middle of it for a
// whole turn of the ring. Where no file can be had (no permission, file system full) the ring is
// private memory: tracing never fails. Files of dead processes are kept up to `ltrace_files_kept`,
// the oldest go first.
//
// Threads: everything may be called from any thread at any time; a writer never waits. A child
// after fork(2) writes rings of its own. Not for signal handlers before the first record of the
// kind.
#ifndef MFWD6_SERVICES_DIAG_TRACE_H
#define MFWD6_SERVICES_DIAG_TRACE_H

#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

typedef struct ltrace_handle ltrace_handle;

// Return addresses, innermost first; unused entries are 0.
typedef struct traceback_record {
    uint64_t address[5];
} traceback_record;

// Fills `record` (40 bytes) with the return addresses of the caller and the functions above it,
// `depth` of them and at most 5, by following frame pointers inside the calling thread's stack;
// ends early where a frame has none. Never reads outside the stack. The first call of a thread asks
// for the bounds of its stack.
MFWD6_EXPORT void traceback_v2(traceback_record *record, uint32_t depth);

// The handle of each kind of trace. Never NULL, valid for the life of the process.
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_err_ltrace(void);
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_eve_ltrace(void);
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_warn_ltrace(void);
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_ltrace(void);
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_svd_ltrace(void);
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_idb_warn_ltrace(void);
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_enc_ltrace(void);
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_bvi_ltrace(void);
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_objid_ltrace(void);
MFWD6_EXPORT ltrace_handle *ip6mc_mlib_retry_queue_ltrace(void);

// Write one record of a fixed id and that many words. A NULL handle writes nothing.
MFWD6_EXPORT void _ltrace(ltrace_handle *handle, uint64_t id);
MFWD6_EXPORT void _ltrace_2(ltrace_handle *handle, uint64_t id, uint64_t w1, uint64_t w2);
MFWD6_EXPORT void _ltrace_3(ltrace_handle *handle, uint64_t id, uint64_t w1, uint64_t w2,
                            uint64_t w3);
MFWD6_EXPORT void _ltrace_5(ltrace_handle *handle, uint64_t id, uint64_t w1, uint64_t w2,
                            uint64_t w3, uint64_t w4, uint64_t w5);
MFWD6_EXPORT void _ltrace_6(ltrace_handle *handle, uint64_t id, uint64_t w1, uint64_t w2,
                            uint64_t w3, uint64_t w4, uint64_t w5, uint64_t w6);

// Writes a record with a text of at most `ltrace_text_size` - 1 characters (cut beyond) and a
// traceback. Either may be NULL.
MFWD6_EXPORT void _lstrace(ltrace_handle *handle, uint64_t id, const traceback_record *traceback,
                           const char *text);

// ---- Reading ----

enum {
    ltrace_text_size = 2048,
    ltrace_kind_size = 16,
    ltrace_program_size = 16,
    ltrace_files_kept = 64
};

// One record as read.
typedef struct ltrace_record {
    uint64_t sequence;  // position in its ring; gaps are records lost or torn
    uint64_t time;      // CLOCK_MONOTONIC nanoseconds; comparable between rings of one boot
    uint64_t wall;      // the same instant in nanoseconds since 1970
    uint64_t id;
    uint32_t tid;
    uint32_t words;  // used entries of `word`
    uint64_t word[6];
    traceback_record traceback;
    uint32_t length;  // of `text`, without the terminator
    uint32_t reserved;
    char text[ltrace_text_size];  // empty for a record without text
} ltrace_record;

// Whose ring it is.
typedef struct ltrace_ring_info {
    char program[ltrace_program_size];
    char kind[ltrace_kind_size];
    int32_t pid;
    uint32_t alive;    // 1 while the writing process holds the ring, proven by the kernel
    uint64_t written;  // slots ever taken; the ring holds the last `slots` of them
    uint64_t slots;
    uint64_t dropped;  // records given up because a slot was still in another writer's hands
} ltrace_ring_info;

typedef struct ltrace_reader ltrace_reader;

// Opens a ring file for reading. `*reader` is the caller's until ltrace_close. errno values; EINVAL
// for a file that is no ring of this version. Nothing is changed in the ring.
MFWD6_EXPORT cerrno ltrace_open(const char *path, ltrace_reader **reader);

// Reads the ring of a handle of this process, also when it is private memory.
MFWD6_EXPORT cerrno ltrace_open_handle(ltrace_handle *handle, ltrace_reader **reader);

// The next record, oldest first, up to what was written when it is called; so the end (0) may be
// followed by more. 1 with the record filled in. Records that are torn or were overwritten are
// passed over. A record that is being written is waited for, so that a reader that polls beside its
// writers misses nothing that stays in the ring: most of the time for less than a microsecond, for
// a quarter of a second in one call when the writer was stopped in the middle, not at all when its
// process is dead. What was not finished then is passed over.
MFWD6_EXPORT int ltrace_next(ltrace_reader *reader, ltrace_record *record);

MFWD6_EXPORT void ltrace_info(const ltrace_reader *reader, ltrace_ring_info *info);
MFWD6_EXPORT void ltrace_close(ltrace_reader *reader);

// Calls `visit` with the path of each ring file below the run dir. A non-zero answer ends the walk.
MFWD6_EXPORT cerrno ltrace_walk_files(int (*visit)(void *context, const char *path), void *context);

MFWD6_END_C

#endif
