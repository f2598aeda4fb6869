#include "tests/kit/window_check.h"

#include <unordered_set>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "services/window/inspect.h"

namespace kit {
namespace {

struct survey {
    std::unordered_set<uint64_t> pooled;
    std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live{};
    std::vector<std::string> faults;
};

std::string in_bucket(size_t size, const char *what) {
    return "pool bucket " + std::to_string(size) + ": " + what;
}

void look_at_bucket(size_t size, const ipmc_shmwin_pool_bucket_st &bucket, survey *seen) {
    uint32_t length = 0;
    for (uint64_t link = bucket.head; link != 0; ++length) {
        shmwin_block block{};
        if (shmwin_find_block(reinterpret_cast<const void *>(link), &block) != 0 ||
            reinterpret_cast<uint64_t>(block.address) != link) {
            seen->faults.push_back(in_bucket(size, "a link leads to no live block"));
            return;
        }
        if (!seen->pooled.insert(link).second) {
            seen->faults.push_back(in_bucket(size, "a block is in the pool twice"));
            return;
        }
        const auto *guard = reinterpret_cast<const ipmc_shmwin_guard_st *>(link);
        if (guard->magic != IPMC_SHMWIN_MAGIC_LIVE || guard->size != size) {
            seen->faults.push_back(in_bucket(size, "a block with another guard"));
        }
        link = guard->pool_link;
    }
    if (length != bucket.count) {
        seen->faults.push_back(in_bucket(
            size, ("holds " + std::to_string(length) + ", says " + std::to_string(bucket.count))
                      .c_str()));
    }
}

int look_at_block(const shmwin_block *block, void *context) {
    auto *seen = static_cast<survey *>(context);
    const auto *hdr = ipv4mc_desc->shmwin_info;
    if (block->address == hdr->buffer_pool ||
        seen->pooled.count(reinterpret_cast<uint64_t>(block->address)) != 0) {
        return 0;
    }
    const auto type = static_cast<uint32_t>(block->words[2]);
    const auto magic = static_cast<uint32_t>(block->words[2] >> 32);
    if (magic != IPMC_SHMWIN_MAGIC_LIVE || type >= IPMC_SHMWIN_ALLOC_TYPES ||
        block->words[1] + 24 > block->size) {
        seen->faults.push_back("a live block without a whole guard");
        return 0;
    }
    ++seen->live[type == IPMC_SHMWIN_ALLOC_UNTYPED ? uint32_t{IPMC_SHMWIN_ALLOC_UNTYPED_COUNT}
                                                   : type];
    return 0;
}

survey take_survey() {
    survey seen;
    const auto *hdr = ipv4mc_desc->shmwin_info;
    char why[256] = "";
    if (shmwin_check_heap(ipv4mc_desc->shmwin_id, why, sizeof(why)) != 0) {
        seen.faults.push_back(std::string("heap: ") + why);
    }
    for (size_t size = 0; hdr->buffer_pool != nullptr && size < IPMC_SHMWIN_POOL_BUCKETS; ++size) {
        look_at_bucket(size, hdr->buffer_pool[size], &seen);
    }
    shmwin_each_block(ipv4mc_desc->shmwin_id, 0, look_at_block, &seen);
    return seen;
}

}  // namespace

std::vector<std::string> window_faults() {
    survey seen = take_survey();
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        const uint32_t counted = ipmc_shmwin_live_blocks(ipv4mc_desc->shmwin_info, type);
        if (counted != seen.live[type]) {
            seen.faults.push_back("type " + std::to_string(type) + ": " +
                                  std::to_string(seen.live[type]) + " blocks live, " +
                                  std::to_string(counted) + " counted");
        }
    }
    return seen.faults;
}

std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live_blocks() {
    return take_survey().live;
}

uint32_t pooled_blocks() {
    return static_cast<uint32_t>(take_survey().pooled.size());
}

}  // namespace kit
