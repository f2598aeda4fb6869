// The contract: life of handles, sharing, errors, failing memory, restart.
#include "services/gtrie/gtrie.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "services/diag/errors.h"
#include "services/radix/radix.h"
#include "tests/services/gtrie/model.h"

using namespace gtrie_test;

namespace {

class Gtrie : public testing::Test {
  protected:
    void SetUp() override { open_arena(uint64_t{256} << 20, true); }
    void TearDown() override {
        ip6mc_gtrie_reset_handle_db(0);
        ip6mc_gtrie_set_memory(nullptr, nullptr);
        ip6mc_gtrie_set_sharing(0);
        close_arena();
    }

    static void *open(uint32_t kind, uint32_t key_bits, uint32_t tid = 0) {
        const ip6mc_gtrie_params_t p = params(kind, key_bits, tid);
        cerrno error = 99;
        void *handle = ip6mc_gtrie_platform_init(&p, &error);
        EXPECT_EQ(error, 0u);
        return handle;
    }
    static ip6mc_gtrie_stats_t stats(void *handle) {
        ip6mc_gtrie_stats_t s{};
        EXPECT_EQ(ip6mc_gtrie_get_stats(handle, &s), 0u);
        return s;
    }
    static void *make(void *handle, const uint8_t *key, uint32_t length) {
        void *leaf = nullptr;
        int created = 0;
        EXPECT_EQ(ip6mc_gtrie_leaf_create(handle, key, length, &leaf, 64, &created), 0u);
        EXPECT_EQ(created, 1);
        return leaf;
    }
    static void *add(void *handle, const uint8_t *key, uint32_t length) {
        void *leaf = make(handle, key, length);
        EXPECT_EQ(ip6mc_gtrie_leaf_insert(handle, leaf, nullptr), 0u);
        return leaf;
    }
    static void drop(void *handle, void *leaf) {
        EXPECT_EQ(ip6mc_gtrie_leaf_delete(handle, leaf, nullptr), 0u);
        EXPECT_EQ(ip6mc_gtrie_leaf_free(handle, leaf), 0u);
    }

