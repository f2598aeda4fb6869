// Configurations of a running daemon: what a file makes, what a changed one changes, what mistakes
// do.
#include <signal.h>

#include <chrono>
#include <thread>

#include "tests/apps/mfwd6d/bed.h"

using bed::json;

namespace {

using texts = std::multiset<std::string>;

class Configuration : public testing::Test {
  protected:
    void SetUp() override { NEEDS_NAMESPACE(); }

    void start(const std::string &text) {
        path = dir.write("m.conf", text);
        daemon = std::make_unique<bed::keeper>(dir, std::vector<std::string>{"--config", path});
        ASSERT_TRUE(daemon->ready());
    }
    // A changed file, read again by a signal.
    void reload(const std::string &text) {
        dir.write("m.conf", text);
        daemon->signal(SIGHUP);
        ASSERT_TRUE(daemon->hears("m.conf"));
    }
    void restart_owner() {
        kill(bed::owner_pid(dir), SIGKILL);
        ASSERT_TRUE(daemon->ready());
    }
    texts routes() { return bed::look(dir).routes; }

    bed::folder dir;
    std::string path;
    std::unique_ptr<bed::keeper> daemon;
};

TEST_F(Configuration, IsAppliedAtTheStart) {
    start(
        "vrf red table 7 interface eth6 eth7\n"
        "phyint eth0 enable ttl-threshold 2\n"
        "mgroup from eth0 group ff3e::1\n"
        "mroute from eth0 source 2001:db8::1 group ff3e::1 to eth1 eth2\n"
        "mroute from eth1 group ff3e::2 to eth0\n"
        "mroute from eth0 group ff3e::2 to eth1\n"
        "mroute vrf red from eth6 group ff3e::/64 to eth7\n");
    EXPECT_EQ(routes(), (texts{"default (2001:db8::1,ff3e::1) in eth0 out eth1 eth2",
                               "default (*,ff3e::2) in eth0 eth1 out eth0 eth1",
                               "red (*,ff3e::/64) in eth6 out eth7"}));
    EXPECT_TRUE(
        bed::shell("grep -q '^[0-9]* *eth0 *ff3e0000000000000000000000000001' /proc/net/igmp6"));
}

TEST_F(Configuration, AnUnchangedFileTouchesNothing) {
    start(
        "mroute from eth0 group ff3e::1 to eth1\n"
        "mroute from eth0 group ff3e::2 to eth1\n");
    {
        bed::client c(dir);
        EXPECT_EQ(c.line("no mroute group ff3e::1"), 0U);
        EXPECT_EQ(c.line("mroute from eth0 group ff3e::2 to eth2"), 0U);
        EXPECT_EQ(c.line("mroute from eth0 group ff3e::3 to eth3"), 0U);
    }
    const texts by_command = {"default (*,ff3e::2) in eth0 out eth2",
                              "default (*,ff3e::3) in eth0 out eth3"};
    EXPECT_EQ(routes(), by_command);
    restart_owner();
    EXPECT_EQ(routes(), by_command);
    reload(
        "# nothing but a comment has changed\n"
        "mroute from eth0 group ff3e::1 to eth1\n"
        "mroute from eth0 group ff3e::2 to eth1\n");
    EXPECT_EQ(routes(), by_command);
}

TEST_F(Configuration, AChangedFileChangesWhatItNames) {
    start(
        "mroute from eth0 group ff3e::1 to eth1\n"
        "mroute from eth0 group ff3e::2 to eth1\n"
        "mroute from eth0 group ff3e::3 to eth1\n");
    {
        bed::client c(dir);
        EXPECT_EQ(c.line("mroute from eth0 group ff3e::9 to eth3"), 0U);
    }
    dir.write("m.conf",
              "mroute from eth0 group ff3e::1 to eth1\n"       // as before
              "mroute from eth0 group ff3e::2 to eth1 eth2\n"  // changed
              "mroute from eth4 group ff3e::4 to eth5\n");     // new; ff3e::3 has gone
    const texts after = {
        "default (*,ff3e::1) in eth0 out eth1", "default (*,ff3e::2) in eth0 out eth1 eth2",
        "default (*,ff3e::4) in eth4 out eth5", "default (*,ff3e::9) in eth0 out eth3"};
    // By a restart of the owner, as by the signal.
    restart_owner();
    EXPECT_EQ(routes(), after);
    reload("mroute from eth0 group ff3e::1 to eth1\n");
    EXPECT_EQ(routes(), (texts{"default (*,ff3e::1) in eth0 out eth1",
                               "default (*,ff3e::9) in eth0 out eth3"}));
}

TEST_F(Configuration, VrfsFollowTheFile) {
    start(
        "vrf red table 7 interface eth6 eth7\n"
        "mroute vrf red from eth6 group ff3e::1 to eth7\n");
    reload(
        "vrf blue table 8 interface eth6 eth7\n"
        "mroute vrf blue from eth6 group ff3e::1 to eth7\n");
    EXPECT_EQ(routes(), texts{"blue (*,ff3e::1) in eth6 out eth7"});
    reload("mroute from eth6 group ff3e::1 to eth7\n");
    EXPECT_EQ(routes(), texts{"default (*,ff3e::1) in eth6 out eth7"});
    const bed::view seen = bed::look(dir);
    EXPECT_EQ(seen.faults, std::vector<std::string>());
}

TEST_F(Configuration, AMistakeAtTheStartIsToldAndNothingBegins) {
    path = dir.write("m.conf", "mroute from eth0 group ff3e::1 to eth1\nmroute eth0\n");
    bed::keeper k(dir, {"--config", path});
    EXPECT_EQ(k.wait(), 1);
    EXPECT_NE(k.said().find(path + ":2: expected \"from\", found \"eth0\""), std::string::npos)
        << k.said();
    bed::keeper none(dir, {"--config", dir.file("none.conf")});
    EXPECT_EQ(none.wait(), 1);
    EXPECT_NE(none.said().find("none.conf: No such file or directory"), std::string::npos);
}

TEST_F(Configuration, AMistakeLaterChangesNothing) {
    start("mroute from eth0 group ff3e::1 to eth1\n");
    const texts before = routes();
    reload("mroute from eth0 group ff3e::2 to eth1\nnonsense\n");
    EXPECT_TRUE(
        daemon->hears(":2: unknown keyword \"nonsense\" (the configuration is not applied)"));
    EXPECT_EQ(routes(), before);
    restart_owner();
    EXPECT_EQ(routes(), before);
    reload("mroute from eth0 group ff3e::2 to eth1\n");
    EXPECT_EQ(routes(), texts{"default (*,ff3e::2) in eth0 out eth1"});
}

TEST_F(Configuration, CheckConfigSaysWhatIsWrong) {
    const std::string good = dir.write("good.conf", "mroute from eth0 group ff3e::1 to eth1\n");
    const std::string bad = dir.write("bad.conf", "\nmroute from eth0 group 225.1.2.3 to eth1\n");
    bed::program first(dir, {"check-config", good});
    EXPECT_EQ(first.wait(), 0);
    bed::program second(dir, {"check-config", bad});
    EXPECT_EQ(second.wait(), 1);
    EXPECT_EQ(second.said(),
              bad + ":2: \"225.1.2.3\" is an IPv4 address: only IPv6 is routed here\n");
}

// What is true now is asked for again until it is so, as links take their time.
template <class Fn>
bool becomes(const Fn &fn) {
    for (int n = 0; n < 100; ++n) {
        if (fn())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

TEST_F(Configuration, RoutesWaitForTheirInterfaces) {
    bed::shell("ip link del late0 2>/dev/null");
    start("mroute from eth0 group ff3e::1 to eth1 late0\n");
    EXPECT_NE(
        daemon->said().find("m.conf:1: interface late0 is not there yet; its routes wait for it"),
        std::string::npos);
    const texts wanted = {"default (*,ff3e::1) in eth0 out eth1 late0"};
    EXPECT_EQ(routes(), wanted);
    // The owner dies while it waits.
    restart_owner();
    EXPECT_EQ(routes(), wanted);
    ASSERT_TRUE(bed::shell("ip link add late0 type veth peer name late1"));
    // A command may name it from now on; the route has followed it to its handle.
    EXPECT_TRUE(becomes([&] {
        bed::client c(dir);
        return c.line("mroute from late1 group ff3e::2 to late0") == 0;
    }));
    EXPECT_EQ(routes(), (texts{"default (*,ff3e::1) in eth0 out eth1 late0",
                               "default (*,ff3e::2) in late1 out late0"}));
    // It goes and comes with another index.
    ASSERT_TRUE(bed::shell("ip link del late0"));
    ASSERT_TRUE(bed::shell("ip link add late0 type veth peer name late1"));
    bed::client c(dir);
    EXPECT_EQ(c.line("mroute from late0 group ff3e::3 to late1"), 0U);
    EXPECT_EQ(routes().size(), 3U);
    const bed::view seen = bed::look(dir);
    EXPECT_EQ(seen.faults, std::vector<std::string>());
    bed::shell("ip link del late0");
}

// What named the old name waits for another interface of that name.
TEST_F(Configuration, ARenamedInterfaceIsAnother) {
    ASSERT_TRUE(bed::shell("ip link add old0 type veth peer name old1"));
    start("mroute from eth0 group ff3e::1 to old0\nmroute from old0 group ff3e::2 to eth1\n");
    ASSERT_TRUE(bed::shell("ip link set old0 name new0"));
    EXPECT_TRUE(becomes([&] {
        bed::client c(dir);
        return c.line("mroute from eth0 group ff3e::3 to new0") == 0;
    }));
    EXPECT_EQ(routes(),
              (texts{"default (*,ff3e::1) in eth0 out old0", "default (*,ff3e::2) in old0 out eth1",
                     "default (*,ff3e::3) in eth0 out new0"}));
    ASSERT_TRUE(bed::shell("ip link set new0 name old0"));
    EXPECT_TRUE(becomes([&] {
        return routes() == texts{"default (*,ff3e::1) in eth0 out old0",
                                 "default (*,ff3e::2) in old0 out eth1",
                                 "default (*,ff3e::3) in eth0 out new0"};
    }));
    restart_owner();
    EXPECT_EQ(routes().size(), 3U);
    const bed::view seen = bed::look(dir);
    EXPECT_EQ(seen.faults, std::vector<std::string>());
    bed::shell("ip link del old0");
}

TEST_F(Configuration, NamesWithPlusTakeAllInboundInterfaces) {
    bed::shell("ip link del wan0 2>/dev/null");
    ASSERT_TRUE(bed::shell("ip link add wan0 type veth peer name peer0"));
    start("mroute from wan+ group ff3e::1 to eth1\n");
    EXPECT_EQ(routes(), texts{"default (*,ff3e::1) in wan0 out eth1"});
    ASSERT_TRUE(bed::shell("ip link add wan17 type veth peer name peer17"));
    EXPECT_TRUE(
        becomes([&] { return routes() == texts{"default (*,ff3e::1) in wan0 wan17 out eth1"}; }));
    // One that comes while there is no owner.
    const pid_t owner = bed::owner_pid(dir);
    kill(owner, SIGSTOP);
    ASSERT_TRUE(bed::shell("ip link add wan18 type veth peer name peer18"));
    kill(owner, SIGKILL);
    ASSERT_TRUE(daemon->ready());
    EXPECT_EQ(routes(), texts{"default (*,ff3e::1) in wan0 wan17 wan18 out eth1"});
    bed::shell("ip link del wan0; ip link del wan17; ip link del wan18");
}

}  // namespace
