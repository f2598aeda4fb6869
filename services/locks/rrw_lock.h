// Reader-writer lock for several processes; survives the death of readers and writers.
//
// Readers count themselves in a slot of their process, a cache line of its own, so readers of
// different processes share no line. A writer takes the gate, which turns new readers away, and
// waits until all slots are empty. A dead reader's slot is emptied by the writer that waits for it.
// A dead writer's change is run backwards (its logs are recovered) by whoever waits next, reader or
// writer, before the gate opens.
//
// Writers come first: a reader that finds the gate taken waits, so readers cannot starve a writer.
// Readers that waited long get a short turn of their own, so writers cannot starve readers either.
// Several threads of a process may read. A thread that holds the lock may take the read lock again
// without waiting. A second write lock waits, also on the thread that has the first, and times out.
//
// The lock may lie in a window or in private memory; see services/peers. A window has one such
// lock, as it has one log for it. A thread that reads and asks to write waits for itself. While a
// thread holds the write lock of a window, its groups go to the window's `table_lock` journal log.
#ifndef MFWD6_SERVICES_LOCKS_RRW_LOCK_H
#define MFWD6_SERVICES_LOCKS_RRW_LOCK_H

#include <stdint.h>
#include <time.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

#define RRW_LOCK_SLOTS 128
#define RRW_LOCK_MODE_SHARED 2

// Readers of one process; the first words fill a cache line of their own.
typedef struct rrw_lock_slot {
    uint64_t word;     // peer id in the upper half, number of read holds below
    int32_t line;      // of the latest unlock, for display
    uint32_t cleaned;  // times that a dead process's holds were taken off
    uint64_t reserved[6];
} rrw_lock_slot;

// All zero is an unlocked lock. Fields are private; they are shown for diagnosis.
typedef struct __attribute__((aligned(64))) rrw_lock {
    uint64_t
        gate;  // writer: peer id in the upper half, thread id and "somebody waits" (bit 31) below
    uint64_t turn;   // CLOCK_MONOTONIC nanoseconds until which writers leave waiting readers a turn
    uint32_t magic;  // set by rrw_lock_init
    uint32_t mode;
    int32_t line;       // of the latest write unlock, for display
    uint32_t deaths;    // times that the gate was taken from a dead writer
    uint64_t known[2];  // slots that readers have used
    uint64_t reserved[2];
    rrw_lock_slot slots[RRW_LOCK_SLOTS];
} rrw_lock_t;

// Receives one line of text (printf(3) form) for each death dealt with. Belongs to the process: the
// latest one given serves all locks.
typedef void (*rrw_lock_trace_ft)(const char *format, ...);

// Makes the lock, or, with `exists` not 0, readies one that an earlier process left: what dead
// processes held is recovered and taken off. `mode` is RRW_LOCK_MODE_SHARED, `reserved` is 0.
// `trace` may be null.
//
// 0; EBUSY (16) when a live process holds or awaits the lock, which is then left alone and fully
// usable; EINVAL (22) for a null lock or another mode; EBADF (9) when its window is closed in this
// process.
MFWD6_EXPORT cerrno rrw_lock_init(rrw_lock_t *lock, int mode, int exists, rrw_lock_trace_ft trace,
                                  intptr_t reserved);

// Takes the write or the read lock. `deadline` is absolute, CLOCK_REALTIME; a free lock is taken
// even when it has passed. 0; ETIMEDOUT (110); EINVAL (22) for null arguments or nanoseconds out of
// range; EBADF (9) when the window is closed in this process; ENOLCK (37) when the thread holds too
// many locks to keep account of; EAGAIN (11) when a process has 2^32 - 1 read holds.
MFWD6_EXPORT cerrno rrw_lock_get_timedwrlock(rrw_lock_t *lock, const struct timespec *deadline);
MFWD6_EXPORT cerrno rrw_lock_get_timedrdlock(rrw_lock_t *lock, const struct timespec *deadline);

// Gives up the read lock (`is_reader` not 0) or the write lock. `line` identifies the caller in
// displays. 0; EPERM (1) when the calling thread does not hold it, EINVAL, EBADF as above; nothing
// is changed then.
MFWD6_EXPORT cerrno rrw_lock_unlock(rrw_lock_t *lock, int line, int is_reader);

MFWD6_END_C

#ifdef __cplusplus
#include <cstddef>
#include <type_traits>

#include "services/peers/peers.h"
static_assert(sizeof(rrw_lock_slot) == 64, "a cache line for the readers of one process");
static_assert(sizeof(rrw_lock_t) == 64 + 64 * RRW_LOCK_SLOTS && alignof(rrw_lock_t) == 64);
static_assert(offsetof(rrw_lock_t, slots) == 64, "no reader writes the gate's line");
static_assert(std::is_standard_layout_v<rrw_lock_t> && std::is_trivially_copyable_v<rrw_lock_t>);
static_assert(RRW_LOCK_SLOTS == mfwd6::peers::max_peers, "one slot for each peer");
#endif

#endif
