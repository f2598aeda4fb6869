#include "services/trees/avl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "services/journal/journal.h"
#include "tests/services/trees/records.h"

using namespace trees_test;

extern "C" int trees_serve_c(void);

namespace {

int allocations_left = -1;  // negative: no limit
int blocks_out = 0;

void *limited_calloc(size_t count, size_t size) {
    if (allocations_left == 0) {
        return nullptr;
    }
    --allocations_left;
    ++blocks_out;
    return std::calloc(count, size);
}

cerrno counted_free(void *memory) {
    --blocks_out;
    std::free(memory);
    return 0;
}

cerrno refusing_free(void *) {
    return EPERM;
}

const shm_avl_fns fns = {limited_calloc, counted_free, nullptr, nullptr, compare_objects};

// A route's tree beside a sorted vector; both change together and are compared whole.
class RouteTree : public ::testing::Test {
  protected:
    void add(uint32_t key) {
        entries_.push_back(std::make_unique<entry>());
        entry *e = entries_.back().get();
        e->key = key;
        const bool fresh = !std::binary_search(model_.begin(), model_.end(), key);
        EXPECT_EQ(avl_insert(&tree_, &e->node, compare_entries), fresh ? &e->node : nullptr);
        EXPECT_EQ(tree_node_linked(&e->node) != 0, fresh);
        if (fresh) {
            model_.insert(std::lower_bound(model_.begin(), model_.end(), key), key);
        }
        check();
    }

    void remove(uint32_t key) {
        avl_node *n = find(key);
        const auto at = std::lower_bound(model_.begin(), model_.end(), key);
        const bool there = at != model_.end() && *at == key;
        ASSERT_EQ(n != nullptr, there);
        if (there) {
            EXPECT_EQ(avl_delete(&tree_, n), n);
            EXPECT_EQ(n->up, 0U);
            EXPECT_EQ(avl_delete(&tree_, n), nullptr);
            model_.erase(at);
        }
        check();
    }

    avl_node *find(uint32_t key) {
        entry wanted{};
        wanted.key = key;
        return avl_search(&tree_, &wanted.node, compare_entries);
    }

    void check() {
        uint64_t count = 0;
        ASSERT_EQ(avl_verify(&tree_, compare_entries, &count), 0U);
        ASSERT_EQ(count, model_.size());
        size_t i = 0;
        for (avl_node *n = avl_first(&tree_); n != nullptr; n = avl_next(n), ++i) {
            ASSERT_EQ(entry_of(n)->key, model_[i]);
        }
        ASSERT_EQ(i, model_.size());
    }

