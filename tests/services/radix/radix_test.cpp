#include "services/radix/radix.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "tests/services/gtrie/model.h"

using gtrie_test::before;
using gtrie_test::key_source;
using gtrie_test::prefix;

namespace {

struct item {
    rn_node_t node;
    uint8_t key[32];
    uint16_t key_bits;
};

struct short_item {
    rn_node_t node;
    uint32_t key;
    uint8_t key_bits;
    uint32_t more;
};

std::vector<rn_node_t *> destroyed;
void note(rn_node_t *record) {
    destroyed.push_back(record);
}
void release(rn_node_t *record) {
    free(record);
}

rn_root_t *make_item_tree(rn_destructor_fn fn) {
    return rn_tree_init_v2(offsetof(item, key), offsetof(item, key_bits), fn, malloc, 2);
}

prefix prefix_of(const item *i) {
    prefix p;
    memcpy(p.bytes.data(), i->key, 32);
    p.length = i->key_bits;
    return p;
}

item *make_item(const prefix &p) {
    auto *i = static_cast<item *>(calloc(1, sizeof(item)));
    memcpy(i->key, p.bytes.data(), 32);
    i->key_bits = static_cast<uint16_t>(p.length);
    // What lies behind the length does not count.
    if (p.length < 255) {
        i->key[31] |= 1;
    }
    return i;
}

class Radix : public testing::Test {
  protected:
    void SetUp() override { destroyed.clear(); }
};

void check_all(rn_root_t *root, const std::vector<item *> &items) {
    rn_node_t *n = rn_preorder_firstnode(root);
    for (item *i : items) {
        ASSERT_EQ(n, &i->node);
        n = rn_preorder_successor(root, n);
    }
    ASSERT_EQ(n, nullptr);
    ASSERT_EQ(rn_verify(root), nullptr) << rn_verify(root);
}

TEST_F(Radix, AgreesWithALinearTableAfterEveryStep) {
    rn_root_t *root = make_item_tree(release);
    std::vector<item *> items;
    key_source keys(4, 256);
    for (int step = 0; step < 4000; ++step) {
        const prefix p = keys.next();
        const auto same = [&](item *i) {
            return prefix_of(i).length == p.length && p.covers(prefix_of(i));
        };
        auto found = std::find_if(items.begin(), items.end(), same);
        ASSERT_EQ(rn_search(root, p.bytes.data(), p.length),
                  found == items.end() ? nullptr : &(*found)->node);
        const item *best = nullptr;
        for (const item *i : items) {
            if (prefix_of(i).covers(p) && (best == nullptr || best->key_bits < i->key_bits)) {
                best = i;
            }
        }
        ASSERT_EQ(rn_lookup(root, p.bytes.data(), p.length),
                  best == nullptr ? nullptr : &best->node);
        if (found == items.end() && items.size() < 150) {
            item *i = make_item(p);
            ASSERT_EQ(rn_insert(root, i), 0);
            auto at = std::find_if(items.begin(), items.end(),
                                   [&](item *o) { return before(p, prefix_of(o)); });
            items.insert(at, i);
        } else if (found != items.end()) {
            item *copy = make_item(p);
            ASSERT_EQ(rn_insert(root, copy), EEXIST);
            free(copy);
            ASSERT_EQ(rn_delete(root, *found), 0);
            items.erase(found);
        } else {
            auto at = items.begin() + keys.pick(static_cast<uint32_t>(items.size()));
            ASSERT_EQ(rn_delete(root, *at), 0);
            items.erase(at);
        }
        ASSERT_NO_FATAL_FAILURE(check_all(root, items)) << step;
    }
    ASSERT_EQ(rn_tree_destroy(root), 0);
    ASSERT_EQ(rn_tree_destroy(root), RADIX_E_BAD_TREE);
    free(root);
}

TEST_F(Radix, LongestMatchInAChainOfAllLengths) {
    rn_root_t *root = make_item_tree(release);
    prefix p;
    for (uint32_t i = 0; i < 256; ++i) {
        p.set(i, i % 3 == 0);
    }
    for (uint32_t i = 0; i <= 256; ++i) {
        prefix cut = p;
        cut.cut(i);
        ASSERT_EQ(rn_insert(root, make_item(cut)), 0);
    }
    for (uint32_t i = 0; i < 256; ++i) {
        prefix other = p;
        other.set(i, !other.bit(i));
        const rn_node_t *n = rn_lookup(root, other.bytes.data(), 256);
        ASSERT_NE(n, nullptr);
        ASSERT_EQ(reinterpret_cast<const item *>(n)->key_bits, i);
    }
    ASSERT_EQ(rn_verify(root), nullptr);
    ASSERT_EQ(rn_tree_destroy(root), 0);
    free(root);
}

TEST_F(Radix, KeyRightBehindTheNodeAndLengthBehindIt) {
    struct parent {
        rn_node_t node;
        uint32_t handle;
        uint32_t bits;
        void *children;
    };
    static_assert(offsetof(parent, handle) == 32 && offsetof(parent, bits) == 36);
    rn_root_t *root = rn_tree_init(32, 36, note);
    parent one{{}, 7, 32, nullptr};
    ASSERT_EQ(rn_insert(root, &one), 0);
    const uint32_t key = 7;
    EXPECT_EQ(rn_search(root, &key, 32), &one.node);
    ASSERT_EQ(rn_delete(root, &one), 0);
    EXPECT_EQ(destroyed, std::vector<rn_node_t *>{&one.node});
    EXPECT_EQ(rn_preorder_firstnode(root), nullptr);
    ASSERT_EQ(rn_tree_destroy(root), 0);
}

TEST_F(Radix, LengthOfOneByte) {
    rn_root_t *root =
        rn_tree_init_v2(offsetof(short_item, key), offsetof(short_item, key_bits), note, malloc, 1);
    short_item a{{}, 1, 32, ~0U};
    short_item b{{}, 2, 32, ~0U};
    ASSERT_EQ(rn_insert(root, &a), 0);
    ASSERT_EQ(rn_insert(root, &b), 0);
    uint8_t key[36] = {2};
    EXPECT_EQ(rn_search(root, key, 32), &b.node);
    EXPECT_EQ(rn_count(root), 2u);
    ASSERT_EQ(rn_tree_destroy(root), 0);
    EXPECT_EQ(destroyed.size(), 2u);
    free(root);
}

TEST_F(Radix, WrongCallsHaveTheirCodes) {
    EXPECT_EQ(rn_tree_init_v2(32, 64, note, malloc, 3), nullptr);
    EXPECT_EQ(rn_tree_init_v2(32, 64, note, nullptr, 2), nullptr);
    EXPECT_EQ(rn_tree_init_v2(
                  32, 64, note, [](size_t) -> void * { return nullptr; }, 2),
              nullptr);
    rn_root_t *root = make_item_tree(note);
    rn_root_t *other = make_item_tree(note);
    item *i = make_item({});
    EXPECT_EQ(rn_insert(nullptr, i), EINVAL);
    EXPECT_EQ(rn_insert(root, nullptr), EINVAL);
    EXPECT_EQ(rn_delete(root, i), RADIX_E_NOT_LINKED);
    EXPECT_EQ(rn_insert(root, i), 0);
    EXPECT_EQ(rn_insert(root, i), RADIX_E_LINKED);
    EXPECT_EQ(rn_insert(other, i), RADIX_E_LINKED);
    EXPECT_EQ(rn_delete(other, i), RADIX_E_NOT_LINKED);
    EXPECT_EQ(rn_set_fns(root, note, 1), EINVAL);
    EXPECT_EQ(rn_set_fns(nullptr, note, 2), EINVAL);
    EXPECT_EQ(rn_search(root, nullptr, 1), nullptr);
    EXPECT_EQ(rn_search(nullptr, "a", 1), nullptr);
    EXPECT_EQ(rn_delete(root, i), 0);
    // It may go to another tree now.
    EXPECT_EQ(rn_insert(other, i), 0);
    EXPECT_EQ(rn_tree_destroy(other), 0);
    i->key_bits = 3000;
    EXPECT_EQ(rn_insert(root, i), RADIX_E_LENGTH);
    EXPECT_EQ(rn_tree_destroy(root), 0);
    free(i);
    free(root);
    free(other);
}

int delete_even(rn_node_t *record, va_list arguments) {
    rn_root_t *root = va_arg(arguments, rn_root_t *);
    int *seen = va_arg(arguments, int *);
    ++*seen;
    if (reinterpret_cast<item *>(record)->key[0] % 2 == 0) {
        EXPECT_EQ(rn_delete(root, record), 0);
    }
    return 0;
}

int stop_at_third(rn_node_t *, va_list arguments) {
    return --*va_arg(arguments, int *) == 0 ? -1 : 0;
}

TEST_F(Radix, WalkMayDeleteTheRecordItIsGiven) {
    rn_root_t *root = make_item_tree(release);
    for (uint32_t i = 0; i < 256; ++i) {
        prefix p;
        p.bytes[0] = static_cast<uint8_t>(i);
        p.length = 8;
        ASSERT_EQ(rn_insert(root, make_item(p)), 0);
    }
    int seen = 0;
    EXPECT_EQ(rn_walktree(root, delete_even, root, &seen), 0);
    EXPECT_EQ(seen, 256);
    EXPECT_EQ(rn_count(root), 128u);
    int left = 3;
    EXPECT_EQ(rn_walktree(root, stop_at_third, &left), -1);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(rn_walktree(root, nullptr), EINVAL);
    EXPECT_EQ(rn_verify(root), nullptr);
    EXPECT_EQ(rn_tree_destroy(root), 0);
    free(root);
}

// A pointer that another process left behind is never called.
TEST_F(Radix, FunctionsOfAnotherProcessAreNotCalled) {
    rn_root_t *root = make_item_tree(reinterpret_cast<rn_destructor_fn>(1));
    item *i = make_item({});
    ASSERT_EQ(rn_insert(root, i), 0);
    root->functions_of ^= 0x5a5a;
    EXPECT_EQ(rn_delete(root, i), RADIX_E_NO_FUNCTIONS);
    EXPECT_EQ(rn_tree_destroy(root), RADIX_E_NO_FUNCTIONS);
    EXPECT_EQ(rn_search(root, i->key, 0), &i->node);
    EXPECT_EQ(rn_set_fns(root, release, 2), 0);
    EXPECT_EQ(rn_delete(root, i), 0);
    EXPECT_EQ(rn_tree_destroy(root), 0);
    free(root);
}

struct vlan {
    rt_node_t node;
    const void *key_at;
    uint32_t handle;
};

std::vector<rt_node_t *> released;
int allocations = 0;
void free_node(rt_node_t *n) {
    released.push_back(n);
}
void *count_alloc(size_t size) {
    ++allocations;
    return malloc(size);
}

int sum_handles(rt_node_t *record, void *argument) {
    *static_cast<uint32_t *>(argument) += reinterpret_cast<vlan *>(record)->handle;
    return reinterpret_cast<vlan *>(record)->handle == 99 ? 5 : 0;
}

TEST_F(Radix, HeadsPlacedByTheCaller) {
    struct {
        rt_head_t head;
        rt_aux_t aux;
    } block{};
    released.clear();
    EXPECT_EQ(rt_root_init(&block.head, &block.aux), 0);
    EXPECT_EQ(rt_aux_init(nullptr, free_node, 0), 0);
    EXPECT_EQ(rt_aux_init(&block.aux, free_node, 0), 1);
    EXPECT_EQ(rt_mem_allocation_ext(&block.aux, nullptr, free), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(rt_mem_allocation_ext(&block.aux, count_alloc, free), 0u);
    EXPECT_EQ(rt_root_init(&block.head, &block.aux), 1);
    vlan nodes[20] = {};
    for (uint32_t i = 0; i < 20; ++i) {
        nodes[i].handle = i;
        ASSERT_EQ(rt_insert(&block.head, &nodes[i], 32, &nodes[i].handle), 0u);
    }
    vlan twice{};
    twice.handle = 4;
    EXPECT_EQ(rt_insert(&block.head, &twice, 32, &twice.handle), static_cast<cerrno>(EEXIST));
    EXPECT_EQ(rt_insert(&block.head, &nodes[4], 32, &nodes[4].handle),
              static_cast<cerrno>(RADIX_E_LINKED));
    EXPECT_EQ(rt_delete(&twice), static_cast<cerrno>(RADIX_E_NOT_LINKED));
    const uint32_t seven = 7;
    EXPECT_EQ(rt_search(&block.head, &seven, 32), &nodes[7].node);
    EXPECT_EQ(rt_verify(&block.head), nullptr);
    // A restart: the functions are set again, the records are still there.
    block.aux.functions_of ^= 1;
    EXPECT_EQ(rt_delete(&nodes[7]), static_cast<cerrno>(RADIX_E_NO_FUNCTIONS));
    EXPECT_EQ(rt_aux_init(&block.aux, free_node, 0), 1);
    EXPECT_EQ(rt_mem_allocation_ext(&block.aux, count_alloc, free), 0u);
    EXPECT_EQ(rt_delete(&nodes[7]), 0u);
    EXPECT_EQ(released, std::vector<rt_node_t *>{&nodes[7].node});
    EXPECT_EQ(rt_search(&block.head, &seven, 32), nullptr);
    uint32_t sum = 0;
    EXPECT_EQ(rt_walktree(&block.head, sum_handles, &sum), 0);
    EXPECT_EQ(sum, 190u - 7);
    twice.handle = 99;
    ASSERT_EQ(rt_insert(&block.head, &twice, 32, &twice.handle), 0u);
    EXPECT_EQ(rt_walktree(&block.head, sum_handles, &sum), 5);
    EXPECT_EQ(allocations, 0);
}

}  // namespace
