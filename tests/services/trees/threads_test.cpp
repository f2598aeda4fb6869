// Readers beside a writer, under the lock that covers the tree; and functions named beside their
// use.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "services/trees/avl.h"
#include "services/trees/wavl.h"
#include "tests/services/trees/records.h"

using namespace trees_test;

namespace {

TEST(TreeThreads, ReadersSeeWholeTreesBesideAWriter) {
    std::shared_mutex lock;
    std::mutex gate;  // passed by all on the way in, so that readers do not starve the writer
    wavl_tree tree{};
    ASSERT_EQ(shm_wavl_init(&record_fns, &tree, 3), 0U);
    std::vector<record> records(200);
    for (uint32_t i = 0; i < records.size(); ++i) {
        records[i] = {{}, i, 1000 - i, i};
    }
    // Even records stay, odd ones come and go.
    for (uint32_t i = 0; i < records.size(); i += 2) {
        ASSERT_NE(shm_wavl_insert_thread(&record_fns, &tree, &records[i], 1), nullptr);
    }
    std::atomic<bool> done{false};
    std::atomic<int> faults{0};
    std::atomic<int> looked{0};
    std::vector<std::thread> readers;
    for (unsigned seed = 0; seed < 3; ++seed) {
        readers.emplace_back([&, seed] {
            std::mt19937 random(seed);
            while (!done) {
                const auto i = static_cast<uint32_t>(random() % records.size());
                const record key{{}, 0, 1000 - i, 0};
                std::unique_lock turn(gate);
                const std::shared_lock hold(lock);
                turn.unlock();
                const void *found = shm_wavl_search(&record_fns, &tree, &key, 1);
                const bool right = found == nullptr ? i % 2 == 1 : found == &records[i];
                faults += right ? 0 : 1;
                ++looked;
                faults += shm_wavl_verify(&record_fns, &tree, 1, nullptr) == 0 ? 0 : 1;
            }
        });
    }
    std::mt19937 random(9);
    for (int change = 0; change < 1000 || looked < 1000; ++change) {
        record *r = &records[random() % records.size() | 1U];
        const std::lock_guard turn(gate);
        const std::unique_lock hold(lock);
        if (shm_wavl_delete_thread(&record_fns, &tree, r, 1) == nullptr) {
            EXPECT_EQ(shm_wavl_insert_thread(&record_fns, &tree, r, 1), r);
        }
    }
    done = true;
    for (std::thread &reader : readers) {
        reader.join();
    }
    EXPECT_EQ(faults, 0);
}

TEST(TreeThreads, FunctionsMayBeNamedWhileTheyServe) {
    static const shm_avl_fns fns = {std::calloc, nullptr, nullptr, nullptr, compare_objects};
    shm_avl_tree *root = nullptr;
    ASSERT_EQ(shm_avl_tree_init(&fns, &root, 1, 0), 0U);
    ASSERT_EQ(avl_tree_init_fns_shm(root, compare_objects, nullptr, nullptr), 0U);
    object one{};
    ASSERT_EQ(shm_avl_tree_insert(&fns, root, &one), 0U);
    std::atomic<int> faults{0};
    std::thread reader([&] {
        for (int i = 0; i < 5000; ++i) {
            void *found = nullptr;
            faults += shm_avl_tree_search(nullptr, root, shm_avl_exact, &one, &found) == 0 ? 0 : 1;
        }
    });
    for (int i = 0; i < 5000; ++i) {
        EXPECT_EQ(avl_tree_init_fns_shm(root, compare_objects, std::calloc, nullptr), 0U);
    }
    reader.join();
    EXPECT_EQ(faults, 0);
    std::free(root);
}

}  // namespace
