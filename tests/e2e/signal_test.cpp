// A packet that no route takes becomes a signal that the operator sees; the route makes it flow.
#include <netinet/ip6.h>
#include <signal.h>

#include <algorithm>

#include "tests/e2e/fixture.h"
#include "tests/e2e/window_view.h"

namespace {

using namespace e2e;

const std::string group = "ff3e::8000:1";
const std::string source = "fd00:1::10";

class Signals : public SmallSite {
  protected:
    json signals() const {
        const netlab::ended shown = router_->ctl({"--json", "show", "signals"});
        EXPECT_EQ(shown.code, 0) << shown.err;
        return json::parse(shown.out, nullptr, false).value("signals", json::array());
    }

    bool signalled(const std::string &g) const {
        for (const json &signal : signals()) {
            if (signal.value("group", "") == g && signal.value("source", "") == source) {
                return true;
            }
        }
        return false;
    }

    void add_route() {
        router_->must("route.add", {{"table", "default"},
                                    {"source", source},
                                    {"group", group},
                                    {"from", {"source"}},
                                    {"to", {"one"}}});
    }
};

TEST_F(Signals, AnUnknownFlowIsShownAndItsRouteMakesItFlowAndEndsTheSignal) {
    ASSERT_TRUE(eventually([&] { return router_->signald() != 0; }));
    netlab::sender stream(*site_->hosts.at("source"), group);
    stream.start(1000);
    EXPECT_TRUE(eventually([&] { return signalled(group); }));
    add_route();
    EXPECT_TRUE(
        site_->receivers.at("one")->wait_sequence(stream.stream(), stream.sent() + 1, patience));
    EXPECT_TRUE(eventually([&] { return !signalled(group); }));
    std::this_thread::sleep_for(grace);
    EXPECT_FALSE(signalled(group));
    expect_clean(*router_);
}

TEST_F(Signals, TakesLessThanATenthOfASecondAndKeepsAPacket) {
    ASSERT_TRUE(eventually([&] { return router_->signald() != 0; }));
    const window_view view(router_->run_dir());
    std::vector<std::chrono::nanoseconds> took;
    for (int i = 1; i <= 11; ++i) {
        const std::string g = "ff3e::6:" + std::to_string(i);
        netlab::sender stream(*site_->hosts.at("source"), g);
        const auto began = std::chrono::steady_clock::now();
        stream.burst(1);
        ASSERT_TRUE(eventually([&] { return window_view::signal(source, g) != nullptr; }));
        took.push_back(std::chrono::steady_clock::now() - began);
    }
    std::sort(took.begin(), took.end());
    EXPECT_LT(took[took.size() / 2], 100ms);

    netlab::sender next(*site_->hosts.at("source"), "ff3e::6:11");
    EXPECT_TRUE(eventually([&] {
        next.burst(1);
        return !view.packet(source, "ff3e::6:11").empty();
    }));
    const std::vector<uint8_t> packet = view.packet(source, "ff3e::6:11");
    ASSERT_GT(packet.size(), sizeof(ip6_hdr));
    ip6_hdr ip = {};
    std::memcpy(&ip, packet.data(), sizeof(ip));
    EXPECT_EQ(netlab::address_text(ip.ip6_src), source);
    EXPECT_EQ(netlab::address_text(ip.ip6_dst), "ff3e::6:11");
}

TEST_F(Signals, AStreamThatNobodyWantsDoesNotBlockTheWantedOnes) {
    // More unwanted flows than the kernel keeps unresolved.
    std::vector<std::unique_ptr<netlab::sender>> unwanted;
    for (int i = 0; i < 30; ++i) {
        unwanted.push_back(std::make_unique<netlab::sender>(*site_->hosts.at("source"),
                                                            "ff3e::7:" + std::to_string(i + 1)));
        unwanted.back()->start(50);
    }
    router_->line("mroute from source group ff3e::9:0:0/96 to two");
    std::this_thread::sleep_for(100ms);
    netlab::sender wanted(*site_->hosts.at("source"), "ff3e::9:0:5");
    wanted.start(500, 250);
    wanted.wait();
    EXPECT_TRUE(
        site_->receivers.at("two")->wait_sequence(wanted.stream(), wanted.sent(), patience));
    // At most what came before the answer may be missing, and the kernel keeps four packets.
    EXPECT_LE(site_->receivers.at("two")->report(wanted.stream()).missing(1, wanted.sent()), 50U);
    EXPECT_TRUE(eventually([&] { return signals().size() >= 30; }));
}

TEST_F(Signals, ARouteThatSignalsForwardsAndIsShown) {
    router_->line("mroute signal from source source " + source + " group " + group + " to one");
    netlab::sender stream(*site_->hosts.at("source"), group);
    stream.start(1000, 500);
    stream.wait();
    EXPECT_TRUE(
        site_->receivers.at("one")->wait_sequence(stream.stream(), stream.sent(), patience));
    EXPECT_EQ(site_->receivers.at("one")->report(stream.stream()).missing(1, stream.sent()), 0U);
    EXPECT_TRUE(eventually([&] { return signalled(group); }));
}

TEST_F(Signals, AStuckOwnerDoesNotHoldTheSignalsUp) {
    const pid_t owner = router_->owner();
    ASSERT_NE(owner, 0);
    ASSERT_TRUE(eventually([&] { return router_->signald() != 0; }));
    ::kill(owner, SIGSTOP);
    netlab::sender stream(*site_->hosts.at("source"), group);
    stream.start(200);
    EXPECT_TRUE(eventually([&] { return signalled(group); }));
    ::kill(owner, SIGCONT);
    add_route();
    EXPECT_TRUE(
        site_->receivers.at("one")->wait_sequence(stream.stream(), stream.sent() + 1, patience));
}

// Becomes the owner of a window that has none, and empties it.
void empty_window(const std::string &run_dir) {
    shmwin_set_run_dir(run_dir.c_str());
    diag_set_run_dir(run_dir.c_str());
    ASSERT_TRUE(eventually([] { return ip6mc_shmwin_open(0, 0) == 0; })) << "its owner lives";
    EXPECT_EQ(ip6mc_shmwin_reset(0), 0U);
    EXPECT_EQ(ip6mc_shmwin_close(), 0U);
}

// The packet path, through its own death and through changes of the window below it.
class PacketPath : public Signals {
  protected:
    void SetUp() override {
        Signals::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(eventually([&] { return router_->signald() != 0; }));
        ASSERT_NO_FATAL_FAILURE(expect_signal("ff3e::5:1"));
        signald_ = router_->signald();
    }
    void TearDown() override {
        if (!IsSkipped()) {
            expect_clean(*router_);
        }
    }

