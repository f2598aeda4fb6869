// The shared-memory window: one file on tmpfs, mapped at the same address by every process that
// opens it, with a header for the caller in front and a heap behind it. It outlives its processes.
//
// Promise: any process may be killed at any instruction, and the next owner finds a whole window.
// What was begun and not finished is run back (services/journal) before `shmwin_open_win` returns
// to an owner.
//
// One live owner at a time, any number of attached clients. Settings that must be made before a
// window is opened are in setup.h, looking at a window is in inspect.h, delayed frees are in
// epochs.h.
//
// Thread-safety: every call may be made from any thread of any process that has the window open,
// except open, reset and close: these run one at a time in a process, beside no other call on the
// same window, and, since they set the log of the process, beside no journal group of a thread that
// holds no lock. A child made by fork(2) does not inherit windows: they are unmapped and closed in
// it, and it may open them itself.
#ifndef MFWD6_SERVICES_WINDOW_H
#define MFWD6_SERVICES_WINDOW_H

#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

// Codes of this service. The first is asked for by number, see shmwin_open_win.
#define SHMWIN_ERR_REPAIR \
    0x41d6f200U  // owner only: unusable, mapped by nobody; reset, close, open again
#define SHMWIN_ERR_NO_WINDOW 0x41d6f001U  // attach: no such window
#define SHMWIN_ERR_HALF_MADE \
    0x41d6f002U  // attach: an owner has begun to make or reset it; try again later
#define SHMWIN_ERR_DAMAGED \
    0x41d6f003U  // superblock or heap not as we wrote it, or a log that cannot be undone
#define SHMWIN_ERR_LAYOUT \
    0x41d6f004U  // made by a build with other record layouts or another header size
#define SHMWIN_ERR_BASE 0x41d6f005U        // made for another base address
#define SHMWIN_ERR_BASE_TAKEN 0x41d6f006U  // this process has something else mapped in the range
#define SHMWIN_ERR_PERMISSION 0x41d6f007U  // file or folder of another user, or access denied
#define SHMWIN_ERR_FILE_TYPE 0x41d6f008U   // a symbolic link, or not a regular file
#define SHMWIN_ERR_SPACE 0x41d6f009U       // the window, its limit or the tmpfs below it is full
#define SHMWIN_ERR_BAD_ID 0x41d6f00aU      // no open window has this id
#define SHMWIN_ERR_NOT_OWNER 0x41d6f00bU   // only the owner may do this
#define SHMWIN_ERR_BAD_BLOCK \
    0x41d6f00cU  // not a live block of an open window (never was, or freed twice)
#define SHMWIN_ERR_PEERS_FULL 0x41d6f00dU  // all places for processes, or for readers, are taken
#define SHMWIN_ERR_IN_USE 0x41d6f00eU      // another live process is in the middle of a change
// An owner that lives already: EBUSY (16).

#define SHMWIN_OPEN_OWNER 16U  // open_flags of the owner; 0 attaches

// What shmwin_open_win is asked with. Zero it first.
typedef struct shmwin_open_record {
    char name[16];          // at most 15 characters and a NUL; no '/'
    void *base_addr;        // as shmwin_platform_info gave it
    size_t max_table_size;  // bytes of address space; counts when the window is made
    size_t hdr_size;        // bytes of the caller's header
    uint64_t reserved;      // 0
    uint32_t open_flags;    // SHMWIN_OPEN_OWNER or 0
    uint8_t reserved2[20];  // 0
} shmwin_open_record;

#ifdef __cplusplus
static_assert(offsetof(shmwin_open_record, base_addr) == 16 &&
                  offsetof(shmwin_open_record, hdr_size) == 32 &&
                  offsetof(shmwin_open_record, open_flags) == 48 &&
                  sizeof(shmwin_open_record) == 72,
              "callers fill this record by offset");
#endif

// Where a window of this name goes in this program: base address and bytes of address space (see
// shmwin_set_place in setup.h). 22 (EINVAL) for a NULL argument or a bad name.
MFWD6_EXPORT cerrno shmwin_platform_info(const char *name, void **base_addr,
                                         size_t *max_table_size);

// Opens, and as owner makes, a window. On success *header is the caller's header (64-byte aligned,
// all zero in a new window) and *id the handle for the other calls.
//
// Owner: recovers the logs of all dead processes first, and becomes the process whose threads write
// to the owner's log. A half-made window is made anew. A damaged one, or one of another layout, is
// answered with SHMWIN_ERR_REPAIR if no live process has it mapped: *id is then valid for
// shmwin_reset, which throws the contents away, and shmwin_close, after which a second open makes a
// new window. If some process still has it mapped, the plain code comes back and nothing was
// changed.
//
// Attached client: takes bounded time and changes nothing in a window that it cannot attach to.
//
// Errors: the codes above, 22 (EINVAL) for a bad record, or what the system said (errno(3)). On any
// error *header is not written, and *id only with SHMWIN_ERR_REPAIR.
MFWD6_EXPORT cerrno shmwin_open_win(const shmwin_open_record *record, void **header, uint32_t *id);

