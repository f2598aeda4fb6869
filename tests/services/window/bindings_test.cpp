// Several windows in one process, and the folder in which windows lie.
#include <cerrno>

#include "services/diag/run_dir.h"
#include "services/journal/journal.h"
#include "services/locks/pak_client.h"
#include "services/window/layout.h"
#include "tests/services/window/support.h"

namespace {

using namespace window_test;
namespace journal = mfwd6::journal;

class WindowBindings : public WindowTest {
  protected:
    WindowBindings() {
        void *base = nullptr;
        size_t size = 0;
        EXPECT_EQ(shmwin_platform_info("test", &base, &size), 0U);
        // Beside the other window's address space.
        const uint64_t beside = reinterpret_cast<uint64_t>(base) + (uint64_t{1} << 37);
        EXPECT_EQ(shmwin_set_place_of("second", beside, 64 << 20), 0U);
    }
};

// A group of this process runs back what was stored in the window of `o`, and what was taken there.
void expect_journaled(const opened &o) {
    auto *word = static_cast<uint64_t *>(o.header);
    const uint64_t before = *word;
    const size_t live = live_blocks(o.id).size();
    {
        journal::group g;
        ASSERT_TRUE(g.journaled());
        journal::store(*word, before + 1);
        void *block = nullptr;
        ASSERT_EQ(shmwin_malloc(o.id, 100, &block), 0U);
        EXPECT_TRUE(g.undo());
    }
    EXPECT_EQ(*word, before);
    EXPECT_EQ(live_blocks(o.id).size(), live) << "the log is that of another window";
}

bool packet_mutex_is_that_of(const opened &o, const char *name) {
    void *base = nullptr;
    size_t size = 0;
    EXPECT_EQ(shmwin_platform_info(name, &base, &size), 0U);
    EXPECT_NE(o.id, 0U);
    EXPECT_EQ(pak_client_mutex_lock(), 0U);
    const auto &m = static_cast<mfwd6::window::superblock *>(base)->packet_mutex;
    const bool held = mfwd6::locks::holder_of(&m).peer != 0;
    EXPECT_EQ(pak_client_mutex_unlock(), 0U);
    return held;
}

TEST_F(WindowBindings, ClosingTheLaterWindowGivesBackToTheEarlier) {
    opened first = open_as(true);
    opened second = open_as(true, "second");
    ASSERT_EQ(second.code, 0U);
    expect_journaled(second);
    EXPECT_TRUE(packet_mutex_is_that_of(second, "second"));
    second.close();
    expect_journaled(first);
    EXPECT_TRUE(packet_mutex_is_that_of(first, "test"));
    first.close();
    const journal::group g;
    EXPECT_FALSE(g.journaled());
    EXPECT_EQ(pak_client_mutex_lock(), 0U);
    EXPECT_EQ(pak_client_mutex_unlock(), 0U);
}

TEST_F(WindowBindings, ClosingTheEarlierWindowLeavesTheLater) {
    opened first = open_as(true);
    opened second = open_as(true, "second");
    ASSERT_EQ(second.code, 0U);
    first.close();
    expect_journaled(second);
    EXPECT_TRUE(packet_mutex_is_that_of(second, "second"));
    second.close();
}

TEST_F(WindowBindings, AnAttachedWindowTakesNoLogFromAnOwnedOne) {
    open_as(true, "second").close();
    opened owned = open_as(true);
    opened attached = open_as(false, "second");
    ASSERT_EQ(attached.code, 0U);
    expect_journaled(owned);
    attached.close();
    expect_journaled(owned);
    EXPECT_TRUE(packet_mutex_is_that_of(owned, "test"));
    owned.close();
}

// ---- the run dir; each in a child, as the default is chosen once for a process

std::string window_dir() {
    char path[256] = "";
    const cerrno code = shmwin_get_run_dir(path, sizeof(path));
    return code == 0 ? path : std::to_string(code);
}

TEST_F(WindowBindings, WindowsLieWhereDiagnosticsLie) {
    EXPECT_EQ(in_child([&] {
                  shmwin_set_run_dir(nullptr);
                  return window_dir() == diag_run_dir() ? 0 : 1;
              }),
              0);
    EXPECT_EQ(in_child([&] {
                  shmwin_set_run_dir(nullptr);
                  diag_set_run_dir(dir_.c_str());
                  const bool follows = window_dir() == dir_;
                  const opened o = open_as(true);
                  return follows && o.code == 0 && access(file().c_str(), F_OK) == 0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(in_child([&] {
                  diag_set_run_dir("/nonexistent");
                  return window_dir() == dir_ ? 0 : 1;  // what was set for windows comes first
              }),
              0);
}

TEST_F(WindowBindings, DefaultPlacesComeInOneOrder) {
    char path[256];
    setenv("XDG_RUNTIME_DIR", "/some/where", 1);
    ASSERT_NE(diag_default_run_dir(0, path, sizeof(path)), 0);
    EXPECT_STREQ(path, "/run/mfwd6");
    ASSERT_NE(diag_default_run_dir(1, path, sizeof(path)), 0);
    EXPECT_STREQ(path, "/some/where/mfwd6");
    ASSERT_NE(diag_default_run_dir(2, path, sizeof(path)), 0);
    std::string by_user = "/dev/shm/mfwd6-";
    by_user += std::to_string(geteuid());
    EXPECT_EQ(path, by_user);
    EXPECT_EQ(diag_default_run_dir(3, path, sizeof(path)), 0);
    EXPECT_EQ(diag_default_run_dir(0, path, 5), 0);
    setenv("XDG_RUNTIME_DIR", "not/absolute", 1);
    EXPECT_EQ(diag_default_run_dir(1, path, sizeof(path)), 0);
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(diag_default_run_dir(1, path, sizeof(path)), 0);
}

// An ordinary user cannot write to /run/mfwd6: windows and diagnostics go to the next place, and
// who attaches finds them there though /run/mfwd6 is there as well.
TEST_F(WindowBindings, OrdinaryUserFallsBackToTheRuntimeDir) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to make /run/mfwd6 and to become another user";
    }
    const bool made = mkdir("/run/mfwd6", 0755) == 0;
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(chown(dir_.c_str(), nobody, nobody), 0);
    setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
    const auto as_nobody = [&](bool owner, gate *told, gate *wait) {
        shmwin_set_run_dir(nullptr);
        if (setgid(nobody) != 0 || setuid(nobody) != 0) {
            return 1;
        }
        const opened o = open_as(owner);
        if (o.code != 0) {
            return 2;
        }
        if (told != nullptr) {
            told->open();
            wait->wait();
        }
        return owner && (window_dir() != dir_ + "/mfwd6" || window_dir() != diag_run_dir()) ? 3 : 0;
    };
    gate ready, done;
    const pid_t owner = start([&] { return as_nobody(true, &ready, &done); });
    ready.wait();
    EXPECT_EQ(access((dir_ + "/mfwd6/test").c_str(), F_OK), 0);
    EXPECT_EQ(in_child([&] { return as_nobody(false, nullptr, nullptr); }), 0);
    done.open();
    EXPECT_EQ(end_of(owner), 0);
    unsetenv("XDG_RUNTIME_DIR");
    if (made) {
        rmdir("/run/mfwd6");
    }
}

}  // namespace
