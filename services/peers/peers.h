// The processes that have a window open, and the proof that they live.
//
// Each process has one slot in a table that lies in the window's superblock. Proof of life is an
// open-file-description lock (fcntl(2), F_OFD_SETLK) on that slot's byte of the window file: the
// kernel drops it with the process, whatever ended it. A pid is kept for people only and proves
// nothing.
//
// Services that sit in shared memory (locks above all) find the window that covers an address with
// `env_of`, and so need no handle. Memory that no window covers is private: there a peer is the
// process itself, which lives.
//
// fork(2). A child shares the open file description of its parent and so would keep the parent's
// proof of life alive. In the child the descriptor of every window is closed, `env::self` becomes 0
// and the child's journal bindings are dropped: the window is closed there, locks in it answer
// EBADF. The child may open the window anew. The descriptor must be close-on-exec for children that
// only exec.
#ifndef MFWD6_SERVICES_PEERS_H
#define MFWD6_SERVICES_PEERS_H

#include <cstddef>
#include <cstdint>

#include "services/export.h"
#include "services/journal/journal.h"

namespace mfwd6::peers {

inline constexpr uint32_t max_peers = 128;

// A peer id names one process for one opening of the window: slot + 1 in the low 8 bits, a
// generation that never repeats for that slot above it. 0 is nobody.
using peer_id = uint32_t;
constexpr uint32_t slot_of(peer_id id) {
    return (id & 0xffU) - 1;
}

// The identity used on memory that no window covers. No slot ever gives it: generations start at 1.
inline constexpr peer_id private_peer = 0x01;

// Generations fit in 24 bits. A slot that has given out its last one is never used again, so that
// an id which survives in a lock word or a log can never come to name somebody else.
inline constexpr uint32_t last_generation = 0xffffff;

// Bytes of the window file that are only ever locked, never written; far behind any data.
inline constexpr int64_t slot_lock_offset = int64_t{1} << 50;                // + slot
inline constexpr int64_t owner_lease_offset = slot_lock_offset + max_peers;  // the one live owner

enum class role : uint32_t { none = 0, owner = 1, attached = 2 };

// One process; a cache line of its own, as readers of different processes write here.
struct alignas(64) slot {
    uint32_t id;  // peer_id, 0 when free
    uint32_t role;
    int32_t pid;           // for display
    uint32_t generation;   // last one given out here
    uint64_t started;      // CLOCK_REALTIME nanoseconds at open, for display
    char name[16];         // comm of the process, for display
    uint32_t predecessor;  // dead peer whose slot this was, until it is recovered; else 0
    uint32_t reserved;
    uint64_t spare[2];
};
static_assert(sizeof(slot) == 64);

struct table {
    uint32_t openings;  // times that a slot was taken, for display
    uint32_t reserved[15];
    slot slots[max_peers];
};

// The log domains of a window. Recovery takes them in this order.
enum class domain : uint32_t { allocator, table_lock, window_mutex, owner };
inline constexpr uint32_t domains = 4;

// One open window, as this process sees it. Process memory.
struct env {
    const void *base;  // range of addresses that belongs to the window
    size_t length;
    table *peers;
    int fd;        // the window file; holds this process's slot lock
    peer_id self;  // this process
    journal::log *logs[domains];
    // Runs back or finishes what the dead peer left in every log that it held, and clears its slot.
    // Safe to call from any live process at any time; does nothing for a live peer.
    void (*recover)(env *window, peer_id dead);
    void *context;  // the window service's own
};

// Adds and removes a window; called by the window service. At most 8 windows a process. Lookups by
// other threads may run beside it.
MFWD6_EXPORT bool env_add(env *window);
MFWD6_EXPORT void env_remove(env *window);

// The open window that covers `address`, or null.
MFWD6_EXPORT env *env_of(const void *address);

// Takes a free slot of the table and its lock; writes `window->self`. 0, or an errno value: EMFILE
// when all slots are taken by live processes, EALREADY when `window` has a slot, else what fcntl(2)
// says. A slot left by a dead process is taken only when no other is free. An owner recovers its
// former holder before this returns; who attaches waits for nobody and leaves that to others.
// `window->fd` is an open file description of its own. Safe beside other joins, in this process and
// in others.
MFWD6_EXPORT int join(env *window, role as);

// Gives the slot back. The caller has released all locks. Does nothing in the child of a fork.
MFWD6_EXPORT void leave(env *window);

// True while the process lives that had this id. One system call, unless the id is this process's
// own or its slot has moved on. In doubt (fcntl fails) a peer lives: nothing is ever taken from the
// living. Without a window every id but 0 lives.
MFWD6_EXPORT bool alive(const env *window, peer_id id);

// Marks the slot of a dead peer free; for `env::recover`, after everything else. Does nothing when
// the slot has moved on.
MFWD6_EXPORT void clear_slot(env *window, peer_id dead);

}  // namespace mfwd6::peers

#endif
