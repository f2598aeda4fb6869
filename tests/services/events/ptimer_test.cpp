#include "services/events/ptimer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace {

int64_t ns_of(const timespec &t) {
    return t.tv_sec * int64_t{1000000000} + t.tv_nsec;
}

TEST(ptimer, reads_the_clock_that_all_processes_share) {
    timespec before{};
    timespec read{};
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    ptimer_gettime(&read);
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_LE(ns_of(before), ns_of(read));
    EXPECT_LE(ns_of(read), ns_of(after));
}

TEST(ptimer, the_difference_is_normalised) {
    const struct {
        timespec later, earlier, result;
    } rows[] = {
        {{5, 0}, {2, 0}, {3, 0}},
        {{5, 100}, {2, 200}, {2, 999999900}},
        {{5, 999999999}, {5, 0}, {0, 999999999}},
        {{3, 0}, {0, 100000000}, {2, 900000000}},
        {{7, 7}, {7, 7}, {0, 0}},
        {{2, 0}, {5, 0}, {0, 0}},
        {{5, 100}, {5, 200}, {0, 0}},
    };
    for (const auto &row : rows) {
        timespec result{};
        ptimer_diff_timespec(&row.later, &row.earlier, &result);
        EXPECT_EQ(result.tv_sec, row.result.tv_sec);
        EXPECT_EQ(result.tv_nsec, row.result.tv_nsec);
    }
}

TEST(ptimer, the_result_may_be_an_argument) {
    timespec a{5, 1};
    const timespec b{2, 2};
    ptimer_diff_timespec(&a, &b, &a);
    EXPECT_EQ(ns_of(a), 2999999999);
    const timespec c{5, 1};
    timespec d{2, 2};
    ptimer_diff_timespec(&c, &d, &d);
    EXPECT_EQ(ns_of(d), 2999999999);
}

TEST(ptimer, the_test_clock_stands_still_until_it_is_moved) {
    timespec real{};
    ptimer_gettime(&real);
    ptimer_test_clock_on();
    timespec first{};
    timespec again{};
    ptimer_gettime(&first);
    EXPECT_LE(ns_of(real), ns_of(first));
    ptimer_test_clock_on();
    ptimer_gettime(&again);
    EXPECT_EQ(ns_of(first), ns_of(again));
    EXPECT_EQ(ptimer_test_clock_advance(2'900'000'000), 0U);
    ptimer_gettime(&again);
    EXPECT_EQ(ns_of(again) - ns_of(first), 2'900'000'000);
    EXPECT_EQ(ptimer_test_clock_advance(UINT64_MAX), static_cast<cerrno>(ERANGE));
    ptimer_test_clock_off();
    ptimer_test_clock_off();
    EXPECT_EQ(ptimer_test_clock_advance(1), static_cast<cerrno>(EPERM));
    ptimer_gettime(&again);
    EXPECT_LT(ns_of(again) - ns_of(real), 2'000'000'000);
}

TEST(ptimer, a_passive_timer_runs_and_expires) {
    ptimer_test_clock_on();
    ptimer_t timer{};
    EXPECT_EQ(ptimer_running(&timer), 0);
    EXPECT_EQ(ptimer_expired(&timer), 0);
    ptimer_start(&timer, 100);
    EXPECT_EQ(ptimer_running(&timer), 1);
    ptimer_test_clock_advance(99);
    EXPECT_EQ(ptimer_running(&timer), 1);
    EXPECT_EQ(ptimer_expired(&timer), 0);
    ptimer_test_clock_advance(1);
    EXPECT_EQ(ptimer_running(&timer), 0);
    EXPECT_EQ(ptimer_expired(&timer), 1);
    ptimer_stop(&timer);
    EXPECT_EQ(ptimer_expired(&timer), 0);
    ptimer_start(&timer, UINT64_MAX);
    EXPECT_EQ(ptimer_running(&timer), 1);
    ptimer_stop(&timer);
    EXPECT_EQ(ptimer_running(&timer), 0);
    EXPECT_EQ(timer.expires_ns, 0U);
    ptimer_test_clock_off();
}

TEST(ptimer, the_clock_may_be_moved_by_several_threads) {
    ptimer_test_clock_on();
    timespec before{};
    timespec after{};
    ptimer_gettime(&before);
    std::thread threads[4];
    for (std::thread &t : threads) {
        t = std::thread([] {
            for (int i = 0; i < 1000; ++i) {
                ptimer_test_clock_advance(3);
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    ptimer_gettime(&after);
    EXPECT_EQ(ns_of(after) - ns_of(before), 12000);
    ptimer_test_clock_off();
}

}  // namespace
