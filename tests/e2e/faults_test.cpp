// What goes wrong around a router: a clear message each, and nothing lost.
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "ipv4/multicast/lib/ip6mc_shmwin.h"
#include "services/window/setup.h"
#include "services/window/window.h"
#include "tests/e2e/fixture.h"
#include "tests/kit/child.h"

namespace {

using namespace e2e;

constexpr uint32_t pace = 2000;
const std::string group = "ff3e::8000:1";
const std::string route_line =
    "mroute from source source fd00:1::10 group " + group + " to one two\n";

class Faults : public SmallSite {
  protected:
    void SetUp() override {
        if (!start(route_line)) {
            return;
        }
        stream_ = std::make_unique<netlab::sender>(*site_->hosts.at("source"), group);
        stream_->start(pace);
        ASSERT_TRUE(flows_to("two"));
    }

    bool flows_to(const std::string &name) {
        return site_->receivers.at(name)->wait_sequence(stream_->stream(), stream_->sent() + 1,
                                                        patience);
    }

    // Whatever happened, `two` has had every packet.
    void TearDown() override {
        if (stream_ == nullptr || IsSkipped()) {
            return;
        }
        stream_->stop();
        EXPECT_TRUE(site_->receivers.at("two")->wait_sequence(stream_->stream(), stream_->sent(),
                                                              patience));
        const netlab::stream_report got = site_->receivers.at("two")->report(stream_->stream());
        EXPECT_EQ(got.missing(1, stream_->sent()), 0U);
        EXPECT_EQ(got.duplicates, 0U);
        expect_clean(*router_);
    }

    std::unique_ptr<netlab::sender> stream_;
};

TEST_F(Faults, AnInterfaceThatGoesAndComesBackForwardsAgain) {
    for (int i = 0; i < 3; ++i) {
        site_->lab.unplug(*site_->hosts.at("one"));
        std::this_thread::sleep_for(grace);
        EXPECT_EQ(router_->must("status").value("routes", 0), 1);
        site_->lab.plug(*site_->hosts.at("one"));
        site_->receivers.at("one")->reopen();
        EXPECT_TRUE(flows_to("one")) << router_->log();
    }
}

TEST_F(Faults, AnInterfaceThatComesBackWhileTheOwnerIsAwayForwardsAgain) {
    const pid_t owner = router_->owner();
    site_->lab.unplug(*site_->hosts.at("one"));
    ::kill(owner, SIGKILL);
    site_->lab.plug(*site_->hosts.at("one"));
    site_->receivers.at("one")->reopen();
    ASSERT_TRUE(router_->wait_owner(owner));
    EXPECT_TRUE(flows_to("one")) << router_->log();
}

TEST_F(Faults, TheThirtyThirdInterfaceIsRefusedAndTheOthersGoOn) {
    constexpr int kernel_most = 32;
    json refused;
    int taken = 4;
    for (int i = 0; i <= kernel_most - 4; ++i) {
        const std::string name = "stub" + std::to_string(i);
        site_->lab.add_stub(name);
        const json answer = router_->ask("interface.set", {{"interface", name}, {"enabled", true}});
        if (answer.value("code", -1) == 0) {
            ++taken;
        } else {
            refused = answer;
        }
    }
    EXPECT_EQ(taken, kernel_most);
    ASSERT_FALSE(refused.is_null());
    EXPECT_EQ(refused.value("code", 0), ENOSPC) << refused;
    EXPECT_NE(refused.value("text", "").find("32"), std::string::npos) << refused;
}

TEST_F(Faults, AWrongLineNamesItsReasonAndChangesNothing) {
    const json before = router_->must("status");
    for (const char *line :
         {"mroute from source group 10.0.0.1 to one", "mroute from source group fd00::1 to one",
          "mroute to one", "phyint", "mroute from source group ff3e::1/129 to one",
          "route from source group ff3e::1 to one",
          "mroute vrf nowhere from source group ff3e::1 to one"}) {
        const json answer = router_->ask("line", {{"line", line}});
        EXPECT_NE(answer.value("code", 0), 0) << line;
        EXPECT_GT(answer.value("text", "").size(), 5U) << line << ": " << answer;
    }
    EXPECT_EQ(router_->must("status").value("routes", -1), before.value("routes", 0));
}

TEST_F(Faults, AConfigurationThatHasGoneBadDoesNotHurtARunningRouter) {
    std::ofstream(router_->configuration_file()) << small_interfaces << "mroute nonsense\n";
    const pid_t owner = router_->owner();
    ::kill(owner, SIGKILL);
    ASSERT_TRUE(router_->wait_owner(owner)) << router_->log();
    EXPECT_EQ(router_->must("status").value("routes", 0), 1);
    EXPECT_NE(router_->log().find("mfwd6d.conf:5"), std::string::npos) << router_->log();
    std::ofstream(router_->configuration_file()) << small_interfaces << route_line;
}

TEST_F(Faults, GarbageOnTheCommandSocketHoldsNobodyUp) {
    std::vector<std::unique_ptr<netlab::command_line>> flood;
    const std::string garbage(200000, '\xff');
    const std::string half = "{\"id\":1,\"action\":\"sta";
    for (int i = 0; i < 20; ++i) {
        flood.push_back(std::make_unique<netlab::command_line>(router_->run_dir() + "/command"));
        flood.back()->send_raw(i % 3 == 0   ? garbage + "\n"
                               : i % 3 == 1 ? half
                                            : std::string(1000, '\n') + "[]\n{}\nnull\n");
    }
    // One that asks without end and never reads.
    netlab::command_line deaf(router_->run_dir() + "/command");
    std::thread asks([&] {
        const std::string question = "{\"id\":1,\"action\":\"status\",\"args\":{}}\n";
        while (deaf.send_raw(question)) {
        }
    });
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(router_->ask("status").value("code", -1), 0);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
    asks.join();  // it was dropped
    const json answer = json::parse(flood[0]->read_line(patience), nullptr, false);
    EXPECT_NE(answer.value("code", 0), 0) << answer;
    EXPECT_EQ(flood[0]->read_line(patience), "");  // and the connection is closed
}

TEST_F(Faults, ALineLongerThanAMegabyteIsRefused) {
    netlab::command_line client(router_->run_dir() + "/command");
    client.send_raw(std::string((1 << 20) + 100, 'x'));
    const json answer = json::parse(client.read_line(patience), nullptr, false);
    EXPECT_NE(answer.value("code", 0), 0) << answer;
    EXPECT_EQ(client.read_line(patience), "");
}

// ---- starts that fail

class Start : public EndToEnd {
  protected:
    // What `mfwd6d run` says when it cannot start.
    netlab::ended run(const std::string &configuration,
                      const std::vector<std::string> &before = {}) {
        char folder[] = "/dev/shm/mfwd6-lab-XXXXXX";
        const std::string dir = mkdtemp(folder);
        chmod(dir.c_str(), 0755);
        std::ofstream(dir + "/bad.conf") << configuration;
        const netlab::ended end = run_in(dir, before);
        netlab::network_namespace().shell("rm -r " + dir);
        return end;
    }

