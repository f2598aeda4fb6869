// Proof that the window's allocator is whole: heap, pool and counts agree with the blocks that
// live.
#ifndef MFWD6_TESTS_KIT_WINDOW_CHECK_H
#define MFWD6_TESTS_KIT_WINDOW_CHECK_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/multicast_alloc.h"

namespace kit {

// Sentences about what is wrong in the window that this process has open, none when all holds: the
// heap's own invariants; each bucket of the pool has as many whole, live blocks of its size as it
// says; the count of each type is the number of live blocks of that type outside the pool. Only
// while nobody allocates, and in a library without a free hook that keeps blocks.
std::vector<std::string> window_faults();

// Live blocks outside the pool, by the slot that counts them.
std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live_blocks();

// Blocks in the pool.
uint32_t pooled_blocks();

}  // namespace kit

#endif
