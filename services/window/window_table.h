// The windows that this process has open. Private to the window service.
#ifndef MFWD6_SERVICES_WINDOW_WINDOW_TABLE_H
#define MFWD6_SERVICES_WINDOW_WINDOW_TABLE_H

#include <atomic>
#include <cstdint>

#include "services/locks/robust_mutex.h"
#include "services/window/inspect.h"
#include "services/window/layout.h"

namespace mfwd6::window {

inline constexpr uint32_t max_windows = 8;

struct open_window {
    std::atomic<uint32_t> id;    // 0: not open
    std::atomic<bool> reserved;  // set from the beginning of an open to the end of a close
    bool owner;
    bool broken;  // opened for repair only: not mapped, see SHMWIN_ERR_REPAIR
    char name[16];
    peers::env env;
    superblock *super;
    span *spans;
    held_span *held;
    std::byte *heap;
    locks::mutex_options allocator_options;
    locks::mutex_options mutex_options;
    locks::recovery_plan plan;
    // Function and context belong together: `monitor_version` is odd while they are exchanged.
    std::atomic<uint32_t> monitor_version;
    std::atomic<shmwin_monitor_fn> monitor;
    std::atomic<void *> monitor_context;
    shmwin_opening opening;
};

// The open window with this id, or null.
open_window *find(uint32_t id);

// The open window whose range covers `address`, or null.
open_window *covering(const void *address);

// As `find`, but also gives windows that are open for repair only.
open_window *find_any(uint32_t id);

// A free place, or null. `publish` gives it an id and makes it visible, `drop` hides it, `release`
// gives the place back.
open_window *reserve(const char *name);
void publish(open_window *w);
void drop(open_window *w);
void release(open_window *w);

// The window opened last, leaving out `but`: of those that this process owns, or of all. Null if
// there is none.
open_window *latest(bool owned, const open_window *but);

// Calls fn(open_window &) for each place in use.
template <class F>
void each(F fn);

extern open_window table[max_windows];

template <class F>
void each(F fn) {
    for (open_window &w : table) {
        if (w.id.load(std::memory_order_acquire) != 0) {
            fn(w);
        }
    }
}

// The memory of `w`'s journal log for `domain`.
journal::log *log_at(const open_window &w, peers::domain domain);

}  // namespace mfwd6::window

#endif