// Takes a block of at least `size` bytes, 16-byte aligned, not zeroed. O(1). Size 0 gives a valid
// block. If the calling thread has a journal group open on a log of this window, the block goes
// back when that group does not commit. SHMWIN_ERR_SPACE: full, nothing changed, *block untouched.
MFWD6_EXPORT cerrno shmwin_malloc(uint32_t id, size_t size, void **block);

// Gives a block back; the window is found by the address. Inside a journal group the block stays as
// it is until the group commits. SHMWIN_ERR_BAD_BLOCK: nothing changed. NULL is refused like any
// other address.
MFWD6_EXPORT cerrno shmwin_free(void *block);

// What a block is made ready, or ended, with. Runs in the same change as the allocation or the
// free, on a thread without a change of its own with the allocator's lock held: it only writes.
typedef void (*shmwin_block_ft)(void *block, void *context);

// shmwin_malloc and shmwin_free with a step of the caller's, for threads of attached clients too,
// which have no log of their own: killed at any moment, both are done or neither is.
MFWD6_EXPORT cerrno shmwin_malloc_made(uint32_t id, size_t size, shmwin_block_ft make,
                                       void *context, void **block);
MFWD6_EXPORT cerrno shmwin_free_ended(void *block, shmwin_block_ft end, void *context);

// Owner: drops the whole heap and zeroes the header. Killed in the middle, the next owner finds an
// empty window. Processes that are attached keep their mapping, and see the generation of inspect.h
// change: all their pointers into the heap are void. SHMWIN_ERR_IN_USE if another live process
// stays in the middle of a change for a second. Also the first half of the repair told above.
MFWD6_EXPORT cerrno shmwin_reset(uint32_t id);

// Unmaps and forgets the window in this process; the window itself stays. `keep` is 1 by custom and
// has no other meaning. The caller holds no lock of the window and has no journal group open.
//
// Of several open windows the one opened last has the log for threads that hold no lock (if this
// process owns it) and the packet client mutex; a close hands both back to the one before it.
MFWD6_EXPORT cerrno shmwin_close(uint32_t id, int keep);

// The window mutex: robust, process-shared, not recursive (a second lock by the same thread waits
// like anybody else). While it is held, the thread's journal groups go to a log of the mutex. If
// the holder dies, its open group is run back, then the monitor of the process that found out is
// called with SHMWIN_EVENT_DEAD, and only after that the waiter competes for the mutex anew. A
// waiter past the limit of shmwin_set_wait_limit calls its own monitor with SHMWIN_EVENT_STUCK,
// once per limit, and waits on. No monitor, no call: waiting has no other end.
MFWD6_EXPORT cerrno shmwin_lock(uint32_t id);

// 1 (EPERM) if the calling thread does not hold it.
MFWD6_EXPORT cerrno shmwin_unlock(uint32_t id);

#define SHMWIN_EVENT_STUCK 1U  // the holder lives and has not given the mutex up in time
#define SHMWIN_EVENT_DEAD \
    2U  // the holder died; its change has been run back, nothing is left to do

typedef cerrno (*shmwin_monitor_fn)(uint32_t id, uint32_t event, void *argument);

// Registers this process's monitor of the window mutex. It is called on the waiting thread, which
// does not hold the mutex then, so it may call any function but open, reset and close of this
// window, shmwin_lock and shmwin_unlock included. `context` comes back as `argument`. A NULL
// function unregisters. The result of the monitor is not used.
MFWD6_EXPORT cerrno shmwin_monitor_lock(uint32_t id, shmwin_monitor_fn monitor, void *context);

// Ends the process that holds the window mutex with `signal`, waits for its end (up to a second),
// runs its open changes back and frees the mutex. Success as well if nobody holds it any more. The
// pid is made sure of before it is used: a process that took over a dead holder's pid is never
// signalled. 35 (EDEADLK) if the holder is the calling process, 110 (ETIMEDOUT) if it did not end.
MFWD6_EXPORT cerrno shmwin_kill_and_reset(uint32_t id, int signal);

// Text of a code of this service, NULL for other codes. Registered with the error texts of
// services/diag when a window is opened first.
MFWD6_EXPORT const char *shmwin_strerror(cerrno code);

MFWD6_END_C

#endif
