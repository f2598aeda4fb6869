// The processes that have a window open, and the proof that they live.
//
// Each process has one slot in a table that lies in the window's superblock. Proof of life is an
// open-file-description lock (fcntl(2), F_OFD_SETLK) on that slot's byte of the window file: the kernel
// drops it with the process, whatever ended it. A pid is kept for people only and proves nothing.
//
// Services that sit in shared memory (locks above all) find the window that covers an address with
// `env_of`, and so need no handle. Memory that no window covers is private: there a peer is the process
// itself, which lives.
#ifndef MFWD6_SERVICES_PEERS_H
#define MFWD6_SERVICES_PEERS_H

#include <cstddef>
#include <cstdint>

#include "services/export.h"
#include "services/journal/journal.h"

namespace mfwd6::peers {

inline constexpr uint32_t max_peers = 128;

// A peer id names one process for one opening of the window: slot + 1 in the low 8 bits, a generation
// that never repeats for that slot above it. 0 is nobody.
using peer_id = uint32_t;
constexpr uint32_t slot_of(peer_id id) { return (id & 0xffU) - 1; }

// The identity used on memory that no window covers.
inline constexpr peer_id private_peer = 0x01;

enum class role : uint32_t { none = 0, owner = 1, attached = 2 };

// One process; a cache line of its own, as readers of different processes write here.
struct alignas(64) slot {
    uint32_t id;  // peer_id, 0 when free
    uint32_t role;
    int32_t pid;       // for display
    uint32_t reserved;
    uint64_t started;  // CLOCK_REALTIME nanoseconds at open, for display
    char name[16];     // comm of the process, for display
    uint64_t spare[3];
};
static_assert(sizeof(slot) == 64);

struct table {
    uint32_t generation;  // last generation given out
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

// Adds and removes a window; called by the window service. At most 8 windows a process. Lookups by other
// threads may run beside it.
MFWD6_EXPORT bool env_add(env *window);
MFWD6_EXPORT void env_remove(env *window);

// The open window that covers `address`, or null.
MFWD6_EXPORT env *env_of(const void *address);

// Takes a free slot of the table and its lock; writes `window->self`. 0, or an errno value: EMFILE when all
// slots are taken by live processes. A slot left by a dead process is recovered before it is used again.
MFWD6_EXPORT int join(env *window, role as);

// Gives the slot back. The caller has released all locks.
MFWD6_EXPORT void leave(env *window);

// True while the process lives that had this id. One system call, unless the id is this process's own
// or its slot has moved on.
MFWD6_EXPORT bool alive(const env *window, peer_id id);

}  // namespace mfwd6::peers

#endif
