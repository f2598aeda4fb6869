#include "apps/check/heap_map.h"

#include <algorithm>
#include <unordered_set>

#include "apps/check/check.h"
#include "services/window/epochs.h"
#include "services/window/inspect.h"

namespace mfwd6::check {
namespace {

constexpr uint64_t guard_bytes = sizeof(ipmc_shmwin_guard_st);

struct survey {
    std::vector<block> *blocks;
    uint64_t internal;
};

// Words of a guard as the window service shows them: link, size, then type and magic in one.
int note_block(const shmwin_block *found, void *context) {
    const auto *seen = static_cast<survey *>(context);
    const auto address = reinterpret_cast<uint64_t>(found->address);
    const uint64_t bytes = found->words[1];
    const auto type = static_cast<uint32_t>(found->words[2]);
    const auto magic = static_cast<uint32_t>(found->words[2] >> 32);
    const bool whole = found->size >= guard_bytes && magic == IPMC_SHMWIN_MAGIC_LIVE &&
                       type < IPMC_SHMWIN_ALLOC_TYPES && bytes <= found->size - guard_bytes;
    if (address == seen->internal) {
        seen->blocks->push_back({address, found->size, 0, block_state::internal, true});
    } else if (whole) {
        seen->blocks->push_back({address + guard_bytes, bytes, type, block_state::live, false});
    } else {
        seen->blocks->push_back({address, found->size, type, block_state::broken, false});
    }
    return 0;
}

int note_internal(const void *address, void *context) {
    static_cast<std::unordered_set<uint64_t> *>(context)->insert(
        reinterpret_cast<uint64_t>(address));
    return 0;
}

// The lists of kept blocks are blocks without a guard.
void mark_lists_of_kept(uint32_t window, std::vector<block> &blocks) {
    std::unordered_set<uint64_t> chunks;
    shmwin_each_deferred_list(window, note_internal, &chunks);
    if (chunks.empty()) {
        return;
    }
    for (block &each : blocks) {
        const uint64_t first =
            each.state == block_state::live ? each.address - guard_bytes : each.address;
        if (chunks.count(first) != 0) {
            each = {first, 0, 0, block_state::internal, true};
        }
    }
}

bool by_address(const block &a, const block &b) {
    return a.address < b.address;
}

}  // namespace

heap_map::heap_map(uint32_t window, const void *internal) {
    survey seen{&blocks_, reinterpret_cast<uint64_t>(internal)};
    shmwin_each_block(window, 0, note_block, &seen);
    mark_lists_of_kept(window, blocks_);
    if (!std::is_sorted(blocks_.begin(), blocks_.end(), by_address)) {
        std::sort(blocks_.begin(), blocks_.end(), by_address);
    }
}

block *heap_map::at(uint64_t address) {
    const block key{address, 0, 0, block_state::live, false};
    const auto found = std::lower_bound(blocks_.begin(), blocks_.end(), key, by_address);
    return found != blocks_.end() && found->address == address ? &*found : nullptr;
}

std::string describe(const block *found) {
    if (found == nullptr) {
        return "no block";
    }
    const std::string of_type = "block of type " + type_name(found->type);
    switch (found->state) {
        case block_state::live:
            return "a " + of_type + ", " + std::to_string(found->bytes) + " bytes";
        case block_state::pooled:
            return "a freed " + of_type + " in the pool";
        case block_state::kept:
            return "a freed " + of_type + " kept for readers";
        case block_state::internal:
            return "a block of the allocator";
        case block_state::broken:
            break;
    }
    return "a block without a whole guard";
}

}  // namespace mfwd6::check