    uint8_t source_[16] = {0x20, 1};
    uint8_t group_[16] = {0xff, 0x3e};
    uint8_t key_[GTRIE_PREFIX_BYTES] = {};
};

TEST_F(Gtrie, KeyPutsTheGroupAheadOfTheSource) {
    void *plain = open(GTRIE_KIND_DEFAULT, 256);
    ASSERT_EQ(ip6mc_gtrie_platform_make_prefix(plain, key_, source_, group_), 0u);
    EXPECT_EQ(key_[0], 0xff);
    EXPECT_EQ(key_[16], 0x20);
    uint32_t length = 128;
    ASSERT_EQ(ip6mc_gtrie_platform_get_pfx_len_adjusted(plain, &length), 0u);
    EXPECT_EQ(length, 128u);
    void *table = open(GTRIE_KIND_TABLE, 269, 0xffff1234);
    ASSERT_EQ(ip6mc_gtrie_make_prefix(table, key_, source_, group_), 0u);
    EXPECT_EQ(key_[0], 0xff);
    EXPECT_EQ(key_[32], 0x12);
    EXPECT_EQ(key_[33], 0x34);
    ASSERT_EQ(ip6mc_gtrie_get_pfx_len_adjusted(table, &length), 0u);
    EXPECT_EQ(length, 141u);
}

TEST_F(Gtrie, DetachedLeafIsFoundByNobodyUntilItIsInserted) {
    void *t = open(GTRIE_KIND_DEFAULT, 256);
    void *leaf = make(t, key_, 256);
    cerrno error = 99;
    EXPECT_EQ(ip6mc_gtrie_lookup(t, key_, &error), nullptr);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(ip6mc_gtrie_lookup_exact(t, key_, 256, &error), nullptr);
    EXPECT_EQ(ip6mc_gtrie_first_leaf(t, key_, 0, &error), nullptr);
    EXPECT_EQ(ip6mc_gtrie_platform_leaf_insert(t, leaf, &error), 0u);
    EXPECT_EQ(ip6mc_gtrie_platform_lookup(t, key_, &error), leaf);
    EXPECT_EQ(ip6mc_gtrie_platform_first_leaf(t, key_, 0, &error), leaf);
    EXPECT_EQ(ip6mc_gtrie_platform_next_leaf(t, leaf, &error), nullptr);
    EXPECT_EQ(error, 0u);
    drop(t, leaf);
    EXPECT_EQ(ip6mc_gtrie_platform_lookup(t, key_, &error), nullptr);
    EXPECT_EQ(ip6mc_gtrie_platform_close(&t), 0u);
    EXPECT_EQ(t, nullptr);
    EXPECT_TRUE(live_blocks().empty());
}

TEST_F(Gtrie, DetachedLeavesAreListedUntilTheyAreInsertedOrFreed) {
    void *t = open(GTRIE_KIND_DEFAULT, 256);
    EXPECT_EQ(ip6mc_gtrie_first_detached(nullptr), nullptr);
    EXPECT_EQ(ip6mc_gtrie_first_detached(t), nullptr);
    void *leaves[3];
    for (uint8_t n = 0; n < 3; ++n) {
        key_[5] = n;
        leaves[n] = make(t, key_, 48);
        EXPECT_EQ(ip6mc_gtrie_first_detached(t), leaves[n]);
        EXPECT_EQ(ip6mc_gtrie_verify(t), nullptr);
    }
    EXPECT_EQ(ip6mc_gtrie_next_detached(t, leaves[2]), leaves[1]);
    EXPECT_EQ(ip6mc_gtrie_next_detached(t, leaves[1]), leaves[0]);
    EXPECT_EQ(ip6mc_gtrie_next_detached(t, leaves[0]), nullptr);
    void *handle = t;
    EXPECT_EQ(ip6mc_gtrie_close(&handle), static_cast<cerrno>(GTRIE_E_NOT_EMPTY));
    EXPECT_EQ(ip6mc_gtrie_leaf_insert(t, leaves[1], nullptr), 0u);  // from the middle
    EXPECT_EQ(ip6mc_gtrie_next_detached(t, leaves[2]), leaves[0]);
    EXPECT_EQ(ip6mc_gtrie_next_detached(t, leaves[1]), nullptr);  // no detached one any more
    EXPECT_EQ(ip6mc_gtrie_next_detached(t, nullptr), nullptr);
    EXPECT_EQ(ip6mc_gtrie_verify(t), nullptr);
    EXPECT_EQ(ip6mc_gtrie_leaf_free(t, leaves[2]), 0u);  // the first
    EXPECT_EQ(ip6mc_gtrie_first_detached(t), leaves[0]);
    EXPECT_EQ(ip6mc_gtrie_leaf_free(t, leaves[0]), 0u);
    EXPECT_EQ(ip6mc_gtrie_first_detached(t), nullptr);
    drop(t, leaves[1]);
    EXPECT_EQ(ip6mc_gtrie_first_detached(t), nullptr);  // a deleted leaf is not detached
    EXPECT_EQ(ip6mc_gtrie_verify(t), nullptr);
    EXPECT_EQ(ip6mc_gtrie_close(&handle), 0u);
}

TEST_F(Gtrie, RecordIsZeroedAndExistingLeafIsGivenAsItIs) {
    void *t = open(GTRIE_KIND_DEFAULT, 256);
    auto *bytes = static_cast<uint8_t *>(make(t, key_, 256));
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(bytes[i], 0);
    }
    bytes[5] = 5;
    ASSERT_EQ(ip6mc_gtrie_leaf_insert(t, bytes, nullptr), 0u);
    void *leaf = nullptr;
    int created = 9;
    EXPECT_EQ(ip6mc_gtrie_platform_leaf_create(t, key_, 256, &leaf, 64, &created), 0u);
    EXPECT_EQ(leaf, bytes);
    EXPECT_EQ(created, 0);
    cerrno error = 0;
    EXPECT_EQ(ip6mc_gtrie_leaf_create_shmem(t, 3, key_, 256, &leaf, 64, &error), GTRIE_E_EXISTS);
    EXPECT_EQ(error, GTRIE_E_EXISTS);
    EXPECT_EQ(leaf, bytes);
    EXPECT_EQ(bytes[5], 5);
}

