// An attached client that outlives a reset of the window: its first call behind it finds out,
// whichever that is, and touches nothing of what an owner has put there since.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_locks.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "services/window/inspect.h"
#include "tests/kit/child.h"
#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

// What the client kept of the window.
struct kept {
    ipv4mc_table_st *table = nullptr;
    ipv4mc_route_entry_st *route = nullptr;
    void *block = nullptr;
};

struct use {
    const char *name;
    // Whether the call failed as it must.
    bool (*refused)(const kept &);
};

bool lookup_refused(const kept &had) {
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(1);
    ipv4mc_route_entry_st *route = nullptr;
    ipv4mc_intf_entry_st *intf = nullptr;
    return ip6mc_lookup(had.table, &s, &g, ifh_a, &route, &intf) == EBADF && route == nullptr;
}

const use uses[] = {
    {"TableLookup", [](const kept &) { return ip6mc_table_lookup_by_tbl_id(tid) == nullptr; }},
    {"FirstTable", [](const kept &) { return ip6mc_table_tid_get_first() == nullptr; }},
    {"TableTree", [](const kept &) { return ip6mc_get_table_tid_db() == nullptr; }},
    {"TableOperation",
     [](const kept &) {
         ipv4mc_table_st *table = nullptr;
         return ip6mc_table_operation(IPV4MC_ACTION_LOOKUP, 0, 0, "red", &table, 0) == EBADF;
     }},
    {"RouteLookup", lookup_refused},
    {"RouteWalk",
     [](const kept &had) {
         return ip6mc_route_first_key(had.table, &any, &any, 0) == nullptr &&
                ip6mc_route_next(had.table, had.route) == nullptr;
     }},
    {"SignalAdd", [](const kept &had) { return add(had.table, 1, 1, ifh_b) == EBADF; }},
    {"SignalProbe", [](const kept &had) { return probe(had.table, 1, 1, ifh_b) == EBADF; }},
    {"SignalWalk",
     [](const kept &had) { return ip6mc_signal_first_key(had.table, &any, &any) == nullptr; }},
    {"PacketsPreserved",
     [](const kept &) {
         return ip6mc_signal_get_total_pkts_preserved() == IPV4MC_PKTS_PRESERVED_NOT_READY;
     }},
    {"InterfaceLookup",
     [](const kept &had) {
         return ip6mc_intf_route_lookup(had.route, IPV4MC_INTF_ORDINARY, ifh_a, 0, 0) == nullptr;
     }},
    {"InterfaceWalk",
     [](const kept &had) { return ip6mc_get_first_intf(had.route, 0) == nullptr; }},
    {"InterfaceBlock",
     [](const kept &) {
         ipv4mc_idb_st *idb = nullptr;
         return ip6mc_idb_lookup(ifh_a, &idb) == EBADF;
     }},
    {"Allocation", [](const kept &) { return ip6mc_shmwin_malloc(100) == nullptr; }},
    {"Free", [](const kept &had) { return ip6mc_shmwin_free(had.block) == EBADF; }},
    {"Mutex", [](const kept &) { return ip6mc_shmwin_mutex_lock("client", 1) == EBADF; }},
    {"ChangedRoutes", [](const kept &) { return ip6mc_changed_routes_wait(0) == EBADF; }},
    {"Flag",
     [](const kept &) {
         uint32_t value = 0;
         return ip6mc_set_transaction_flag() == EBADF &&
                ip6mc_get_transaction_flag(&value) == EBADF;
     }},
    {"Header",
     [](const kept &) {
         ipv4mc_shmwin_hdr_st *hdr = nullptr;
         return ip6mc_shmwin_get_info(&hdr) == EBADF;
     }},
    {"State",
     [](const kept &) {
         uint32_t state = IPV4MC_LIB_STATE_READY;
         return ip6mc_get_state(&state, nullptr) == 0 && state == IPV4MC_LIB_STATE_DOWN;
     }},
};

kept attach() {
    kept had;
    if (kit::start_library({.attach_only = 1}) != 0 ||
        ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr) != 0)
        return had;
    had.table = ip6mc_table_lookup_by_tbl_id(tid);
    if (had.table == nullptr || add(had.table, 1, 1, ifh_a, &had.route) != 0)
        return {};
    had.block = ip6mc_shmwin_malloc(100);
    return had;
}

size_t times_told(const texts &errors) {
    return static_cast<size_t>(std::count_if(
        errors.begin(), errors.end(),
        [](const std::string &text) { return text.starts_with("Shared mem window was reset: "); }));
}

// `first` is the first call behind the reset; all others come behind it.
int client(const kit::post &parent, const use &first) {
    parent.hear();
    const kept had = attach();
    if (had.block == nullptr)
        return 1;
    parent.tell();
    parent.hear();
    kit::listener heard;
    if (!first.refused(had))
        return 2;
    if (times_told(heard.errors()) != 1)
        return 3;
    for (const use &next : uses) {
        if (!next.refused(had))
            return 10 + static_cast<int>(&next - uses);
    }
    if (times_told(heard.errors()) != 0)
        return 4;
    parent.tell();
    parent.hear();
    if (ip6mc_lib_terminate(1, IPV4MC_TERMINATE_END) != 0)
        return 5;
    const kept again = attach();
    return again.block != nullptr && ip6mc_shmwin_free(again.block) == 0 &&
                   ip6mc_lib_terminate(1, IPV4MC_TERMINATE_END) == 0
               ? 0
               : 6;
}

