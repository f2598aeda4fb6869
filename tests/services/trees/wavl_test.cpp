#include "services/trees/wavl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "tests/services/trees/records.h"

using namespace trees_test;

namespace {

const auto inval = static_cast<cerrno>(EINVAL);

uint32_t key_of(const record *r, uint32_t thread) {
    return thread == 0 ? r->a : thread == 1 ? r->b : r->c;
}

class Wavl : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(shm_wavl_init(&record_fns, &tree_, 3), 0U); }

    record *make(uint32_t a, uint32_t b, uint32_t c) {
        records_.push_back(std::make_unique<record>());
        record *r = records_.back().get();
        *r = {{}, a, b, c};
        return r;
    }

    record *add(record *r, uint32_t thread) {
        return static_cast<record *>(shm_wavl_insert_thread(&record_fns, &tree_, r, thread));
    }

    record *take(record *r, uint32_t thread) {
        return static_cast<record *>(shm_wavl_delete_thread(&record_fns, &tree_, r, thread));
    }

    // Each thread against its own ordered map.
    void check() {
        for (uint32_t thread = 0; thread < 3; ++thread) {
            uint64_t count = 0;
            ASSERT_EQ(shm_wavl_verify(&record_fns, &tree_, thread, &count), 0U);
            ASSERT_EQ(count, model_[thread].size());
            ASSERT_EQ(wavl_count(&tree_, thread), model_[thread].size());
            void *n = shm_wavl_get_first(&record_fns, &tree_, thread);
            for (const auto &[key, r] : model_[thread]) {
                ASSERT_EQ(n, r) << key;
                n = shm_wavl_get_next(&record_fns, &tree_, n, thread);
            }
            ASSERT_EQ(n, nullptr);
        }
    }

    wavl_tree tree_{};
    std::vector<std::unique_ptr<record>> records_;
    std::map<uint32_t, record *> model_[3];
};

