// The keeper: what it starts again, what survives, what it says when it cannot begin.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <thread>

#include "tests/apps/mfwd6d/bed.h"

using bed::json;

namespace {

using texts = std::multiset<std::string>;

void pause_ms(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

TEST(Keeper, AKilledOwnerCostsNothing) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    bed::keeper keeper(dir);
    ASSERT_TRUE(keeper.ready());
    {
        bed::client c(dir);
        ASSERT_EQ(c.line("vrf red table 7 interface eth6 eth7"), 0U);
        ASSERT_EQ(c.line("mroute from eth0 source 2001:db8::1 group ff3e::1 to eth1 eth2"), 0U);
        ASSERT_EQ(c.line("mroute vrf red signal from eth6 group ff3e::/96 to eth7"), 0U);
        ASSERT_EQ(c.line("phyint eth0 enable ttl-threshold 4"), 0U);
    }
    const texts before = bed::look(dir).routes;
    EXPECT_EQ(before, (texts{"default (2001:db8::1,ff3e::1) in eth0 out eth1 eth2",
                             "red (*,ff3e::/96) signal in eth6 out eth7"}));
    kill(bed::owner_pid(dir), SIGKILL);
    ASSERT_TRUE(keeper.hears("was ended by signal 9"));
    ASSERT_TRUE(keeper.ready());
    const bed::view after = bed::look(dir);
    EXPECT_EQ(after.routes, before);
    EXPECT_EQ(after.faults, std::vector<std::string>());
    bed::client c(dir);
    const json status = c.call("status")["result"];
    EXPECT_EQ(status["restart"]["kept"], 2);
    EXPECT_EQ(status["restart"]["programmed"], 0);
    // What has no place in the window was kept too: the interface is still in its VRF.
    EXPECT_NE(c.line("mroute from eth6 group ff3e::9 to eth1"), 0U);
    EXPECT_EQ(c.line("no vrf red"), 0U);
    EXPECT_EQ(c.line("mroute from eth6 group ff3e::9 to eth1"), 0U);
}

// A client that connects while there is no owner waits, and is served by the next one.
TEST(Keeper, AClientWaitsForTheNextOwner) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    bed::keeper keeper(dir);
    ASSERT_TRUE(keeper.ready());
    const pid_t owner = bed::owner_pid(dir);
    kill(owner, SIGSTOP);
    bed::client c(dir);
    c.send("{\"id\":1,\"action\":\"status\",\"args\":{}}\n");
    kill(owner, SIGKILL);
    const json answer = json::parse(c.receive());
    EXPECT_EQ(answer["code"], 0);
    EXPECT_NE(answer["result"]["pid"], owner);
}

// What one client has been told, and what may have happened to the command that was under way.
class recorder {
  public:
    recorder(const bed::folder &dir, uint32_t seed) : dir_(dir), random_(seed) {}

    void run(const std::atomic<bool> &stop) {
        while (!stop) {
            try {
                bed::client c(dir_);
                while (!stop)
                    step(c);
            } catch (const std::exception &) {
                ++ends;  // the owner was killed
            }
        }
    }

    // All keys agree with the window.
    void compare(const texts &routes) const {
        size_t there = 0;
        for (const auto &[key, states] : states_) {
            size_t found = 0;
            for (const std::string &state : states) {
                if (!state.empty())
                    found += routes.count(state);
            }
            const bool may_be_gone = states.count("") != 0;
            EXPECT_TRUE(found == 1 || (found == 0 && may_be_gone))
                << found << " of " << json(states).dump();
            there += found;
        }
        EXPECT_EQ(there, routes.size()) << "routes that nobody asked for";
    }

    std::atomic<uint64_t> acknowledged{0};
    uint64_t ends = 0;

