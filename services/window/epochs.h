// Freeing memory that readers without a lock may still see.
//
// A reader announces itself, and says from time to time that it holds no pointer into the window (a
// quiescent point). The owner, having unlinked a block, defers it instead of freeing it, and takes
// those back that every live reader has passed. A dead reader is skipped. What is deferred lies in
// the window: it survives the owner's death, and the next owner goes on with it.
//
// A block that a change took and made visible may be found by readers before the change is run
// back, by its own process or, when that is killed, by another. Such a block is free from then on,
// but as long as there are readers it is held: it keeps its contents and is not handed out again
// before they have passed. Held blocks are looked at in shmwin_reclaim, when a window is opened by
// its next owner, and when memory is short.
//
// Thread-safety: a reader handle belongs to one thread at a time. Defer and reclaim belong to the
// owner's operation thread; both are journaled, so a block deferred in a group that does not commit
// is not deferred.
#ifndef MFWD6_SERVICES_WINDOW_EPOCHS_H
#define MFWD6_SERVICES_WINDOW_EPOCHS_H

#include "services/window/window.h"

MFWD6_BEGIN_C

#define SHMWIN_READERS 256U

// Announces a reader, in a quiescent point. SHMWIN_ERR_PEERS_FULL if all places are taken by live
// processes.
MFWD6_EXPORT cerrno shmwin_reader_enter(uint32_t id, uint32_t *reader);

// The reader holds no pointer into the window now; also ends `idle`. A few loads and one exchange
// on a cache line that belongs to this reader alone: no system call, no waiting. The line with the
// epoch, which all readers read, changes only when the owner reclaims.
MFWD6_EXPORT void shmwin_reader_quiescent(uint32_t id, uint32_t reader);

// The reader holds no pointer and will take none until its next quiescent point: nobody waits for
// it.
MFWD6_EXPORT void shmwin_reader_idle(uint32_t id, uint32_t reader);

// Gives the place back.
MFWD6_EXPORT void shmwin_reader_leave(uint32_t id, uint32_t reader);

// Owner: keeps `block`, which nothing in the window leads to any more, until every reader has
// passed. SHMWIN_ERR_SPACE: no room to note it; nothing was changed, reclaim and try again.
// SHMWIN_ERR_BAD_BLOCK: not a live block of this window.
MFWD6_EXPORT cerrno shmwin_defer(uint32_t id, void *block);

// Ends one deferred block. Called with a journal group open in which the block leaves the list.
typedef void (*shmwin_final_fn)(void *block, void *context);

// Owner: ends up to `most` deferred blocks (0: no bound) that every live reader has passed, with
// `final` or, if that is NULL, with shmwin_free. *ended, if not NULL, receives how many there were.
// Lets up to as many held blocks be used again. Never waits.
MFWD6_EXPORT cerrno shmwin_reclaim(uint32_t id, uint32_t most, shmwin_final_fn final, void *context,
                                   uint32_t *ended);

// Visits every deferred block, oldest first: they are live and reachable from no record. Not beside
// defer and reclaim, so by the owner's operation thread, or while there is no owner; beside them it
// ends all the same, and may miss or repeat some.
MFWD6_EXPORT cerrno shmwin_each_deferred(uint32_t id, int (*visit)(void *block, void *context),
                                         void *context);

// Visits the blocks in which the deferred ones are noted: they belong to this service, have no
// guard and are freed by it. Follows a link only to a live block; the same conditions as above.
MFWD6_EXPORT cerrno shmwin_each_deferred_list(uint32_t id,
                                              int (*visit)(const void *block, void *context),
                                              void *context);

typedef struct shmwin_epoch_state {
    uint64_t epoch;     // of the window
    uint64_t deferred;  // blocks that wait
    uint32_t readers;   // announced by live processes and not idle
    uint32_t waiting;   // of these, readers that keep the oldest deferred block waiting
    uint64_t held;      // free blocks that are not used again yet
} shmwin_epoch_state;

MFWD6_EXPORT cerrno shmwin_get_epochs(uint32_t id, shmwin_epoch_state *state);

MFWD6_END_C

#endif