    netlab::ended run_in(const std::string &dir, const std::vector<std::string> &before = {}) {
        const netlab::network_namespace space;
        std::vector<std::string> words = before;
        words.insert(words.end(), {netlab::program_folder() + "/mfwd6d", "run", "--run-dir", dir,
                                   "--config", dir + "/bad.conf"});
        const std::string program = words.front();
        words.erase(words.begin());
        return netlab::run_program(space, program, words, 10s);
    }
};

TEST_F(Start, AWrongConfigurationLineIsNamedWithFileAndLine) {
    const netlab::ended end =
        run("# fine\nphyint lo enable\nmroute from lo group 239.1.2.3 to lo\n");
    EXPECT_NE(end.code, 0);
    EXPECT_NE(end.code, 137) << "it did not end";
    EXPECT_NE((end.out + end.err).find("bad.conf:3:"), std::string::npos) << end.out << end.err;
}

TEST_F(Start, WithoutThePrivilegeItSaysWhichOneIsMissing) {
    const netlab::ended end = run("", {"setpriv", "--inh-caps=-all", "--bounding-set=-all", "--"});
    EXPECT_NE(end.code, 0);
    EXPECT_NE(end.code, 137) << "it did not end";
    const std::string said = end.out + end.err;
    EXPECT_TRUE(said.find("CAP_NET_ADMIN") != std::string::npos ||
                said.find("root") != std::string::npos)
        << said;
}

// Makes a window of another version in the folder and holds it until it is told.
int hold_other_window(const std::string &dir, const kit::post &parent) {
    shmwin_set_run_dir(dir.c_str());
    shmwin_open_record record = {};
    std::memcpy(record.name, IP6MC_SHMWIN_NAME, sizeof(IP6MC_SHMWIN_NAME));
    record.hdr_size = 64;
    record.open_flags = SHMWIN_OPEN_OWNER;
    void *header = nullptr;
    uint32_t id = 0;
    shmwin_platform_info(record.name, &record.base_addr, &record.max_table_size);
    const cerrno code = shmwin_open_win(&record, &header, &id);
    if (code == 0) {
        std::strcpy(static_cast<char *>(header), "mine");
    }
    parent.tell(code == 0 ? '.' : '!');
    parent.hear();
    return code == 0 && std::strcmp(static_cast<char *>(header), "mine") == 0 ? 0 : 1;
}

TEST_F(Start, AWindowOfAnotherVersionThatIsInUseIsNamedAndLeftAlone) {
    char folder[] = "/dev/shm/mfwd6-lab-XXXXXX";
    const std::string dir = mkdtemp(folder);
    std::ofstream(dir + "/bad.conf") << "";
    kit::child other([&](const kit::post &parent) { return hold_other_window(dir, parent); });
    ASSERT_EQ(other.hear(), '.');
    const netlab::ended end = run_in(dir);
    EXPECT_NE(end.code, 0);
    EXPECT_NE(end.code, 137) << "it did not end: " << end.out << end.err;
    EXPECT_NE((end.out + end.err).find("window"), std::string::npos) << end.out << end.err;
    const netlab::ended shown =
        netlab::run_program(netlab::network_namespace(), netlab::program_folder() + "/mfwd6ctl",
                            {"--run-dir", dir, "show", "routes"});
    EXPECT_NE(shown.code, 0);
    EXPECT_NE(shown.err.find("another version"), std::string::npos) << shown.err;
    other.tell();
    EXPECT_EQ(other.wait(), 0);  // what was in it is still there
    netlab::network_namespace().shell("rm -r " + dir);
}

}  // namespace
