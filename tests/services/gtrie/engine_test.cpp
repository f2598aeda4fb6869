// Every answer of the trie against a linear table, after every step of random runs and on the worst
// inputs.
#include <gtest/gtest.h>

#include "services/gtrie/gtrie.h"
#include "tests/services/gtrie/model.h"

using namespace gtrie_test;

namespace {

struct table {
    void *handle = nullptr;
    uint32_t id = 0;
    uint32_t added_bits = 0;  // table part in lengths given to the trie
    model expected;
};

void open_table(table *t, uint32_t kind, uint32_t key_bits, uint32_t id) {
    ip6mc_gtrie_params_t p = params(kind, key_bits, id);
    p.leaf_position = offsetof(record, link);
    cerrno error = 99;
    t->handle = ip6mc_gtrie_init(&p, &error);
    ASSERT_EQ(error, 0u);
    ASSERT_NE(t->handle, nullptr);
    t->id = id;
    t->added_bits = key_bits == 269 ? 13 : 0;
}

record *create(table &t, const prefix &p, int *created) {
    void *leaf = nullptr;
    EXPECT_EQ(ip6mc_gtrie_leaf_create(t.handle, p.bytes.data(), p.length + t.added_bits, &leaf,
                                      sizeof(record), created),
              0u);
    return static_cast<record *>(leaf);
}

void add(table &t, const prefix &p) {
    int created = 7;
    record *known = t.expected.exact(p);
    record *r = create(t, p, &created);
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(created, known == nullptr ? 1 : 0);
    if (known != nullptr) {
        ASSERT_EQ(r, known);
        return;
    }
    fill(r, p, t.id);
    cerrno error = 99;
    ASSERT_EQ(ip6mc_gtrie_leaf_insert(t.handle, r, &error), 0u);
    ASSERT_EQ(error, 0u);
    ASSERT_EQ(r->link.linked, 1u);
    t.expected.add(r);
}

void remove(table &t, record *r) {
    cerrno error = 99;
    ASSERT_EQ(ip6mc_gtrie_leaf_delete(t.handle, r, &error), 0u);
    t.expected.remove(r);
    ASSERT_EQ(ip6mc_gtrie_leaf_free(t.handle, r), 0u);
}

void check_probe(const table &t, const prefix &p) {
    cerrno error = 99;
    ASSERT_EQ(ip6mc_gtrie_lookup_exact(t.handle, p.bytes.data(), p.length + t.added_bits, &error),
              t.expected.exact(p));
    ASSERT_EQ(ip6mc_gtrie_first_leaf(t.handle, p.bytes.data(), p.length + t.added_bits, &error),
              t.expected.first(p));
    ASSERT_EQ(error, 0u);
}

void check_longest(const table &t, prefix p, uint32_t bits) {
    p.length = bits;
    cerrno error = 99;
    ASSERT_EQ(ip6mc_gtrie_lookup(t.handle, p.bytes.data(), &error), t.expected.longest(p));
    ASSERT_EQ(error, 0u);
}

// The table's part of a walk; leaves of other tables may stand before and behind it only.
void check_walk(const table &t) {
    cerrno error = 0;
    const prefix all{};
    void *leaf = ip6mc_gtrie_first_leaf(t.handle, all.bytes.data(), t.added_bits, &error);
    for (const record *r : t.expected.leaves) {
        ASSERT_EQ(leaf, r);
        ASSERT_EQ(ip6mc_gtrie_less_specific_of_leaf(t.handle, leaf, &error),
                  t.expected.longest(r->key, r->key.length));
        leaf = ip6mc_gtrie_next_leaf(t.handle, leaf, &error);
        ASSERT_EQ(error, 0u);
    }
    if (leaf != nullptr) {
        ASSERT_NE(static_cast<record *>(leaf)->table, t.id);
    }
}

// A detached leaf knows its neighbours too.
void check_detached(table &t, const prefix &p) {
    if (t.expected.exact(p) != nullptr) {
        return;
    }
    int created = 0;
    record *r = create(t, p, &created);
    ASSERT_EQ(created, 1);
    fill(r, p, t.id);
    const record *next = nullptr;
    for (const record *e : t.expected.leaves) {
        if (before(p, e->key)) {
            next = e;
            break;
        }
    }
    cerrno error = 0;
    void *got = ip6mc_gtrie_next_leaf(t.handle, r, &error);
    if (next != nullptr || got == nullptr) {
        ASSERT_EQ(got, next);
    } else {
        ASSERT_NE(static_cast<record *>(got)->table, t.id);
    }
    ASSERT_EQ(ip6mc_gtrie_less_specific_of_leaf(t.handle, r, &error),
              t.expected.longest(p, p.length));
    ASSERT_EQ(ip6mc_gtrie_leaf_free(t.handle, r), 0u);
}

struct form {
    const char *name;
    uint32_t kind;
    uint32_t key_bits;
    uint32_t tables;
    bool share;
    bool constant_hash;
};

class Random : public testing::TestWithParam<form> {
  protected:
    void SetUp() override {
        open_arena(uint64_t{1} << 32, false);
        ip6mc_gtrie_set_sharing(GetParam().share ? 1 : 0);
        ip6mc_gtrie_set_hash_for_tests(GetParam().constant_hash ? 1 : 0);
    }
    void TearDown() override {
        ip6mc_gtrie_reset_handle_db(0);
        ip6mc_gtrie_set_sharing(0);
        ip6mc_gtrie_set_hash_for_tests(0);
        close_arena();
    }
};

void run_step(table &t, key_source &keys, uint32_t bits, uint32_t aim) {
    const auto size = static_cast<uint32_t>(t.expected.leaves.size());
    if (keys.pick(2 * aim) >= size) {
        add(t, keys.next());
    } else {
        remove(t, t.expected.leaves[keys.pick(size)]);
    }
    ASSERT_EQ(ip6mc_gtrie_verify(t.handle), nullptr) << ip6mc_gtrie_verify(t.handle);
    check_walk(t);
    for (int i = 0; i < 3; ++i) {
        check_probe(t, keys.next());
        check_longest(t, keys.next(), bits);
        check_detached(t, keys.next());
    }
}

void drain(std::vector<table> &tables) {
    for (table &t : tables) {
        while (!t.expected.leaves.empty()) {
            ASSERT_EQ(ip6mc_gtrie_verify(t.handle), nullptr);
            ASSERT_NO_FATAL_FAILURE(remove(t, t.expected.leaves[t.expected.leaves.size() / 2]));
        }
        ASSERT_EQ(ip6mc_gtrie_close(&t.handle), 0u);
        ASSERT_EQ(t.handle, nullptr);
    }
    ASSERT_TRUE(live_blocks().empty());
}

TEST_P(Random, AgreesWithALinearTableAfterEveryStep) {
    const form &f = GetParam();
    const uint32_t bits = f.key_bits == 269 ? 256 : f.key_bits;
    std::vector<table> tables(f.tables);
    for (uint32_t i = 0; i < f.tables; ++i) {
        ASSERT_NO_FATAL_FAILURE(open_table(&tables[i], f.kind, f.key_bits, i * 1000 + 5));
    }
    key_source keys(42, bits);
    for (int i = 0; i < 2500; ++i) {
        // The number of leaves swings, so that nodes grow and shrink.
        const uint32_t aim = i % 1000 < 500 ? 120 : 12;
        table &t = tables[keys.pick(f.tables)];
        ASSERT_NO_FATAL_FAILURE(run_step(t, keys, bits, aim)) << "step " << i;
    }
    ASSERT_NO_FATAL_FAILURE(drain(tables));
}

INSTANTIATE_TEST_SUITE_P(Forms, Random,
                         testing::Values(form{"default", 0, 256, 1, false, false},
                                         form{"default_constant_hash", 0, 256, 1, false, true},
                                         form{"own", 2, 269, 3, false, false},
                                         form{"shared", 2, 269, 3, true, false},
                                         form{"shared_constant_hash", 3, 269, 3, true, true},
                                         form{"encap", 4, 20, 1, false, false},
                                         form{"encap_constant_hash", 4, 20, 1, false, true}),
                         [](const auto &one) { return std::string(one.param.name); });

class Worst : public Random {};

TEST_P(Worst, ChainOfAllNestedPrefixes) {
    std::vector<table> tables(1);
    const form &f = GetParam();
    const uint32_t bits = f.key_bits == 269 ? 256 : f.key_bits;
    ASSERT_NO_FATAL_FAILURE(open_table(&tables[0], f.kind, f.key_bits, 9));
    table &t = tables[0];
    key_source keys(7, bits);
    prefix whole;
    for (uint32_t i = 0; i < bits; ++i) {
        whole.set(i, keys.pick(2) != 0);
    }
    whole.length = bits;
    std::vector<uint32_t> lengths;
    for (uint32_t i = 0; i <= bits; ++i) {
        lengths.insert(lengths.begin() + keys.pick(i + 1), i);
    }
    for (const uint32_t length : lengths) {
        prefix p = whole;
        p.cut(length);
        ASSERT_NO_FATAL_FAILURE(add(t, p));
        ASSERT_EQ(ip6mc_gtrie_verify(t.handle), nullptr) << ip6mc_gtrie_verify(t.handle);
        ASSERT_NO_FATAL_FAILURE(check_longest(t, whole, bits));
    }
    ASSERT_NO_FATAL_FAILURE(check_walk(t));
    for (uint32_t i = 0; i < bits; ++i) {
        prefix p = whole;
        p.set(i, !p.bit(i));
        ASSERT_NO_FATAL_FAILURE(check_longest(t, p, bits));
        ASSERT_NO_FATAL_FAILURE(check_probe(t, p));
    }
    ASSERT_NO_FATAL_FAILURE(drain(tables));
}

TEST_P(Worst, EveryCodeOfOneStride) {
    std::vector<table> tables(1);
    const form &f = GetParam();
    const uint32_t bits = f.key_bits == 269 ? 256 : f.key_bits;
    ASSERT_NO_FATAL_FAILURE(open_table(&tables[0], f.kind, f.key_bits, 9));
    table &t = tables[0];
    key_source keys(8, bits);
    std::vector<prefix> all;
    for (uint32_t value = 0; value < 64; ++value) {
        for (uint32_t length = 0; length <= 6; ++length) {
            prefix p;
            for (uint32_t i = 0; i < length; ++i) {
                p.set(6 + i, (value >> (5 - i) & 1) != 0);
            }
            p.cut(6 + length);
            all.insert(all.begin() + keys.pick(static_cast<uint32_t>(all.size()) + 1), p);
        }
    }
    for (const prefix &p : all) {
        ASSERT_NO_FATAL_FAILURE(add(t, p));
        ASSERT_EQ(ip6mc_gtrie_verify(t.handle), nullptr) << ip6mc_gtrie_verify(t.handle);
    }
    ASSERT_EQ(t.expected.leaves.size(), 127u);
    ASSERT_NO_FATAL_FAILURE(check_walk(t));
    ASSERT_NO_FATAL_FAILURE(drain(tables));
}

INSTANTIATE_TEST_SUITE_P(Forms, Worst,
                         testing::Values(form{"default", 0, 256, 1, false, false},
                                         form{"default_constant_hash", 0, 256, 1, false, true},
                                         form{"shared", 2, 269, 1, true, false},
                                         form{"encap", 4, 20, 1, false, false}),
                         [](const auto &one) { return std::string(one.param.name); });

// Bucket splits, the directory and segments of all sizes; too many leaves for the linear table.
TEST(Many, GrowsAndDrains) {
    open_arena(uint64_t{1} << 32, false);
    std::vector<table> tables(1);
    ASSERT_NO_FATAL_FAILURE(open_table(&tables[0], 0, 256, 0));
    table &t = tables[0];
    std::mt19937_64 random(3);
    std::vector<record *> records;
    for (uint32_t i = 0; i < 60000; ++i) {
        prefix p;
        for (uint8_t &b : p.bytes) {
            b = static_cast<uint8_t>(random());
        }
        p.cut(i % 5 == 0 ? 128 : 256);
        int created = 0;
        record *r = create(t, p, &created);
        ASSERT_EQ(created, 1);
        fill(r, p, 0);
        ASSERT_EQ(ip6mc_gtrie_leaf_insert(t.handle, r, nullptr), 0u);
        records.push_back(r);
        if (i % 10000 == 9999) {
            ASSERT_EQ(ip6mc_gtrie_verify(t.handle), nullptr) << ip6mc_gtrie_verify(t.handle);
        }
    }
    ip6mc_gtrie_stats_t stats{};
    ASSERT_EQ(ip6mc_gtrie_get_stats(t.handle, &stats), 0u);
    EXPECT_EQ(stats.leaves, 60000u);
    EXPECT_LT(stats.not_indexed, 60000u / 100);
    EXPECT_LE(stats.depth, 6u);
    for (record *r : records) {
        ASSERT_EQ(ip6mc_gtrie_lookup_exact(t.handle, r->key.bytes.data(), r->key.length, nullptr),
                  r);
        ASSERT_EQ(ip6mc_gtrie_lookup(t.handle, r->key.bytes.data(), nullptr), r);
    }
    for (record *r : records) {
        ASSERT_EQ(ip6mc_gtrie_leaf_delete(t.handle, r, nullptr), 0u);
        ASSERT_EQ(ip6mc_gtrie_leaf_free(t.handle, r), 0u);
    }
    ASSERT_EQ(ip6mc_gtrie_verify(t.handle), nullptr);
    ASSERT_NO_FATAL_FAILURE(drain(tables));
    close_arena();
}

}  // namespace