TEST_F(Gtrie, SecondLeafOfAKeyIsRefusedAndNothingChanges) {
    void *t = open(GTRIE_KIND_DEFAULT, 256);
    void *first = make(t, key_, 100);
    void *second = make(t, key_, 100);
    cerrno error = 0;
    EXPECT_EQ(ip6mc_gtrie_leaf_insert_shmem(t, 7, first, &error), 0u);
    EXPECT_EQ(ip6mc_gtrie_leaf_insert_shmem(t, 7, second, &error), GTRIE_E_EXISTS);
    EXPECT_EQ(error, GTRIE_E_EXISTS);
    EXPECT_EQ(ip6mc_gtrie_lookup_exact(t, key_, 100, &error), first);
    EXPECT_EQ(stats(t).leaves, 1u);
    EXPECT_EQ(ip6mc_gtrie_verify(t), nullptr);
    EXPECT_EQ(ip6mc_gtrie_leaf_free(t, second), 0u);
}

TEST_F(Gtrie, WrongOrderOfCallsHasItsCode) {
    void *t = open(GTRIE_KIND_DEFAULT, 256);
    void *other = open(GTRIE_KIND_DEFAULT, 256);
    void *leaf = make(t, key_, 256);
    EXPECT_EQ(ip6mc_gtrie_leaf_delete(t, leaf, nullptr), GTRIE_E_DETACHED);
    EXPECT_EQ(ip6mc_gtrie_leaf_insert(other, leaf, nullptr), GTRIE_E_BAD_LEAF);
    EXPECT_EQ(ip6mc_gtrie_leaf_insert(t, nullptr, nullptr), GTRIE_E_BAD_LEAF);
    EXPECT_EQ(ip6mc_gtrie_leaf_insert(t, leaf, nullptr), 0u);
    EXPECT_EQ(ip6mc_gtrie_leaf_insert(t, leaf, nullptr), GTRIE_E_LINKED);
    EXPECT_EQ(ip6mc_gtrie_platform_leaf_free(t, leaf), GTRIE_E_LINKED);
    EXPECT_EQ(ip6mc_gtrie_close(&t), GTRIE_E_NOT_EMPTY);
    EXPECT_NE(t, nullptr);
    EXPECT_EQ(ip6mc_gtrie_leaf_delete_shmem(t, 7, leaf, nullptr), 0u);
    EXPECT_EQ(ip6mc_gtrie_leaf_insert(t, leaf, nullptr), GTRIE_E_REMOVED);
    EXPECT_EQ(ip6mc_gtrie_leaf_free(t, leaf), 0u);
}

TEST_F(Gtrie, BadArgumentsHaveTheirCodes) {
    cerrno error = 0;
    uint32_t length = 0;
    int created = 0;
    void *leaf = nullptr;
    uint64_t no_handle[16] = {};
    EXPECT_EQ(ip6mc_gtrie_lookup(no_handle, key_, &error), nullptr);
    EXPECT_EQ(error, GTRIE_E_BAD_HANDLE);
    EXPECT_EQ(ip6mc_gtrie_lookup_exact(nullptr, key_, 1, &error), nullptr);
    EXPECT_EQ(error, GTRIE_E_BAD_HANDLE);
    EXPECT_EQ(ip6mc_gtrie_get_pfx_len_adjusted(nullptr, &length), GTRIE_E_BAD_HANDLE);
    void *t = open(GTRIE_KIND_TABLE, 269, 4);
    EXPECT_EQ(ip6mc_gtrie_lookup(t, nullptr, &error), nullptr);
    EXPECT_EQ(error, EINVAL);
    EXPECT_EQ(ip6mc_gtrie_lookup_exact(t, key_, 270, &error), nullptr);
    EXPECT_EQ(error, GTRIE_E_LENGTH);
    EXPECT_EQ(ip6mc_gtrie_lookup_exact(t, key_, 12, &error), nullptr);
    EXPECT_EQ(error, GTRIE_E_LENGTH);
    EXPECT_EQ(ip6mc_gtrie_first_leaf(t, key_, 0, &error), nullptr);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(ip6mc_gtrie_leaf_create(t, key_, 269, nullptr, 8, &created), EINVAL);
    EXPECT_EQ(ip6mc_gtrie_leaf_create(t, key_, 400, &leaf, 8, &created), GTRIE_E_LENGTH);
    ip6mc_gtrie_params_t p = params(0, 257);
    EXPECT_EQ(ip6mc_gtrie_init(&p, &error), nullptr);
    EXPECT_EQ(error, GTRIE_E_PARAMS);
    EXPECT_EQ(ip6mc_gtrie_last_error(), GTRIE_E_PARAMS);
    ip6mc_gtrie_platform_err_init();
    EXPECT_EQ(ip6mc_gtrie_last_error(), 0u);
    p = params(0, 256);
    p.alloc_fn = nullptr;
    EXPECT_EQ(ip6mc_gtrie_init(&p, &error), nullptr);
    EXPECT_EQ(error, GTRIE_E_PARAMS);
    EXPECT_EQ(ip6mc_gtrie_init(nullptr, &error), nullptr);
    EXPECT_EQ(error, EINVAL);
    EXPECT_EQ(ip6mc_gtrie_re_init(t, &p), GTRIE_E_PARAMS);
    p = params(0, 256);
    EXPECT_EQ(ip6mc_gtrie_re_init(t, &p), GTRIE_E_MISMATCH);
}

