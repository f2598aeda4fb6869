// The life of one owner: start, proof of what it found, work, death.
#ifndef MFWD6_TESTS_CRASH_LIFE_H
#define MFWD6_TESTS_CRASH_LIFE_H

#include <functional>
#include <string>

#include "tests/crash/workload/workload.h"

namespace crash {

// How the owners of one episode are set up.
struct setting {
    std::string folder;         // of window and hardware
    bool async_errors = false;  // a router with object ids and a retry queue
    bool clients = false;       // readers and posters beside: freed blocks are kept for them
    bool shared_tries = false;
};

// Starts the library as owner and proves that the window is whole, that it holds what was
// acknowledged, and that the hardware can be brought in line. Gives up (exit code 3) when not.
void start_owner(const setting &how, const std::function<void()> &before_start);

// Works for ever. `before` is called ahead of point number n, from 1: the beginning of an
// operation, or of a part of one.
[[noreturn]] void work(uint64_t seed, const std::function<void(uint64_t n)> &before);

// Empties the window and compares the blocks that live with those of the first time.
void empty_and_compare(const setting &how);

}  // namespace crash

#endif
