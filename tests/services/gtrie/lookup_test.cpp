// Lookups through the contract, by the number of lengths in use.
#include "services/gtrie/lookup.h"

#include <gtest/gtest.h>

#include "tests/services/gtrie/model.h"

using namespace gtrie_test;

namespace {

class Lookup : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        open_arena(uint64_t{64} << 20, true);
        ip6mc_gtrie_set_hash_for_tests(GetParam() ? 1 : 0);
    }
    void TearDown() override {
        ip6mc_gtrie_set_hash_for_tests(0);
        ip6mc_gtrie_reset_handle_db(0);
        close_arena();
    }

    void open(uint32_t kind, uint32_t key_bits, uint32_t tid = 0) {
        const ip6mc_gtrie_params_t p = params(kind, key_bits, tid);
        handle_ = ip6mc_gtrie_init(&p, nullptr);
        ASSERT_NE(handle_, nullptr);
        key_bits_ = key_bits;
        part_ = key_bits == GTRIE_TABLE_KEY_BITS ? GTRIE_TABLE_BITS : 0;
    }
    // The first `bits` bits of the key, all of them set.
    void *add(uint32_t bits) {
        prefix p = ones();
        p.cut(bits);
        void *leaf = nullptr;
        int created = 0;
        EXPECT_EQ(
            ip6mc_gtrie_leaf_create(handle_, p.bytes.data(), bits + part_, &leaf, 64, &created),
            0u);
        EXPECT_EQ(ip6mc_gtrie_leaf_insert(handle_, leaf, nullptr), 0u);
        EXPECT_EQ(ip6mc_gtrie_verify(handle_), nullptr);
        return leaf;
    }
    void drop(void *leaf) {
        EXPECT_EQ(ip6mc_gtrie_leaf_delete(handle_, leaf, nullptr), 0u);
        EXPECT_EQ(ip6mc_gtrie_leaf_free(handle_, leaf), 0u);
        EXPECT_EQ(ip6mc_gtrie_verify(handle_), nullptr);
    }
    static prefix ones() {
        prefix p;
        p.bytes.fill(0xff);
        return p;
    }
    void *longest(const prefix &p) {
        cerrno error = 99;
        void *found = ip6mc_gtrie_lookup(handle_, p.bytes.data(), &error);
        EXPECT_EQ(error, 0u);
        return found;
    }
    void *exact(const prefix &p, uint32_t bits) {
        cerrno error = 99;
        void *found = ip6mc_gtrie_lookup_exact(handle_, p.bytes.data(), bits + part_, &error);
        EXPECT_EQ(error, 0u);
        return found;
    }
    // Adds leaves of all the lengths and takes them away again, longest first or last.
    void come_and_go(const std::vector<uint32_t> &lengths) {
        std::vector<void *> leaves;
        for (const uint32_t bits : lengths) {
            leaves.push_back(add(bits));
            EXPECT_EQ(longest(ones()), leaves.back());
        }
        // One bit off behind each length: the leaf of that length is the longest.
        for (size_t i = 0; i < lengths.size(); ++i) {
            prefix p = ones();
            if (lengths[i] < key_bits_ - part_) {
                p.set(lengths[i], false);
            }
            EXPECT_EQ(longest(p), leaves[i]) << lengths[i];
            EXPECT_EQ(exact(p, lengths[i]), leaves[i]) << lengths[i];
        }
        while (!leaves.empty()) {
            EXPECT_EQ(longest(ones()), leaves.back());
            drop(leaves.back());
            leaves.pop_back();
        }
        EXPECT_EQ(longest(ones()), nullptr);
    }

    void *handle_ = nullptr;
    uint32_t key_bits_ = 0;
    uint32_t part_ = 0;
};

TEST_P(Lookup, AnswersWithAnyNumberOfLengths) {
    const std::vector<uint32_t> all{0, 8, 16, 63, 64, 65, 128, 192, 255, 256};
    ASSERT_NO_FATAL_FAILURE(open(0, 256));
    for (size_t count = 1; count <= all.size(); ++count) {
        come_and_go({all.begin(), all.begin() + static_cast<ptrdiff_t>(count)});
        come_and_go({all.end() - static_cast<ptrdiff_t>(count), all.end()});
    }
}

TEST_P(Lookup, AnswersInTableOfTableKeys) {
    ASSERT_NO_FATAL_FAILURE(open(2, 269, 5));
    come_and_go({0, 8, 128, 256});
    come_and_go({0, 1, 2, 3, 4, 5, 6, 7, 128, 256});
}

TEST_P(Lookup, AnswersWithShortKeys) {
    ASSERT_NO_FATAL_FAILURE(open(4, 20));
    come_and_go({0, 1, 7, 19, 20});
    come_and_go({0, 1, 2, 3, 4, 5, 6, 7, 20});
}

TEST_P(Lookup, FullKeyWinsOverManyLengths) {
    ASSERT_NO_FATAL_FAILURE(open(0, 256));
    void *full = add(256);
    for (uint32_t bits = 0; bits < 20; ++bits) {
        add(bits * 12);
        EXPECT_EQ(longest(ones()), full);
    }
    prefix other = ones();
    other.set(255, false);
    EXPECT_EQ(longest(other), exact(ones(), 228));
}

TEST_P(Lookup, LengthStaysWhileOneLeafHasIt) {
    ASSERT_NO_FATAL_FAILURE(open(0, 256));
    void *gone = add(128);
    prefix p = ones();
    p.set(0, false);
    p.cut(128);
    void *stays = nullptr;
    int created = 0;
    ASSERT_EQ(ip6mc_gtrie_leaf_create(handle_, p.bytes.data(), 128, &stays, 64, &created), 0u);
    ASSERT_EQ(ip6mc_gtrie_leaf_insert(handle_, stays, nullptr), 0u);
    drop(gone);
    EXPECT_EQ(longest(ones()), nullptr);
    EXPECT_EQ(longest(p), stays);
}

TEST_P(Lookup, FullKeyOfZeroBitsIsNotItsOwnPrefix) {
    ASSERT_NO_FATAL_FAILURE(open(0, 256));
    const prefix zero;
    void *group = nullptr;
    int created = 0;
    ASSERT_EQ(ip6mc_gtrie_leaf_create(handle_, zero.bytes.data(), 128, &group, 64, &created), 0u);
    ASSERT_EQ(ip6mc_gtrie_leaf_insert(handle_, group, nullptr), 0u);
    EXPECT_EQ(exact(zero, 256), nullptr);
    EXPECT_EQ(exact(zero, 128), group);
    EXPECT_EQ(longest(zero), group);
}

INSTANTIATE_TEST_SUITE_P(Hash, Lookup, testing::Bool(),
                         [](const auto &one) { return one.param ? "constant" : "real"; });

}  // namespace