TEST_F(Gtrie, EveryCodeHasAText) {
    std::map<std::string, cerrno> texts;
    for (cerrno code = GTRIE_E_BAD_HANDLE; code <= GTRIE_E_PARAMS; ++code) {
        EXPECT_TRUE(texts.emplace(cerr_strerror(code), code).second);
    }
    for (cerrno code = RADIX_E_BAD_TREE; code <= RADIX_E_LENGTH; ++code) {
        EXPECT_TRUE(texts.emplace(cerr_strerror(code), code).second);
    }
    for (const auto &[text, code] : texts) {
        EXPECT_EQ(text.find("44a01"), std::string::npos) << text;
    }
}

TEST_F(Gtrie, SharersSeeTheirOwnLeavesInLookupsAndAllInWalks) {
    ip6mc_gtrie_set_sharing(1);
    void *a = open(GTRIE_KIND_TABLE, 269, 1);
    void *b = open(GTRIE_KIND_TABLE, 269, 2);
    void *signal = open(GTRIE_KIND_TABLE_SIGNAL, 269, 2);
    EXPECT_EQ(stats(a).handles, 2u);
    EXPECT_EQ(stats(signal).handles, 1u);
    void *of_a = add(a, key_, 141);
    EXPECT_EQ(ip6mc_gtrie_lookup(b, key_, nullptr), nullptr);
    EXPECT_EQ(ip6mc_gtrie_lookup_exact(b, key_, 141, nullptr), nullptr);
    EXPECT_EQ(ip6mc_gtrie_first_leaf(b, key_, 13, nullptr), nullptr);
    void *of_b = add(b, key_, 269);
    EXPECT_EQ(ip6mc_gtrie_lookup(b, key_, nullptr), of_b);
    EXPECT_EQ(ip6mc_gtrie_lookup(a, key_, nullptr), of_a);
    EXPECT_EQ(ip6mc_gtrie_less_specific_of_leaf(b, of_b, nullptr), nullptr);
    EXPECT_EQ(ip6mc_gtrie_first_leaf(b, key_, 0, nullptr), of_a);
    EXPECT_EQ(ip6mc_gtrie_next_leaf(a, of_a, nullptr), of_b);
    EXPECT_EQ(ip6mc_gtrie_leaf_delete(a, of_b, nullptr), GTRIE_E_BAD_LEAF);
    // One sharer goes, the other stays.
    EXPECT_EQ(ip6mc_gtrie_close(&a), GTRIE_E_NOT_EMPTY);
    drop(a, of_a);
    EXPECT_EQ(ip6mc_gtrie_close(&a), 0u);
    EXPECT_EQ(ip6mc_gtrie_lookup(b, key_, nullptr), of_b);
    EXPECT_EQ(stats(b).handles, 1u);
    EXPECT_EQ(ip6mc_gtrie_verify(b), nullptr);
    drop(b, of_b);
    EXPECT_EQ(ip6mc_gtrie_close(&b), 0u);
    EXPECT_EQ(ip6mc_gtrie_close(&signal), 0u);
    EXPECT_TRUE(live_blocks().empty());
}

TEST_F(Gtrie, TablesWithEqualBitsOrOtherWindowsDoNotShare) {
    ip6mc_gtrie_set_sharing(1);
    void *a = open(GTRIE_KIND_TABLE, 269, 1);
    void *same = open(GTRIE_KIND_TABLE, 269, 1 + (1 << 13));
    EXPECT_EQ(stats(a).handles, 1u);
    EXPECT_EQ(stats(same).handles, 1u);
    ip6mc_gtrie_params_t p = params(GTRIE_KIND_TABLE, 269, 5);
    p.shmwin_id = 8;
    void *elsewhere = ip6mc_gtrie_init(&p, nullptr);
    EXPECT_EQ(stats(elsewhere).handles, 1u);
    EXPECT_EQ(ip6mc_gtrie_set_sharing(0), 1);
    void *own = open(GTRIE_KIND_TABLE, 269, 6);
    EXPECT_EQ(stats(own).handles, 1u);
}

