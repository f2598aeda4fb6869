// A writer is killed at every journaled store of every kind of change, and the next process
// repairs.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "services/journal/journal.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"
#include "tests/services/trees/records.h"

using namespace mfwd6;
using namespace trees_test;

namespace {

constexpr uint32_t log_room = 2048;
constexpr int finished = 42;
constexpr int killed = 43;

// Everything that outlives the killed process. `state` is compared byte for byte.
struct arena {
    alignas(64) unsigned char log_memory[journal::log_bytes(log_room)];
    struct {
        avl_tree route;
        entry entries[64];
        shm_avl_tree *tids;
        wavl_tree names;
        wavl_tree second;
        record records[64];
    } state;
    // Memory for the head of `tids`; what is taken here and not committed is the allocator's to
    // repair.
    alignas(16) unsigned char heap[256];
};

arena *shared = nullptr;
int points_left = 0;

void die_at_point() {
    if (--points_left == 0) {
        _exit(killed);
    }
}

void *from_arena(size_t count, size_t size) {
    if (count * size > sizeof(shared->heap)) {
        return nullptr;
    }
    std::memset(shared->heap, 0, sizeof(shared->heap));
    return shared->heap;
}

cerrno to_arena(void *) {
    return 0;
}

const shm_avl_fns object_fns = {from_arena, to_arena, nullptr, nullptr, compare_objects};

// Runs `work` in a child that dies at the given crash point. `finished` when it had fewer points.
int run_and_kill(int point, bool journaled, const std::function<void()> &work) {
    const pid_t child = fork();
    if (child == 0) {
        journal::bind_process(
            journaled ? reinterpret_cast<journal::log *>(shared->log_memory) : nullptr, 1);
        points_left = point;
        journal::crash_hook = die_at_point;
        work();
        journal::crash_hook = nullptr;
        _exit(finished);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status);
}

class Crash : public ::testing::Test {
  protected:
    void SetUp() override {
        void *memory =
            mmap(nullptr, sizeof(arena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        shared = static_cast<arena *>(memory);
        log_ = journal::format(shared->log_memory, sizeof(shared->log_memory));
        for (uint32_t i = 0; i < 64; ++i) {
            shared->state.entries[i].key = i * 10;
            shared->state.records[i].a = i;
            shared->state.records[i].b = 64 - i;
            shared->state.records[i].c = i ^ 21;
        }
    }

    void TearDown() override { munmap(shared, sizeof(arena)); }

    using bytes = std::vector<unsigned char>;

    static bytes image() {
        const auto *from = reinterpret_cast<const unsigned char *>(&shared->state);
        return {from, from + sizeof(shared->state)};
    }

    static void restore(const bytes &saved) {
        std::memcpy(&shared->state, saved.data(), saved.size());
    }

    // Kills `work` at each of its points; what recovery leaves is the state before, or the state
    // after, byte for byte. Ends with the work done. Returns the number of points.
    int kill_everywhere(const std::function<void()> &work) {
        const bytes before = image();
        EXPECT_EQ(run_and_kill(0, true, work), finished);
        const bytes after = image();
        EXPECT_NE(before, after) << "the work does nothing";
        int undone = 0;
        int point = 1;
        for (; !::testing::Test::HasFailure(); ++point) {
            restore(before);
            if (run_and_kill(point, true, work) == finished) {
                break;
            }
            const journal::recovery result = journal::recover(log_);
            EXPECT_NE(result, journal::recovery::damaged);
            undone += result == journal::recovery::undone ? 1 : 0;
            const bytes now = image();
            EXPECT_TRUE(now == before || now == after) << "point " << point;
            if (result == journal::recovery::undone) {
                EXPECT_EQ(now, before) << "point " << point;
            }
        }
        EXPECT_EQ(image(), after);
        EXPECT_GT(undone, 3);
        return point;
    }

    static void fill_route(std::mt19937 &random, uint32_t count) {
        std::vector<uint32_t> order(64);
        for (uint32_t i = 0; i < 64; ++i) {
            order[i] = i;
        }
        std::shuffle(order.begin(), order.end(), random);
        for (uint32_t i = 0; i < count; ++i) {
            ASSERT_NE(avl_insert(&shared->state.route, &shared->state.entries[order[i]].node,
                                 compare_entries),
                      nullptr);
        }
    }

    journal::log *log_ = nullptr;
};

TEST_F(Crash, InsertionsAndDeletionsOfARouteTree) {
    std::mt19937 random(11);
    fill_route(random, 40);
    int most = 0;
    for (int change = 0; change < 40; ++change) {
        entry *e = &shared->state.entries[random() % 64];
        const bool in = tree_node_linked(&e->node);
        most = std::max(most, kill_everywhere([e, in] {
                            if (in) {
                                avl_delete(&shared->state.route, &e->node);
                            } else {
                                avl_insert(&shared->state.route, &e->node, compare_entries);
                            }
                        }));
        ASSERT_FALSE(HasFailure()) << "change " << change;
        ASSERT_EQ(avl_verify(&shared->state.route, compare_entries, nullptr), 0U);
    }
    EXPECT_GT(most, 40) << "no change rotated: the test has lost its point";
}

TEST_F(Crash, TheFirstInAndTheLastOut) {
    entry *e = &shared->state.entries[0];
    kill_everywhere([e] { avl_insert(&shared->state.route, &e->node, compare_entries); });
    kill_everywhere([e] { avl_delete(&shared->state.route, &e->node); });
    EXPECT_EQ(avl_verify(&shared->state.route, compare_entries, nullptr), 0U);
}

TEST_F(Crash, ChangesOfThreads) {
    ASSERT_EQ(shm_wavl_init(&record_fns, &shared->state.names, 3), 0U);
    for (uint32_t i = 0; i < 30; ++i) {
        ASSERT_NE(
            shm_wavl_insert_thread(&record_fns, &shared->state.names, &shared->state.records[i], 0),
            nullptr);
    }
    record *r = &shared->state.records[40];
    kill_everywhere([r] { shm_wavl_insert_thread(&record_fns, &shared->state.names, r, 0); });
    kill_everywhere([r] { shm_wavl_insert_thread(&record_fns, &shared->state.names, r, 2); });
    kill_everywhere([] {
        shm_wavl_delete_thread(&record_fns, &shared->state.names, &shared->state.records[15], 0);
    });
    for (uint32_t thread = 0; thread < 3; ++thread) {
        EXPECT_EQ(shm_wavl_verify(&record_fns, &shared->state.names, thread, nullptr), 0U);
    }
}

// Out of one tree and into another in one group of the caller: both or neither.
TEST_F(Crash, AMoveBetweenTreesInOneGroup) {
    ASSERT_EQ(shm_wavl_init(&record_fns, &shared->state.names, 3), 0U);
    ASSERT_EQ(shm_wavl_init(&record_fns, &shared->state.second, 3), 0U);
    for (uint32_t i = 0; i < 20; ++i) {
        ASSERT_NE(
            shm_wavl_insert_thread(&record_fns, &shared->state.names, &shared->state.records[i], 1),
            nullptr);
    }
    record *r = &shared->state.records[7];
    kill_everywhere([r] {
        journal::group move;
        shm_wavl_delete_thread(&record_fns, &shared->state.names, r, 1);
        shm_wavl_insert_thread(&record_fns, &shared->state.second, r, 1);
    });
    EXPECT_EQ(wavl_count(&shared->state.names, 1), 19U);
    EXPECT_EQ(wavl_count(&shared->state.second, 1), 1U);
}

TEST_F(Crash, BeginningAndEndOfAWavlTree) {
    kill_everywhere([] { shm_wavl_init(&record_fns, &shared->state.names, 3); });
    EXPECT_TRUE(wavl_running(&shared->state.names));
    kill_everywhere([] { shm_wavl_finish(&record_fns, &shared->state.names); });
    EXPECT_FALSE(wavl_running(&shared->state.names));
}

TEST_F(Crash, BeginningOfATreeInAWindow) {
    const bytes before = image();
    for (int point = 1;; ++point) {
        restore(before);
        const int end = run_and_kill(
            point, true, [] { shm_avl_tree_init(&object_fns, &shared->state.tids, 1, 0); });
        if (end == finished) {
            break;
        }
        journal::recover(log_);
        if (shared->state.tids != nullptr) {
            ASSERT_EQ(shm_avl_tree_verify(&object_fns, shared->state.tids, nullptr), 0U)
                << "point " << point;
        }
        ASSERT_LT(point, 100);
    }
    ASSERT_NE(shared->state.tids, nullptr);
    EXPECT_EQ(shm_avl_tree_verify(&object_fns, shared->state.tids, nullptr), 0U);
}

// An attached client may be the first in a new window, and has no journal of its own.
TEST_F(Crash, AWavlTreeBegunWithoutAJournalRunsOrDoesNot) {
    const bytes before = image();
    int not_running = 0;
    for (int point = 1;; ++point) {
        restore(before);
        const int end =
            run_and_kill(point, false, [] { shm_wavl_init(&record_fns, &shared->state.names, 3); });
        if (end == finished) {
            break;
        }
        if (!wavl_running(&shared->state.names)) {
            ++not_running;
            ASSERT_EQ(shm_wavl_init(&record_fns, &shared->state.names, 3), 0U);
        }
        for (uint32_t thread = 0; thread < 3; ++thread) {
            ASSERT_EQ(shm_wavl_verify(&record_fns, &shared->state.names, thread, nullptr), 0U);
        }
        ASSERT_LT(point, 200);
    }
    EXPECT_GT(not_running, 5);
}

// The one who repairs is killed as well, at each of its steps, and a third one repairs.
TEST_F(Crash, RecoveryThatIsItselfKilled) {
    std::mt19937 random(5);
    fill_route(random, 40);
    entry *e = nullptr;
    for (entry &candidate : shared->state.entries) {
        if (tree_node_linked(&candidate.node) && candidate.node.left != nullptr &&
            candidate.node.right != nullptr) {
            e = &candidate;
        }
    }
    ASSERT_NE(e, nullptr);
    const bytes before = image();
    const auto work = [e] { avl_delete(&shared->state.route, &e->node); };
    const int points = kill_everywhere(work);
    for (int point = 2; point < points; point += 5) {
        for (int again = 1;; ++again) {
            restore(before);
            ASSERT_EQ(run_and_kill(point, true, work), killed);
            const bool open = log_->used != 0;
            const int end = run_and_kill(again, false, [this] { journal::recover(log_); });
            journal::recover(log_);
            if (open) {
                ASSERT_EQ(image(), before) << point << "/" << again;
            }
            if (end == finished) {
                break;
            }
        }
    }
}

}  // namespace
