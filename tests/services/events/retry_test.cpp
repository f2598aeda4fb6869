#include "services/events/retry.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "services/events/ptimer.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

constexpr uint64_t second = 1'000'000'000;

struct work {
    int calls = 0;
    int fail_first = 0;
    std::function<void()> also = nullptr;
};

cerrno try_work(void *context) {
    auto *const w = static_cast<work *>(context);
    ++w->calls;
    if (w->also) {
        w->also();
    }
    return w->calls <= w->fail_first ? EIO : 0;
}

class retry_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ptimer_test_clock_on();
        ASSERT_EQ(event_manager_create(&evm), 0U);
    }
    void TearDown() override {
        retry_terminate();
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
};

TEST_F(retry_test, calls_every_second_until_it_succeeds) {
    ASSERT_EQ(retry_init(evm, 1, 0, 1, 0, 0), 0U);
    work w;
    w.fail_first = 2;
    ASSERT_EQ(retry_schedule(try_work, &w), 0U);
    EXPECT_EQ(retry_pending(), 1U);
    EXPECT_EQ(advance(second - 1), 0U);
    EXPECT_EQ(advance(1), 1U);
    EXPECT_EQ(advance(second), 1U);
    EXPECT_EQ(retry_pending(), 1U);
    EXPECT_EQ(advance(second), 1U);
    EXPECT_EQ(retry_pending(), 0U);
    EXPECT_EQ(advance(100 * second), 0U);
    EXPECT_EQ(w.calls, 3);
}

TEST_F(retry_test, intervals_grow_by_the_factor_up_to_the_limit) {
    ASSERT_EQ(retry_init(evm, 1, 0, 2, 3, 0), 0U);
    work w;
    w.fail_first = 100;
    ASSERT_EQ(retry_schedule(try_work, &w), 0U);
    for (const uint64_t interval : {1U, 2U, 3U, 3U}) {
        EXPECT_EQ(advance(interval * second - 1), 0U);
        EXPECT_EQ(advance(1), 1U);
    }
}

TEST_F(retry_test, an_entry_is_dropped_after_its_tries) {
    ASSERT_EQ(retry_init(evm, 0, 500, 1, 0, 2), 0U);
    work w;
    w.fail_first = 100;
    ASSERT_EQ(retry_schedule(try_work, &w), 0U);
    EXPECT_EQ(advance(500), 1U);
    EXPECT_EQ(advance(500), 1U);
    EXPECT_EQ(retry_pending(), 0U);
    EXPECT_EQ(w.calls, 2);
}

TEST_F(retry_test, an_entry_is_there_once_and_can_be_cancelled) {
    ASSERT_EQ(retry_init(evm, 1, 0, 1, 0, 0), 0U);
    work w;
    work v;
    ASSERT_EQ(retry_schedule(try_work, &w), 0U);
    EXPECT_EQ(retry_schedule(try_work, &w), static_cast<cerrno>(EEXIST));
    ASSERT_EQ(retry_schedule(try_work, &v), 0U);
    EXPECT_EQ(retry_cancel(try_work, &w), 0U);
    EXPECT_EQ(retry_cancel(try_work, &w), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(advance(second), 1U);
    EXPECT_EQ(w.calls, 0);
    EXPECT_EQ(v.calls, 1);
}

TEST_F(retry_test, a_function_may_cancel_itself_schedule_others_and_end_the_library) {
    ASSERT_EQ(retry_init(evm, 1, 0, 1, 0, 0), 0U);
    work w;
    work v;
    w.fail_first = 100;
    w.also = [&] {
        EXPECT_EQ(retry_cancel(try_work, &w), 0U);
        EXPECT_EQ(retry_schedule(try_work, &v), 0U);
    };
    v.fail_first = 100;
    v.also = [] { retry_terminate(); };
    ASSERT_EQ(retry_schedule(try_work, &w), 0U);
    EXPECT_EQ(advance(second), 1U);
    EXPECT_EQ(retry_pending(), 1U);
    EXPECT_EQ(advance(second), 1U);
    EXPECT_EQ(retry_pending(), 0U);
    EXPECT_EQ(advance(second), 0U);
    EXPECT_EQ(w.calls, 1);
    EXPECT_EQ(v.calls, 1);
}

TEST_F(retry_test, refuses_bad_figures_and_calls_before_the_start) {
    work w;
    EXPECT_EQ(retry_schedule(try_work, &w), static_cast<cerrno>(ENODEV));
    EXPECT_EQ(retry_init(nullptr, 1, 0, 1, 0, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(retry_init(evm, 0, 0, 1, 0, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(retry_init(evm, 1, 1000000000, 1, 0, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(retry_init(evm, 1, 0, 0, 0, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(retry_schedule(try_work, &w), static_cast<cerrno>(ENODEV));
    ASSERT_EQ(retry_init(evm, 1, 0, 1, 0, 0), 0U);
    EXPECT_EQ(retry_schedule(nullptr, &w), static_cast<cerrno>(EINVAL));
}

TEST_F(retry_test, moves_to_another_manager_only_when_nothing_waits) {
    event_manager_t *other = nullptr;
    ASSERT_EQ(event_manager_create(&other), 0U);
    work w;
    ASSERT_EQ(retry_init(evm, 1, 0, 1, 0, 0), 0U);
    ASSERT_EQ(retry_init(evm, 1, 0, 1, 0, 0), 0U);
    ASSERT_EQ(retry_schedule(try_work, &w), 0U);
    EXPECT_EQ(retry_init(other, 1, 0, 1, 0, 0), static_cast<cerrno>(EBUSY));
    EXPECT_EQ(retry_cancel(try_work, &w), 0U);
    EXPECT_EQ(retry_init(other, 1, 0, 1, 0, 0), 0U);
    ASSERT_EQ(retry_schedule(try_work, &w), 0U);
    EXPECT_EQ(advance(second), 0U);
    event_manager_destroy(other);
    EXPECT_EQ(retry_pending(), 0U);
    EXPECT_EQ(retry_schedule(try_work, &w), static_cast<cerrno>(ENODEV));
}

TEST_F(retry_test, without_memory_nothing_is_scheduled_or_started) {
    SKIP_WITHOUT_FAILING_MALLOC();
    {
        const failing_malloc::scope none(0);
        EXPECT_EQ(retry_init(evm, 1, 0, 1, 0, 0), static_cast<cerrno>(ENOMEM));
    }
    work w;
    EXPECT_EQ(retry_schedule(try_work, &w), static_cast<cerrno>(ENODEV));
    ASSERT_EQ(retry_init(evm, 1, 0, 1, 0, 0), 0U);
    for (long succeed = 0; succeed < 3; ++succeed) {
        const failing_malloc::scope few(succeed);
        EXPECT_EQ(retry_schedule(try_work, &w), static_cast<cerrno>(ENOMEM));
    }
    EXPECT_EQ(retry_pending(), 0U);
    EXPECT_EQ(retry_schedule(try_work, &w), 0U);
}

}  // namespace
