// The clock by which the daemon measures: it never goes back, and counts while nobody looks.
#ifndef MFWD6_APPS_MFWD6D_MONOTONIC_H
#define MFWD6_APPS_MFWD6D_MONOTONIC_H

#include <time.h>

#include <cstdint>

namespace mfwd6::daemon {

// CLOCK_MONOTONIC in nanoseconds, see clock_gettime(2).
inline uint64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace mfwd6::daemon

#endif
