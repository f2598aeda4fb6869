#include "services/diag/errors.h"
#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

struct visits {
    std::vector<uint32_t> seen;
    uint32_t fail_at = 0;  // handle, or last byte of a source
    cerrno code = 5;
};

cerrno note_idb(ipv4mc_idb_st *idb, void *context) {
    auto *v = static_cast<visits *>(context);
    v->seen.push_back(idb->ifh);
    return idb->ifh == v->fail_at ? v->code : 0;
}

cerrno destroy_idb(ipv4mc_idb_st *idb, void *context) {
    static_cast<visits *>(context)->seen.push_back(idb->ifh);
    return ip6mc_idb_unlock(&idb);
}

class IdbWalk : public Idb {
  protected:
    void SetUp() override {
        for (ifhtype ifh : {0x30U, 0x10U, 0x40U, 0x20U}) {
            locked(ifh);
        }
    }

    cerrno walk(ifhtype start, uint32_t count, int stop = 0, uint32_t yield = 0) {
        visits_.seen.clear();
        return ip6mc_idb_walk_with_count(nullptr, start, count, note_idb, &visits_, yield, stop);
    }

    visits visits_;
};

using list = std::vector<uint32_t>;

TEST_F(IdbWalk, GoesInTheOrderOfHandles) {
    EXPECT_EQ(ip6mc_idb_walk(nullptr, note_idb, &visits_, 0, 0), 0U);
    EXPECT_EQ(visits_.seen, (list{0x10, 0x20, 0x30, 0x40}));
}

TEST_F(IdbWalk, BeginsBehindTheStart) {
    EXPECT_EQ(walk(0x20, 0), 0U);
    EXPECT_EQ(visits_.seen, (list{0x30, 0x40}));
    EXPECT_EQ(walk(0x40, 0), 0U);
    EXPECT_EQ(visits_.seen, list{}) << "behind the last";
    EXPECT_EQ(walk(0x25, 0), 2U);
    EXPECT_EQ(visits_.seen, list{});
}

TEST_F(IdbWalk, EndsAtItsCountWithTheLastResult) {
    EXPECT_EQ(walk(0, 3), 0U);
    EXPECT_EQ(visits_.seen, (list{0x10, 0x20, 0x30}));
    EXPECT_EQ(walk(0x30, 3), 0U) << "resumed";
    EXPECT_EQ(visits_.seen, list{0x40});
    visits_.fail_at = 0x20;
    EXPECT_EQ(walk(0, 2), 5U);
    EXPECT_EQ(walk(0, 3), 0U) << "the failure was not the last";
    EXPECT_EQ(walk(0, 4), 0U) << "the end forgets";
}

TEST_F(IdbWalk, ReportsFailuresAndStopsWhereAsked) {
    visits_.fail_at = 0x20;
    heard_.errors();
    EXPECT_EQ(walk(0, 0, 0), 0U);
    EXPECT_EQ(visits_.seen, (list{0x10, 0x20, 0x30, 0x40}));
    const std::string text =
        std::string("Walk function failed while processing Ha0x20: ") + cerr_strerror(5);
    EXPECT_EQ(heard_.errors(), std::vector<std::string>{text});
    EXPECT_EQ(walk(0, 0, 1), 5U);
    EXPECT_EQ(visits_.seen, (list{0x10, 0x20}));
    EXPECT_EQ(heard_.errors(), std::vector<std::string>{text});
}

TEST_F(IdbWalk, SurvivesAFunctionThatDestroysTheRecord) {
    EXPECT_EQ(ip6mc_idb_walk(nullptr, destroy_idb, &visits_, 1, 1), 0U);
    EXPECT_EQ(visits_.seen, (list{0x10, 0x20, 0x30, 0x40}));
    EXPECT_EQ(live_idbs(), 0U);
    visits_.seen.clear();
    EXPECT_EQ(ip6mc_idb_walk(nullptr, note_idb, &visits_, 0, 0), 0U) << "an empty tree";
    EXPECT_EQ(visits_.seen, list{});
}

TEST_F(IdbWalk, WantsAFunction) {
    EXPECT_EQ(ip6mc_idb_walk(nullptr, nullptr, nullptr, 0, 0), 22U);
    EXPECT_EQ(heard_.errors(), std::vector<std::string>{"Invalid arg: f=(nil)"});
}

TEST_F(IdbWalk, OfATableSeesItsOwn) {
    ipv4mc_table_st *table = make_table(5, 6, "red");
    for (ifhtype ifh : {0x40U, 0x20U}) {
        shm_wavl_insert_thread(&ipmc_table_idb_fns, &table->idb_tree, ipmc_idb_idb2wavl(found(ifh)),
                               IPV4MC_IDB_THREAD_VRF);
    }
    heard_.clear();
    EXPECT_EQ(ip6mc_idb_walk(table, note_idb, &visits_, 0, 0), 0U);
    EXPECT_EQ(visits_.seen, (list{0x20, 0x40}));
    const auto lines = heard_.lines(IPV4_DEBUG_IDB);
    EXPECT_TRUE(contains(lines, "IDB walk : type 0x0 vid 0x6 tid 0x"));
    EXPECT_TRUE(contains(lines, "IDB walk with cnt: type 0x0 vid 0x6 tid 0x"));
    visits_.seen.clear();
    EXPECT_EQ(ip6mc_idb_walk_with_count(table, 0x10, 0, note_idb, &visits_, 0, 0), 2U)
        << "it is there, but not in the table";
    EXPECT_EQ(ip6mc_idb_walk_with_count(table, 0x20, 0, note_idb, &visits_, 0, 0), 0U);
    EXPECT_EQ(visits_.seen, list{0x40});
    for (ifhtype ifh : {0x40U, 0x20U}) {
        shm_wavl_delete_thread(&ipmc_table_idb_fns, &table->idb_tree, ipmc_idb_idb2wavl(found(ifh)),
                               IPV4MC_IDB_THREAD_VRF);
    }
}

