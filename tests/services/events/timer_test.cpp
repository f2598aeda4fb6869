#include "services/events/timer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "services/events/ptimer.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

constexpr uint64_t second = 1'000'000'000;
constexpr timespec minute{60, 0};

struct fired {
    std::vector<mgd_timer_leaf_t *> leaves;
    std::function<void(mgd_timer_leaf_t *)> also = nullptr;
};

void note(mgd_timer_leaf_t *leaf, void *context) {
    auto *const f = static_cast<fired *>(context);
    f->leaves.push_back(leaf);
    if (f->also) {
        f->also(leaf);
    }
}

class timer_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ptimer_test_clock_on();
        ASSERT_EQ(event_manager_create(&evm), 0U);
        once = event_timer_attach(evm, EVENT_TIMER_ONE_SHOT, note, &f);
        ASSERT_NE(once, EVENT_TIMER_INVALID);
        periodic = event_timer_attach(evm, EVENT_TIMER_PERIODIC, note, &f);
        ASSERT_NE(periodic, EVENT_TIMER_INVALID);
    }
    void TearDown() override {
        event_manager_destroy(evm);
        ptimer_test_clock_off();
    }

    uint32_t advance(uint64_t ns) {
        EXPECT_EQ(ptimer_test_clock_advance(ns), 0U);
        uint32_t count = 0;
        EXPECT_EQ(event_manager_run_once(evm, 0, &count), 0U);
        return count;
    }

    event_manager_t *evm = nullptr;
    uint32_t once = 0;
    uint32_t periodic = 0;
    fired f;
};

TEST_F(timer_test, a_one_shot_timer_fires_once_when_its_period_is_over) {
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
    ASSERT_NE(leaf, nullptr);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &minute), 0U);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 1);
    EXPECT_EQ(advance(60 * second - 1), 0U);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 1);
    EXPECT_EQ(advance(1), 1U);
    EXPECT_EQ(f.leaves.size(), 1U);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(advance(600 * second), 0U);
}

TEST_F(timer_test, a_handler_keeps_its_one_shot_timer_going) {
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
    f.also = [](mgd_timer_leaf_t *l) {
        EXPECT_EQ(mgd_timer_leaf_running(l), 0);
        EXPECT_EQ(mgd_timer_leaf_start(l, &minute), 0U);
    };
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &minute), 0U);
    EXPECT_EQ(advance(60 * second), 1U);
    EXPECT_EQ(advance(59 * second), 0U);
    EXPECT_EQ(advance(second), 1U);
}

TEST_F(timer_test, a_start_anew_moves_the_timer) {
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &minute), 0U);
    advance(30 * second);
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &minute), 0U);
    EXPECT_EQ(advance(30 * second), 0U);
    EXPECT_EQ(advance(30 * second), 1U);
}

TEST_F(timer_test, a_stopped_timer_does_not_fire) {
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &minute), 0U);
    mgd_timer_leaf_stop(leaf);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(advance(60 * second), 0U);
    mgd_timer_leaf_stop(leaf);
    mgd_timer_leaf_stop(nullptr);
    EXPECT_EQ(mgd_timer_leaf_running(nullptr), 0);
}

TEST_F(timer_test, a_timer_restarted_for_now_waits_for_the_next_turn) {
    constexpr timespec now{0, 0};
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
    f.also = [&](mgd_timer_leaf_t *l) { EXPECT_EQ(mgd_timer_leaf_start(l, &now), 0U); };
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &now), 0U);
    EXPECT_EQ(advance(0), 1U);
    EXPECT_EQ(advance(0), 1U);
    EXPECT_EQ(f.leaves.size(), 2U);
}

TEST_F(timer_test, a_periodic_timer_fires_each_period_and_skips_what_it_missed) {
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, periodic, nullptr);
    constexpr timespec two{2, 0};
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &two), 0U);
    EXPECT_EQ(advance(2 * second), 1U);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 1);
    EXPECT_EQ(advance(2 * second), 1U);
    EXPECT_EQ(advance(9 * second), 1U);
    EXPECT_EQ(advance(second), 0U);
    EXPECT_EQ(advance(second), 1U);
}

TEST_F(timer_test, timers_fire_in_the_order_in_which_they_are_due) {
    std::mt19937 random(1);
    std::vector<std::pair<uint64_t, mgd_timer_leaf_t *>> due;
    for (int i = 0; i < 500; ++i) {
        mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
        const timespec period{static_cast<time_t>(random() % 100), 0};
        ASSERT_EQ(mgd_timer_leaf_start(leaf, &period), 0U);
        due.emplace_back(period.tv_sec, leaf);
    }
    for (size_t i = 0; i < due.size(); i += 3) {
        mgd_timer_leaf_stop(due[i].second);
        due[i].second = nullptr;
    }
    std::erase_if(due, [](const auto &d) { return d.second == nullptr; });
    std::stable_sort(due.begin(), due.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    EXPECT_EQ(advance(100 * second), due.size());
    ASSERT_EQ(f.leaves.size(), due.size());
    for (size_t i = 0; i < due.size(); ++i) {
        EXPECT_EQ(f.leaves[i], due[i].second) << i;
    }
}

TEST_F(timer_test, a_handler_may_free_its_leaf_and_stop_another_one) {
    mgd_timer_leaf_t *const first = event_timer_leaf_new(evm, once, nullptr);
    mgd_timer_leaf_t *const second_leaf = event_timer_leaf_new(evm, once, nullptr);
    ASSERT_EQ(mgd_timer_leaf_start(first, &minute), 0U);
    ASSERT_EQ(mgd_timer_leaf_start(second_leaf, &minute), 0U);
    f.also = [&](mgd_timer_leaf_t *l) {
        event_timer_leaf_free(l);
        event_timer_leaf_free(second_leaf);
    };
    EXPECT_EQ(advance(60 * second), 1U);
}

TEST_F(timer_test, a_leaf_may_have_a_context_of_its_own) {
    fired own;
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, &own);
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &minute), 0U);
    EXPECT_EQ(advance(60 * second), 1U);
    EXPECT_EQ(own.leaves.size(), 1U);
    EXPECT_TRUE(f.leaves.empty());
}

