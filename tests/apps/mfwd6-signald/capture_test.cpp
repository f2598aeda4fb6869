// Packets of wanted flows are caught from a real wire, and no others.
#include "apps/mfwd6-signald/capture.h"

#include <gtest/gtest.h>
#include <sys/poll.h>

#include <cstring>

#include "apps/netlab/lab.h"
#include "apps/netlab/sender.h"

namespace {

using mfwd6::signald::capture;
using namespace std::chrono_literals;

const std::string source = "fd00:1::10";
constexpr uint64_t second = 1000000000;

linux_flow flow_of(const std::string &group, const std::string &from = source) {
    const in6_addr s = netlab::parse_address(from);
    const in6_addr g = netlab::parse_address(group);
    linux_flow flow = {};
    std::memcpy(&flow.source, &s, sizeof(s));
    std::memcpy(&flow.group, &g, sizeof(g));
    return flow;
}

class Capture : public testing::Test {
  protected:
    static void SetUpTestSuite() { why_not_ = netlab::gain_privilege(); }

    void SetUp() override {
        if (!why_not_.empty()) {
            GTEST_SKIP() << why_not_;
        }
        lab_ = std::make_unique<netlab::lab>();
        source_ = &lab_->add_host("source", source);
        lab_->router().inside([this] { ASSERT_EQ(capture_.open(), 0U); });
    }

    void send(const std::string &group, uint64_t packets = 1) {
        netlab::sender(*source_, group).burst(packets);
    }

    // Groups of the flows whose packets have been caught since the last call.
    std::vector<std::string> caught(uint64_t now_ns = 0) {
        pollfd ready = {capture_.fd(), POLLIN, 0};
        poll(&ready, 1, 50);
        std::vector<std::string> groups;
        capture_.read(now_ns, [&](const linux_flow &flow, const uint8_t *packet, size_t bytes) {
            EXPECT_GT(bytes, 48U);
            EXPECT_EQ(packet[0] >> 4, 6);
            in6_addr group = {};
            std::memcpy(&group, &flow.group, sizeof(group));
            groups.push_back(netlab::address_text(group));
        });
        return groups;
    }

    static inline std::string why_not_;
    std::unique_ptr<netlab::lab> lab_;
    const netlab::host *source_ = nullptr;
    capture capture_;
};

using names = std::vector<std::string>;

TEST_F(Capture, CatchesTheNextPacketOfAWantedFlowOnce) {
    send("ff3e::1");
    EXPECT_EQ(caught(), names{});
    capture_.want(flow_of("ff3e::1"), 0);
    send("ff3e::2");
    EXPECT_EQ(caught(), names{});
    send("ff3e::1", 3);
    EXPECT_EQ(caught(), names{"ff3e::1"});
    send("ff3e::1");
    EXPECT_EQ(caught(), names{});
}

TEST_F(Capture, TellsSeveralFlowsApart) {
    for (int i = 1; i <= 16; ++i) {
        capture_.want(flow_of("ff3e::" + std::to_string(i)), 0);
    }
    capture_.want(flow_of("ff3e::77"), 0);  // the first wish is forgotten
    send("ff3e::1");
    send("ff3e::2");
    send("ff3e::16");
    send("ff3e::77");
    EXPECT_EQ(caught(), (names{"ff3e::2", "ff3e::16", "ff3e::77"}));
}

TEST_F(Capture, LooksAtTheSourceToo) {
    capture_.want(flow_of("ff3e::1", "fd00:1::11"), 0);
    send("ff3e::1");
    EXPECT_EQ(caught(), names{});
}

TEST_F(Capture, ForgetsAWishAfterASecond) {
    capture_.want(flow_of("ff3e::1"), 0);
    capture_.want(flow_of("ff3e::2"), second);
    capture_.forget_old(second);
    send("ff3e::1");
    send("ff3e::2");
    EXPECT_EQ(caught(second), names{"ff3e::2"});
}

}  // namespace
