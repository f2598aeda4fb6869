// Functions that a process names once for a tree in a window, and calls without functions.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "services/trees/avl.h"
#include "tests/services/trees/records.h"

using namespace trees_test;

namespace {

void *from_heap(size_t count, size_t size) {
    return std::calloc(count, size);
}

cerrno to_heap(void *memory) {
    std::free(memory);
    return 0;
}

const shm_avl_fns fns = {from_heap, to_heap, nullptr, nullptr, compare_objects};

int later_calls = 0;

int compare_later(const void *a, const void *b) {
    ++later_calls;
    return compare_objects(a, b);
}

const auto inval = static_cast<cerrno>(EINVAL);

TEST(RegisteredFunctions, ServeCallsWithoutFunctionsAndAreSetAgain) {
    shm_avl_tree *root = nullptr;
    ASSERT_EQ(shm_avl_tree_init(&fns, &root, 1, 0), 0U);
    void *memory = nullptr;
    EXPECT_EQ(shm_avl_tree_allocate_object(nullptr, root, sizeof(object), &memory), inval);
    object one{};
    one.key = 1;
    EXPECT_EQ(shm_avl_tree_insert(nullptr, root, &one), inval);
    void *found = nullptr;
    EXPECT_EQ(shm_avl_tree_search(nullptr, root, shm_avl_exact, &one, &found), inval);
    EXPECT_EQ(shm_avl_tree_free_object(nullptr, root, &one), inval);
    EXPECT_EQ(shm_avl_tree_verify(nullptr, root, nullptr), inval);

    ASSERT_EQ(avl_tree_init_fns_shm(root, compare_objects, from_heap, to_heap), 0U);
    ASSERT_EQ(shm_avl_tree_insert(nullptr, root, &one), 0U);
    ASSERT_EQ(shm_avl_tree_allocate_object(nullptr, root, sizeof(object), &memory), 0U);
    EXPECT_EQ(shm_avl_tree_search(nullptr, root, shm_avl_exact, &one, &found), 0U);
    EXPECT_EQ(found, &one);

    // As after a restart: the tree is there, the functions lie elsewhere.
    ASSERT_EQ(avl_tree_init_fns_shm(root, compare_later, from_heap, to_heap), 0U);
    EXPECT_EQ(shm_avl_tree_search(nullptr, root, shm_avl_exact, &one, &found), 0U);
    EXPECT_EQ(later_calls, 1);
    EXPECT_EQ(shm_avl_tree_verify(nullptr, root, nullptr), 0U);
    // Functions that come with the call go before those that were named.
    later_calls = 0;
    EXPECT_EQ(shm_avl_tree_search(&fns, root, shm_avl_exact, &one, &found), 0U);
    EXPECT_EQ(later_calls, 0);

    EXPECT_EQ(shm_avl_tree_delete(nullptr, root, &one), 0U);
    EXPECT_EQ(shm_avl_tree_free_object(nullptr, root, memory), 0U);
    std::free(root);
}

TEST(RegisteredFunctions, NeedATreeAndAComparison) {
    shm_avl_tree *root = nullptr;
    ASSERT_EQ(shm_avl_tree_init(&fns, &root, 1, 0), 0U);
    EXPECT_EQ(avl_tree_init_fns_shm(nullptr, compare_objects, nullptr, nullptr), inval);
    EXPECT_EQ(avl_tree_init_fns_shm(root, nullptr, from_heap, to_heap), inval);
    std::free(root);
}

TEST(RegisteredFunctions, RunOutOfRoomWithACode) {
    std::vector<shm_avl_tree *> roots;
    cerrno code = 0;
    while (code == 0 && roots.size() < 100) {
        shm_avl_tree *root = nullptr;
        ASSERT_EQ(shm_avl_tree_init(&fns, &root, 1, 0), 0U);
        roots.push_back(root);
        code = avl_tree_init_fns_shm(root, compare_objects, nullptr, nullptr);
    }
    EXPECT_EQ(code, static_cast<cerrno>(ENOSPC));
    EXPECT_GT(roots.size(), 8U);
    EXPECT_EQ(avl_tree_init_fns_shm(roots.front(), compare_later, nullptr, nullptr), 0U)
        << "replaces, needs no room";
    for (shm_avl_tree *root : roots) {
        std::free(root);
    }
}

}  // namespace
