// Proof that the whole window is sound (apps/check), in the form that tests expect.
#ifndef MFWD6_TESTS_KIT_WINDOW_CHECK_H
#define MFWD6_TESTS_KIT_WINDOW_CHECK_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/multicast_alloc.h"

namespace kit {

// What one walk over the window finds.
struct window_survey {
    std::vector<std::string> faults;                     // as window_faults()
    std::vector<std::string> leftovers;                  // as window_leftovers()
    std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live;  // as live_blocks()
};
window_survey survey_window();

// Sentences about what is wrong in the window that this process has open, none when all holds. Only
// while nobody changes it, and in a library without a free hook that keeps blocks on its own.
std::vector<std::string> window_faults();

// What the death of an owner may leave behind, and blocks that nothing leads to.
std::vector<std::string> window_leftovers();

// Live blocks outside the pool, by the slot that counts them.
std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live_blocks();

// Blocks in the pool.
uint32_t pooled_blocks();

}  // namespace kit

#endif
