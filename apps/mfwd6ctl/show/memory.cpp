// show memory: how full the window is, and of what.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/interrupts.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/window/attach.h"
#include "ipv4/multicast/lib/multicast_alloc.h"
#include "services/window/epochs.h"

namespace ctl {
namespace {

struct type_usage {
    uint32_t counted = 0;  // blocks in use, as the counters of the window say
    uint64_t blocks = 0;   // in use, as found in the heap
    uint64_t bytes = 0;
    uint64_t freed_blocks = 0;  // in the pool of freed blocks, or kept for readers
    uint64_t freed_bytes = 0;
};

struct memory {
    shmwin_usage usage{};
    shmwin_epoch_state epochs{};
    uint64_t pooled = 0;  // blocks in the pool of freed blocks
    std::array<type_usage, IPMC_SHMWIN_ALLOC_TYPES> types{};
    type_usage own;  // blocks without a guard: the window service's and the library's own
    std::unordered_set<const void *> freed;
};

int note_freed(void *block, void *context) {
    static_cast<memory *>(context)->freed.insert(block);
    return interrupted() ? 1 : 0;
}

// The owner may be changing the bucket: a link is followed to a live block only, and no further
// than the bucket says.
void note_bucket(const ipmc_shmwin_pool_bucket_st &bucket, memory *m) {
    auto at = reinterpret_cast<const void *>(bucket.head);
    shmwin_block block{};
    for (uint32_t n = bucket.count; n > 0 && shmwin_find_block(at, &block) == 0; --n) {
        m->freed.insert(block.address);
        ipmc_shmwin_guard_st guard;
        std::memcpy(&guard, block.words, sizeof(guard));
        at = reinterpret_cast<const void *>(guard.pool_link);
    }
    m->pooled += bucket.count;
}

int count_block(const shmwin_block *block, void *context) {
    auto &m = *static_cast<memory *>(context);
    ipmc_shmwin_guard_st guard;
    std::memcpy(&guard, block->words, sizeof(guard));
    const bool typed =
        guard.magic == IPMC_SHMWIN_MAGIC_LIVE && guard.type < IPMC_SHMWIN_ALLOC_TYPES;
    type_usage &usage = typed ? m.types[guard.type] : m.own;
    const bool freed = m.freed.contains(block->address);
    ++(freed ? usage.freed_blocks : usage.blocks);
    (freed ? usage.freed_bytes : usage.bytes) += block->size;
    return interrupted() ? 1 : 0;
}

memory read_memory(const window &w) {
    memory m;
    shmwin_get_usage(w.id(), &m.usage);
    shmwin_get_epochs(w.id(), &m.epochs);
    const ipv4mc_shmwin_hdr_st &header = w.header();
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        m.types[type].counted = ipmc_shmwin_live_blocks(&header, type);
    }
    // Untyped blocks are counted under one number and marked with another.
    m.types[IPMC_SHMWIN_ALLOC_UNTYPED].counted = m.types[IPMC_SHMWIN_ALLOC_UNTYPED_COUNT].counted;
    m.types[IPMC_SHMWIN_ALLOC_UNTYPED_COUNT] = {};
    if (const ipmc_shmwin_pool_bucket_st *pool = header.buffer_pool; pool != nullptr) {
        for (uint32_t n = 0; n < IPMC_SHMWIN_POOL_BUCKETS; ++n) {
            note_bucket(pool[n], &m);
        }
    }
    shmwin_each_deferred(w.id(), note_freed, &m);
    shmwin_each_block(w.id(), 0, count_block, &m);
    stop_if_interrupted();
    return m;
}

bool is_used(const type_usage &usage) {
    return usage.counted != 0 || usage.blocks != 0 || usage.freed_blocks != 0;
}

// What takes most room comes first.
std::vector<uint32_t> types_by_room(const memory &m) {
    std::vector<uint32_t> types;
    for (uint32_t type = 0; type < m.types.size(); ++type) {
        if (is_used(m.types[type])) {
            types.push_back(type);
        }
    }
    std::stable_sort(types.begin(), types.end(),
                     [&m](uint32_t a, uint32_t b) { return m.types[a].bytes > m.types[b].bytes; });
    return types;
}

json to_json(const memory &m) {
    json j;
    j["used"] = m.usage.used;
    j["peak"] = m.usage.peak;
    j["committed"] = m.usage.committed;
    j["limit"] = m.usage.limit;
    j["pooled_blocks"] = m.pooled;
    j["kept_for_readers"] = m.epochs.deferred + m.epochs.held;
    j["readers"] = m.epochs.readers;
    j["readers_waited_for"] = m.epochs.waiting;
    j["types"] = json::array();
    for (uint32_t type = 0; type < m.types.size(); ++type) {
        const type_usage &u = m.types[type];
        if (is_used(u)) {
            j["types"].push_back({{"type", type},
                                  {"name", allocation_type_name(type)},
                                  {"counted", u.counted},
                                  {"blocks", u.blocks},
                                  {"bytes", u.bytes},
                                  {"freed_blocks", u.freed_blocks},
                                  {"freed_bytes", u.freed_bytes}});
        }
    }
    j["unmarked_blocks"] = m.own.blocks;
    j["unmarked_bytes"] = m.own.bytes;
    return j;
}

void line(const char *name, const std::string &value) {
    put(fmt::format("{:<18} {}\n", name, value));
}

std::string share_text(uint64_t part, uint64_t whole) {
    const double percent =
        whole != 0 ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0;
    return fmt::format("{} ({:.1f}% of the limit)", bytes_text(part), percent);
}

void write_text(const memory &m) {
    line("used", share_text(m.usage.used, m.usage.limit));
    line("peak", bytes_text(m.usage.peak));
    line("committed", share_text(m.usage.committed, m.usage.limit));
    line("limit", bytes_text(m.usage.limit));
    line("pool", fmt::format("{} freed blocks", m.pooled));
    line("kept for readers",
         fmt::format("{} blocks; {} readers in a step, {} of them waited for",
                     m.epochs.deferred + m.epochs.held, m.epochs.readers, m.epochs.waiting));
    put("\n");
    text_table table({"TYPE", ">NUMBER", ">COUNTED", ">BLOCKS", ">BYTES", ">FREED"});
    for (const uint32_t type : types_by_room(m)) {
        const type_usage &u = m.types[type];
        table.add({allocation_type_name(type), std::to_string(type),
                   std::to_string(static_cast<int32_t>(u.counted)), std::to_string(u.blocks),
                   bytes_text(u.bytes), bytes_text(u.freed_bytes)});
    }
    table.add({"without a mark", "-", "-", std::to_string(m.own.blocks), bytes_text(m.own.bytes),
               bytes_text(m.own.freed_bytes)});
    table.end();
}

void show_memory(const options &how) {
    const window w(how, need::header);
    const memory m = read_memory(w);
    if (how.json) {
        put_json(to_json(m));
    } else {
        write_text(m);
    }
}

}  // namespace

void add_show_memory(CLI::App &show, const options &how) {
    CLI::App *command =
        show.add_subcommand("memory", "Use, peak and limit of the window; its blocks by type");
    command->alias("counters");
    command->footer(
        "BLOCKS and BYTES are in use, what takes most room first. FREED is in the pool of freed\n"
        "blocks, or kept for readers. COUNTED is what the window's counters say: BLOCKS, unless\n"
        "something changes meanwhile. Works in a full window.\n\n"
        "Examples:\n  mfwd6ctl show memory\n  mfwd6ctl show memory --json");
    command->callback([&how] { show_memory(how); });
}

}  // namespace ctl
