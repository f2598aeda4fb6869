// All commands against a real daemon on the simulated platform.
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "tests/apps/mfwd6ctl/program.h"
#include "tests/apps/mfwd6d/bed.h"

namespace {

using namespace ctl_test;
using nlohmann::json;

class Daemon : public testing::Test {
  protected:
    void SetUp() override {
        NEEDS_NAMESPACE();
        keeper_ = std::make_unique<bed::keeper>(dir_);
        ASSERT_TRUE(keeper_->ready()) << keeper_->said();
    }
    ended ctl(const words &more) const {
        words all{"--run-dir", dir_.path(), "--platform", "sim"};
        all.insert(all.end(), more.begin(), more.end());
        return run(all);
    }
    // Runs it; it must succeed.
    ended good(const words &more) const {
        ended e = ctl(more);
        EXPECT_EQ(e.code, 0) << more[0] << " " << more[1] << ": " << e.err;
        return e;
    }
    // "VRF (source,group/length) flags: from > to", for each route.
    std::multiset<std::string> routes() const {
        std::multiset<std::string> all;
        const json shown = good({"show", "routes", "--json"}).json();
        for (const json &r : shown["routes"]) {
            const std::string source = r["source"].is_null() ? "*" : r["source"].get<std::string>();
            all.insert(r["table"].get<std::string>() + " (" + source + "," +
                       r["group"].get<std::string>() + "/" + r["group_length"].dump() + ") " +
                       r["attributes"].dump() + ": " + r["from"].dump() + " > " + r["to"].dump());
        }
        return all;
    }