    void expect_signal(const std::string &g) {
        netlab::sender(*site_->hosts.at("source"), g).burst(1);
        ASSERT_TRUE(eventually([&] { return signalled(g); })) << g << "\n" << router_->log();
    }
    bool said(const std::string &text) const {
        return router_->log().find(text) != std::string::npos;
    }

    pid_t signald_ = 0;
};

TEST_F(PacketPath, IsStartedAgainAtOnceHoweverOftenItIsKilled) {
    for (int i = 2; i < 12; ++i) {
        ::kill(signald_, SIGKILL);
        // The report of this one waits for the next packet path.
        const std::string g = "ff3e::5:" + std::to_string(i);
        netlab::sender(*site_->hosts.at("source"), g).burst(1);
        ASSERT_TRUE(router_->wait_signald(signald_, 1s)) << router_->log();
        EXPECT_TRUE(eventually([&] { return signalled(g); })) << router_->log();
        signald_ = router_->signald();
    }
    EXPECT_EQ(signals().size(), 11U);
}

TEST_F(PacketPath, StartsAgainOnAWindowThatWasEmptied) {
    const pid_t owner = router_->owner();
    ::kill(router_->keeper(), SIGSTOP);
    ::kill(owner, SIGKILL);
    ASSERT_NO_FATAL_FAILURE(empty_window(router_->run_dir()));
    EXPECT_TRUE(eventually([&] { return said("the window was made anew"); })) << router_->log();
    ::kill(router_->keeper(), SIGCONT);
    ASSERT_TRUE(router_->wait_owner(owner)) << router_->log();
    ASSERT_TRUE(router_->wait_signald(signald_)) << router_->log();
    expect_signal("ff3e::5:2");
    EXPECT_EQ(signals().size(), 1U) << "the former one went with the window";
}

TEST_F(PacketPath, LetsGoOfAWindowWhoseOwnerStaysAway) {
    const pid_t owner = router_->owner();
    ::kill(router_->keeper(), SIGSTOP);
    ::kill(owner, SIGKILL);
    EXPECT_TRUE(eventually([&] { return said("letting go of the window"); }, 10s))
        << router_->log();
    ::kill(router_->keeper(), SIGCONT);
    ASSERT_TRUE(router_->wait_owner(owner)) << router_->log();
    ASSERT_TRUE(router_->wait_signald(signald_)) << router_->log();
    expect_signal("ff3e::5:2");
    EXPECT_TRUE(signalled("ff3e::5:1"));
}

}  // namespace