  private:
    void step(bed::client &c) {
        const uint32_t n = static_cast<uint32_t>(random_() % 200);
        const bool any_source = n % 3 == 0;
        char group[16];
        snprintf(group, sizeof(group), "ff3e::%x", n + 1);
        std::string line = "mroute ";
        std::string wanted;
        const std::string key =
            std::string("(") + (any_source ? "*" : "2001:db8::1") + "," + group + ")";
        const std::string source = any_source ? "" : "source 2001:db8::1 ";
        if (random_() % 4 == 0) {
            line = "no mroute " + source + "group " + group;
        } else {
            std::set<std::string> out;
            for (uint32_t i = 1 + static_cast<uint32_t>(random_() % 7); i > 0; --i)
                out.insert("eth" + std::to_string(1 + random_() % 7));
            const bool signal = random_() % 2 == 0;
            line += std::string(signal ? "signal " : "") + "from eth0 " + source + "group " +
                    group + " to";
            wanted = "default " + key + (signal ? " signal" : "") + " in eth0 out";
            for (const std::string &name : out) {
                line += " " + name;
                wanted += " " + name;
            }
        }
        std::set<std::string> &states =
            states_.try_emplace(key, std::set<std::string>{""}).first->second;
        states.insert(wanted);  // until the answer is there
        const uint32_t code = c.line(line);
        EXPECT_TRUE(code == 0 || (code == ENOENT && wanted.empty())) << line << ": " << code;
        states = {wanted};
        ++acknowledged;
    }

    const bed::folder &dir_;
    std::mt19937 random_;
    std::map<std::string, std::set<std::string>> states_;
};

TEST(Keeper, FiftyKillsUnderLoadLoseNothing) {
    NEEDS_NAMESPACE();
    constexpr int kills = 50;
    const bed::folder dir;
    bed::keeper keeper(dir);
    ASSERT_TRUE(keeper.ready());
    recorder load(dir, 7);
    std::atomic<bool> stop{false};
    std::thread client([&] { load.run(stop); });
    std::mt19937 random(11);
    pid_t last = -1;
    for (int n = 0; n < kills; ++n) {
        const uint64_t before = load.acknowledged;
        while (load.acknowledged < before + 5)
            pause_ms(1);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
        const pid_t owner = bed::owner_pid(dir);
        EXPECT_NE(owner, last);
        last = owner;
        ASSERT_EQ(kill(owner, SIGKILL), 0);
    }
    const uint64_t before = load.acknowledged;
    while (load.acknowledged < before + 5)
        pause_ms(1);
    stop = true;
    client.join();
    const bed::view seen = bed::look(dir);
    load.compare(seen.routes);
    EXPECT_EQ(seen.faults, std::vector<std::string>());
    EXPECT_LE(seen.search_keys, kills + 2U);
    printf("%lu commands acknowledged, %lu connections lost, %zu routes at the end\n",
           load.acknowledged.load(), load.ends, seen.routes.size());
    EXPECT_GT(load.acknowledged, 100U);
    // The hardware agrees with the window, too.
    kill(bed::owner_pid(dir), SIGKILL);
    bed::wait_until_served(dir);
    bed::client c(dir);
    const json restart = c.call("status")["result"]["restart"];
    EXPECT_EQ(restart["kept"], seen.routes.size());
    EXPECT_EQ(restart["programmed"], 0);
    EXPECT_EQ(restart["removed"], 0);
}

TEST(Keeper, AKilledKeeperLeavesAWholeWindow) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    pid_t owner = -1;
    {
        bed::keeper keeper(dir);
        ASSERT_TRUE(keeper.ready());
        bed::client c(dir);
        ASSERT_EQ(c.line("mroute from eth0 group ff3e::1 to eth1"), 0U);
        owner = bed::owner_pid(dir);
        keeper.signal(SIGKILL);
        ASSERT_EQ(keeper.wait(), 128 + SIGKILL);
        ASSERT_TRUE(c.is_closed());  // the owner ended too
    }
    for (int n = 0; n < 1000 && kill(owner, 0) == 0; ++n)
        pause_ms(5);
    EXPECT_NE(kill(owner, 0), 0);
    bed::keeper next(dir);
    ASSERT_TRUE(next.ready());
    const bed::view seen = bed::look(dir);
    EXPECT_EQ(seen.routes, texts{"default (*,ff3e::1) in eth0 out eth1"});
    EXPECT_EQ(seen.faults, std::vector<std::string>());
}

TEST(Keeper, SigtermEndsEverythingInOrder) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    bed::keeper keeper(dir);
    ASSERT_TRUE(keeper.ready());
    const pid_t owner = bed::owner_pid(dir);
    keeper.signal(SIGTERM);
    EXPECT_EQ(keeper.wait(), 0);
    EXPECT_NE(kill(owner, 0), 0);
    for (const char *name : {"command", "mfwdv6", "settings", "applied"})
        EXPECT_NE(access(dir.file(name).c_str(), F_OK), 0) << name;
}

