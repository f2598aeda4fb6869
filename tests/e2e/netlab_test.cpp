// The laboratory itself, with entries that are made by hand: what it reports is true.
#include <gtest/gtest.h>

#include "apps/netlab/by_hand.h"
#include "apps/netlab/lab.h"
#include "apps/netlab/receiver.h"
#include "apps/netlab/sender.h"

namespace {

using namespace std::chrono_literals;

constexpr char group[] = "ff3e::8000:1";

class Netlab : public testing::Test {
  protected:
    static void SetUpTestSuite() { why_not_ = netlab::gain_privilege(); }

    void SetUp() override {
        if (!why_not_.empty()) {
            GTEST_SKIP() << why_not_;
        }
    }

    static inline std::string why_not_;
};

TEST_F(Netlab, CountsEveryPacketAtTheReceiversOfARouteAndNoneElsewhere) {
    netlab::lab lab;
    const netlab::host &source = lab.add_host("source", "fd00:1::10");
    const netlab::host &one = lab.add_host("one", "fd00:2::10");
    const netlab::host &two = lab.add_host("two", "fd00:3::10");
    netlab::by_hand kernel(lab.router());
    const unsigned from = kernel.add_interface("source");
    const unsigned to = kernel.add_interface("one");
    kernel.add_interface("two");
    kernel.add_route(source.address, group, from, {to});
    const netlab::receiver at_one(one);
    const netlab::receiver at_two(two);
    netlab::sender stream(source, group);
    stream.start(5000, 2500);
    stream.wait();
    ASSERT_TRUE(at_one.wait_sequence(stream.stream(), 2500, 5s));
    const netlab::stream_report got = at_one.report(stream.stream());
    EXPECT_EQ(stream.refused(), 0U);
    EXPECT_EQ(got.packets, 2500U);
    EXPECT_EQ(got.missing(1, 2500), 0U);
    EXPECT_EQ(got.duplicates, 0U);
    EXPECT_EQ(got.hop_limit, 15);
    EXPECT_EQ(got.source, source.address);
    EXPECT_EQ(got.group, group);
    EXPECT_GT(got.latency(99), 0U);
    EXPECT_EQ(at_one.overrun(), 0U);
    EXPECT_EQ(at_two.packets(stream.stream()), 0U);
}

TEST_F(Netlab, SeesLossAndItsPlace) {
    netlab::lab lab;
    const netlab::host &source = lab.add_host("source", "fd00:1::10");
    const netlab::host &one = lab.add_host("one", "fd00:2::10");
    netlab::by_hand kernel(lab.router());
    const unsigned from = kernel.add_interface("source");
    const unsigned to = kernel.add_interface("one");
    kernel.add_route(source.address, group, from, {to});
    const netlab::receiver at_one(one);
    netlab::sender stream(source, group);
    stream.burst(10);
    ASSERT_TRUE(at_one.wait_sequence(stream.stream(), 10, 5s));
    kernel.add_route(source.address, group, from, {});
    stream.burst(5);
    kernel.add_route(source.address, group, from, {to});
    stream.burst(10);
    ASSERT_TRUE(at_one.wait_sequence(stream.stream(), 25, 5s));
    const netlab::stream_report got = at_one.report(stream.stream());
    EXPECT_EQ(got.packets, 20U);
    EXPECT_EQ(got.missing(1, 25), 5U);
    EXPECT_EQ(got.missing(11, 15), 5U);
}

TEST_F(Netlab, KeepsThePace) {
    netlab::lab lab;
    const netlab::host &source = lab.add_host("source", "fd00:1::10");
    netlab::sender stream(source, group);
    const uint64_t began = netlab::now_ns();
    stream.start(5000, 2500);
    stream.wait();
    const double took = static_cast<double>(netlab::now_ns() - began) / 1e9;
    EXPECT_GT(took, 0.49);
    EXPECT_LT(took, 2.0);
}

TEST_F(Netlab, AWireCanBeTakenAwayAndLaidAnew) {
    netlab::lab lab;
    const netlab::host &source = lab.add_host("source", "fd00:1::10");
    const netlab::host &one = lab.add_host("one", "fd00:2::10");
    lab.unplug(one);
    lab.plug(one);
    netlab::by_hand kernel(lab.router());
    const unsigned from = kernel.add_interface("source");
    kernel.add_route(source.address, group, from, {kernel.add_interface("one")});
    const netlab::receiver at_one(one);
    netlab::sender stream(source, group);
    stream.burst(3);
    EXPECT_TRUE(at_one.wait_packets(stream.stream(), 3, 5s));
}

TEST_F(Netlab, AFailingCommandSaysWhy) {
    const netlab::network_namespace space;
    try {
        space.shell("ip link set dev nowhere up");
        FAIL() << "no exception";
    } catch (const std::exception &e) {
        EXPECT_NE(std::string(e.what()).find("nowhere"), std::string::npos) << e.what();
    }
}

}  // namespace
