// Attached processes beside the owners: readers without locks, and posters of signals.
#ifndef MFWD6_TESTS_CRASH_CLIENTS_H
#define MFWD6_TESTS_CRASH_CLIENTS_H

#include <cstdint>
#include <functional>

#include "tests/crash/life.h"

namespace crash {

// Looks routes up and walks tables until told to stop. 0, or a number that says which answer was
// impossible.
int read_routes(const setting &how, uint64_t seed);

// Posts and removes signals. `before` is called ahead of each post; `inside` while the window mutex
// is held.
int post_signals(const setting &how, uint64_t seed, const std::function<void()> &before,
                 const std::function<void()> &inside);

}  // namespace crash

#endif
