// The allocator: sizes, limits, enumeration, and its place in other journal groups.
#include <algorithm>
#include <random>
#include <thread>

#include "services/journal/journal.h"
#include "tests/services/window/support.h"

namespace {

using namespace window_test;
using mfwd6::journal::group;

class WindowHeap : public WindowTest {
  protected:
    WindowHeap() { o_ = open_as(true); }
    ~WindowHeap() override { o_.close(); }

    void *take(size_t size) {
        void *block = nullptr;
        EXPECT_EQ(shmwin_malloc(o_.id, size, &block), 0U);
        return block;
    }

    uint64_t used() {
        shmwin_usage u;
        EXPECT_EQ(shmwin_get_usage(o_.id, &u), 0U);
        return u.used;
    }

    opened o_;
};

TEST_F(WindowHeap, EverySizeGivesAnAlignedBlockThatHoldsIt) {
    std::vector<void *> taken;
    for (size_t size = 0; size <= 70000; size += size < 2000 ? 1 : 997) {
        void *block = take(size);
        ASSERT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0U);
        std::memset(block, static_cast<int>(size), size);
        shmwin_block found;
        ASSERT_EQ(shmwin_find_block(block, &found), 0U);
        EXPECT_EQ(found.address, block);
        EXPECT_GE(found.size, size);
        taken.push_back(block);
    }
    EXPECT_TRUE(whole(o_.id));
    EXPECT_EQ(live_blocks(o_.id).size(), taken.size());
    for (void *block : taken) {
        ASSERT_EQ(shmwin_free(block), 0U);
    }
    EXPECT_EQ(used(), 0U);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowHeap, SecondFreeAndForeignAddressesAreRefused) {
    void *small = take(100);
    void *large = take(100000);
    void *keep = take(100);
    EXPECT_EQ(shmwin_free(static_cast<char *>(small) + 16), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(shmwin_free(static_cast<char *>(large) + 32768), SHMWIN_ERR_BAD_BLOCK);
    int local = 0;
    EXPECT_EQ(shmwin_free(&local), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(shmwin_free(nullptr), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(shmwin_free(o_.header), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(shmwin_free(small), 0U);
    EXPECT_EQ(shmwin_free(small), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(shmwin_free(large), 0U);
    EXPECT_EQ(shmwin_free(large), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(shmwin_free(keep), 0U);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowHeap, BlocksShowTheirFirstWords) {
    auto *block = static_cast<uint64_t *>(take(64));
    block[0] = 11;
    block[3] = 44;
    shmwin_block found;
    ASSERT_EQ(shmwin_find_block(block, &found), 0U);
    EXPECT_EQ(found.words[0], 11U);
    EXPECT_EQ(found.words[3], 44U);
    auto *big = static_cast<char *>(take(200000));
    ASSERT_EQ(shmwin_find_block(big + 150000, &found), 0U);
    EXPECT_EQ(found.address, big);
}

TEST_F(WindowHeap, WalkShowsFreeMemoryWhenAsked) {
    void *a = take(10000);
    take(10000);
    ASSERT_EQ(shmwin_free(a), 0U);
    size_t bytes[2] = {};
    const auto add = [](const shmwin_block *b, void *context) {
        static_cast<size_t *>(context)[b->live] += b->size;
        return 0;
    };
    ASSERT_EQ(shmwin_each_block(o_.id, 1, add, bytes), 0U);
    EXPECT_EQ(bytes[1], used());
    EXPECT_GE(bytes[0], 10000U);
}

TEST_F(WindowHeap, OutOfSpaceChangesNothingAndEnds) {
    ASSERT_EQ(shmwin_set_growth_limit(o_.id, 2 << 20), 0U);
    std::vector<void *> taken;
    void *block = nullptr;
    while (shmwin_malloc(o_.id, 5000, &block) == 0) {
        taken.push_back(block);
    }
    const uint64_t full = used();
    void *const untouched = block;
    EXPECT_EQ(shmwin_malloc(o_.id, 5000, &block), SHMWIN_ERR_SPACE);
    EXPECT_EQ(shmwin_malloc(o_.id, size_t{1} << 30, &block), SHMWIN_ERR_SPACE);
    EXPECT_EQ(shmwin_malloc(o_.id, ~size_t{0}, &block), SHMWIN_ERR_SPACE);
    EXPECT_EQ(block, untouched);
    EXPECT_EQ(used(), full);
    EXPECT_TRUE(whole(o_.id));
    ASSERT_EQ(shmwin_free(taken.back()), 0U);
    EXPECT_EQ(shmwin_malloc(o_.id, 5000, &block), 0U);
    ASSERT_EQ(shmwin_set_growth_limit(o_.id, 0), 0U);
    EXPECT_EQ(shmwin_malloc(o_.id, 5 << 20, &block), 0U);
}

TEST_F(WindowHeap, AllIsFoundAgainAfterChurn) {
    std::mt19937 random(7);
    std::vector<std::pair<void *, size_t>> live;
    for (int step = 0; step < 60000; ++step) {
        if (live.empty() || random() % 100 < 52) {
            const size_t size = random() % 20 == 0 ? random() % 200000 : random() % 1000;
            void *block = take(size);
            std::memset(block, static_cast<int>(size & 0xff), size);
            live.push_back({block, size});
        } else {
            std::swap(live[random() % live.size()], live.back());
            const auto [block, size] = live.back();
            const auto *bytes = static_cast<unsigned char *>(block);
            ASSERT_TRUE(std::all_of(bytes, bytes + size,
                                    [mark = size & 0xff](unsigned char c) { return c == mark; }));
            ASSERT_EQ(shmwin_free(block), 0U);
            live.pop_back();
        }
        if (step % 5000 == 0) {
            ASSERT_TRUE(whole(o_.id));
            ASSERT_EQ(live_blocks(o_.id).size(), live.size());
        }
    }
    for (const auto &[block, size] : live) {
        ASSERT_EQ(shmwin_free(block), 0U);
    }
    EXPECT_EQ(used(), 0U);
    EXPECT_TRUE(whole(o_.id));
    size_t in_slabs = 0;
    const auto add = [](const shmwin_block *b, void *context) {
        *static_cast<size_t *>(context) += b->size <= 16384 ? b->size : 0;
        return 0;
    };
    ASSERT_EQ(shmwin_each_block(o_.id, 1, add, &in_slabs), 0U);
    EXPECT_LE(in_slabs, size_t{48} * 32768) << "one empty slab of each size may stay";
}

TEST_F(WindowHeap, AllocationGoesBackWhenItsGroupIsUndone) {
    const uint64_t before = used();
    {
        group g;
        ASSERT_TRUE(g.journaled());
        take(500);
        take(50000);
        EXPECT_GT(used(), before);
        EXPECT_TRUE(g.undo());
        EXPECT_EQ(used(), before);
    }
    EXPECT_EQ(used(), before);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowHeap, FreeWaitsForItsGroup) {
    void *block = take(500);
    std::memset(block, 0x55, 500);
    const uint64_t before = used();
    {
        group g;
        ASSERT_EQ(shmwin_free(block), 0U);
        EXPECT_EQ(used(), before);
        EXPECT_TRUE(g.undo());
    }
    EXPECT_EQ(used(), before);
    {
        const group g;
        ASSERT_EQ(shmwin_free(block), 0U);
        EXPECT_EQ(static_cast<char *>(block)[499], 0x55);
    }
    EXPECT_LT(used(), before);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowHeap, GroupThatOutgrowsItsLogStillFrees) {
    std::vector<void *> taken;
    for (int i = 0; i < 40000; ++i) {
        taken.push_back(take(100));
    }
    {
        const group g;
        for (void *block : taken) {
            ASSERT_EQ(shmwin_free(block), 0U);
        }
    }
    EXPECT_EQ(used(), 0U);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowHeap, ThreadsAllocateTogether) {
    const auto work = [this](unsigned seed) {
        std::mt19937 random(seed);
        std::vector<uint64_t *> live;
        for (int i = 0; i < 20000; ++i) {
            if (live.size() < 50 || random() % 2 == 0) {
                void *block = nullptr;
                ASSERT_EQ(shmwin_malloc(o_.id, 16 + random() % 500, &block), 0U);
                live.push_back(static_cast<uint64_t *>(block));
                live.back()[0] = seed;
            } else {
                ASSERT_EQ(live.back()[0], seed);
                ASSERT_EQ(shmwin_free(live.back()), 0U);
                live.pop_back();
            }
        }
        for (uint64_t *block : live) {
            ASSERT_EQ(block[0], seed);
            ASSERT_EQ(shmwin_free(block), 0U);
        }
    };
    std::thread a(work, 1), b(work, 2), c(work, 3);
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(used(), 0U);
    EXPECT_TRUE(whole(o_.id));
}

}  // namespace
