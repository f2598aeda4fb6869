// kill -9 in the middle of 5,000 packets a second to three receivers: no packet is lost, nothing is
// forgotten, and the next change takes effect.
#include <signal.h>

#include "tests/e2e/fixture.h"

namespace {

using namespace e2e;

constexpr uint32_t pace = 5000;
constexpr int kills = 5;
const std::string group = "ff3e::8000:1";
const std::string range_group = "ff3e::9:0:1";

struct victim {
    const char *name;
    bool owner;
    bool signald;
};

void PrintTo(const victim &v, std::ostream *out) {
    *out << v.name;
}

// The first sequence numbers up to `last` that did not arrive.
std::vector<uint64_t> missing(const netlab::stream_report &got, uint64_t last) {
    constexpr size_t shown = 10;
    std::vector<uint64_t> numbers;
    for (uint64_t n = 1; n <= last && numbers.size() < shown; ++n) {
        if (got.missing(n, n) != 0) {
            numbers.push_back(n);
        }
    }
    return numbers;
}

class Kill : public SmallSite, public testing::WithParamInterface<victim> {
  protected:
    void SetUp() override {
        // The one as an entry of its own, the other derived from a range.
        start("mroute from source source fd00:1::10 group " + group + " to one two three\n" +
              "mroute from source group ff3e::9:0:0/96 to one two three\n");
    }

    void kill_and_wait() {
        const pid_t owner = router_->owner();
        const pid_t signald = router_->signald();
        ASSERT_NE(owner, 0);
        ASSERT_NE(signald, 0);
        if (GetParam().owner) {
            ::kill(owner, SIGKILL);
        }
        if (GetParam().signald) {
            ::kill(signald, SIGKILL);
        }
        if (GetParam().owner) {
            ASSERT_TRUE(router_->wait_owner(owner)) << router_->log();
        }
        if (GetParam().signald) {
            ASSERT_TRUE(router_->wait_signald(signald)) << router_->log();
        }
    }

    void expect_all_arrived(const netlab::sender &stream) {
        for (const auto &[name, receiver] : site_->receivers) {
            SCOPED_TRACE(name + ", " + stream.group());
            EXPECT_TRUE(receiver->wait_sequence(stream.stream(), stream.sent(), patience));
            const netlab::stream_report got = receiver->report(stream.stream());
            EXPECT_EQ(missing(got, stream.sent()), std::vector<uint64_t>{});
            EXPECT_EQ(got.duplicates, 0U);
            EXPECT_EQ(receiver->overrun(), 0U);
        }
        EXPECT_EQ(stream.refused(), 0U);
    }

    // Packets that the route with this group has counted, as the operator is shown them.
    uint64_t counted() const {
        const netlab::ended shown = router_->ctl({"--json", "show", "routes"});
        EXPECT_EQ(shown.code, 0) << shown.err;
        const json answer = json::parse(shown.out, nullptr, false);
        for (const json &route : answer.value("routes", json::array())) {
            if (route.value("group", "") == group) {
                return route["counters"].value("packets", uint64_t{0});
            }
        }
        ADD_FAILURE() << "the route is not shown: " << shown.out;
        return 0;
    }
};

TEST_P(Kill, LosesNoPacketAndNoState) {
    netlab::sender stream(*site_->hosts.at("source"), group);
    netlab::sender derived(*site_->hosts.at("source"), range_group);
    // The kernel keeps four packets of a flow that it asks about; the fifth comes when it was told.
    derived.burst(1);
    ASSERT_TRUE(site_->receivers.at("one")->wait_packets(derived.stream(), 1, patience));
    stream.start(pace);
    derived.start(pace / 10);
    std::this_thread::sleep_for(200ms);
    for (int i = 0; i < kills; ++i) {
        const uint64_t before = counted();
        ASSERT_NO_FATAL_FAILURE(kill_and_wait());
        EXPECT_GE(counted(), before);
        EXPECT_EQ(router_->must("status").value("routes", 0), 2);
    }
    std::this_thread::sleep_for(200ms);
    derived.stop();
    stream.stop();
    expect_all_arrived(stream);
    expect_all_arrived(derived);
    EXPECT_GE(counted(), stream.sent());

    // A change after the restarts takes effect.
    router_->must("route.add", {{"table", "default"},
                                {"source", "fd00:1::10"},
                                {"group", group},
                                {"from", {"source"}},
                                {"to", {"two"}}});
    netlab::sender after(*site_->hosts.at("source"), group);
    after.burst(10);
    EXPECT_TRUE(site_->receivers.at("two")->wait_packets(after.stream(), 10, patience));
    std::this_thread::sleep_for(grace);
    EXPECT_EQ(site_->who_got(after.stream()), std::vector<std::string>{"two"});
    expect_clean(*router_);
}

INSTANTIATE_TEST_SUITE_P(Victims, Kill,
                         testing::Values(victim{"Owner", true, false},
                                         victim{"PacketPath", false, true},
                                         victim{"Both", true, true}),
                         [](const auto &v) { return std::string(v.param.name); });

// New flows of a range appear while the owner is away: they wait in the kernel and are answered.
class WhileAway : public EndToEnd {};

TEST_F(WhileAway, AFlowThatBeginsIsForwardedWhenTheOwnerIsBack) {
    const auto s = small_site();
    netlab::router router(s->lab.router(),
                          small_interfaces + "mroute from source group ff3e::9:0:0/96 to one\n");
    const pid_t owner = router.owner();
    ASSERT_NE(owner, 0);
    netlab::sender stream(*s->hosts.at("source"), range_group);
    ::kill(owner, SIGKILL);
    stream.start(1000, 500);
    ASSERT_TRUE(router.wait_owner(owner)) << router.log();
    stream.wait();
    EXPECT_TRUE(s->receivers.at("one")->wait_sequence(stream.stream(), stream.sent(), patience));
    EXPECT_GT(s->receivers.at("one")->packets(stream.stream()), 0U);
}

}  // namespace
