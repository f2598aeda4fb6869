#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>

#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/journal/journal.h"
#include "services/window/inspect.h"
#include "services/window/setup.h"
#include "tests/kit/child.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"
#include "tests/kit/service_faults.h"
#include "tests/kit/window_check.h"

using lines = std::vector<std::string>;

namespace {

struct hooked_block {
    ipmc_shmwin_guard_st *guard;
    int typed;
};
std::vector<hooked_block> hooked;

void keep_block(void *block, int typed) {
    hooked.push_back({static_cast<ipmc_shmwin_guard_st *>(block), typed});
}

ipmc_shmwin_guard_st *guard_of(void *pointer) {
    return static_cast<ipmc_shmwin_guard_st *>(pointer) - 1;
}

ipv4mc_shmwin_hdr_st &header() {
    return *ipv4mc_desc->shmwin_info;
}

bool all_zero(const void *memory, size_t size) {
    const auto *bytes = static_cast<const unsigned char *>(memory);
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

constexpr ipmc_shmwin_alloc_type some_type = IPMC_SHMWIN_ALLOC_BUNDLE;

class Allocator : public ::testing::Test {
  protected:
    Allocator() {
        sim_reset();
        kit::heal_services();
        hooked.clear();
        owner_.emplace();
        heard_.clear();
    }

    void expect_whole() const { EXPECT_EQ(kit::window_faults(), lines{}); }

    kit::run_dir dir_;
    kit::listener heard_;
    std::optional<kit::library> owner_;
};

}  // namespace

TEST_F(Allocator, ABlockIsZeroGuardedAndCounted) {
    void *block = ipv4mc_shmwin_malloc_inline(100, some_type);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(all_zero(block, 100));
    EXPECT_EQ(guard_of(block)->size, 100U);
    EXPECT_EQ(guard_of(block)->type, some_type);
    EXPECT_EQ(guard_of(block)->magic, 0xaaaabbbbU);
    EXPECT_EQ(guard_of(block)->pool_link, 0U);
    EXPECT_EQ(header().alloc_count[some_type], 1U);
    expect_whole();
    EXPECT_EQ(ipv4mc_shmwin_free_inline(block, some_type), 0U);
    EXPECT_EQ(header().alloc_count[some_type], 0U);
    EXPECT_EQ(header().buffer_pool[100].count, 1U);
    EXPECT_EQ(guard_of(block)->magic, 0xaaaabbbbU);
    expect_whole();
}

TEST_F(Allocator, AnUntypedBlockSays35AndCountsIn20) {
    void *block = ip6mc_shmwin_malloc(40);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(guard_of(block)->type, 35U);
    EXPECT_EQ(header().alloc_count[20], 1U);
    EXPECT_EQ(header().alloc_count[35], 0U);
    expect_whole();
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    EXPECT_EQ(header().alloc_count[20], 0U);
    expect_whole();
}

TEST_F(Allocator, TheWallBetweenPoolAndServiceIs512) {
    void *in = ip6mc_shmwin_malloc(512);
    void *out = ip6mc_shmwin_malloc(513);
    const uint32_t freed = header().free_count;
    EXPECT_EQ(ip6mc_shmwin_free(in), 0U);
    EXPECT_EQ(header().buffer_pool[512].count, 1U);
    EXPECT_EQ(header().free_count, freed);
    EXPECT_EQ(ip6mc_shmwin_free(out), 0U);
    EXPECT_EQ(header().free_count, freed + 1);
    EXPECT_EQ(ip6mc_shmwin_malloc(512), in);
    EXPECT_EQ(header().buffer_pool[512].reuse_count, 1U);
    expect_whole();
}

TEST_F(Allocator, SizeZeroIsABlockOfBucketZero) {
    void *block = ipv4mc_shmwin_malloc_inline(0, some_type);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(guard_of(block)->size, 0U);
    EXPECT_EQ(ipv4mc_shmwin_free_inline(block, some_type), 0U);
    EXPECT_EQ(header().buffer_pool[0].count, 1U);
    EXPECT_EQ(ipv4mc_shmwin_malloc_inline(0, some_type), block);
    EXPECT_EQ(header().buffer_pool[0].count, 0U);
    expect_whole();
}

TEST_F(Allocator, ThePoolKnowsExactSizesOnly) {
    void *block = ip6mc_shmwin_malloc(100);
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    EXPECT_NE(ip6mc_shmwin_malloc(99), block);
    EXPECT_NE(ip6mc_shmwin_malloc(101), block);
    EXPECT_EQ(header().buffer_pool[100].count, 1U);
}

TEST_F(Allocator, ABlockOfThePoolIsZeroedAndRetyped) {
    void *block = ip6mc_shmwin_malloc(100);
    void *other = ip6mc_shmwin_malloc(100);
    memset(block, 0x55, 100);
    EXPECT_EQ(ip6mc_shmwin_free(other), 0U);
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    ASSERT_EQ(ipv4mc_shmwin_malloc_inline(100, some_type), block);  // last in, first out
    EXPECT_TRUE(all_zero(block, 100));
    EXPECT_EQ(guard_of(block)->type, some_type);
    EXPECT_EQ(guard_of(block)->pool_link, 0U);
    EXPECT_EQ(header().alloc_count[some_type], 1U);
    expect_whole();
}

TEST_F(Allocator, ThePoolCanBeSwitchedOffAndKeepsWhatItHolds) {
    void *pooled = ip6mc_shmwin_malloc(100);
    void *block = ip6mc_shmwin_malloc(100);
    EXPECT_EQ(ip6mc_shmwin_free(pooled), 0U);
    EXPECT_EQ(ip6mc_shmwin_buffer_status(0), 0);
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    EXPECT_EQ(header().free_count, 1U);
    EXPECT_EQ(guard_of(pooled)->pool_link, 0U);
    EXPECT_EQ(header().buffer_pool[100].count, 1U);
    EXPECT_NE(ip6mc_shmwin_malloc(100), pooled);
    EXPECT_EQ(ip6mc_shmwin_buffer_status(-7), 1);
    EXPECT_EQ(ip6mc_shmwin_malloc(100), pooled);
    expect_whole();
}

TEST_F(Allocator, TheCountNeverGoesBelowZero) {
    void *block = ipv4mc_shmwin_malloc_inline(8, some_type);
    EXPECT_EQ(ipv4mc_shmwin_free_inline(block, IPMC_SHMWIN_ALLOC_VLAN), 0U);
    EXPECT_EQ(header().alloc_count[IPMC_SHMWIN_ALLOC_VLAN], 0U);
    EXPECT_EQ(header().alloc_count[some_type], 1U);
}

TEST_F(Allocator, AnUntypedFreeOfAFreedBlockReportsAndFreesAgain) {
    ip6mc_shmwin_buffer_status(0);
    void *block = ip6mc_shmwin_malloc(40);
    void *kept = ip6mc_shmwin_malloc(40);
    guard_of(block)->magic = IPMC_SHMWIN_MAGIC_FREED;
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    char text[128];
    snprintf(text, sizeof(text), "!!BAD!! ptr free %p (type 0x23 size 0x28)", block);
    EXPECT_EQ(heard_.errors(), lines{text});
    EXPECT_EQ(header().free_count, 1U);
    // Any other bad word goes unnoticed.
    guard_of(kept)->magic = 17;
    EXPECT_EQ(ip6mc_shmwin_free(kept), 0U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(header().free_count, 2U);
    expect_whole();
}

TEST_F(Allocator, ASecondFreeOfAPooledBlockGoesUnnoticed) {
    void *block = ip6mc_shmwin_malloc(40);
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_FALSE(kit::window_faults().empty());  // and this is what comes of it
    header().buffer_pool[40].head = 0;
    header().buffer_pool[40].count = 0;
}

TEST_F(Allocator, AServiceThatRefusesAFreeIsReportedAndNotReturned) {
    ip6mc_shmwin_buffer_status(0);
    void *block = ip6mc_shmwin_malloc(40);
    kit::fail_service("shmwin_free", EIO);
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    char text[128];
    snprintf(text, sizeof(text), "Cannot free pointer %p from shared memory 5: Input/output error",
             static_cast<void *>(guard_of(block)));
    EXPECT_EQ(heard_.errors(), lines{text});
    EXPECT_EQ(guard_of(block)->magic, 0xdeadbeefU);
    EXPECT_EQ(header().free_count, 1U);
}

TEST_F(Allocator, AFullWindowGivesNullAndChangesNothing) {
    ASSERT_EQ(shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 1), 0U);
    uint32_t taken = 0;
    void *block = nullptr;
    while ((block = ip6mc_shmwin_malloc(100000)) != nullptr) {
        ++taken;
    }
    char text[128];
    snprintf(text, sizeof(text), "Cannot Allocate 100000 bytes from shared memory %d: %s",
             static_cast<int>(SHMWIN_ERR_SPACE), shmwin_strerror(SHMWIN_ERR_SPACE));
    EXPECT_EQ(heard_.errors(), lines{text});
    EXPECT_EQ(header().alloc_count[20], taken);
    EXPECT_EQ(ipv4mc_shmwin_malloc_inline(SIZE_MAX - 3, some_type), nullptr);
    EXPECT_EQ(ipmc_shmwin_avl_calloc(SIZE_MAX, 2), nullptr);
    EXPECT_EQ(heard_.errors().size(), 2U);
    expect_whole();
}

TEST_F(Allocator, NullAndUnknownTypesAreRefused) {
    EXPECT_EQ(ipv4mc_shmwin_malloc_inline(8, IPMC_SHMWIN_ALLOC_TYPES), nullptr);
    EXPECT_EQ(ipv4mc_shmwin_free_inline(nullptr, some_type), 22U);
    EXPECT_EQ(ip6mc_shmwin_free(nullptr), 22U);
    EXPECT_EQ(ip6mc_shmwin_free_final(nullptr), 22U);
    EXPECT_EQ(heard_.errors(),
              (lines{"No such type of block: 36", "NULL pointer", "NULL pointer", "NULL pointer"}));
    expect_whole();
}

TEST_F(Allocator, EveryEntryRefusesAClosedWindow) {
    owner_.reset();
    heard_.clear();
    char memory[64];
    EXPECT_EQ(ipv4mc_shmwin_malloc_inline(8, some_type), nullptr);
    EXPECT_EQ(ip6mc_shmwin_malloc(8), nullptr);
    EXPECT_EQ(ipv4mc_shmwin_free_inline(memory + 32, some_type), 9U);
    EXPECT_EQ(ip6mc_shmwin_free(memory + 32), 9U);
    EXPECT_EQ(ip6mc_shmwin_free_final(memory), 9U);
    ip6mc_shmwin_memory_releaser();
    EXPECT_EQ(ipmc_shmwin_avl_calloc(1, 8), nullptr);
    EXPECT_EQ(ipmc_shmwin_avl_free(memory + 32), 9U);
    EXPECT_EQ(ipmc_shmwin_wavl_malloc(8), nullptr);
    EXPECT_EQ(ipmc_shmwin_wavl_free(memory + 32), 9U);
    EXPECT_EQ(heard_.errors(), lines(10, "Shared Memory Window Not Initialized"));
}

TEST_F(Allocator, TreesHaveTypesOfTheirOwn) {
    const uint32_t avl_before = header().alloc_count[11];
    void *avl = ipmc_shmwin_avl_calloc(3, 16);
    void *wavl = ipmc_shmwin_wavl_malloc(16);
    EXPECT_EQ(guard_of(avl)->size, 48U);
    EXPECT_EQ(guard_of(avl)->type, 11U);
    EXPECT_EQ(guard_of(wavl)->type, 12U);
    EXPECT_EQ(header().alloc_count[11], avl_before + 1);
    EXPECT_EQ(header().alloc_count[12], 1U);
    EXPECT_EQ(ipmc_shmwin_avl_free(avl), 0U);
    EXPECT_EQ(ipmc_shmwin_wavl_free(wavl), 0U);
    EXPECT_EQ(header().alloc_count[11], avl_before);
    EXPECT_EQ(header().alloc_count[12], 0U);
}

TEST_F(Allocator, TheHookGetsWhatPassesThePoolAndEndsItItself) {
    ipv4mc_desc->free_hook = keep_block;
    void *small = ip6mc_shmwin_malloc(10);
    void *typed = ipv4mc_shmwin_malloc_inline(600, some_type);
    void *untyped = ip6mc_shmwin_malloc(600);
    EXPECT_EQ(ip6mc_shmwin_free(small), 0U);
    EXPECT_TRUE(hooked.empty());
    EXPECT_EQ(ipv4mc_shmwin_free_inline(typed, some_type), 0U);
    EXPECT_EQ(ip6mc_shmwin_free(untyped), 0U);
    ASSERT_EQ(hooked.size(), 2U);
    EXPECT_EQ(hooked[0].guard, guard_of(typed));
    EXPECT_EQ(hooked[0].typed, 1);
    EXPECT_EQ(hooked[1].guard, guard_of(untyped));
    EXPECT_EQ(hooked[1].typed, 0);
    EXPECT_EQ(header().free_count, 0U);
    EXPECT_EQ(header().alloc_count[20], 0U);
    EXPECT_EQ(guard_of(typed)->magic, 0xaaaabbbbU);
    for (const hooked_block &block : hooked) {
        EXPECT_EQ(ip6mc_shmwin_free_final(block.guard), 0U);
    }
    EXPECT_EQ(header().free_count, 0U);
    expect_whole();
    EXPECT_EQ(ip6mc_shmwin_free_final(hooked[0].guard), SHMWIN_ERR_BAD_BLOCK);
    const lines reports = heard_.errors();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_TRUE(reports[0].starts_with("Cannot free pointer 0x")) << reports[0];
    ipv4mc_desc->free_hook = nullptr;
}

namespace {

void pool_blocks(size_t size, uint32_t count) {
    std::vector<void *> blocks(count);
    for (void *&block : blocks) {
        block = ip6mc_shmwin_malloc(size);
        ASSERT_NE(block, nullptr);
    }
    for (void *block : blocks) {
        ASSERT_EQ(ip6mc_shmwin_free(block), 0U);
    }
}

}  // namespace

TEST_F(Allocator, TheReleaserKeepsHalfOfEachBucketUpToACapBySize) {
    struct {
        size_t size;
        uint32_t count;
        uint32_t kept;
    } const rows[] = {{0, 1, 0},         {1, 2, 1},         {7, 3, 1},
                      {65, 16500, 8192}, {66, 5000, 2048},  {256, 5000, 2048},
                      {257, 2500, 1024}, {512, 2500, 1024}, {300, 2000, 1000}};
    uint32_t freed = 0;
    for (const auto &row : rows) {
        pool_blocks(row.size, row.count);
        freed += row.count - row.kept;
    }
    const uint32_t before = header().free_count;
    ip6mc_shmwin_memory_releaser();
    for (const auto &row : rows) {
        EXPECT_EQ(header().buffer_pool[row.size].count, row.kept) << row.size;
    }
    EXPECT_EQ(header().free_count, before + freed);
    EXPECT_EQ(heard_.errors(), lines{});
    expect_whole();
}

TEST_F(Allocator, TheReleaserGivesToTheHook) {
    pool_blocks(100, 5);
    ipv4mc_desc->free_hook = keep_block;
    ip6mc_shmwin_memory_releaser();
    EXPECT_EQ(hooked.size(), 3U);
    for (const hooked_block &block : hooked) {
        EXPECT_EQ(block.typed, 0);
        EXPECT_EQ(ip6mc_shmwin_free_final(block.guard), 0U);
    }
    EXPECT_EQ(header().buffer_pool[100].count, 2U);
    EXPECT_EQ(header().free_count, 0U);
    ipv4mc_desc->free_hook = nullptr;
    expect_whole();
}

TEST_F(Allocator, TheReleaserGoesOnWhenTheServiceRefuses) {
    pool_blocks(100, 4);
    kit::fail_service("shmwin_free", EIO, 2);
    ip6mc_shmwin_memory_releaser();
    EXPECT_EQ(header().buffer_pool[100].count, 2U);
    EXPECT_EQ(heard_.errors().size(), 2U);
}

TEST_F(Allocator, AStartBehindAFailedOneEmptiesThePoolUnlessTold) {
    pool_blocks(100, 4);
    pool_blocks(0, 2);
    EXPECT_EQ(ip6mc_shmwin_open(1, 0), 0U);
    EXPECT_EQ(ip6mc_shmwin_open(0, 1), 0U);
    EXPECT_EQ(ip6mc_shmwin_open(1, 1), 0U);
    EXPECT_EQ(kit::pooled_blocks(), 6U);
    EXPECT_EQ(ip6mc_shmwin_open(0, 0), 0U);
    EXPECT_EQ(kit::pooled_blocks(), 0U);
    EXPECT_EQ(header().buffer_pool[100].count, 0U);
    EXPECT_EQ(header().free_count, 6U);
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_EV),
              (lines{"Shmwin already initialized [Y] [N]", "Shmwin already initialized [N] [Y]",
                     "Shmwin already initialized [Y] [Y]", "Shmwin already initialized [N] [N]",
                     "initialising buffer pool"}));
    expect_whole();
}