    avl_tree tree_{};
    std::vector<uint32_t> model_;
    std::vector<std::unique_ptr<entry>> entries_;
};

TEST_F(RouteTree, ZeroesAreAnEmptyTree) {
    EXPECT_EQ(avl_first(&tree_), nullptr);
    EXPECT_EQ(find(1), nullptr);
    check();
}

TEST_F(RouteTree, StaysInOrderUnderRandomChanges) {
    std::mt19937 random(6);
    for (int step = 0; step < 3000; ++step) {
        const auto key = static_cast<uint32_t>(random() % 300);
        // Grows, then shrinks, several times over.
        const bool growing = (step / 500) % 2 == 0;
        if ((random() % 4 != 0) == growing) {
            add(key);
        } else {
            remove(key);
        }
        ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
}

TEST_F(RouteTree, TakesAscendingKeysAndLosesThemFromTheFront) {
    for (uint32_t key = 0; key < 300; ++key) {
        add(key);
    }
    for (uint32_t key = 0; key < 300; ++key) {
        remove(key);
    }
}

TEST_F(RouteTree, TakesDescendingKeysAndLosesThemFromTheBack) {
    for (uint32_t key = 300; key-- > 0;) {
        add(key);
    }
    for (uint32_t key = 300; key-- > 0;) {
        remove(key);
    }
}

TEST_F(RouteTree, TakesOneOfManyEqualKeys) {
    for (int i = 0; i < 100; ++i) {
        add(7);
    }
    EXPECT_EQ(model_.size(), 1U);
    remove(7);
    add(7);
}

TEST_F(RouteTree, FindsEveryKeyAndNoneBetween) {
    for (uint32_t key = 0; key < 200; key += 2) {
        add(key);
    }
    for (uint32_t key = 0; key < 201; ++key) {
        EXPECT_EQ(find(key) != nullptr, key % 2 == 0 && key < 200) << key;
    }
}

TEST_F(RouteTree, RefusesANodeThatIsInATree) {
    add(1);
    add(2);
    entry *e = entry_of(find(1));
    avl_tree other{};
    EXPECT_EQ(avl_insert(&other, &e->node, compare_entries), nullptr);
    EXPECT_EQ(avl_first(&other), nullptr);
    e->key = 0;  // same place, another key: would pass for a new one
    EXPECT_EQ(avl_insert(&tree_, &e->node, compare_entries), nullptr);
    EXPECT_EQ(avl_verify(&tree_, compare_entries, nullptr), 0U);
}

TEST_F(RouteTree, DeletesOnlyWhatItHolds) {
    add(1);
    entry loose{};
    EXPECT_EQ(avl_delete(&tree_, &loose.node), nullptr);
    avl_tree other{};
    entry foreign{};
    ASSERT_NE(avl_insert(&other, &foreign.node, compare_entries), nullptr);
    EXPECT_EQ(avl_delete(&tree_, &foreign.node), nullptr);
    EXPECT_EQ(avl_first(&other), &foreign.node);
    check();
}

TEST_F(RouteTree, LetsARecordGoWhoseKeyChanged) {
    for (uint32_t key = 10; key < 50; ++key) {
        add(key);
    }
    entry *e = entry_of(find(20));
    e->key = 1000;
    EXPECT_EQ(avl_delete(&tree_, &e->node), &e->node);
    model_.erase(std::find(model_.begin(), model_.end(), 20U));
    check();
}

TEST_F(RouteTree, AnswersNullArgumentsWithNull) {
    entry e{};
    EXPECT_EQ(avl_insert(nullptr, &e.node, compare_entries), nullptr);
    EXPECT_EQ(avl_insert(&tree_, nullptr, compare_entries), nullptr);
    EXPECT_EQ(avl_insert(&tree_, &e.node, nullptr), nullptr);
    EXPECT_EQ(avl_delete(nullptr, &e.node), nullptr);
    EXPECT_EQ(avl_delete(&tree_, nullptr), nullptr);
    EXPECT_EQ(avl_search(nullptr, &e.node, compare_entries), nullptr);
    EXPECT_EQ(avl_search(&tree_, nullptr, compare_entries), nullptr);
    EXPECT_EQ(avl_search(&tree_, &e.node, nullptr), nullptr);
    EXPECT_EQ(avl_first(nullptr), nullptr);
    EXPECT_EQ(avl_next(nullptr), nullptr);
    EXPECT_EQ(avl_next(&e.node), nullptr);
    EXPECT_EQ(avl_verify(nullptr, compare_entries, nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(avl_verify(&tree_, nullptr, nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(tree_.head.up, 0U);
}

TEST_F(RouteTree, VerifyTellsWhatIsWrong) {
    for (uint32_t key = 1; key <= 20; ++key) {
        add(key);
    }
    entry *leaf = entry_of(avl_first(&tree_));
    leaf->key = 5;
    EXPECT_EQ(avl_verify(&tree_, compare_entries, nullptr), TREE_E_ORDER);
    leaf->key = 1;

    leaf->node.up |= 1;
    EXPECT_EQ(avl_verify(&tree_, compare_entries, nullptr), TREE_E_BALANCE);
    leaf->node.up &= ~uintptr_t{3};

    const uintptr_t up = leaf->node.up;
    leaf->node.up = reinterpret_cast<uintptr_t>(&entries_.back()->node);
    EXPECT_EQ(avl_verify(&tree_, compare_entries, nullptr), TREE_E_LINKS);
    leaf->node.up = up;

    tree_node *const last = tree_.head.right;
    tree_.head.right = avl_first(&tree_);
    EXPECT_EQ(avl_verify(&tree_, compare_entries, nullptr), TREE_E_LINKS);
    tree_.head.right = last;

    leaf->node.left = last;  // reachable twice
    EXPECT_EQ(avl_verify(&tree_, compare_entries, nullptr), TREE_E_LINKS);
    leaf->node.left = nullptr;
    check();
}

class WindowTree : public ::testing::Test {
  protected:
    void SetUp() override {
        allocations_left = -1;
        blocks_out = 0;
        ASSERT_EQ(shm_avl_tree_init(&fns, &root_, 1, 0), 0U);
    }

    void TearDown() override {
        while (true) {
            void *least = nullptr;
            if (shm_avl_tree_search(&fns, root_, shm_avl_first, nullptr, &least) != 0) {
                break;
            }
            ASSERT_EQ(shm_avl_tree_delete(&fns, root_, least), 0U);
            ASSERT_EQ(shm_avl_tree_free_object(&fns, root_, least), 0U);
        }
        EXPECT_EQ(blocks_out, 1) << "the head alone is left";
        std::free(root_);
    }

    object *make(uint32_t key) {
        void *memory = nullptr;
        EXPECT_EQ(shm_avl_tree_allocate_object(&fns, root_, sizeof(object), &memory), 0U);
        auto *o = static_cast<object *>(memory);
        o->key = key;
        return o;
    }

    object *add(uint32_t key) {
        object *o = make(key);
        EXPECT_EQ(shm_avl_tree_insert(&fns, root_, o), 0U);
        return o;
    }

    // The key found, or -1.
    int64_t find(uint32_t mode, uint32_t key) {
        object wanted{};
        wanted.key = key;
        void *found = &wanted;
        const cerrno code = shm_avl_tree_search(&fns, root_, mode, &wanted, &found);
        EXPECT_EQ(code, found != nullptr ? 0U : TREE_E_NOT_FOUND);
        return found != nullptr ? int64_t{static_cast<object *>(found)->key} : -1;
    }

    shm_avl_tree *root_ = nullptr;
};

TEST_F(WindowTree, SearchModesAgreeWithASortedSetOnEveryGap) {
    std::set<uint32_t> model;
    std::mt19937 random(3);
    for (int i = 0; i < 60; ++i) {
        const auto key = static_cast<uint32_t>(random() % 200 + 2);
        if (model.insert(key).second) {
            add(key);
        }
        for (uint32_t wanted = 0; wanted < 205; ++wanted) {
            const auto next = model.upper_bound(wanted);
            const auto next_or_equal = model.lower_bound(wanted);
            ASSERT_EQ(find(shm_avl_exact, wanted), model.count(wanted) != 0 ? int64_t{wanted} : -1);
            ASSERT_EQ(find(shm_avl_next, wanted), next != model.end() ? int64_t{*next} : -1);
            ASSERT_EQ(find(shm_avl_next_or_equal, wanted),
                      next_or_equal != model.end() ? int64_t{*next_or_equal} : -1);
            ASSERT_EQ(find(shm_avl_first, wanted), int64_t{*model.begin()});
        }
    }
    uint64_t count = 0;
    EXPECT_EQ(shm_avl_tree_verify(&fns, root_, &count), 0U);
    EXPECT_EQ(count, model.size());
    EXPECT_EQ(shm_avl_tree_count(root_), model.size());
}

TEST_F(WindowTree, FindsNothingInAnEmptyTree) {
    for (const uint32_t mode : {1U, 4U, 5U, 6U}) {
        EXPECT_EQ(find(mode, 0), -1);
    }
}

TEST_F(WindowTree, RefusesOtherSearchModes) {
    add(1);
    object key{};
    for (const uint32_t mode : {0U, 2U, 3U, 7U, 0xffffffffU}) {
        void *found = &key;
        EXPECT_EQ(shm_avl_tree_search(&fns, root_, mode, &key, &found),
                  static_cast<cerrno>(EINVAL));
        EXPECT_EQ(found, nullptr);
    }
}

TEST_F(WindowTree, RefusesASecondObjectWithTheSameKey) {
    object *one = add(5);
    object *two = make(5);
    EXPECT_EQ(shm_avl_tree_insert(&fns, root_, two), static_cast<cerrno>(EEXIST));
    EXPECT_EQ(shm_avl_tree_insert(&fns, root_, one), static_cast<cerrno>(EBUSY));
    EXPECT_EQ(shm_avl_tree_delete(&fns, root_, two), TREE_E_NOT_FOUND);
    EXPECT_EQ(shm_avl_tree_count(root_), 1U);
    EXPECT_EQ(shm_avl_tree_free_object(&fns, root_, two), 0U);
}

TEST_F(WindowTree, KeepsAnObjectThatIsInTheTreeFromBeingFreed) {
    object *one = add(5);
    EXPECT_EQ(shm_avl_tree_free_object(&fns, root_, one), static_cast<cerrno>(EBUSY));
    EXPECT_EQ(find(shm_avl_exact, 5), 5);
}

TEST_F(WindowTree, PassesOnWhatFreeAnswers) {
    object *one = make(5);
    shm_avl_fns refusing = fns;
    refusing.node_free = refusing_free;
    EXPECT_EQ(shm_avl_tree_free_object(&refusing, root_, one), static_cast<cerrno>(EPERM));
    EXPECT_EQ(shm_avl_tree_free_object(&fns, root_, one), 0U);
}

TEST_F(WindowTree, LeavesTheCallersPointerAloneWhenMemoryIsOut) {
    allocations_left = 0;
    object before{};
    void *object_p = &before;
    EXPECT_EQ(shm_avl_tree_allocate_object(&fns, root_, sizeof(object), &object_p),
              static_cast<cerrno>(ENOMEM));
    EXPECT_EQ(object_p, &before);
    shm_avl_tree *other = nullptr;
    EXPECT_EQ(shm_avl_tree_init(&fns, &other, 1, 0), static_cast<cerrno>(ENOMEM));
    EXPECT_EQ(other, nullptr);
}

TEST_F(WindowTree, WalksInOrderAndSurvivesLosingTheVisited) {
    for (uint32_t key = 100; key-- > 0;) {
        add(key);
    }
    struct state {
        shm_avl_tree *root;
        uint32_t expected;
    } s{root_, 0};
    const auto visit = [](void *o, void *context) -> cerrno {
        auto *st = static_cast<state *>(context);
        EXPECT_EQ(static_cast<object *>(o)->key, st->expected++);
        if (st->expected % 3 != 0) {
            EXPECT_EQ(shm_avl_tree_delete(&fns, st->root, o), 0U);
            EXPECT_EQ(shm_avl_tree_free_object(&fns, st->root, o), 0U);
        }
        return 0;
    };
    EXPECT_EQ(avl_tree_walk(root_, visit, &s), 0U);
    EXPECT_EQ(s.expected, 100U);
    EXPECT_EQ(shm_avl_tree_count(root_), 33U);
    EXPECT_EQ(shm_avl_tree_verify(&fns, root_, nullptr), 0U);
}

TEST_F(WindowTree, EndsAWalkWithTheFirstFailure) {
    for (uint32_t key = 0; key < 10; ++key) {
        add(key);
    }
    uint32_t visited = 0;
    const auto visit = [](void *o, void *context) -> cerrno {
        ++*static_cast<uint32_t *>(context);
        return static_cast<object *>(o)->key == 4 ? cerrno{77} : cerrno{0};
    };
    EXPECT_EQ(avl_tree_walk(root_, visit, &visited), 77U);
    EXPECT_EQ(visited, 5U);
}

TEST_F(WindowTree, RefusesToBeMadeTwiceOrOtherwise) {
    shm_avl_tree *const before = root_;
    EXPECT_EQ(shm_avl_tree_init(&fns, &root_, 1, 0), static_cast<cerrno>(EEXIST));
    EXPECT_EQ(root_, before);
    shm_avl_tree *other = nullptr;
    EXPECT_EQ(shm_avl_tree_init(&fns, &other, 2, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(shm_avl_tree_init(&fns, &other, 1, 1), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(shm_avl_tree_init(nullptr, &other, 1, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(shm_avl_tree_init(&fns, nullptr, 1, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(other, nullptr);
}

TEST_F(WindowTree, AnswersNullArgumentsWithEinval) {
    const auto inval = static_cast<cerrno>(EINVAL);
    object o{};
    void *found = nullptr;
    EXPECT_EQ(shm_avl_tree_allocate_object(&fns, nullptr, 64, &found), inval);
    EXPECT_EQ(shm_avl_tree_allocate_object(&fns, root_, 64, nullptr), inval);
    EXPECT_EQ(shm_avl_tree_allocate_object(&fns, root_, sizeof(avl_node) - 1, &found), inval);
    EXPECT_EQ(shm_avl_tree_free_object(&fns, nullptr, &o), inval);
    EXPECT_EQ(shm_avl_tree_free_object(&fns, root_, nullptr), inval);
    EXPECT_EQ(shm_avl_tree_insert(&fns, nullptr, &o), inval);
    EXPECT_EQ(shm_avl_tree_insert(&fns, root_, nullptr), inval);
    EXPECT_EQ(shm_avl_tree_delete(&fns, nullptr, &o), inval);
    EXPECT_EQ(shm_avl_tree_delete(&fns, root_, nullptr), inval);
    EXPECT_EQ(shm_avl_tree_search(&fns, nullptr, shm_avl_exact, &o, &found), inval);
    EXPECT_EQ(shm_avl_tree_search(&fns, root_, shm_avl_exact, nullptr, &found), inval);
    EXPECT_EQ(shm_avl_tree_search(&fns, root_, shm_avl_next, nullptr, &found), inval);
    EXPECT_EQ(shm_avl_tree_search(&fns, root_, shm_avl_exact, &o, nullptr), inval);
    EXPECT_EQ(avl_tree_walk(
                  nullptr, [](void *, void *) -> cerrno { return 0; }, nullptr),
              inval);
    EXPECT_EQ(avl_tree_walk(root_, nullptr, nullptr), inval);
    EXPECT_EQ(shm_avl_tree_verify(&fns, nullptr, nullptr), inval);
    EXPECT_EQ(shm_avl_tree_count(nullptr), 0U);
}

TEST_F(WindowTree, KnowsMemoryThatIsNoTree) {
    alignas(8) unsigned char zeroes[64] = {};
    auto *none = reinterpret_cast<shm_avl_tree *>(zeroes);
    object o{};
    void *found = nullptr;
    EXPECT_EQ(shm_avl_tree_allocate_object(&fns, none, 64, &found), TREE_E_NOT_RUNNING);
    EXPECT_EQ(shm_avl_tree_insert(&fns, none, &o), TREE_E_NOT_RUNNING);
    EXPECT_EQ(shm_avl_tree_delete(&fns, none, &o), TREE_E_NOT_RUNNING);
    EXPECT_EQ(shm_avl_tree_search(&fns, none, shm_avl_first, &o, &found), TREE_E_NOT_RUNNING);
    EXPECT_EQ(avl_tree_walk(
                  none, [](void *, void *) -> cerrno { return 0; }, nullptr),
              TREE_E_NOT_RUNNING);
    EXPECT_EQ(shm_avl_tree_verify(&fns, none, nullptr), TREE_E_NOT_RUNNING);
    EXPECT_EQ(avl_tree_init_fns_shm(none, compare_objects, nullptr, nullptr), TREE_E_NOT_RUNNING);
}

TEST_F(WindowTree, VerifyComparesTheCountWithWhatIsThere) {
    add(1);
    add(2);
    uint64_t wrong = 3;
    std::memcpy(reinterpret_cast<unsigned char *>(root_) + 8, &wrong, sizeof(wrong));
    uint64_t seen = 0;
    EXPECT_EQ(shm_avl_tree_verify(&fns, root_, &seen), TREE_E_COUNT);
    EXPECT_EQ(seen, 2U);
    wrong = 2;
    std::memcpy(reinterpret_cast<unsigned char *>(root_) + 8, &wrong, sizeof(wrong));
    EXPECT_EQ(shm_avl_tree_verify(&fns, root_, &seen), 0U);
}

// A group of the caller that is undone takes the tree's changes with it.
TEST_F(WindowTree, JoinsTheGroupOfItsCaller) {
    add(1);
    object *two = make(2);
    alignas(64) static unsigned char log_memory[mfwd6::journal::log_bytes(256)];
    mfwd6::journal::bind_process(mfwd6::journal::format(log_memory, sizeof(log_memory)), 1);
    {
        mfwd6::journal::group outer;
        EXPECT_EQ(shm_avl_tree_insert(&fns, root_, two), 0U);
        EXPECT_EQ(shm_avl_tree_count(root_), 2U);
        outer.undo();
    }
    mfwd6::journal::bind_process(nullptr, 0);
    EXPECT_EQ(shm_avl_tree_count(root_), 1U);
    EXPECT_EQ(shm_avl_tree_verify(&fns, root_, nullptr), 0U);
    EXPECT_FALSE(tree_node_linked(&two->node));
    EXPECT_EQ(shm_avl_tree_free_object(&fns, root_, two), 0U);
}

TEST(TreeHeaders, ServeC) {
    EXPECT_TRUE(trees_serve_c());
}

}  // namespace
