// Looking at an open window: nothing here changes it or waits for anybody.
#ifndef MFWD6_SERVICES_WINDOW_INSPECT_H
#define MFWD6_SERVICES_WINDOW_INSPECT_H

#include "services/window/window.h"

MFWD6_BEGIN_C

typedef struct shmwin_usage {
    uint64_t used;        // bytes in live blocks, rounded up as they were handed out
    uint64_t peak;        // highest value of `used`; may include a change that was run back
    uint64_t committed;   // bytes of memory that the heap occupies
    uint64_t limit;       // bytes to which `committed` may grow
    uint64_t generation;  // goes up when the window is made or reset: pointers of before are void
    uint64_t opened;      // successful opens by an owner
    uint64_t undone;      // changes run back since the window was made, over all logs
    uint64_t changes;     // changes finished or run back, over all logs; goes up with each one
    uint32_t open;        // logs that hold a change which is neither
} shmwin_usage;

MFWD6_EXPORT cerrno shmwin_get_usage(uint32_t id, shmwin_usage *usage);

// Where the generation stands, for those who look at it before each use of a pointer that they
// kept: a reset raises it ahead of its first change. Read it as one word, atomically. It is there
// until the window is closed in this process, and not in a child made by fork(2). NULL:
// SHMWIN_ERR_BAD_ID.
MFWD6_EXPORT const uint64_t *shmwin_generation_word(uint32_t id);

typedef struct shmwin_block {
    void *address;      // as shmwin_malloc gave it
    size_t size;        // bytes handed out, not less than what was asked for
    int live;           // 0 for free memory, also while readers keep it from reuse
    uint64_t words[4];  // the first 32 bytes of a live block, so that callers see their guard
} shmwin_block;

// Return non-zero to end the walk.
typedef int (*shmwin_block_fn)(const shmwin_block *block, void *context);

// Visits every live block in the order of addresses, and every free one too if `with_free`. Found
// by walking the heap's flat descriptors, no list is followed. Exact while nobody allocates; beside
// allocations every block that lives throughout is seen once. The function may allocate and free.
MFWD6_EXPORT cerrno shmwin_each_block(uint32_t id, int with_free, shmwin_block_fn visit,
                                      void *context);

// The block that covers `address`: SHMWIN_ERR_BAD_BLOCK if none or a free one does.
MFWD6_EXPORT cerrno shmwin_find_block(const void *address, shmwin_block *block);

typedef struct shmwin_process {
    uint32_t peer;       // identity, see services/peers
    int32_t pid;         // at the time of opening
    int owner;           // 1 for the owner
    int alive;           // 0: died and not yet cleaned up
    uint64_t opened_at;  // CLOCK_REALTIME, nanoseconds
    char name[17];
} shmwin_process;

// Writes up to `room` processes that have the window open; *count is how many there are.
MFWD6_EXPORT cerrno shmwin_get_processes(uint32_t id, shmwin_process *list, uint32_t room,
                                         uint32_t *count);

// The locks of a window.
typedef struct shmwin_lock_state {
    const char *name;     // "allocator", "recovery", "window", "packet client"; static
    const void *address;  // where it lies: the address that its waiters sleep on
    uint32_t peer;        // holder, as in shmwin_process; 0: nobody
    uint32_t thread;      // gettid(2) of the holder, 0: nobody
    uint32_t depth;       // of a recursive hold
    uint32_t deaths;      // times that it was taken from a dead holder
    int contended;        // 1: somebody waits, or has waited since it was taken
} shmwin_lock_state;

#define SHMWIN_LOCKS 4U

// Writes the state of each lock to `list`, which has room for SHMWIN_LOCKS.
MFWD6_EXPORT cerrno shmwin_get_locks(uint32_t id, shmwin_lock_state *list);

// How often the window mutex was left behind by a holder that died.
MFWD6_EXPORT cerrno shmwin_get_mutex_deaths(uint32_t id, uint32_t *deaths);

// How shmwin_open_win found the window.
#define SHMWIN_FOUND_NEW 0U       // it was made, or a half-made one was made anew
#define SHMWIN_FOUND_CLEAN 1U     // every log was empty
#define SHMWIN_FOUND_REPAIRED 2U  // changes of dead processes were run back or finished

typedef struct shmwin_opening {
    uint32_t found;      // SHMWIN_FOUND_*
    uint32_t recovered;  // logs that were brought to rest, allocator included
    uint64_t recovery_ns;
} shmwin_opening;

MFWD6_EXPORT cerrno shmwin_get_opening(uint32_t id, shmwin_opening *opening);

// Proves the heap's invariants: descriptors cover it without gap or overlap, lists agree with
// descriptors both ways, counts with what they count. 0, or SHMWIN_ERR_DAMAGED with a sentence in
// `why` (`size` bytes, may be NULL). Only while nobody allocates.
MFWD6_EXPORT cerrno shmwin_check_heap(uint32_t id, char *why, size_t size);

MFWD6_END_C

#endif