TEST_F(Gtrie, LeafPositionTellsTheRecordItsState) {
    ip6mc_gtrie_params_t p = params(GTRIE_KIND_ENCAP, 20);
    p.leaf_position = 16;
    void *t = ip6mc_gtrie_platform_init(&p, nullptr);
    const uint8_t id[4] = {0x12, 0x34, 0x50, 0};
    void *leaf = nullptr;
    int created = 0;
    EXPECT_EQ(ip6mc_gtrie_platform_leaf_create(t, id, 20, &leaf, 24, &created), EINVAL);
    ASSERT_EQ(ip6mc_gtrie_platform_leaf_create(t, id, 20, &leaf, 40, &created), 0u);
    const auto *link = reinterpret_cast<ip6mc_gtrie_leaf_t *>(static_cast<char *>(leaf) + 16);
    EXPECT_NE(link->trie, nullptr);
    EXPECT_EQ(link->linked, 0u);
    ASSERT_EQ(ip6mc_gtrie_platform_leaf_insert(t, leaf, nullptr), 0u);
    EXPECT_EQ(link->linked, 1u);
    EXPECT_EQ(ip6mc_gtrie_platform_first_leaf(t, id, 0, nullptr), leaf);
    ASSERT_EQ(ip6mc_gtrie_platform_leaf_delete(t, leaf, nullptr), 0u);
    EXPECT_EQ(link->linked, 0u);
}

// Each allocation of each call is made to fail once.
TEST_F(Gtrie, FailedAllocationChangesNothing) {
    const auto live = [] { return live_blocks().size(); };
    const ip6mc_gtrie_params_t p = params(GTRIE_KIND_DEFAULT, 256);
    for (int64_t n = 0;; ++n) {
        the_arena->fail_after = n;
        cerrno error = 0;
        void *t = ip6mc_gtrie_init(&p, &error);
        if (t != nullptr) {
            ASSERT_GE(n, 4);
            break;
        }
        ASSERT_EQ(error, static_cast<cerrno>(ENOMEM));
        ASSERT_EQ(live(), 0u);
    }
    the_arena->fail_after = -1;
    void *t = open(GTRIE_KIND_DEFAULT, 256);
    key_source keys(77, 256);
    std::vector<void *> leaves;
    uint64_t failures = 0;
    for (int i = 0; i < 400; ++i) {
        const prefix k = keys.next();
        if (ip6mc_gtrie_lookup_exact(t, k.bytes.data(), k.length, nullptr) != nullptr) {
            continue;
        }
        the_arena->fail_after = 0;
        void *leaf = nullptr;
        int created = 5;
        ASSERT_EQ(ip6mc_gtrie_leaf_create(t, k.bytes.data(), k.length, &leaf, 32, &created),
                  static_cast<cerrno>(ENOMEM));
        ASSERT_EQ(leaf, nullptr);
        ASSERT_EQ(created, 0);
        the_arena->fail_after = -1;
        leaf = make(t, k.bytes.data(), k.length);
        const size_t blocks = live();
        for (int64_t n = 0;; ++n) {
            the_arena->fail_after = n;
            const cerrno code = ip6mc_gtrie_leaf_insert(t, leaf, nullptr);
            the_arena->fail_after = -1;
            if (code == 0) {
                break;
            }
            ++failures;
            ASSERT_EQ(code, static_cast<cerrno>(ENOMEM));
            ASSERT_EQ(live(), blocks);
            ASSERT_EQ(ip6mc_gtrie_verify(t), nullptr);
            ASSERT_EQ(ip6mc_gtrie_lookup_exact(t, k.bytes.data(), k.length, nullptr), nullptr);
        }
        ASSERT_EQ(ip6mc_gtrie_verify(t), nullptr);
        leaves.push_back(leaf);
    }
    EXPECT_GT(failures, 100u);
    // Deletion needs no memory.
    the_arena->fail_after = 0;
    for (void *leaf : leaves) {
        drop(t, leaf);
        ASSERT_EQ(ip6mc_gtrie_verify(t), nullptr);
    }
    EXPECT_EQ(ip6mc_gtrie_close(&t), 0u);
}

