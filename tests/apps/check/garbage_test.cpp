// A walk over any garbage ends, and ends in findings.
#include <unistd.h>

#include <random>

#include "services/window/inspect.h"
#include "services/window/layout.h"
#include "services/window/setup.h"
#include "tests/apps/check/rich_state.h"

using mfwd6::check::check_window;
using mfwd6::check::report;

namespace {

constexpr unsigned most_seconds = 250;

struct words {
    std::vector<uint64_t *> at;
};

int collect(const shmwin_block *block, void *context) {
    auto *all = static_cast<words *>(context);
    auto *first = static_cast<uint64_t *>(block->address);
    for (size_t i = 0; i < block->size / sizeof(uint64_t) && i < 200; ++i) {
        all->at.push_back(first + i);
    }
    return 0;
}

words words_of_window() {
    words all;
    shmwin_each_block(ipv4mc_desc->shmwin_id, 0, collect, &all);
    auto *header = reinterpret_cast<uint64_t *>(rig::header());
    for (size_t i = 0; i < sizeof(ipv4mc_shmwin_hdr_st) / sizeof(uint64_t); ++i) {
        all.at.push_back(header + i);
    }
    return all;
}

// What the allocator knows of its heap: bookkeeping of spans and the state of the heap.
words words_of_heap() {
    words all;
    void *base = nullptr;
    size_t size = 0;
    shmwin_platform_info(IP6MC_SHMWIN_NAME, &base, &size);
    auto *super = static_cast<mfwd6::window::superblock *>(base);
    auto *state = reinterpret_cast<uint64_t *>(&super->heap);
    for (size_t i = 0; i < sizeof(super->heap) / sizeof(uint64_t); ++i) {
        all.at.push_back(state + i);
    }
    auto *spans = reinterpret_cast<uint64_t *>(static_cast<char *>(base) + super->id.spans_offset);
    for (size_t i = 0; i < super->heap.top * sizeof(mfwd6::window::span) / sizeof(uint64_t); ++i) {
        all.at.push_back(spans + i);
    }
    return all;
}

uint64_t bad_value(std::mt19937_64 &random, const words &all, uint64_t old) {
    switch (random() % 7) {
        case 0:
            return 0;
        case 1:
            return random();
        case 2:
            return reinterpret_cast<uint64_t>(all.at[random() % all.at.size()]);
        case 3:
            return *all.at[random() % all.at.size()];
        case 4:
            return old ^ (uint64_t{1} << (random() % 64));
        case 5:
            return old + 8;
        default:
            return random() % 4096;
    }
}

// Damages up to eight words at a time and heals them behind the walk. How many walks had findings.
uint32_t damage(std::mt19937_64 &random, const words &all, uint32_t times, bool live) {
    mfwd6::check::options how;
    how.live = live;
    how.rounds = 2;
    how.pause_ms = 0;
    uint32_t found = 0;
    for (uint32_t n = 0; n < times; ++n) {
        std::vector<std::pair<uint64_t *, uint64_t>> before;
        const uint64_t count = 1 + random() % 8;
        for (uint64_t i = 0; i < count; ++i) {
            uint64_t *at = all.at[random() % all.at.size()];
            before.emplace_back(at, *at);
            *at = bad_value(random, all, *at);
        }
        found += check_window(how).clean() ? 0U : 1U;
        for (auto each = before.rbegin(); each != before.rend(); ++each) {
            *each->first = each->second;
        }
    }
    return found;
}

}  // namespace

TEST(CheckOfGarbage, Ends) {
    alarm(most_seconds);  // a loop ends the test
    rich::state state;
    const words all = words_of_window();
    std::mt19937_64 random(1);
    EXPECT_GT(damage(random, all, 1500, false), 700U);
    EXPECT_EQ(rich::lines(check_window()), "");
    EXPECT_GT(damage(random, all, 500, true), 200U);
    EXPECT_EQ(rich::lines(check_window()), "");
    alarm(0);
}

TEST(CheckOfGarbage, EndsWhateverTheHeapSays) {
    alarm(most_seconds);
    rich::state state;
    const words all = words_of_heap();
    std::mt19937_64 random(2);
    EXPECT_GT(damage(random, all, 1500, false), 700U);
    EXPECT_EQ(rich::lines(check_window()), "");
    alarm(0);
}
