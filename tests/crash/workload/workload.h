// What an owner does: seeded random operations over all that the library can do.
#ifndef MFWD6_TESTS_CRASH_WORKLOAD_H
#define MFWD6_TESTS_CRASH_WORKLOAD_H

#include <functional>
#include <random>

#include "tests/crash/universe.h"

namespace crash {

using generator = std::mt19937_64;

// Called when the operation is noted as under way and has not begun, and within a long one ahead of
// each of its parts.
using before_point = std::function<void()>;

// Picks one operation and carries it out. The model is brought up to date behind it.
void run_operation(generator &random, const before_point &before);

// The tables that must be there for the rest to make sense.
void make_tables();

// Everything goes, what an owner's death left included. Nobody else has the window open.
void empty_window();

}  // namespace crash

#endif