TEST_F(Allocator, ABlockFreedInAChangeIsNotReusedInIt) {
    void *block = ip6mc_shmwin_malloc(100);
    memset(block, 0x55, 100);
    {
        mfwd6::journal::group change;
        ASSERT_TRUE(change.journaled());
        EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
        void *other = ip6mc_shmwin_malloc(100);
        EXPECT_NE(other, block);
        ASSERT_TRUE(change.undo());
    }
    // The change never was: the block lives and holds what it held.
    EXPECT_EQ(static_cast<unsigned char *>(block)[99], 0x55);
    EXPECT_EQ(guard_of(block)->magic, 0xaaaabbbbU);
    EXPECT_EQ(header().buffer_pool[100].count, 0U);
    EXPECT_EQ(header().alloc_count[20], 1U);
    expect_whole();
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    EXPECT_EQ(ip6mc_shmwin_malloc(100), block);
}

TEST_F(Allocator, AnUndoneAllocationGoesBackToWhereItCameFrom) {
    pool_blocks(100, 1);
    const uint32_t reused = header().buffer_pool[100].reuse_count;
    {
        mfwd6::journal::group change;
        void *pooled = ip6mc_shmwin_malloc(100);
        memset(pooled, 0x55, 100);
        ASSERT_NE(ip6mc_shmwin_malloc(700), nullptr);
        ASSERT_TRUE(change.undo());
    }
    EXPECT_EQ(header().buffer_pool[100].count, 1U);
    EXPECT_EQ(header().buffer_pool[100].reuse_count, reused);
    EXPECT_EQ(header().alloc_count[20], 0U);
    expect_whole();
}

