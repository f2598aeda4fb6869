// A reader that is stopped, killed, or not read from costs the owner nothing.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <set>

#include "tests/apps/mfwd6ctl/owner.h"

namespace {

using namespace ctl_test;
using nlohmann::json;

constexpr int many = 6000;  // routes: more than a pipe holds as text

int add_many(const world &w, const kit::post &parent) {
    for (int n = 0; n < many; ++n) {
        add_route(w.red, "2001:db8::1", fmt::format("ff3e:7::{:x}", n + 1).c_str(), 256, 0,
                  {{1, MRIB_INTF_ACCEPT}});
    }
    parent.tell();
    return 0;
}

class Interrupts : public testing::Test {
  protected:
    Interrupts() : owner_(add_many) {
        if (owner_.process().hear() != '.') {
            throw std::runtime_error("the owner ends early");
        }
    }
    json memory() { return owner_.run({"show", "memory", "--json"}).json(); }

    owner owner_;
};

TEST_F(Interrupts, OutputThatNobodyReadsAnyMore) {
    const json before = memory();
    program p(owner_.with({"show", "routes", "--json"}));
    ASSERT_TRUE(p.says("ff3e:7::1"));
    p.close_output();
    const ended e = p.wait();
    EXPECT_EQ(e.code, 141);
    EXPECT_EQ(e.err, "");
    const json after = memory();
    EXPECT_EQ(after["types"], before["types"]);
    EXPECT_EQ(after["used"], before["used"]);
}

TEST_F(Interrupts, ControlCInALongList) {
    const json before = memory();
    program p(owner_.with({"show", "routes", "--json"}));
    ASSERT_TRUE(p.says("ff3e:7::1"));
    p.signal(SIGINT);
    EXPECT_EQ(p.wait().code, 130);
    EXPECT_EQ(memory()["types"], before["types"]);
}

TEST_F(Interrupts, AStoppedOneHoldsNothingBack) {
    program p(owner_.with({"show", "routes", "--json"}));
    ASSERT_TRUE(p.says("ff3e:7::1"));
    p.signal(SIGTSTP);
    int status = 0;
    ASSERT_EQ(waitpid(p.pid(), &status, WUNTRACED), p.pid());
    ASSERT_TRUE(WIFSTOPPED(status));
    const json m = memory();
    EXPECT_EQ(m["readers"], 0);
    const json clients = owner_.run({"show", "clients", "--json"}).json()["clients"];
    ASSERT_EQ(clients.size(), 3U);
    EXPECT_EQ(clients[1]["activity"], "stopped");
    for (const json &lock : json(owner_.run({"show", "locks", "--json"}).json()["locks"])) {
        EXPECT_TRUE(lock["holders"].empty() && lock["readers"].empty()) << lock;
    }
    p.signal(SIGCONT);
    const ended e = p.wait();
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.json()["routes"].size(), size_t{many} + 4);
}

TEST_F(Interrupts, AKilledOneHoldsNothingBack) {
    program p(owner_.with({"show", "routes", "--json"}));
    ASSERT_TRUE(p.says("ff3e:7::1"));
    p.signal(SIGKILL);
    EXPECT_EQ(p.wait().code, 128 + SIGKILL);
    EXPECT_EQ(memory()["readers"], 0);
    EXPECT_EQ(owner_.run({"show", "routes", "--count"}).out, fmt::format("{}\n", many + 4));
}

TEST(Reading, GoesOnBesideAnOwnerThatTakesRoutesAway) {
    const owner o([](const world &w, const kit::post &parent) {
        add_many(w, parent);
        parent.hear();
        for (int n = 0; n < many; n += 2) {
            delete_route(w.red, "2001:db8::1", fmt::format("ff3e:7::{:x}", n + 1).c_str(), 256);
        }
        parent.tell();
        return 0;
    });
    ASSERT_EQ(o.process().hear(), '.');
    program p(o.with({"show", "routes", "--json", "--vrf", "red"}));
    ASSERT_TRUE(p.says("ff3e:7::1"));  // it waits for room in the pipe now
    o.process().tell();
    ASSERT_EQ(o.process().hear(), '.');
    const ended e = p.wait();
    ASSERT_EQ(e.code, 0) << e.err;
    std::set<std::string> groups;
    for (const json &route : json(e.json()["routes"])) {
        EXPECT_TRUE(groups.insert(route["group"]).second) << route;
    }
    // Each of those that stayed, and less than all of the others.
    for (int n = 1; n < many; n += 2) {
        EXPECT_TRUE(groups.count(fmt::format("ff3e:7::{:x}", n + 1)) == 1) << n;
    }
    EXPECT_LT(groups.size(), size_t{many});
}

TEST(Reading, AWindowThatIsMadeAnewIsToldOf) {
    owner o(add_many);
    ASSERT_EQ(o.process().hear(), '.');
    program p(o.with({"show", "routes", "--json"}));
    ASSERT_TRUE(p.says("ff3e:7::1"));
    o.process().tell();  // the owner ends, and its window with it
    o.process().hear();
    const ended e = p.wait();
    EXPECT_EQ(e.code, 1);
    EXPECT_NE(e.err.find("the window was made anew while it was read"), std::string::npos) << e.err;
}

}  // namespace
