// Inside of an event manager.
#ifndef MFWD6_SERVICES_EVENTS_MANAGER_H
#define MFWD6_SERVICES_EVENTS_MANAGER_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "services/events/clock.h"
#include "services/events/event_manager.h"
#include "services/events/timer.h"

namespace mfwd6::events {

// One watched descriptor.
struct watch {
    int fd;
    bool ended;  // waits to be freed: events already fetched may still point here
    event_fd_fn handler;
    void *context;
    watch *next_ended;
};

// What event_timer_attach keeps.
struct timer_handler {
    uint32_t mode;
    event_timer_fn handler;
    void *context;
};

inline constexpr size_t not_queued = SIZE_MAX;

}  // namespace mfwd6::events

// One timer. All leaves of a manager are on its list; the running ones are in its heap as well.
struct mgd_timer_leaf {
    event_manager *evm;
    uint32_t handle;
    void *context;
    uint64_t period_ns;
    uint64_t due_ns;
    uint64_t start;  // number of the start, orders what is due at the same time
    size_t place;    // in the heap, or not_queued
    mgd_timer_leaf *prev;
    mgd_timer_leaf *next;
};

struct event_manager : mfwd6::events::clock_listener {
    int epoll_fd = -1;
    int wake_fd = -1;   // eventfd: stop, or a jump of the clock
    int timer_fd = -1;  // set to the first timer that is due, while the real clock is in place
    std::atomic<bool> stop_asked{false};
    bool dispatching = false;

    mfwd6::events::watch **watches = nullptr;  // by fd
    size_t watch_count = 0;
    mfwd6::events::watch *ended = nullptr;

    mfwd6::events::timer_handler *handlers = nullptr;  // by handle
    uint32_t handler_count = 0;
    mgd_timer_leaf *leaves = nullptr;
    size_t leaf_count = 0;
    mgd_timer_leaf **heap = nullptr;  // room for every leaf
    size_t heap_room = 0;
    size_t running = 0;
    uint64_t starts = 0;
    uint64_t armed_ns = 0;  // what timer_fd is set to, 0 when it is off

    void (*at_end)(event_manager *evm) = nullptr;  // of the retry library
};

namespace mfwd6::events {

// Sets timer_fd for the first timer. A refusal of the kernel is an errno.
int arm_timers(event_manager *evm);
// True if a timer is due now.
bool timers_due(const event_manager *evm);
// Calls the handlers of all timers that are due, except those started meanwhile. Gives their
// number.
uint32_t fire_timers(event_manager *evm);
void free_timers(event_manager *evm);

}  // namespace mfwd6::events

#endif
