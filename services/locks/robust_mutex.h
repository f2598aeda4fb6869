// A mutex that survives its holder, for several processes.
//
// The lock word names the process (peer id) and the thread that hold it. A waiter asks the kernel,
// in slices of 50 ms at most, whether the holder's process still lives. When it does not, the
// waiter first has what the dead left behind recovered and only then takes the word from it: a
// waiter killed in between leaves the word as it was, and the next one does the same again.
//
// Thread-safety. Any thread of any process. Take locks before opening a journal group and release
// them after it has ended; the allocator's lock, under which only the allocator's own group is
// opened, is the one exception.
#ifndef MFWD6_SERVICES_LOCKS_ROBUST_MUTEX_H
#define MFWD6_SERVICES_LOCKS_ROBUST_MUTEX_H

#include <cstdint>
#include <type_traits>

#include "services/cerrno.h"
#include "services/export.h"
#include "services/journal/journal.h"
#include "services/peers/peers.h"

namespace mfwd6::locks {

// All zero is unlocked. May lie in a window or in private memory.
struct alignas(16) robust_mutex {
    uint64_t
        word;  // peer id in the upper half; below it the thread id and, in bit 31, "somebody waits"
    uint32_t depth;   // of a recursive hold; only the holder reads or writes it
    uint32_t deaths;  // times that it was taken from, or freed for, a dead holder
};
static_assert(sizeof(robust_mutex) == 16 && std::is_trivially_copyable_v<robust_mutex>);

// Who holds a lock; peer 0 is nobody.
struct holder {
    peers::peer_id peer;
    uint32_t thread;  // gettid(2) in the holder's pid namespace
};
MFWD6_EXPORT holder holder_of(const robust_mutex *m);

// How one kind of lock is taken. Process memory; the same for all calls on one mutex in one
// process.
struct mutex_options {
    peers::env *window = nullptr;  // the window that the mutex lies in; null: private memory
    journal::log *log = nullptr;   // bound to the thread while it holds the mutex; null: none
    bool recursive = false;        // false: a second lock by the holding thread waits
    // A dead holder is recovered (`env::recover`) before the mutex is taken from it. False for the
    // lock under which recovery runs: it is taken as it is, since what it guards can be repeated.
    bool recovers = true;
    // A waiter calls `on_stuck` each time it has waited for this long. 0: never. Nanoseconds.
    uint64_t stuck_after = 0;
    // Called on the waiting thread, without the mutex. It may kill the holder; the wait then ends.
    void (*on_stuck)(void *context, robust_mutex *m, holder who) = nullptr;
    void *context = nullptr;
};

enum class outcome : uint32_t {
    taken,
    taken_again,        // recursive: the thread held it already
    taken_after_death,  // the former holder died with it and has been recovered
    busy,               // try_lock only: a live process holds it
    closed,             // the window is closed in this process (EBADF)
    no_binding,         // the thread holds too many locks with logs (ENOLCK); nothing is locked
};
constexpr bool is_taken(outcome o) {
    return o <= outcome::taken_after_death;
}

// Waits without limit. Uncontended: one compare-and-swap.
MFWD6_EXPORT outcome lock(robust_mutex *m, const mutex_options &how);

// Does not wait for a live holder. A dead one is recovered, as in `lock`.
MFWD6_EXPORT outcome try_lock(robust_mutex *m, const mutex_options &how);

// Uncontended: one exchange. 0, or EPERM when the thread does not hold the mutex (nothing is
// changed), or EBADF when the window is closed in this process.
MFWD6_EXPORT cerrno unlock(robust_mutex *m, const mutex_options &how);

// Frees a mutex that `dead` still holds, for the recovery of `dead` once what the mutex guards is
// at rest. False when somebody else or nobody holds it.
MFWD6_EXPORT bool release_dead(robust_mutex *m, peers::peer_id dead);

// The whole of `env::recover` but for what only the window service knows.
struct recovery_plan {
    peers::env *window;
    robust_mutex *recovery;   // in the window; guards recovery, and nothing else is taken before it
    robust_mutex *allocator;  // in the window; the lock of the allocator's log
    // Called under the recovery lock for each log that was not clean, and once more with `result`
    // clean and `log` null before the slot of the dead is cleared. May be null.
    void (*found)(void *context, peers::peer_id dead, journal::log *log, journal::recovery result);
    void *context;
};

// Brings every log that `dead` held to rest, in the order of the domains, and clears its slot. Does
// nothing for a live peer. May be called by several processes at once and repeated; a process
// killed within it is itself recovered by the next.
MFWD6_EXPORT void recover_peer(const recovery_plan &plan, peers::peer_id dead);

}  // namespace mfwd6::locks

#endif
