// Owners that are killed at every journaled store of an operation; the next owner finds a whole
// window.
#include <signal.h>
#include <unistd.h>

#include <functional>

#include "services/journal/journal.h"
#include "tests/kit/child.h"
#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

int points_left = 0;

void die_at_point() {
    if (--points_left < 0) {
        kill(getpid(), SIGKILL);
    }
}

// Stores from here on count; the process dies in front of the n-th.
void die_at(int point) {
    points_left = point;
    mfwd6::journal::crash_hook = die_at_point;
}

constexpr int finished = 42;

void start_owner() {
    sim_reset();
    if (kit::start_library() != 0 ||
        ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr) != 0) {
        _exit(97);
    }
}

// What the next owner sees: the trees and lists, and each record in a tree.
int look(const std::function<void()> &expectations) {
    start_owner();
    expect_whole();
    EXPECT_EQ(header()->idb_in_hand, nullptr);
    EXPECT_EQ(live_idbs(), in_tree(IPV4MC_IDB_THREAD_GLOBAL)) << "no record without an owner";
    expectations();
    // The window works: a new record comes and goes.
    ipv4mc_idb_st *idb = nullptr;
    const uint32_t records = live_idbs();
    EXPECT_EQ(ip6mc_idb_lock_v3(0x7777, "Probe", &idb, nullptr), 0U);
    EXPECT_EQ(ip6mc_idb_unlock(&idb), 0U);
    EXPECT_EQ(live_idbs(), records);
    return testing::Test::HasFailure() ? 1 : 0;
}

// `prepare` builds a window, `work` is killed at each of its points in turn, each time on a window
// of its own. Processes are made one after the other; this one never opens a window.
int kill_everywhere(const std::function<void()> &prepare, const std::function<void()> &work,
                    const std::function<void()> &expectations) {
    for (int point = 0; point < 20000; ++point) {
        kit::run_dir dir;
        kit::child victim([&](const kit::post &) {
            start_owner();
            prepare();
            die_at(point);
            work();
            mfwd6::journal::crash_hook = nullptr;
            return finished;
        });
        const int ending = victim.wait();
        EXPECT_TRUE(ending == finished || ending == 128 + SIGKILL) << ending;
        kit::child next([&](const kit::post &) { return look(expectations); });
        EXPECT_EQ(next.wait(), 0) << "killed at point " << point;
        if (ending != 128 + SIGKILL || testing::Test::HasFailure()) {
            return point;
        }
    }
    return -1;
}

// References that can be seen are the references that are counted.
void expect_route_references(ifhtype ifh) {
    if (ipv4mc_idb_st *idb = found(ifh)) {
        EXPECT_EQ(idb->refcount, idb->route_count);
    }
}

TEST(IdbCrash, CreationAndLock) {
    const int points = kill_everywhere([] { locked(0x20); }, [] { locked(0x10); },
                                       [] {
                                           ipv4mc_idb_st *idb = found(0x10);
                                           EXPECT_TRUE(idb == nullptr || idb->refcount <= 1);
                                           EXPECT_NE(found(0x20), nullptr);
                                       });
    EXPECT_GT(points, 20);
}

TEST(IdbCrash, LockByName) {
    const int points = kill_everywhere([] { locked(0x10); },
                                       [] {
                                           ipv4mc_idb_st *idb = nullptr;
                                           ip6mc_idb_lock_v3(0x10, "Eth0", &idb, nullptr);
                                       },
                                       [] {
                                           ipv4mc_idb_st *idb = found(0x10);
                                           ASSERT_NE(idb, nullptr);
                                           const bool named =
                                               (idb->tree_flags & IPV4MC_IDB_TREE_NAME) != 0;
                                           EXPECT_STREQ(idb->name, named ? "Eth0" : "Ha0x10");
                                           EXPECT_EQ(idb->refcount, named ? 2U : 1U);
                                       });
    EXPECT_GT(points, 20);
}

TEST(IdbCrash, TheLastUnlock) {
    const int points = kill_everywhere(
        [] {
            ipv4mc_idb_st *idb = nullptr;
            ip6mc_idb_lock_v3(0x10, "Eth0", &idb, nullptr);
            header()->fint_idb = idb;
            for (ifhtype other = 0x20; other < 0x28; ++other) {
                ip6mc_idb_lock_v3(other, std::to_string(other).c_str(), &idb, nullptr);
            }
        },
        [] {
            ipv4mc_idb_st *idb = found(0x10);
            ip6mc_idb_unlock(&idb);
        },
        [] {
            EXPECT_EQ(header()->fint_idb, found(0x10));
            EXPECT_GE(live_idbs(), 8U);
        });
    EXPECT_GT(points, 30);
}

