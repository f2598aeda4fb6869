#include "tests/kit/window_check.h"

#include "apps/check/check.h"

namespace kit {

std::vector<std::string> window_faults() {
    const mfwd6::check::report found = mfwd6::check::check_window();
    std::vector<std::string> faults;
    for (const mfwd6::check::finding &each : found.findings) {
        faults.push_back(to_string(each));
    }
    return faults;
}

std::vector<std::string> window_leftovers() {
    const mfwd6::check::report found = mfwd6::check::check_window();
    std::vector<std::string> left;
    for (const mfwd6::check::finding &each : found.leftovers) {
        left.push_back(to_string(each));
    }
    for (const mfwd6::check::orphan &each : found.orphans) {
        left.push_back("orphan of type " + mfwd6::check::type_name(each.type));
    }
    return left;
}

std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live_blocks() {
    const mfwd6::check::report found = mfwd6::check::check_window();
    std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live{};
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        const uint32_t slot =
            type == IPMC_SHMWIN_ALLOC_UNTYPED ? uint32_t{IPMC_SHMWIN_ALLOC_UNTYPED_COUNT} : type;
        live[slot] += static_cast<uint32_t>(found.blocks[type].live);
    }
    return live;
}

uint32_t pooled_blocks() {
    uint64_t pooled = 0;
    for (const mfwd6::check::blocks_of_type &each : mfwd6::check::check_window().blocks) {
        pooled += each.pooled;
    }
    return static_cast<uint32_t>(pooled);
}

}  // namespace kit
