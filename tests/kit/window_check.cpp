#include "tests/kit/window_check.h"

#include "apps/check/check.h"

namespace kit {
namespace {

using mfwd6::check::report;

std::vector<std::string> faults_of(const report &found) {
    std::vector<std::string> faults;
    for (const mfwd6::check::finding &each : found.findings) {
        faults.push_back(to_string(each));
    }
    return faults;
}

std::vector<std::string> leftovers_of(const report &found) {
    std::vector<std::string> left;
    for (const mfwd6::check::finding &each : found.leftovers) {
        left.push_back(to_string(each));
    }
    for (const mfwd6::check::orphan &each : found.orphans) {
        left.push_back("orphan of type " + mfwd6::check::type_name(each.type));
    }
    return left;
}

std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live_blocks_of(const report &found) {
    std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live{};
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        const uint32_t slot =
            type == IPMC_SHMWIN_ALLOC_UNTYPED ? uint32_t{IPMC_SHMWIN_ALLOC_UNTYPED_COUNT} : type;
        live[slot] += static_cast<uint32_t>(found.blocks[type].live);
    }
    return live;
}

}  // namespace

window_survey survey_window() {
    const report found = mfwd6::check::check_window();
    return {faults_of(found), leftovers_of(found), live_blocks_of(found)};
}

std::vector<std::string> window_faults() {
    return faults_of(mfwd6::check::check_window());
}

std::vector<std::string> window_leftovers() {
    return leftovers_of(mfwd6::check::check_window());
}

std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live_blocks() {
    return live_blocks_of(mfwd6::check::check_window());
}

uint32_t pooled_blocks() {
    uint64_t pooled = 0;
    for (const mfwd6::check::blocks_of_type &each : mfwd6::check::check_window().blocks) {
        pooled += each.pooled;
    }
    return static_cast<uint32_t>(pooled);
}

}  // namespace kit