TEST_F(Wavl, KeepsThreeOrderingsOfTheSameRecords) {
    std::mt19937 random(7);
    for (int i = 0; i < 150; ++i) {
        make(static_cast<uint32_t>(random() % 100), static_cast<uint32_t>(random() % 100),
             static_cast<uint32_t>(random() % 100));
    }
    for (int step = 0; step < 4000; ++step) {
        record *r = records_[random() % records_.size()].get();
        const auto thread = static_cast<uint32_t>(random() % 3);
        const uint32_t key = key_of(r, thread);
        const auto at = model_[thread].find(key);
        if (random() % 2 == 0) {
            ASSERT_EQ(add(r, thread), at == model_[thread].end() ? r : nullptr);
            model_[thread].emplace(key, r);
        } else {
            const bool in = at != model_[thread].end() && at->second == r;
            ASSERT_EQ(take(r, thread), in ? r : nullptr);
            if (in) {
                model_[thread].erase(at);
            }
        }
        check();
        ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
}

TEST_F(Wavl, BearsTheWorstOrders) {
    for (uint32_t i = 0; i < 200; ++i) {
        record *r = make(i, 1000 - i, 7);
        for (uint32_t thread = 0; thread < 3; ++thread) {
            const bool fresh = model_[thread].emplace(key_of(r, thread), r).second;
            ASSERT_EQ(add(r, thread), fresh ? r : nullptr);
        }
        check();
    }
    EXPECT_EQ(model_[2].size(), 1U);
    for (const auto &r : records_) {
        for (uint32_t thread = 0; thread < 2; ++thread) {
            ASSERT_EQ(take(r.get(), thread), r.get());
            model_[thread].erase(key_of(r.get(), thread));
        }
        check();
    }
}

TEST_F(Wavl, SearchesEachThreadByItsKey) {
    record *one = make(1, 20, 300);
    record *two = make(2, 10, 200);
    for (uint32_t thread = 0; thread < 3; ++thread) {
        ASSERT_EQ(add(one, thread), one);
        ASSERT_EQ(add(two, thread), two);
    }
    const record key{{}, 2, 20, 250};
    EXPECT_EQ(shm_wavl_search(&record_fns, &tree_, &key, 0), two);
    EXPECT_EQ(shm_wavl_search(&record_fns, &tree_, &key, 1), one);
    EXPECT_EQ(shm_wavl_search(&record_fns, &tree_, &key, 2), nullptr);
}

// An interface lies in the global tree on threads 0 and 2 and in its table's tree on thread 1.
TEST_F(Wavl, ARecordMayBeInTwoTreesOnDifferentThreads) {
    wavl_tree other{};
    ASSERT_EQ(shm_wavl_init(&record_fns, &other, 3), 0U);
    record *r = make(1, 2, 3);
    EXPECT_EQ(add(r, 0), r);
    EXPECT_EQ(shm_wavl_insert_thread(&record_fns, &other, r, 1), r);
    EXPECT_EQ(shm_wavl_insert_thread(&record_fns, &other, r, 0), nullptr) << "thread 0 is taken";
    EXPECT_EQ(take(r, 1), nullptr) << "in the other tree";
    EXPECT_EQ(shm_wavl_delete_thread(&record_fns, &other, r, 1), r);
    EXPECT_EQ(take(r, 0), r);
}

TEST_F(Wavl, RefusesARecordTwiceEvenWhenItsKeyChanged) {
    record *r = make(1, 2, 3);
    EXPECT_EQ(add(r, 2), r);
    r->c = 4;
    EXPECT_EQ(add(r, 2), nullptr);
    EXPECT_EQ(wavl_count(&tree_, 2), 1U);
    EXPECT_EQ(take(r, 2), r) << "leaves by its links";
}

TEST_F(Wavl, ACopyOfTheHeadNamesTheSameTree) {
    for (uint32_t i = 0; i < 50; ++i) {
        record *r = make(i, i, i);
        ASSERT_EQ(add(r, 1), r);
    }
    const wavl_tree copy = tree_;
    EXPECT_TRUE(wavl_running(&copy));
    uint32_t taken = 0;
    while (auto *r = static_cast<record *>(shm_wavl_get_first(&record_fns, &copy, 1))) {
        ASSERT_EQ(r->b, taken++);
        ASSERT_EQ(take(r, 1), r);
    }
    EXPECT_EQ(taken, 50U);
    EXPECT_EQ(wavl_finish(&tree_), 0U);
    EXPECT_FALSE(wavl_running(&copy));
    EXPECT_EQ(shm_wavl_get_first(&record_fns, &copy, 1), nullptr);
}

TEST_F(Wavl, WalksACopyWhileTheVisitedLeave) {
    for (uint32_t i = 0; i < 50; ++i) {
        record *r = make(i, i, i);
        ASSERT_EQ(add(r, 0), r);
    }
    struct state {
        wavl_tree *tree;
        uint32_t expected;
    } s{&tree_, 0};
    const wavl_tree copy = tree_;
    const auto visit = [](void *node, void *context) {
        auto *st = static_cast<state *>(context);
        auto *r = static_cast<record *>(node);
        EXPECT_EQ(r->a, st->expected++);
        if (r->a % 4 != 0) {
            EXPECT_EQ(shm_wavl_delete_thread(&record_fns, st->tree, node, 0), node);
            std::memset(static_cast<void *>(r), 0xee, sizeof(*r));  // as freed memory may look
        }
        return 1;
    };
    EXPECT_EQ(wavl_walk(&copy, 0, visit, &s), 1);
    EXPECT_EQ(s.expected, 50U);
    EXPECT_EQ(wavl_count(&tree_, 0), 13U);
    EXPECT_EQ(shm_wavl_verify(&record_fns, &tree_, 0, nullptr), 0U);
}

TEST_F(Wavl, EndsAWalkOnZero) {
    for (uint32_t i = 0; i < 10; ++i) {
        record *r = make(i, i, i);
        ASSERT_EQ(add(r, 0), r);
    }
    uint32_t visited = 0;
    const auto visit = [](void *, void *context) {
        return ++*static_cast<uint32_t *>(context) < 4 ? 1 : 0;
    };
    EXPECT_EQ(wavl_walk(&tree_, 0, visit, &visited), 0);
    EXPECT_EQ(visited, 4U);
    EXPECT_EQ(wavl_walk(&tree_, 1, visit, &visited), 1) << "an empty thread is walked to its end";
}

TEST_F(Wavl, RunsFromInitToFinish) {
    wavl_tree tree{};
    EXPECT_FALSE(wavl_running(&tree));
    EXPECT_EQ(shm_wavl_finish(&record_fns, &tree), TREE_E_NOT_RUNNING);
    ASSERT_EQ(shm_wavl_init(&record_fns, &tree, 2), 0U);
    EXPECT_TRUE(wavl_running(&tree));
    EXPECT_EQ(shm_wavl_init(&record_fns, &tree, 2), static_cast<cerrno>(EEXIST));
    EXPECT_EQ(shm_wavl_finish(&record_fns, &tree), 0U);
    EXPECT_FALSE(wavl_running(&tree));
    static const wavl_tree zeroes{};
    EXPECT_EQ(std::memcmp(&tree, &zeroes, sizeof(tree)), 0);
    ASSERT_EQ(shm_wavl_init(&record_fns, &tree, 2), 0U);
}

TEST_F(Wavl, StartsOnGarbage) {
    wavl_tree tree;
    std::memset(static_cast<void *>(&tree), 0xa5, sizeof(tree));
    EXPECT_FALSE(wavl_running(&tree));
    ASSERT_EQ(shm_wavl_init(&record_fns, &tree, 3), 0U);
    for (uint32_t thread = 0; thread < 3; ++thread) {
        EXPECT_EQ(shm_wavl_verify(&record_fns, &tree, thread, nullptr), 0U);
        EXPECT_EQ(shm_wavl_get_first(&record_fns, &tree, thread), nullptr);
    }
}

TEST_F(Wavl, HasOnlyTheThreadsItWasMadeWith) {
    wavl_tree tree{};
    ASSERT_EQ(shm_wavl_init(&record_fns, &tree, 2), 0U);
    record *r = make(1, 2, 3);
    EXPECT_EQ(shm_wavl_insert_thread(&record_fns, &tree, r, 2), nullptr);
    EXPECT_EQ(shm_wavl_delete_thread(&record_fns, &tree, r, 2), nullptr);
    EXPECT_EQ(shm_wavl_search(&record_fns, &tree, r, 2), nullptr);
    EXPECT_EQ(shm_wavl_get_first(&record_fns, &tree, 3), nullptr);
    EXPECT_EQ(wavl_walk(
                  &tree, 2, [](void *, void *) { return 1; }, nullptr),
              0);
    EXPECT_EQ(wavl_count(&tree, 2), 0U);
}

TEST_F(Wavl, AnswersNullArguments) {
    record *r = make(1, 2, 3);
    const shm_wavl_fns empty{};
    EXPECT_EQ(shm_wavl_init(&record_fns, nullptr, 1), inval);
    wavl_tree fresh{};
    EXPECT_EQ(shm_wavl_init(nullptr, &fresh, 1), inval);
    EXPECT_EQ(shm_wavl_init(&empty, &fresh, 1), inval);
    EXPECT_EQ(shm_wavl_init(&record_fns, &fresh, 0), inval);
    EXPECT_EQ(shm_wavl_init(&record_fns, &fresh, 4), inval);
    EXPECT_FALSE(wavl_running(&fresh));
    EXPECT_FALSE(wavl_running(nullptr));
    EXPECT_EQ(shm_wavl_finish(&record_fns, nullptr), inval);
    EXPECT_EQ(shm_wavl_insert_thread(&record_fns, nullptr, r, 0), nullptr);
    EXPECT_EQ(shm_wavl_insert_thread(&record_fns, &tree_, nullptr, 0), nullptr);
    EXPECT_EQ(shm_wavl_insert_thread(nullptr, &tree_, r, 0), nullptr);
    EXPECT_EQ(shm_wavl_insert_thread(&record_fns, &fresh, r, 0), nullptr) << "not running";
    EXPECT_EQ(shm_wavl_delete_thread(&record_fns, &tree_, nullptr, 0), nullptr);
    EXPECT_EQ(shm_wavl_delete_thread(&record_fns, nullptr, r, 0), nullptr);
    EXPECT_EQ(shm_wavl_search(&record_fns, &tree_, nullptr, 0), nullptr);
    EXPECT_EQ(shm_wavl_search(nullptr, &tree_, r, 0), nullptr);
    EXPECT_EQ(shm_wavl_get_first(&record_fns, nullptr, 0), nullptr);
    EXPECT_EQ(shm_wavl_get_next(&record_fns, &tree_, nullptr, 0), nullptr);
    EXPECT_EQ(shm_wavl_get_next(&record_fns, &tree_, r, 0), nullptr) << "in no tree";
    EXPECT_EQ(wavl_walk(
                  nullptr, 0, [](void *, void *) { return 1; }, nullptr),
              0);
    EXPECT_EQ(wavl_walk(&tree_, 0, nullptr, nullptr), 0);
    EXPECT_EQ(shm_wavl_verify(&record_fns, nullptr, 0, nullptr), inval);
    EXPECT_EQ(shm_wavl_verify(nullptr, &tree_, 0, nullptr), inval);
    EXPECT_EQ(shm_wavl_verify(&record_fns, &tree_, 3, nullptr), inval);
    EXPECT_EQ(shm_wavl_verify(&record_fns, &fresh, 0, nullptr), TREE_E_NOT_RUNNING);
    EXPECT_FALSE(tree_node_linked(&r->nodes[0]));
}

TEST_F(Wavl, VerifyTellsWhatIsWrong) {
    for (uint32_t i = 0; i < 20; ++i) {
        ASSERT_NE(add(make(i, i, i), 0), nullptr);
    }
    ++tree_.counts[0];
    uint64_t seen = 0;
    EXPECT_EQ(shm_wavl_verify(&record_fns, &tree_, 0, &seen), TREE_E_COUNT);
    EXPECT_EQ(seen, 20U);
    --tree_.counts[0];
    records_[3]->a = 100;
    EXPECT_EQ(shm_wavl_verify(&record_fns, &tree_, 0, nullptr), TREE_E_ORDER);
    records_[3]->a = 3;
    EXPECT_EQ(shm_wavl_verify(&record_fns, &tree_, 0, nullptr), 0U);
}

}  // namespace
