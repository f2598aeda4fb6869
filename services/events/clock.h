// Inside of the clock: the event managers that want to know when it jumps.
#ifndef MFWD6_SERVICES_EVENTS_CLOCK_H
#define MFWD6_SERVICES_EVENTS_CLOCK_H

#include <cstdint>

namespace mfwd6::events {

inline constexpr uint64_t ns_per_s = 1'000'000'000;

// The present clock time; never 0. The coarse one is that of the kernel's last tick.
uint64_t clock_now();
uint64_t clock_now_coarse();

// True while the test clock is in place: waiting for real time is of no use then.
bool clock_is_test();

// Told, on any thread, that the clock jumped or was replaced. Links of a list that owns nothing.
struct clock_listener {
    void (*jumped)(clock_listener *self);
    clock_listener *prev;
    clock_listener *next;
};

void clock_listen(clock_listener *listener);
// Once it returned, `jumped` is not running and will not be called.
void clock_unlisten(clock_listener *listener);

// a + b, or the greatest value.
inline uint64_t add_capped(uint64_t a, uint64_t b) {
    uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? UINT64_MAX : sum;
}

inline uint64_t multiply_capped(uint64_t a, uint64_t b) {
    uint64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? UINT64_MAX : product;
}

}  // namespace mfwd6::events

#endif