// These fork and open a window in the child: they come without one of their own.
TEST(AllocatorDeath, ATypedFreeOfABadGuardStopsTheProcess) {
    for (const uint32_t magic : {0xdeadbeefU, 0U, 0xaaaabbbaU}) {
        const kit::run_dir dir;
        kit::child process([&](const kit::post &parent) {
            const kit::library owner;
            void *block = ipv4mc_shmwin_malloc_inline(0x28, IPMC_SHMWIN_ALLOC_ROUTE);
            guard_of(block)->magic = magic;
            kit::listener heard;
            ipv4_debug_set_sink(
                [](void *line, uint32_t debug_class, const char *, const char *text) {
                    const auto *out = static_cast<const kit::post *>(line);
                    const std::string bad = "!!BAD!! ptr free 0x";
                    const std::string end = "                 (type 0x9 size 0x28)";
                    if (debug_class == IPV4_DEBUG_ERR && std::string(text).starts_with(bad)) {
                        out->tell(std::string(text).ends_with(end) ? 'B' : 'b');
                    }
                    if (debug_class == IPV4_DEBUG_ERR &&
                        std::string(text) == "Assertion `guard->magic == 0xaaaabbbb' failed") {
                        out->tell('A');
                    }
                },
                const_cast<kit::post *>(&parent));
            fclose(stderr);
            ipv4mc_shmwin_free_inline(block, IPMC_SHMWIN_ALLOC_ROUTE);
            return 0;
        });
        EXPECT_EQ(process.hear(), 'B');
        EXPECT_EQ(process.hear(), 'A');
        EXPECT_EQ(process.wait(), 128 + SIGABRT);
    }
}

TEST(AllocatorAttached, UsesTheServiceAndNeverThePool) {
    const kit::run_dir dir;
    sim_reset();
    kit::child owner([](const kit::post &parent) {
        const kit::library library;
        pool_blocks(100, 3);
        parent.tell();
        parent.hear();
        const bool same = header().buffer_pool[100].count == 3 && kit::window_faults().empty();
        return same ? 0 : 1;
    });
    ASSERT_NE(owner.hear(), '\0');
    kit::start how;
    how.attach_only = 1;
    const kit::library client(how);
    void *block = ip6mc_shmwin_malloc(100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(header().buffer_pool[100].count, 3U);
    const uint32_t freed = ipmc_shmwin_freed_blocks(&header());
    EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
    EXPECT_EQ(header().buffer_pool[100].count, 3U);
    EXPECT_EQ(ipmc_shmwin_freed_blocks(&header()), freed + 1);
    owner.tell();
    EXPECT_EQ(owner.wait(), 0);
}