TEST_F(timer_test, refuses_bad_arguments) {
    errno = 0;
    EXPECT_EQ(event_timer_attach(nullptr, 1, note, &f), EVENT_TIMER_INVALID);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(event_timer_attach(evm, 1, nullptr, &f), EVENT_TIMER_INVALID);
    EXPECT_EQ(event_timer_attach(evm, 0, note, &f), EVENT_TIMER_INVALID);
    EXPECT_EQ(event_timer_attach(evm, 3, note, &f), EVENT_TIMER_INVALID);
    errno = 0;
    EXPECT_EQ(event_timer_leaf_new(evm, 17, nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(event_timer_leaf_new(evm, EVENT_TIMER_INVALID, nullptr), nullptr);
    EXPECT_EQ(event_timer_leaf_new(nullptr, once, nullptr), nullptr);
    event_timer_leaf_free(nullptr);
}

TEST_F(timer_test, a_bad_period_leaves_a_running_timer_as_it_was) {
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &minute), 0U);
    for (const timespec bad : {timespec{-1, 0}, timespec{0, -1}, timespec{0, 1000000000}}) {
        EXPECT_EQ(mgd_timer_leaf_start(leaf, &bad), static_cast<cerrno>(EINVAL));
    }
    EXPECT_EQ(mgd_timer_leaf_start(leaf, nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(mgd_timer_leaf_start(nullptr, &minute), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(advance(60 * second), 1U);
    mgd_timer_leaf_t *const p = event_timer_leaf_new(evm, periodic, nullptr);
    constexpr timespec zero{0, 0};
    EXPECT_EQ(mgd_timer_leaf_start(p, &zero), static_cast<cerrno>(EINVAL));
}

TEST_F(timer_test, a_period_beyond_the_clock_never_ends) {
    constexpr timespec forever{INT64_MAX, 999999999};
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &forever), 0U);
    EXPECT_EQ(advance(1000 * second), 0U);
    ptimer_test_clock_off();
    uint32_t count = 0;
    EXPECT_EQ(event_manager_run_once(evm, 0, &count), 0U);
    EXPECT_EQ(count, 0U);
}

TEST_F(timer_test, fires_in_real_time_too) {
    ptimer_test_clock_off();
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
    f.also = [this](mgd_timer_leaf_t *) { event_manager_stop(evm); };
    constexpr timespec soon{0, 5'000'000};
    timespec before{};
    timespec after{};
    timespec taken{};
    ptimer_gettime(&before);
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &soon), 0U);
    EXPECT_EQ(event_manager_run(evm), 0U);
    ptimer_gettime(&after);
    ptimer_diff_timespec(&after, &before, &taken);
    EXPECT_GE(taken.tv_sec * 1000000000 + taken.tv_nsec, 5'000'000);
    EXPECT_EQ(f.leaves.size(), 1U);
}

TEST_F(timer_test, a_loop_that_waits_wakes_when_the_test_clock_moves) {
    mgd_timer_leaf_t *const leaf = event_timer_leaf_new(evm, once, nullptr);
    f.also = [this](mgd_timer_leaf_t *) { event_manager_stop(evm); };
    ASSERT_EQ(mgd_timer_leaf_start(leaf, &minute), 0U);
    std::thread loop([this] { EXPECT_EQ(event_manager_run(evm), 0U); });
    ASSERT_EQ(ptimer_test_clock_advance(59 * second), 0U);
    ASSERT_EQ(ptimer_test_clock_advance(second), 0U);
    loop.join();
    EXPECT_EQ(f.leaves.size(), 1U);
}

TEST_F(timer_test, without_memory_there_is_no_leaf_and_no_handle) {
    SKIP_WITHOUT_FAILING_MALLOC();
    for (long succeed = 0; succeed < 2; ++succeed) {
        const failing_malloc::scope few(succeed);
        errno = 0;
        EXPECT_EQ(event_timer_leaf_new(evm, once, nullptr), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    const failing_malloc::scope none(0);
    errno = 0;
    EXPECT_EQ(event_timer_attach(evm, 1, note, &f), EVENT_TIMER_INVALID);
    EXPECT_EQ(errno, ENOMEM);
}

}  // namespace