TEST_F(IdbWalk, DoesNotHoldTheLockBesideTheFunction) {
    const auto take_write_lock = [](ipv4mc_idb_st *, void *) {
        ipmc_shmwin_rrw_lock_get_wrlock(&header()->tbl_rw_lock, __LINE__);
        ipmc_shmwin_rrw_lock_unlock(&header()->tbl_rw_lock, __LINE__, 0);
        return cerrno{0};
    };
    heard_.errors();
    EXPECT_EQ(ip6mc_idb_walk(nullptr, take_write_lock, nullptr, 0, 1), 0U);
    EXPECT_TRUE(heard_.errors().empty());
}

// ---- routes ----

cerrno note_route(ipv4mc_idb_st *idb, ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry,
                  void *context) {
    auto *v = static_cast<visits *>(context);
    EXPECT_EQ(entry->ifh, idb->ifh);
    EXPECT_EQ(entry->route, route);
    v->seen.push_back(route->source.bytes[15]);
    return route->source.bytes[15] == v->fail_at ? v->code : 0;
}

cerrno remove_route(ipv4mc_idb_st *, ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry,
                    void *context) {
    static_cast<visits *>(context)->seen.push_back(route->source.bytes[15]);
    return ip6mc_idb_route_remove(route, &entry);
}

class IdbRouteWalk : public Idb {
  protected:
    void SetUp() override {
        for (uint8_t n = 1; n <= 4; ++n) {
            ipv4mc_route_entry_st *route = make_route(n, 9);
            ipv4mc_intf_entry_st *entry = make_entry(route, 0x10);
            ASSERT_EQ(ip6mc_idb_route_add(&idb_, route, &entry), 0U);
        }
    }

    cerrno walk(int resume, uint8_t source, uint8_t group, uint32_t count, int stop = 0) {
        visits_.seen.clear();
        const ip_maddr_st s = address(source);
        const ip_maddr_st g = address(group);
        return ip6mc_idb_route_walk_with_count(&s, &g, resume, count, idb_, note_route, 2, &visits_,
                                               stop);
    }

    ipv4mc_idb_st *idb_ = nullptr;
    visits visits_;
};

TEST_F(IdbRouteWalk, GoesFromNewestToOldest) {
    EXPECT_EQ(ip6mc_idb_route_walk(idb_, note_route, 0, &visits_, 0), 0U);
    EXPECT_EQ(visits_.seen, (list{4, 3, 2, 1}));
}

TEST_F(IdbRouteWalk, ResumesBehindARoute) {
    EXPECT_EQ(walk(0, 3, 9, 0), 0U);
    EXPECT_EQ(visits_.seen, (list{4, 3, 2, 1})) << "the start counts with the flag only";
    EXPECT_EQ(walk(1, 3, 9, 0), 0U);
    EXPECT_EQ(visits_.seen, (list{2, 1}));
    EXPECT_EQ(walk(1, 1, 9, 0), 0U);
    EXPECT_EQ(visits_.seen, list{});
    EXPECT_EQ(walk(1, 3, 8, 0), 2U) << "another group";
    EXPECT_EQ(walk(1, 7, 9, 0), 2U) << "another source";
    EXPECT_EQ(visits_.seen, list{});
}

TEST_F(IdbRouteWalk, EndsAtItsCountWithTheLastResult) {
    EXPECT_EQ(walk(0, 0, 0, 2), 0U);
    EXPECT_EQ(visits_.seen, (list{4, 3}));
    visits_.fail_at = 3;
    EXPECT_EQ(walk(0, 0, 0, 2), 5U);
    EXPECT_EQ(walk(0, 0, 0, 3), 0U);
    EXPECT_EQ(walk(0, 0, 0, 0), 0U);
}

TEST_F(IdbRouteWalk, ReportsFailuresAndStopsWhereAsked) {
    visits_.fail_at = 3;
    heard_.errors();
    EXPECT_EQ(walk(0, 0, 0, 0, 1), 5U);
    EXPECT_EQ(visits_.seen, (list{4, 3}));
    EXPECT_EQ(heard_.errors(),
              std::vector<std::string>{std::string("Walk function failed processing Ha0x10: ") +
                                       cerr_strerror(5)});
}

TEST_F(IdbRouteWalk, SurvivesAFunctionThatRemovesTheEntry) {
    EXPECT_EQ(ip6mc_idb_route_walk(idb_, remove_route, 1, &visits_, 1), 0U);
    EXPECT_EQ(visits_.seen, (list{4, 3, 2, 1}));
    EXPECT_EQ(live_idbs(), 0U) << "the last one took the interface along";
}

TEST_F(IdbRouteWalk, OfAnEmptyListIsASuccessFromTheStartOnly) {
    idb_ = locked(0x20);
    EXPECT_EQ(walk(0, 0, 0, 0), 0U);
    EXPECT_EQ(walk(1, 3, 9, 0), 2U);
}

TEST_F(IdbRouteWalk, WantsAnInterfaceAndAFunction) {
    heard_.errors();
    EXPECT_EQ(ip6mc_idb_route_walk(nullptr, note_route, 0, &visits_, 0), 22U);
    EXPECT_EQ(ip6mc_idb_route_walk(idb_, nullptr, 0, &visits_, 0), 22U);
    const auto errors = heard_.errors();
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_EQ(errors[0].rfind("Invalid arg: f=0x", 0), 0U);
    EXPECT_EQ(errors[1], "Invalid arg: f=(nil)");
}

}  // namespace
}  // namespace idb_test
