#include "services/events/clock.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>

#include "services/events/ptimer.h"

namespace mfwd6::events {
namespace {

// Time of the test clock; 0 while the real one is in place. One word, so that readers need no lock.
constinit std::atomic<uint64_t> test_time{0};

constinit std::mutex listeners_lock;
constinit clock_listener *listeners = nullptr;

uint64_t real_now(clockid_t clock = CLOCK_MONOTONIC) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * ns_per_s + static_cast<uint64_t>(now.tv_nsec);
}

void tell_listeners() {
    const std::lock_guard hold(listeners_lock);
    for (clock_listener *l = listeners; l != nullptr; l = l->next) {
        l->jumped(l);
    }
}

}  // namespace

uint64_t clock_now() {
    const uint64_t test = test_time.load(std::memory_order_acquire);
    return test != 0 ? test : real_now();
}

uint64_t clock_now_coarse() {
    const uint64_t test = test_time.load(std::memory_order_acquire);
    return test != 0 ? test : real_now(CLOCK_MONOTONIC_COARSE);
}

bool clock_is_test() {
    return test_time.load(std::memory_order_acquire) != 0;
}

void clock_listen(clock_listener *listener) {
    const std::lock_guard hold(listeners_lock);
    listener->prev = nullptr;
    listener->next = listeners;
    if (listeners != nullptr) {
        listeners->prev = listener;
    }
    listeners = listener;
}

void clock_unlisten(clock_listener *listener) {
    const std::lock_guard hold(listeners_lock);
    (listener->prev != nullptr ? listener->prev->next : listeners) = listener->next;
    if (listener->next != nullptr) {
        listener->next->prev = listener->prev;
    }
}

}  // namespace mfwd6::events

using namespace mfwd6::events;

void ptimer_test_clock_on(void) {
    uint64_t expected = 0;
    if (test_time.compare_exchange_strong(expected, real_now())) {
        tell_listeners();
    }
}

void ptimer_test_clock_off(void) {
    if (test_time.exchange(0) != 0) {
        tell_listeners();
    }
}

cerrno ptimer_test_clock_advance(uint64_t nanoseconds) {
    uint64_t before = test_time.load(std::memory_order_acquire);
    uint64_t after = 0;
    do {
        if (before == 0) {
            return EPERM;
        }
        if (__builtin_add_overflow(before, nanoseconds, &after)) {
            return ERANGE;
        }
    } while (!test_time.compare_exchange_weak(before, after));
    tell_listeners();
    return 0;
}
