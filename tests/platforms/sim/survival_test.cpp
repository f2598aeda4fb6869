// Hardware in files: it outlives its process, however that ends.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>

#include "tests/platforms/sim/sim_fixture.h"

namespace {

class SimSurvival : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        char name[] = "/dev/shm/mfwd6-sim-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        path = name;
    }
    void TearDown() override {
        sim_hardware_close();
        SimTest::TearDown();
        std::filesystem::remove_all(path);
    }

    // Runs `work` in a child with the hardware open and waits for its end.
    template <class Work>
    int in_child(Work work) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(sim_hardware_open(path.c_str()) == 0 ? work() : 99);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }

    void commit(uint32_t n, uint64_t attributes) {
        test_route route(table, "2001:db8::1", "ff3e::" + std::to_string(n), 256);
        route.record.attributes = attributes;
        ipv4mc_intf_entry_st &e = entry(n + 1, MRIB_INTF_FORWARD);
        ASSERT_EQ(intf_op(IPV4MC_ACTION_COMMIT, route, e, 0, 1), 0U);
        ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route, 0, 1), 0U);
        entries.pop_back();
    }

    std::string path;
};

TEST_F(SimSurvival, WhatADeadProcessProgrammedIsListedByTheNextOne) {
    const int status = in_child([&] {
        for (uint32_t n = 0; n < 500; ++n) {
            commit(n, n);
        }
        ipv4mc_idb_st bundle = {};
        ipv4mc_idb_st member = {};
        bundle.ifh = 1;
        member.ifh = 2;
        ip6mc_platform_idb_operation(IPV4MC_IDB_OP_MEMBER_ADD, &bundle, &member, nullptr);
        raise(SIGKILL);
        return 0;
    });
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_EQ(sim_hardware_open(path.c_str()), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 500U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 500U);
    EXPECT_EQ(sim_has_member(1, 2), 1);
    test_route route(table, "2001:db8::1", "ff3e::77", 256);
    ip6mc_platform_held_st held = {};
    ASSERT_EQ(find(route, &held), 0U);
    EXPECT_EQ(held.attributes, 77U);
    std::vector<ifhtype> out(2);
    ASSERT_EQ(find(route, 78), 0U);
    for (const ip6mc_platform_held_st &each : listed(IP6MC_PLATFORM_ROUTE)) {
        ASSERT_EQ(ip6mc_platform_remove_held(&each), 0U);
    }
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 0U);
}

TEST_F(SimSurvival, OneProcessAtATime) {
    ASSERT_EQ(sim_hardware_open(path.c_str()), 0U);
    const pid_t child = fork();
    if (child == 0) {
        // A child after fork shares the lock of its parent: a description of its own is what
        // counts.
        sim_hardware_close();
        _exit(sim_hardware_open(path.c_str()) == EBUSY ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(SimSurvival, AFolderThatIsNotThereLeavesEmptyHardwareInMemory) {
    commit(1, 1);
    EXPECT_EQ(sim_hardware_open("/nowhere/at/all"), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(sim_hardware_open(nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
    commit(1, 1);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 1U);
}

TEST_F(SimSurvival, AResetEmptiesTheFilesToo) {
    ASSERT_EQ(sim_hardware_open(path.c_str()), 0U);
    commit(1, 1);
    sim_reset();
    sim_hardware_close();
    ASSERT_EQ(sim_hardware_open(path.c_str()), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
}

TEST_F(SimSurvival, FilesOfAnotherBuildAreRefused) {
    const std::string file = path + "/routes";
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT, 0600);
    const std::string junk(8192, 'x');
    ASSERT_EQ(write(fd, junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
    close(fd);
    EXPECT_EQ(sim_hardware_open(path.c_str()), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
}

// The array of routes is the truth: what hangs on a route that is not in it does not count.
TEST_F(SimSurvival, AnInterfaceWhoseRouteIsNotThereIsDropped) {
    ASSERT_EQ(sim_hardware_open(path.c_str()), 0U);
    commit(1, 1);
    commit(2, 2);
    sim_hardware_close();
    const int fd = open((path + "/routes").c_str(), O_WRONLY);
    const uint32_t no_state = 0;
    ASSERT_EQ(pwrite(fd, &no_state, sizeof(no_state), 4096), 4) << "state of the first route";
    close(fd);
    ASSERT_EQ(sim_hardware_open(path.c_str()), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 1U);
    const auto left = listed(IP6MC_PLATFORM_INTF);
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0].ifh, 3U);
    commit(1, 1);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 2U);
}

// Programs and removes at random until it is killed from outside, at whatever instruction.
TEST_F(SimSurvival, KilledAnywhereItHoldsWholeThings) {
    std::mt19937 random(11);
    for (int round = 0; round < 25; ++round) {
        int ready[2] = {};
        ASSERT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        if (child == 0) {
            if (sim_hardware_open(path.c_str()) != 0) {
                _exit(99);
            }
            std::mt19937 local(static_cast<uint32_t>(round));
            for (uint64_t turn = 0;; ++turn) {
                const uint32_t n = static_cast<uint32_t>(local()) % 200;
                if (local() % 2 == 0) {
                    commit(n, n);
                } else {
                    test_route route(table, "2001:db8::1", "ff3e::" + std::to_string(n), 256);
                    route_op(IPV4MC_ACTION_DELETE, route);
                }
                if (turn == 300 && write(ready[1], "x", 1) != 1) {
                    _exit(98);
                }
            }
        }
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1);
        const uint64_t until = random() % 20000;
        for (volatile uint64_t spin = 0; spin < until;) {
            spin = spin + 1;
        }
        ASSERT_EQ(kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status));
        close(ready[0]);
        close(ready[1]);

        ASSERT_EQ(sim_hardware_open(path.c_str()), 0U);
        const auto routes = listed(IP6MC_PLATFORM_ROUTE);
        ASSERT_EQ(routes.size(), sim_count(IP6MC_PLATFORM_ROUTE));
        std::map<std::string, int> seen;
        for (const ip6mc_platform_held_st &held : routes) {
            ASSERT_EQ(held.tid, 7U);
            ASSERT_EQ(held.pfx_len, 256);
            ASSERT_LT(held.attributes, 200U);
            const std::string key(reinterpret_cast<const char *>(held.group.bytes), 16);
            ASSERT_EQ(seen[key]++, 0) << "held twice";
            ASSERT_EQ(sim_find_route(7, &held.source, &held.group, 256, nullptr), 0U);
        }
        for (const ip6mc_platform_held_st &held : listed(IP6MC_PLATFORM_INTF)) {
            ASSERT_EQ(sim_find_intf(7, &held.source, &held.group, 256, held.ifh, nullptr), 0U);
        }
        sim_hardware_close();
    }
}

}  // namespace
