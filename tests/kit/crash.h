// A process that is killed at a chosen store. For programs of the crash flavour.
#ifndef MFWD6_TESTS_KIT_CRASH_H
#define MFWD6_TESTS_KIT_CRASH_H

#include <signal.h>

#include <cstdint>
#include <functional>

#include "services/journal/journal.h"
#include "tests/kit/child.h"

namespace kit {

// Called by the work of `killed_at` where counting begins; before it, nothing is counted.
inline uint64_t crash_points_left = 0;

inline void count_crash_point() {
    if (--crash_points_left == 0) {
        raise(SIGKILL);
    }
}

// Runs `prepare` and then `work` in a child that is killed at the `point`th crash point of `work`,
// from
// 1. True if it was killed, false if it came to its end; `*code` is its exit code.
inline bool killed_at(uint64_t point, const std::function<void()> &prepare,
                      const std::function<int()> &work, int *code) {
    child process([&](const post &) {
        prepare();
        crash_points_left = point;
        mfwd6::journal::crash_hook = count_crash_point;
        const int result = work();
        mfwd6::journal::crash_hook = nullptr;
        return result;
    });
    *code = process.wait();
    return *code == 128 + SIGKILL;
}

}  // namespace kit

#endif
