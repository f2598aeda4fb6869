// Every reason why a window cannot be had has its own message and its exit code.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_shmwin.h"
#include "services/window/setup.h"
#include "services/window/window.h"
#include "tests/apps/mfwd6ctl/owner.h"
#include "tests/kit/library.h"

namespace {

using namespace ctl_test;

std::string window_of(const std::string &folder) {
    return folder + "/" + IP6MC_SHMWIN_NAME;
}

ended show(const std::string &folder) {
    return run({"--run-dir", folder, "--platform", "sim", "show", "tables"});
}

// Makes a window of this name as some other program would; it stays.
void make_foreign_window(uint64_t fingerprint) {
    kit::child maker([&](const kit::post &) {
        shmwin_set_fingerprint(IP6MC_SHMWIN_NAME, fingerprint);
        shmwin_open_record record{};
        std::memcpy(record.name, IP6MC_SHMWIN_NAME, sizeof(IP6MC_SHMWIN_NAME));
        shmwin_platform_info(IP6MC_SHMWIN_NAME, &record.base_addr, &record.max_table_size);
        record.hdr_size = sizeof(ipv4mc_shmwin_hdr_st);
        record.open_flags = SHMWIN_OPEN_OWNER;
        void *header = nullptr;
        uint32_t id = 0;
        return shmwin_open_win(&record, &header, &id) == 0 ? 0 : 1;
    });
    ASSERT_EQ(maker.wait(), 0);
}

TEST(Attach, NoWindow) {
    const kit::run_dir dir;
    const ended e = show(dir.path());
    EXPECT_EQ(e.code, 3);
    EXPECT_EQ(e.err, "mfwd6ctl: no window: " + window_of(dir.path()) +
                         " is not there. Is mfwd6d running, with this run dir?\n");
}

TEST(Attach, NoFolder) {
    const ended e = show("/dev/shm/mfwd6-nowhere/at/all");
    EXPECT_EQ(e.code, 3);
    EXPECT_NE(e.err.find("no window: /dev/shm/mfwd6-nowhere/at/all/"), std::string::npos) << e.err;
}

TEST(Attach, AFolderWhosePathIsTooLong) {
    const ended e = show("/dev/shm/" + std::string(220, 'x'));
    EXPECT_EQ(e.code, 2);
    EXPECT_NE(e.err.find("the path of the run dir is too long"), std::string::npos) << e.err;
}

TEST(Attach, AFolderByARelativePath) {
    const owner o;
    const std::string name = o.folder().substr(o.folder().rfind('/') + 1);
    ASSERT_EQ(chdir("/dev/shm"), 0);
    EXPECT_EQ(show(name).code, 0);
    EXPECT_EQ(show("./" + name + "/").code, 0);
}

TEST(Attach, AWindowThatIsBeingMade) {
    const kit::run_dir dir;
    {
        std::ofstream file(window_of(dir.path()));
        file << std::string(1 << 20, '\0');
    }
    chmod(window_of(dir.path()).c_str(), 0600);
    const ended e = show(dir.path());
    EXPECT_EQ(e.code, 3);
    EXPECT_NE(e.err.find("is being made, or its maker died at it"), std::string::npos) << e.err;
}

TEST(Attach, ADamagedWindow) {
    owner o;
    o.kill();
    const int file = open(window_of(o.folder()).c_str(), O_RDWR);
    ASSERT_GE(file, 0);
    ASSERT_EQ(pwrite(file, "rubbish", 7, 24), 7);
    close(file);
    const ended e = o.run({"show", "tables"});
    EXPECT_EQ(e.code, 4);
    EXPECT_NE(e.err.find("is damaged, or from before the machine's last start"), std::string::npos)
        << e.err;
}

TEST(Attach, AWindowOfAnotherVersion) {
    const kit::run_dir dir;
    make_foreign_window(4711);
    const ended e = show(dir.path());
    EXPECT_EQ(e.code, 4);
    EXPECT_NE(e.err.find("was made by another version of mfwd6"), std::string::npos) << e.err;
}

TEST(Attach, AWindowOfAnotherBase) {
    const kit::run_dir dir;
    kit::child maker([](const kit::post &parent) {
        shmwin_set_place(0x300000000000, 0);
        kit::library library;
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_EQ(maker.hear(), '.');
    const ended e = show(dir.path());
    EXPECT_EQ(e.code, 4);
    EXPECT_NE(e.err.find("was made for another base address"), std::string::npos) << e.err;
}

TEST(Attach, ItsPlaceIsTaken) {
    const owner o;
    setenv("LD_PRELOAD", MFWD6_SQUATTER, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);  // it need not be the first library
    const ended e = o.run({"show", "tables"});
    unsetenv("LD_PRELOAD");
    unsetenv("ASAN_OPTIONS");
    EXPECT_EQ(e.code, 4);
    EXPECT_NE(e.err.find("something else is mapped where the window belongs"), std::string::npos)
        << e.err;
}

TEST(Attach, NotPermitted) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    const owner o;
    constexpr uid_t nobody = 65534;
    chmod(o.folder().c_str(), 0755);
    program p(o.with({"show", "tables"}), nobody);
    const ended e = p.wait();
    EXPECT_EQ(e.code, 5);
    EXPECT_NE(e.err.find("not permitted to open " + window_of(o.folder())), std::string::npos)
        << e.err;
}

TEST(Attach, ALinkIsNotFollowed) {
    const owner o;
    const kit::run_dir other;
    ASSERT_EQ(symlink(window_of(o.folder()).c_str(), window_of(other.path()).c_str()), 0);
    const ended e = show(other.path());
    EXPECT_EQ(e.code, 4);
    EXPECT_NE(e.err.find("is no regular file"), std::string::npos) << e.err;
}

TEST(Attach, APlatformThatIsNotThere) {
    const owner o;
    const ended e = run({"--run-dir", o.folder(), "--platform", "moon", "show", "tables"});
    EXPECT_EQ(e.code, 2);
    EXPECT_NE(e.err.find("no platform \"moon\""), std::string::npos) << e.err;
    // What needs no library needs no platform.
    EXPECT_EQ(run({"--run-dir", o.folder(), "--platform", "moon", "show", "memory"}).code, 0);
}

TEST(Attach, AFullWindowStillTellsOfItsMemory) {
    const owner o([](const world &, const kit::post &parent) {
        shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 1);
        size_t size = size_t{1} << 20;
        while (size >= 16) {
            void *block = nullptr;
            if (shmwin_malloc(ipv4mc_desc->shmwin_id, size, &block) != 0) {
                size -= (size + 15) / 16;  // every size class
            }
        }
        parent.tell();
        return 0;
    });
    ASSERT_EQ(o.process().hear(), '.');
    const ended e = o.run({"show", "routes"});
    EXPECT_EQ(e.code, 4);
    EXPECT_NE(e.err.find("the window is full"), std::string::npos) << e.err;
    for (const char *what : {"memory", "locks", "clients"}) {
        EXPECT_EQ(o.run({"show", what}).code, 0) << what;
    }
}

TEST(Attach, LeavesNoTraceFilesBehind) {
    const owner o;
    EXPECT_EQ(o.run({"show", "routes"}).code, 0);
    const nlohmann::json all = o.run({"trace", "--list", "--json"}).json();
    ASSERT_FALSE(all["rings"].empty());
    for (const auto &ring : all["rings"]) {
        EXPECT_NE(ring["program"], "mfwd6ctl");
    }
}

}  // namespace