TEST(Keeper, ShutdownWithKeepLeavesTheStateToTheNextOne) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    bed::keeper first(dir);
    ASSERT_TRUE(first.ready());
    {
        bed::client c(dir);
        ASSERT_EQ(c.line("mroute from eth0 group ff3e::1 to eth1"), 0U);
        EXPECT_EQ(c.call("shutdown", {{"keep", true}})["code"], 0);
    }
    ASSERT_TRUE(first.hears("holds the sockets"));
    EXPECT_EQ(bed::look(dir).routes, texts{"default (*,ff3e::1) in eth0 out eth1"});
    bed::keeper second(dir);
    ASSERT_TRUE(first.hears("has taken over"));
    EXPECT_EQ(first.wait(), 0);
    ASSERT_TRUE(second.ready());
    EXPECT_EQ(bed::look(dir).routes, texts{"default (*,ff3e::1) in eth0 out eth1"});
}

TEST(Keeper, ShutdownWithoutKeepRemovesTheState) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    bed::keeper keeper(dir);
    ASSERT_TRUE(keeper.ready());
    bed::client c(dir);
    ASSERT_EQ(c.line("mroute from eth0 group ff3e::1 to eth1"), 0U);
    EXPECT_EQ(c.call("shutdown")["code"], 0);
    EXPECT_EQ(keeper.wait(), 0);
    EXPECT_NE(access(dir.file("mfwdv6").c_str(), F_OK), 0);
}

TEST(Keeper, ASecondKeeperIsToldOfTheFirst) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    bed::keeper first(dir);
    ASSERT_TRUE(first.ready());
    bed::keeper second(dir);
    EXPECT_EQ(second.wait(), 1);
    EXPECT_NE(second.said().find("another mfwd6d (process " + std::to_string(first.pid()) + ")"),
              std::string::npos)
        << second.said();
    EXPECT_EQ(bed::client(dir).call("status")["code"], 0);
}

TEST(Keeper, ARunDirThatCannotBeUsedIsTold) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    const std::string open_to_all = dir.file("open");
    ASSERT_EQ(mkdir(open_to_all.c_str(), 0777), 0);
    ASSERT_EQ(chmod(open_to_all.c_str(), 0777), 0);
    dir.write("file", "");
    struct {
        std::string path;
        const char *text;
    } const rows[] = {{open_to_all, "everybody may write there"},
                      {dir.file("file"), "is no folder"},
                      {dir.file("not/there"), "cannot be made"},
                      {"/proc/mfwd6", "cannot be made"}};
    for (const auto &row : rows) {
        bed::program p(dir, {"run", "--platform", "sim", "--no-syslog", "--run-dir", row.path,
                             "--config", dir.write("empty.conf", "")});
        EXPECT_EQ(p.wait(), 1) << row.path;
        EXPECT_NE(p.said().find(row.text), std::string::npos) << p.said();
    }
}

TEST(Keeper, AnOwnerByHandIsRefused) {
    const bed::folder dir;
    bed::program p(dir, {"owner", "--platform", "sim", "--no-syslog", "--run-dir", dir.path()});
    EXPECT_EQ(p.wait(), 78);
    EXPECT_NE(p.said().find("is started by `mfwd6d run`"), std::string::npos) << p.said();
}

TEST(Keeper, APlatformThatIsNotThereIsTold) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    bed::program p(dir, {"run", "--platform", "marble", "--no-syslog", "--run-dir", dir.path(),
                         "--config", dir.write("empty.conf", "")});
    EXPECT_EQ(p.wait(), 1);
    EXPECT_NE(p.said().find("platform marble"), std::string::npos) << p.said();
}

// Dropping to a user without rights: the test program is root in its own namespace.
TEST(Keeper, WithoutRightsTheReasonIsTold) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    const std::string config = dir.write("empty.conf", "");
    const std::string command = std::string(
                                    "setpriv --bounding-set -all --inh-caps -all "
                                    "--no-new-privs ") +
                                MFWD6D_PROGRAM + " run --no-syslog --platform linux --run-dir " +
                                dir.path() + " --config " + config + " 2> " + dir.file("said");
    if (!bed::shell("setpriv --bounding-set -all --inh-caps -all --no-new-privs true"))
        GTEST_SKIP() << "setpriv(1) cannot drop capabilities here";
    EXPECT_FALSE(bed::shell(command));
    std::string said;
    EXPECT_TRUE(bed::shell("grep -q 'needs root, or the capabilities' " + dir.file("said")));
}

}  // namespace
