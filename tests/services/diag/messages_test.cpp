#include "services/diag/messages.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "services/events/ptimer.h"

namespace {

constexpr uint64_t second = 1'000'000'000;
std::atomic<uint64_t> test_time = 1000 * second;

class Messages : public ::testing::Test {
  protected:
    void SetUp() override {
        orv_msg_set_clock([] { return test_time.load(); });
        test_time += 10000 * second;
        qv_syslog_set_sink(
            [](void *context, uint32_t severity, const char *line) {
                auto *self = static_cast<Messages *>(context);
                const std::lock_guard hold(self->guard);
                self->severities.push_back(severity);
                self->lines.emplace_back(line);
            },
            this);
    }
    void TearDown() override {
        qv_syslog_set_sink(nullptr, nullptr);
        orv_msg_set_clock(nullptr);
    }
    std::mutex guard;
    std::vector<uint32_t> severities;
    std::vector<std::string> lines;
};

const orv_msg_limit minute = {60};
const orv_msg_limit glacial = {300};
const orv_msg_rec delete_fail = {3,         "Delete Failed for (%s %s/%d) from %s table %s\n",
                                 &minute,   "IPV4_MLIB",
                                 "ROUTING", "DELETE_FAIL",
                                 0x6c9000e};
const orv_msg_rec per_prefix = {5,         "%s %s",      &minute,  "IPV4_MLIB",
                                "ROUTING", "PER_PREFIX", 0x6c90011};
const orv_msg_rec slow = {5,        "%s %s", &glacial, "IPV4_MLIB", "ROUTING", "PER_PREFIX_GLACIAL",
                          0x6c90012};
const orv_msg_rec unlimited = {6, "%d", nullptr, "F", "C", "N", 1};

TEST_F(Messages, OneMessageIsOneLineWithoutItsLineEnd) {
    orv_errmsg(&delete_fail, 3, "*", "ff1e::1", 128, "trie", "default");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0],
              "ROUTING-IPV4_MLIB-3-DELETE_FAIL: Delete Failed for (* ff1e::1/128) from trie table "
              "default");
    EXPECT_EQ(severities[0], 3U);
}

TEST_F(Messages, WithinTheLimitOneMessageGoesOutAndTheRestAreCounted) {
    for (int i = 0; i < 5; ++i) {
        orv_errmsg(&per_prefix, 5, "a", "b");
        test_time += second;
    }
    EXPECT_EQ(lines.size(), 1U);
    EXPECT_EQ(orv_msg_suppressed(&per_prefix), 4U);
    test_time += 55 * second - 1;  // 60 seconds less one nanosecond since the first
    orv_errmsg(&per_prefix, 5, "c", "d");
    EXPECT_EQ(lines.size(), 1U);
    test_time += 1;
    orv_errmsg(&per_prefix, 5, "e", "f");
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1],
              "ROUTING-IPV4_MLIB-5-PER_PREFIX: 5 messages suppressed in the last 60 seconds");
    EXPECT_EQ(lines[2], "ROUTING-IPV4_MLIB-5-PER_PREFIX: e f");
    EXPECT_EQ(orv_msg_suppressed(&per_prefix), 0U);
}

TEST_F(Messages, TheLimitsGoByTheClockOfPassiveTimers) {
    static const orv_msg_rec own = {5, "%d", &minute, "F", "C", "BY_THE_CLOCK", 2};
    orv_msg_set_clock(nullptr);
    ptimer_test_clock_on();
    orv_errmsg(&own, 5, 1);
    EXPECT_EQ(ptimer_test_clock_advance(60 * second - 1), 0U);
    orv_errmsg(&own, 5, 2);
    EXPECT_EQ(lines.size(), 1U);
    EXPECT_EQ(ptimer_test_clock_advance(1), 0U);
    orv_msg_tick();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1], "C-F-5-BY_THE_CLOCK: 1 messages suppressed in the last 60 seconds");
    orv_errmsg(&own, 5, 3);
    EXPECT_EQ(lines.size(), 3U);
    ptimer_test_clock_off();
}

TEST_F(Messages, EachRecordHasItsOwnLimit) {
    orv_errmsg(&per_prefix, 5, "a", "b");
    orv_errmsg(&slow, 5, "a", "b");
    test_time += 60 * second;
    orv_errmsg(&per_prefix, 5, "a", "b");
    orv_errmsg(&slow, 5, "a", "b");
    EXPECT_EQ(lines.size(), 3U);
    test_time += 240 * second;
    orv_errmsg(&slow, 5, "a", "b");
    EXPECT_EQ(lines.size(), 5U) << "the count and the message";
}

TEST_F(Messages, TheTickTellsCountsWhenTheLimitEnds) {
    orv_errmsg(&slow, 5, "a", "b");
    orv_errmsg(&slow, 5, "a", "b");
    test_time += 299 * second;
    orv_msg_tick();
    EXPECT_EQ(lines.size(), 1U);
    test_time += second;
    orv_msg_tick();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(
        lines[1],
        "ROUTING-IPV4_MLIB-5-PER_PREFIX_GLACIAL: 1 messages suppressed in the last 300 seconds");
    orv_msg_tick();
    EXPECT_EQ(lines.size(), 2U);
}

TEST_F(Messages, WithoutALimitEveryMessageGoesOut) {
    for (int i = 0; i < 5; ++i) {
        orv_errmsg(&unlimited, 6, i);
    }
    EXPECT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[4], "C-F-6-N: 4");
}

TEST_F(Messages, TheSeverityOfTheCallIsUsed) {
    orv_errmsg(&unlimited, 4, 1);
    EXPECT_EQ(severities.back(), 4U);
    EXPECT_EQ(lines.back(), "C-F-4-N: 1");
}

TEST_F(Messages, BadArgumentsSendNothing) {
    orv_errmsg(nullptr, 3);
    const orv_msg_rec empty = {};
    orv_errmsg(&empty, 3);
    qv_syslog(3, nullptr);
    EXPECT_TRUE(lines.empty());
    qv_syslog(99, "CALLOC-ERR :[size %zu] : %s (%s:%d). Aborting process", size_t{44}, "f", "x.c",
              7);
    EXPECT_EQ(severities.back(), 7U) << "no severity is beyond debug";
    EXPECT_EQ(lines.back(), "CALLOC-ERR :[size 44] : f (x.c:7). Aborting process");
}

TEST_F(Messages, ThreadsShareOneLimit) {
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                orv_errmsg(&delete_fail, 3, "*", "ff1e::1", i, "x", "y");
            }
        });
    }
    for (std::thread &sender : senders) {
        sender.join();
    }
    EXPECT_EQ(lines.size(), 1U);
    EXPECT_EQ(orv_msg_suppressed(&delete_fail), 799U);
    test_time += 61 * second;
    orv_msg_tick();
    EXPECT_EQ(orv_msg_suppressed(&delete_fail), 0U);
}

}  // namespace
