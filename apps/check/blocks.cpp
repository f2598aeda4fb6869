// Blocks: those that are free although they live, counts by type, and what nothing leads to.
#include <cstring>

#include "apps/check/records.h"
#include "services/window/epochs.h"
#include "services/window/inspect.h"

namespace mfwd6::check {
namespace {

std::string bucket_name(size_t size) {
    return std::string("bucket of ") + std::to_string(size) + " bytes: ";
}

void walk_bucket(walk &w, const subject &pool, size_t size,
                 const ipmc_shmwin_pool_bucket_st &bucket) {
    uint64_t length = 0;
    for (uint64_t link = load(bucket.head); link != 0; ++length) {
        block *found = w.heap().with_guard(link);
        if (found == nullptr || found->state != block_state::live) {
            return w.wrong(
                pool, "head",
                bucket_name(size) + "a link leads to " + hex(link) + ", " + describe(found));
        }
        if (found->bytes != size) {
            w.wrong(pool, "head", bucket_name(size) + "holds " + describe(found));
        }
        found->state = block_state::pooled;
        ++w.result().blocks[found->type].pooled;
        link = load(reinterpret_cast<const ipmc_shmwin_guard_st *>(link)->pool_link);
    }
    if (length != load(bucket.count)) {
        w.wrong(pool, "count",
                bucket_name(size) + "says " + std::to_string(load(bucket.count)) + ", there are " +
                    std::to_string(length));
    }
}

int note_kept(void *memory, void *context) {
    auto &w = *static_cast<walk *>(context);
    block *found = w.heap().with_guard(reinterpret_cast<uint64_t>(memory));
    if (found == nullptr || found->state != block_state::live) {
        w.wrong(about("kept blocks", memory), "block",
                "names " + hex(memory) + ", " + describe(found));
        return 0;
    }
    found->state = block_state::kept;
    ++w.result().blocks[found->type].kept;
    return 0;
}

uint32_t counted_as(uint32_t type) {
    return type == IPMC_SHMWIN_ALLOC_UNTYPED ? uint32_t{IPMC_SHMWIN_ALLOC_UNTYPED_COUNT} : type;
}

// A search key looks like a table in no tree.
bool looks_like_key(const block &each) {
    if (each.type != IPMC_SHMWIN_ALLOC_AVL || each.bytes != sizeof(ipv4mc_table_st)) {
        return false;
    }
    const auto *table = reinterpret_cast<const ipv4mc_table_st *>(each.address);
    return load(table->node[0].up) == 0;
}

class block_walk {
  public:
    explicit block_walk(records &all) : all_(all), w_(all.w) {}

    void run() {
        walk_platform_blocks();
        for (block &each : w_.heap().blocks()) {
            look_at(each);
        }
        compare_counts();
    }

  private:
    // Blocks of the platform half, of interfaces that are gone.
    void walk_platform_blocks() {
        const auto *at = static_cast<const ipmc_plat_block_st *>(load(w_.header().plat_block_list));
        std::unordered_set<const void *> seen;
        while (at != nullptr) {
            if (!w_.reach_any(at)) {
                return w_.wrong(about(&w_.header()), "plat_block_list",
                                "leads to no live block: " + hex(at));
            }
            if (!seen.insert(at).second) {
                return w_.wrong(about(&w_.header()), "plat_block_list", "has no end");
            }
            at = load(at->next);
        }
    }

    void look_at(block &each) {
        if (each.state == block_state::broken) {
            return w_.wrong(about("block", reinterpret_cast<const void *>(each.address)), "guard",
                            "a live block of the heap without a whole guard");
        }
        if (each.state != block_state::live) {
            return;
        }
        ++w_.result().blocks[each.type].live;
        ++counted_[counted_as(each.type)];
        if (each.reached) {
            return;
        }
        report &result = w_.result();
        if (looks_like_key(each) && result.search_keys < result.processes) {
            ++result.search_keys;
            result.keys.push_back({each.address, each.bytes, each.type});
            return;
        }
        note_orphan(each);
    }

    void note_orphan(const block &each) {
        w_.result().orphans.push_back({each.address, each.bytes, each.type});
        blocks_of_type &of = w_.result().blocks[each.type];
        ++of.orphans;
        of.orphan_bytes += each.bytes;
        if (const ipv4mc_table_st *table = table_of_detached(all_, each); table != nullptr) {
            ++all_.tables[table].detached;
        }
    }

    void compare_counts() {
        for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
            w_.equal(about(&w_.header()), "alloc_count",
                     ipmc_shmwin_live_blocks(&w_.header(), type), counted_[type],
                     ("live blocks of type " + type_name(type)).c_str());
        }
    }

    records &all_;
    walk &w_;
    std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> counted_{};
};

}  // namespace

void walk_pool(walk &w) {
    const ipmc_shmwin_pool_bucket_st *pool = load(w.header().buffer_pool);
    if (pool == nullptr) {
        return;
    }
    const subject self = about("pool of freed blocks", pool);
    const block *of = w.heap().at(reinterpret_cast<uint64_t>(pool));
    if (of == nullptr || of->bytes < sizeof(*pool) * IPMC_SHMWIN_POOL_BUCKETS) {
        return w.wrong(about(&w.header()), "buffer_pool", "names no live block: " + hex(pool));
    }
    for (size_t size = 0; size < IPMC_SHMWIN_POOL_BUCKETS; ++size) {
        walk_bucket(w, self, size, pool[size]);
    }
}

void walk_kept(walk &w) {
    shmwin_each_deferred(w.window(), note_kept, &w);
}

const ipv4mc_table_st *table_of_detached(records &all, const block &each) {
    const auto *leaf = reinterpret_cast<const gtrie::leaf *>(each.address);
    const auto *route = reinterpret_cast<const ipv4mc_route_entry_st *>(leaf + 1);
    if (!all.w.is(route, kinds::route) || load(leaf->magic) != gtrie::leaf_magic) {
        return nullptr;
    }
    const ipv4mc_table_st *table = load(route->table);
    return all.tables.count(table) != 0 ? table : nullptr;
}

void check_blocks(records &all) {
    block_walk(all).run();
}

}  // namespace mfwd6::check