    bed::folder dir_;
    std::unique_ptr<bed::keeper> keeper_;
};

using texts = std::multiset<std::string>;

TEST_F(Daemon, RoutesComeChangeAndGo) {
    good({"add", "route", "2001:db8::1", "ff3e::1", "--from", "eth0", "--to", "eth1"});
    EXPECT_EQ(routes(), texts{R"(default (2001:db8::1,ff3e::1/128) []: ["eth0"] > ["eth1"])"});
    good({"add", "output", "2001:db8::1", "ff3e::1", "eth2"});
    EXPECT_EQ(routes(),
              texts{R"(default (2001:db8::1,ff3e::1/128) []: ["eth0"] > ["eth1","eth2"])"});
    good({"delete", "output", "2001:db8::1", "ff3e::1", "eth1"});
    EXPECT_EQ(routes(), texts{R"(default (2001:db8::1,ff3e::1/128) []: ["eth0"] > ["eth2"])"});
    good({"add", "route", "any", "ff3e:1::/96", "--from", "eth0", "--to", "eth1", "--signal"});
    EXPECT_EQ(routes().size(), 2U);
    good({"delete", "route", "2001:db8::1", "ff3e::1"});
    good({"delete", "route", "any", "ff3e:1::/96"});
    EXPECT_EQ(routes(), texts{});
}

TEST_F(Daemon, AVrfOfItsOwn) {
    good({"add", "vrf", "red", "--table", "10", "--interface", "eth6", "eth7"});
    good({"add", "route", "2001:db8::1", "ff3e::1", "--vrf", "red", "-i", "eth6", "-o", "eth7"});
    EXPECT_EQ(routes(), texts{R"(red (2001:db8::1,ff3e::1/128) []: ["eth6"] > ["eth7"])"});
    EXPECT_EQ(good({"show", "tables", "--json"}).json()["tables"].size(), 2U);
    const json route =
        good({"show", "route", "2001:db8::1", "ff3e::1", "--vrf", "red", "--json"}).json();
    EXPECT_EQ(route["table_id"], 10);
    good({"delete", "vrf", "red"});
    EXPECT_EQ(routes(), texts{});
}

TEST_F(Daemon, SettingsOfAnInterface) {
    good({"set", "interface", "eth1", "--enable", "--ttl", "7", "--boundary", "ff05::/16"});
    const json shown = good({"show", "interfaces", "--json"}).json();
    for (const json &i : shown["interfaces"]) {
        if (i["name"] == "eth1") {
            EXPECT_EQ(i["enabled"], true);
            EXPECT_EQ(i["ttl_threshold"], 7);
            return;
        }
    }
    FAIL() << shown;
}

TEST_F(Daemon, WhatItRefusesIsToldWithItsReason) {
    const ended twice = ctl({"delete", "route", "2001:db8::1", "ff3e::1"});
    EXPECT_EQ(twice.code, 1);
    EXPECT_NE(twice.err, "");
    const ended vrf = ctl({"add", "vrf", "red", "--table", "254"});
    EXPECT_EQ(vrf.code, 1);
    EXPECT_NE(vrf.err.find("mfwd6ctl: "), std::string::npos);
    EXPECT_EQ(routes(), texts{});
}

TEST_F(Daemon, LoadsInBulkAndTellsOfBadLines) {
    constexpr int count = 20000;
    std::string text;
    for (int n = 0; n < count; ++n) {
        text += "mroute from eth0 source 2001:db8::1 group ff3e::" + std::to_string(n % 10000) +
                ":" + std::to_string(1 + n / 10000) + " to eth1 eth2\n";
        if (n == 4999) {
            text += "mroute from eth0 group 2001:db8::1 to eth1\n";
        }
    }
    const std::string path = dir_.write("routes.conf", text);
    const ended e = ctl({"load", path, "--json"});
    EXPECT_EQ(e.code, 1);
    EXPECT_EQ(e.json()["accepted"], count);
    ASSERT_EQ(e.json()["failed"].size(), 1U);
    EXPECT_EQ(e.json()["failed"][0]["line"], 5001);
    std::cout << "load: " << e.json()["rate"] << " lines a second\n";
    EXPECT_EQ(good({"show", "routes", "--count", "--json"}).json()["count"], count);
    const ended check = good({"check", "--json"});
    EXPECT_EQ(check.json()["clean"], true) << check.out;
}

TEST_F(Daemon, TellsOfItself) {
    good({"add", "route", "2001:db8::1", "ff3e::1", "--from", "eth0", "--to", "eth1"});
    const json status = good({"show", "status", "--json"}).json();
    EXPECT_EQ(status["owner"]["routes"], 1);
    EXPECT_EQ(status["window"]["owner_pid"], status["owner"]["pid"]);
    for (const char *what : {"signals", "encaps", "bvi", "memory", "locks", "clients"}) {
        EXPECT_EQ(good({"show", what, "--json"}).err, "");
    }
    EXPECT_NE(good({"trace", "--program", "mfwd6d", "--last", "5"}).out, "");
    EXPECT_EQ(good({"clear", "signals", "--json"}).json()["ended"], 0);
}

TEST_F(Daemon, StateIsShownWhileTheOwnerIsKilledOverAndOver) {
    good({"add", "route", "2001:db8::1", "ff3e::1", "--from", "eth0", "--to", "eth1"});
    const texts before = routes();
    for (int n = 0; n < 5; ++n) {
        kill(bed::owner_pid(dir_), SIGKILL);
        EXPECT_EQ(routes(), before);
        ASSERT_TRUE(keeper_->ready());
    }
    good({"add", "output", "2001:db8::1", "ff3e::1", "eth3"});
}

TEST_F(Daemon, EndsAndItsOrphansAreGivenBack) {
    good({"add", "route", "2001:db8::1", "ff3e::1", "--from", "eth0", "--to", "eth1"});
    const ended early = ctl({"check", "--reclaim"});
    EXPECT_EQ(early.code, 1);
    EXPECT_NE(early.err.find("end mfwd6d first"), std::string::npos) << early.err;
    good({"shutdown", "--keep"});
    ASSERT_TRUE(keeper_->hears("holds the sockets"));  // the keeper stays, behind the owner's end
    const json found = good({"check", "--json"}).json();
    EXPECT_EQ(found["clean"], true);
    EXPECT_EQ(found["owner"], 0);
    good({"check", "--reclaim"});
    EXPECT_EQ(good({"check", "--json"}).json()["orphans"], json::array());
    EXPECT_EQ(routes().size(), 1U);  // the state is there
}

TEST_F(Daemon, EndsWithItsState) {
    good({"shutdown"});
    EXPECT_EQ(keeper_->wait(), 0);
    EXPECT_EQ(ctl({"show", "status"}).code, 3);
}

}  // namespace