ipv4mc_intf_entry_st *add_route(uint8_t source, ifhtype ifh) {
    ipv4mc_intf_entry_st *entry = make_entry(make_route(source, 9), ifh);
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_route_add(&idb, entry->route, &entry), 0U);
    return entry;
}

TEST(IdbCrash, ARouteJoins) {
    const int points = kill_everywhere([] { add_route(1, 0x10); }, [] { add_route(2, 0x10); },
                                       [] { expect_route_references(0x10); });
    EXPECT_GT(points, 15);
}

TEST(IdbCrash, ARouteLeaves) {
    static ipv4mc_intf_entry_st *middle;
    const int points = kill_everywhere(
        [] {
            add_route(1, 0x10);
            middle = add_route(2, 0x10);
            add_route(3, 0x10);
        },
        [] { ip6mc_idb_route_remove(middle->route, &middle); },
        [] {
            expect_route_references(0x10);
            EXPECT_GE(found(0x10)->route_count, 2U);
        });
    EXPECT_GT(points, 15);
}

TEST(IdbCrash, TheLastRouteLeaves) {
    static ipv4mc_intf_entry_st *entry;
    const int points = kill_everywhere([] { entry = add_route(1, 0x10); },
                                       [] { ip6mc_idb_route_remove(entry->route, &entry); },
                                       [] { expect_route_references(0x10); });
    EXPECT_GT(points, 20);
}

TEST(IdbCrash, AllAreDeleted) {
    const int points = kill_everywhere(
        [] {
            locked(0x10);
            locked(0x20);
            locked(0x30);
        },
        [] { ip6mc_idb_delete_all(0); }, [] {});
    EXPECT_GT(points, 60);
}

// Only a process of its own has not yet made the walk behind a restart.
TEST(IdbRestart, CountsAnAnnouncementFromTheWalkOn) {
    kit::run_dir dir;
    kit::child first([](const kit::post &) {
        start_owner();
        locked(0x10)->im_create_rcvd = 1;
        return ip6mc_lib_terminate(0, IPV4MC_TERMINATE_UPDATE) == 0 ? 0 : 1;
    });
    ASSERT_EQ(first.wait(), 0);
    kit::child second([](const kit::post &) {
        kit::listener heard;
        start_owner();
        ipv4mc_idb_st *idb = found(0x10);
        EXPECT_EQ(ip6mc_idb_refcount_sanity_fn(idb), 0);
        EXPECT_EQ(heard.lines(IPV4_DEBUG_WRN).back(),
                  "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 0,1 [0x8]");
        ipv4mc_desc->evm = &heard;
        ipv4mc_idb_update_state(IPV4MC_IDB_STATE_READY);
        ipv4mc_desc->evm = nullptr;
        EXPECT_EQ(ip6mc_idb_refcount_sanity_fn(idb), 1);
        idb->refcount = 2;
        EXPECT_EQ(ip6mc_idb_refcount_sanity_fn(idb), 0);
        EXPECT_EQ(heard.lines(IPV4_DEBUG_WRN).back(),
                  "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 1,2 [0x4]");
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(second.wait(), 0);
}

TEST(IdbRestart, AnAttachedClientFindsInterfaces) {
    kit::run_dir dir;
    kit::child owner([](const kit::post &parent) {
        start_owner();
        ipv4mc_idb_st *idb = nullptr;
        ip6mc_idb_lock_v3(0x10, "Eth0", &idb, nullptr);
        parent.tell();
        parent.hear();
        return 0;
    });
    owner.hear();
    kit::child client([](const kit::post &) {
        kit::start how;
        how.attach_only = 1;
        EXPECT_EQ(kit::start_library(how), 0U);
        EXPECT_EQ(ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr), 0U);
        ipv4mc_idb_st *by_name = nullptr;
        EXPECT_EQ(ip6mc_idb_lookup_by_name("Eth0", &by_name), 0U);
        EXPECT_NE(by_name, nullptr);
        EXPECT_EQ(by_name, found(0x10));
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(client.wait(), 0);
    owner.tell();
    EXPECT_EQ(owner.wait(), 0);
}

}  // namespace
}  // namespace idb_test
