#include "apps/mfwd6-signald/forwarder.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using mfwd6::signald::forwarder;

linux_flow numbered(uint32_t n) {
    linux_flow flow = {};
    flow.kernel_table = n;
    return flow;
}

class Forwarder : public testing::Test {
  protected:
    Forwarder() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends_), 0); }
    ~Forwarder() override {
        close(ends_[0]);
        close(ends_[1]);
    }

    // The number of the next report at the owner's end; 0 when there is none.
    uint32_t arrived() {
        linux_flow flow = {};
        return recv(ends_[1], &flow, sizeof(flow), 0) == sizeof(flow) ? flow.kernel_table : 0;
    }

    int ends_[2] = {-1, -1};
};

TEST_F(Forwarder, HandsEveryReportOnInOrder) {
    forwarder f(ends_[0]);
    for (uint32_t n = 1; n <= 20; ++n) {
        f.forward(numbered(n));
    }
    for (uint32_t n = 1; n <= 20; ++n) {
        EXPECT_EQ(arrived(), n);
    }
    EXPECT_EQ(f.forwarded(), 20U);
    EXPECT_FALSE(f.waiting());
}

TEST_F(Forwarder, NeverWaitsForAnOwnerThatDoesNotReadAndKeepsTheNewest) {
    forwarder f(ends_[0]);
    constexpr uint32_t many = 100000;
    for (uint32_t n = 1; n <= many; ++n) {
        f.forward(numbered(n));
    }
    EXPECT_TRUE(f.waiting());
    EXPECT_GT(f.dropped(), 0U);
    // The owner comes back: what the channel held, then the newest, without a gap.
    uint32_t last = 0;
    uint64_t seen = 0;
    for (uint32_t n = arrived(); n != 0 || f.waiting(); n = arrived()) {
        if (n == 0) {
            f.flush();
            continue;
        }
        EXPECT_GT(n, last);
        last = n;
        ++seen;
    }
    EXPECT_EQ(last, many);
    EXPECT_EQ(seen + f.dropped(), many);
    EXPECT_EQ(f.forwarded(), seen);
}

TEST_F(Forwarder, SurvivesAnOwnerThatIsGone) {
    forwarder f(ends_[0]);
    close(ends_[1]);
    ends_[1] = -1;
    for (uint32_t n = 1; n <= 5000; ++n) {
        f.forward(numbered(n));
    }
    EXPECT_EQ(f.forwarded(), 0U);
    EXPECT_GT(f.dropped(), 0U);
}

}  // namespace