// Another process knows none of our functions: it reads, and writes only when told how to allocate.
TEST_F(Gtrie, OtherProcessReadsAtOnceAndWritesAfterReInit) {
    ip6mc_gtrie_set_sharing(1);
    void *a = open(GTRIE_KIND_TABLE, 269, 1);
    void *b = open(GTRIE_KIND_TABLE, 269, 2);
    void *leaf = add(a, key_, 269);
    const pid_t child = fork();
    if (child == 0) {
        // As a new process: nothing known of handles.
        ip6mc_gtrie_platform_lib_init(nullptr, 0);
        ip6mc_gtrie_reset_handle_db(0);
        bool good = ip6mc_gtrie_lookup(a, key_, nullptr) == leaf;
        void *fresh = nullptr;
        int created = 0;
        good = good &&
               ip6mc_gtrie_leaf_create(b, key_, 269, &fresh, 8, &created) == GTRIE_E_NO_FUNCTIONS;
        good = good && ip6mc_gtrie_leaf_delete(a, leaf, nullptr) == GTRIE_E_NO_FUNCTIONS;
        ip6mc_gtrie_params_t p = params(GTRIE_KIND_TABLE, 269, 1);
        good = good && ip6mc_gtrie_platform_re_init(a, &p) == 0;
        p.tid_decoded = 2;
        good = good && ip6mc_gtrie_platform_re_init(b, &p) == 0;
        good = good && ip6mc_gtrie_leaf_delete(a, leaf, nullptr) == 0;
        good = good && ip6mc_gtrie_leaf_free(a, leaf) == 0;
        good = good && ip6mc_gtrie_leaf_create(b, key_, 269, &fresh, 8, &created) == 0;
        good = good && ip6mc_gtrie_leaf_insert(b, fresh, nullptr) == 0;
        // A table made now finds the trie that outlived its maker.
        p.tid_decoded = 3;
        void *c = ip6mc_gtrie_platform_init(&p, nullptr);
        good = good && c != nullptr && stats(c).handles == 3;
        ip6mc_gtrie_platform_lib_terminate(0);
        good = good && ip6mc_gtrie_close(&c) == GTRIE_E_NO_FUNCTIONS;
        _exit(good ? 0 : 1);
    }
    int status = 1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ip6mc_gtrie_lookup(a, key_, nullptr), nullptr);
    EXPECT_NE(ip6mc_gtrie_lookup(b, key_, nullptr), nullptr);
    EXPECT_EQ(stats(b).handles, 3u);
    EXPECT_EQ(ip6mc_gtrie_verify(a), nullptr);
}

TEST_F(Gtrie, AttachedClientWritesWithTheFunctionsOfItsProcess) {
    void *t = open(GTRIE_KIND_DEFAULT_SIGNAL, 256);
    ip6mc_gtrie_reset_handle_db(1);
    void *leaf = nullptr;
    cerrno error = 0;
    EXPECT_EQ(ip6mc_gtrie_leaf_create_shmem(t, 7, key_, 256, &leaf, 16, &error),
              GTRIE_E_NO_FUNCTIONS);
    ip6mc_gtrie_set_memory(arena_alloc, arena_free);
    EXPECT_EQ(ip6mc_gtrie_leaf_create_shmem(t, 7, key_, 256, &leaf, 16, &error), 0u);
    EXPECT_EQ(ip6mc_gtrie_leaf_insert_shmem(t, 7, leaf, &error), 0u);
    EXPECT_EQ(ip6mc_gtrie_leaf_delete_shmem(t, 7, leaf, &error), 0u);
    EXPECT_EQ(ip6mc_gtrie_leaf_free(t, leaf), 0u);
}

TEST_F(Gtrie, BlockWalkNamesEveryBlockOnce) {
    void *t = open(GTRIE_KIND_DEFAULT, 256);
    key_source keys(5, 256);
    for (int i = 0; i < 300; ++i) {
        const prefix k = keys.next();
        if (ip6mc_gtrie_lookup_exact(t, k.bytes.data(), k.length, nullptr) == nullptr) {
            add(t, k.bytes.data(), k.length);
        }
    }
    std::map<const void *, uint32_t> met;
    const auto note = [](const void *block, uint32_t type, void *context) {
        EXPECT_TRUE((
            static_cast<std::map<const void *, uint32_t> *>(context)->emplace(block, type).second));
    };
    ASSERT_EQ(ip6mc_gtrie_walk_blocks(t, note, &met), 0u);
    EXPECT_EQ(met, live_blocks());
}

}  // namespace