// Blocks over the place where the old contents lay, with a pattern that a stray write would break.
class pattern {
  public:
    void lay() {
        for (int i = 0; i < 2000; ++i) {
            void *block = ip6mc_shmwin_malloc(size);
            ASSERT_NE(block, nullptr);
            std::memset(block, 0x5a, size);
            blocks_.push_back(static_cast<unsigned char *>(block));
        }
    }
    bool whole() const {
        return std::all_of(blocks_.begin(), blocks_.end(), [](const unsigned char *block) {
            return std::all_of(block, block + size, [](unsigned char c) { return c == 0x5a; });
        });
    }
    void lift() {
        for (unsigned char *block : blocks_)
            EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
        blocks_.clear();
    }

  private:
    static constexpr size_t size = 1000;
    std::vector<unsigned char *> blocks_;
};

shmwin_usage usage() {
    shmwin_usage now{};
    EXPECT_EQ(shmwin_get_usage(ipv4mc_desc->shmwin_id, &now), 0U);
    return now;
}

class ResetBesideAClient : public testing::TestWithParam<use> {
  protected:
    kit::run_dir dir_;
};

TEST_P(ResetBesideAClient, IsNoticedByTheFirstCall) {
    kit::child other([](const kit::post &parent) { return client(parent, GetParam()); });
    sim_reset();
    ipv4mc_table_st *table = nullptr;
    {
        kit::library former;  // its end resets the window
        table = make_table();
        ASSERT_NE(table, nullptr);
        other.tell();
        ASSERT_NE(other.hear(), 0) << "exit code " << other.wait();
    }
    kit::library owner;
    table = make_table();
    ASSERT_NE(table, nullptr);
    pattern blocks;
    blocks.lay();
    const uint64_t used = usage().used;
    const uint64_t changes = usage().changes;
    other.tell();
    ASSERT_NE(other.hear(), 0) << "exit code " << other.wait();
    EXPECT_TRUE(blocks.whole());
    EXPECT_EQ(usage().used, used);
    EXPECT_EQ(usage().changes, changes);
    EXPECT_EQ(ipv4mc_desc->shmwin_info->transaction_flag, 0U);
    EXPECT_EQ(faults(table), "");
    other.tell();
    EXPECT_EQ(other.wait(), 0);
    EXPECT_TRUE(blocks.whole());
    blocks.lift();
    // The client began anew, and posted.
    EXPECT_EQ(table->signal_route_count, 1U);
    EXPECT_EQ(faults(table), "");
}

INSTANTIATE_TEST_SUITE_P(, ResetBesideAClient, testing::ValuesIn(uses),
                         [](const auto &row) { return std::string(row.param.name); });

// An owner that finds a window of another version in the middle of an update empties it.
TEST(ResetByAnotherVersion, IsNoticedByTheFirstCall) {
    kit::run_dir dir;
    kit::child other([](const kit::post &parent) {
        parent.hear();
        const kept had = attach();
        if (had.block == nullptr)
            return 1;
        parent.tell();
        parent.hear();
        kit::listener heard;
        return lookup_refused(had) && times_told(heard.errors()) == 1 &&
                       ip6mc_lib_terminate(1, IPV4MC_TERMINATE_END) == 0
                   ? 0
                   : 2;
    });
    kit::child former([](const kit::post &parent) {
        parent.hear();
        if (kit::start_library() != 0 || make_table() == nullptr)
            return 1;
        parent.tell();
        parent.hear();
        ipv4mc_desc->shmwin_info->version_major = 0;
        ipv4mc_desc->shmwin_info->version_minor = 9;
        return ip6mc_lib_terminate(0, IPV4MC_TERMINATE_UPDATE) == 0 ? 0 : 2;
    });
    sim_reset();
    former.tell();
    ASSERT_NE(former.hear(), 0);
    other.tell();
    ASSERT_NE(other.hear(), 0);
    former.tell();
    ASSERT_EQ(former.wait(), 0);
    const kit::library owner;
    other.tell();
    EXPECT_EQ(other.wait(), 0);
}

// The windows of a process are not inherited, its descriptor is.
TEST(AChildMadeByFork, HasNoWindow) {
    kit::run_dir dir;
    sim_reset();
    const kit::library owner;
    ASSERT_NE(make_table(), nullptr);
    kit::child inherited([](const kit::post &) {
        return ip6mc_table_lookup_by_tbl_id(tid) == nullptr &&
                       ip6mc_shmwin_mutex_lock("child", 1) == EBADF &&
                       ip6mc_shmwin_malloc(10) == nullptr
                   ? 0
                   : 1;
    });
    EXPECT_EQ(inherited.wait(), 0);
    EXPECT_NE(ip6mc_table_lookup_by_tbl_id(tid), nullptr);
}

// A reset of its own leaves an owner able to go on.
TEST(AResetByTheOwner, IsNoLossToItself) {
    kit::run_dir dir;
    sim_reset();
    const kit::library owner;
    ASSERT_NE(make_table(), nullptr);
    kit::listener heard;
    ASSERT_EQ(ip6mc_shmwin_reset(0), 0U);
    void *block = ip6mc_shmwin_malloc(100);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(heard.errors(), texts{});
}

}  // namespace
