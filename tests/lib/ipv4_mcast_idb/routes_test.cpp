#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

class IdbRoutes : public Idb {
  protected:
    ipv4mc_intf_entry_st *add(uint8_t source, uint8_t group, ifhtype ifh) {
        ipv4mc_route_entry_st *route = make_route(source, group);
        ipv4mc_intf_entry_st *entry = make_entry(route, ifh);
        ipv4mc_idb_st *idb = nullptr;
        EXPECT_EQ(ip6mc_idb_route_add(&idb, route, &entry), 0U);
        EXPECT_EQ(idb, found(ifh));
        return entry;
    }

    static cerrno remove(ipv4mc_intf_entry_st *entry) {
        return ip6mc_idb_route_remove(entry->route, &entry);
    }
};

TEST_F(IdbRoutes, ListRunsFromNewestToOldestAndEachEntryHoldsAReference) {
    ipv4mc_intf_entry_st *first = add(1, 2, 0x10);
    ipv4mc_intf_entry_st *second = add(3, 4, 0x10);
    ipv4mc_intf_entry_st *third = add(5, 6, 0x10);
    ipv4mc_idb_st *idb = found(0x10);
    EXPECT_EQ(idb->route_list, third);
    EXPECT_EQ(third->idb_prev, nullptr);
    EXPECT_EQ(third->idb_next, second);
    EXPECT_EQ(second->idb_prev, third);
    EXPECT_EQ(second->idb_next, first);
    EXPECT_EQ(first->idb_next, nullptr);
    EXPECT_EQ(idb->route_count, 3U);
    EXPECT_EQ(idb->refcount, 3U);
    EXPECT_TRUE(heard_.lines(IPV4_DEBUG_WRN).empty()) << "the count fits";
    expect_whole();

    EXPECT_EQ(remove(second), 0U);
    EXPECT_EQ(second->idb_prev, nullptr);
    EXPECT_EQ(second->idb_next, nullptr);
    EXPECT_EQ(second->on_idb_list, 0);
    EXPECT_EQ(third->idb_next, first);
    EXPECT_EQ(first->idb_prev, third);
    EXPECT_EQ(remove(third), 0U);
    EXPECT_EQ(idb->route_list, first);
    EXPECT_EQ(first->idb_prev, nullptr);
    EXPECT_EQ(idb->route_count, 1U);
    EXPECT_EQ(idb->refcount, 1U);
    expect_whole();
}

TEST_F(IdbRoutes, RemovingTheLastEntryDestroysTheInterface) {
    ipv4mc_intf_entry_st *entry = add(1, 2, 0x10);
    EXPECT_EQ(remove(entry), 0U);
    EXPECT_EQ(found(0x10), nullptr);
    EXPECT_EQ(live_idbs(), 0U);

    entry = add(1, 2, 0x10);
    ipv4mc_idb_st *idb = found(0x10);
    ipv4mc_idb_st *const address = idb;
    EXPECT_EQ(ip6mc_idb_route_remove_idb(&idb, entry->route, &entry), 0U);
    EXPECT_EQ(live_idbs(), 0U);
    EXPECT_EQ(idb, address) << "the caller's pointer is left alone";
    EXPECT_TRUE(heard_.errors().empty());
}

TEST_F(IdbRoutes, AddingTwiceChangesNothing) {
    ipv4mc_intf_entry_st *entry = add(1, 2, 0x10);
    ipv4mc_idb_st *idb = found(0x10);
    heard_.clear();
    ipv4mc_idb_st *out = nullptr;
    EXPECT_EQ(ip6mc_idb_route_add(&out, entry->route, &entry), 0U);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ip6mc_idb_route_add_idb(idb, entry->route, &entry), 0U);
    EXPECT_EQ(idb->route_count, 1U);
    EXPECT_EQ(idb->refcount, 1U);
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB),
                         "Ha0x10 is already in the linked list (ff3e::1,ff3e::2/256)"));
}

TEST_F(IdbRoutes, AddToARecordInHand) {
    ipv4mc_idb_st *idb = locked(0x10);
    ipv4mc_route_entry_st *route = make_route(1, 2);
    ipv4mc_intf_entry_st *entry = make_entry(route, 0x10);
    heard_.clear();
    EXPECT_EQ(ip6mc_idb_route_add_idb(idb, route, &entry), 0U);
    EXPECT_EQ(idb->refcount, 2U);
    EXPECT_EQ(idb->route_list, entry);
    EXPECT_EQ(entry->on_idb_list, 1);
    EXPECT_TRUE(heard_.lines(IPV4_DEBUG_WRN).empty()) << "this form does not compare";
    EXPECT_EQ(remove(entry), 0U);
}

TEST_F(IdbRoutes, AddByHandleComparesTheCount) {
    locked(0x10);
    heard_.clear();
    add(1, 2, 0x10);
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_WRN),
              std::vector<std::string>{"IDB-WARN: Refcount mismatch ifh 0x10 - [2] 1,2 [0x10]"});
}

TEST_F(IdbRoutes, AddNeedsItsArguments) {
    ipv4mc_idb_st *idb = locked(0x10);
    ipv4mc_route_entry_st *route = make_route(1, 2);
    ipv4mc_intf_entry_st *entry = make_entry(route, 0x10);
    ipv4mc_intf_entry_st *none = nullptr;
    EXPECT_EQ(ip6mc_idb_route_add(nullptr, nullptr, nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_route_add_idb(nullptr, nullptr, nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_route_add(&idb, nullptr, &entry), 22U);
    EXPECT_EQ(ip6mc_idb_route_add(&idb, route, nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_route_add_idb(idb, route, &none), 22U);
    EXPECT_EQ(heard_.errors(), (std::vector<std::string>{"Null idb_p", "Null idb", "Null route",
                                                         "Null intf_entry", "Null *intf_entry"}));
    ipv4mc_idb_st *no_idb = nullptr;
    EXPECT_EQ(ip6mc_idb_route_remove(nullptr, &entry), 22U);
    EXPECT_EQ(ip6mc_idb_route_remove(route, nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_route_remove(route, &none), 22U);
    EXPECT_EQ(ip6mc_idb_route_remove_idb(nullptr, route, &entry), 22U);
    EXPECT_EQ(ip6mc_idb_route_remove_idb(&no_idb, route, &entry), 22U);
    EXPECT_EQ(heard_.errors(),
              (std::vector<std::string>{"Null route", "Null intf_entry", "Null *intf_entry",
                                        "Null idb_p", "Null idb"}));
    EXPECT_EQ(idb->refcount, 1U);
}

TEST_F(IdbRoutes, AddPassesAFailedLockOn) {
    ipv4mc_route_entry_st *route = make_route(1, 2);
    ipv4mc_intf_entry_st *entry = make_entry(route, 0x10);
    ipv4mc_idb_st *idb = nullptr;
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_CREATE, 0, 1, 28);
    EXPECT_EQ(ip6mc_idb_route_add(&idb, route, &entry), 28U);
    EXPECT_EQ(idb, nullptr);
    EXPECT_EQ(entry->on_idb_list, 0);
    EXPECT_TRUE(
        contains(heard_.errors(), "Unable to lock IDB for Nf0x00000010 (ff3e::1,ff3e::2/256): "));

    // No readiness of its own, but that of the lock.
    ipv4mc_idb_st *there = locked(0x20);
    ipv4mc_desc->idb_state = 1;
    EXPECT_EQ(ip6mc_idb_route_add_idb(there, route, &entry), 9U);
    ipv4mc_desc->idb_state = 2;
    EXPECT_TRUE(contains(heard_.errors(), "Unable to lock IDB for "));
}

TEST_F(IdbRoutes, RemoveReportsAnInterfaceThatHasGone) {
    ipv4mc_intf_entry_st *entry = add(1, 2, 0x10);
    entry->ifh = 0x99;
    heard_.errors();
    EXPECT_EQ(remove(entry), 0U);
    EXPECT_EQ(entry->on_idb_list, 1);
    EXPECT_EQ(heard_.errors(),
              std::vector<std::string>{
                  "Failed IDB lookup for Nf0x00000099 (ff3e::1,ff3e::2/256): IDB not found"});
    entry->ifh = 0;
    EXPECT_EQ(remove(entry), 22U);
    EXPECT_TRUE(contains(heard_.errors(), "Failed IDB lookup for "));
    entry->ifh = 0x10;
}

TEST_F(IdbRoutes, RemoveWantsAListAndAListedEntry) {
    ipv4mc_idb_st *idb = locked(0x10);
    ipv4mc_route_entry_st *route = make_route(0, 2);
    route->source = ip_maddr_st{};
    route->pfx_len = 128;
    ipv4mc_intf_entry_st *entry = make_entry(route, 0x10);
    EXPECT_EQ(ip6mc_idb_route_remove(route, &entry), 22U);
    EXPECT_EQ(heard_.errors(),
              std::vector<std::string>{"Null route_list for (*,ff3e::2/128) Ha0x10"});
    ipv4mc_intf_entry_st *listed = add(3, 4, 0x10);
    heard_.clear();
    EXPECT_EQ(ip6mc_idb_route_remove(route, &entry), 0U);
    EXPECT_TRUE(
        contains(heard_.lines(IPV4_DEBUG_IDB), "Ha0x10 is NOT the linked list(*,ff3e::2/128)"));
    EXPECT_EQ(idb->route_list, listed);
    EXPECT_EQ(idb->refcount, 2U);
}

TEST_F(IdbRoutes, RemoveGoesOnWhenTheReferenceCannotBeGivenBack) {
    ipv4mc_intf_entry_st *entry = add(1, 2, 0x10);
    ipv4mc_idb_st *idb = found(0x10);
    idb->refcount = 0;
    EXPECT_EQ(remove(entry), 0U);
    EXPECT_EQ(entry->on_idb_list, 0);
    EXPECT_EQ(idb->route_list, nullptr);
    EXPECT_EQ(idb->route_count, 0U);
    EXPECT_TRUE(
        contains(heard_.errors(), "Unable to unlock IDB for Ha0x10 (ff3e::1,ff3e::2/256): "));
}

TEST_F(IdbRoutes, RemoveUntiesFromAnL2State) {
    ipv4mc_intf_entry_st *entry = add(1, 2, 0x10);
    entry->attributes = MRIB_INTF_BVI;
    EXPECT_EQ(remove(entry), 0U);
    EXPECT_TRUE(heard_.errors().empty()) << "tied to none";

    // A tie that its L2 state does not know: taking it out fails, the removal goes on.
    entry = add(1, 2, 0x10);
    entry->attributes = MRIB_INTF_BVI;
    entry->route->table = make_table(5, 6, "red")->tid_table;
    auto *bvi = static_cast<ipv4mc_bvi_entry_t *>(
        ipv4mc_shmwin_malloc_inline(sizeof(ipv4mc_bvi_entry_t), IPMC_SHMWIN_ALLOC_BVI_ENTRY));
    auto *tie = static_cast<ipv4mc_bvi_if_t *>(
        ipv4mc_shmwin_malloc_inline(sizeof(ipv4mc_bvi_if_t), IPMC_SHMWIN_ALLOC_BVI_IF));
    bvi->group = address(9);
    tie->bvi_entry = bvi;
    tie->ifh = 0x10;
    tie->route = entry->route;
    entry->bvi_if = tie;
    heard_.errors();
    EXPECT_EQ(remove(entry), 0U);
    EXPECT_TRUE(contains(heard_.errors(),
                         "ERR: Line[__LINE__]Delete BVI IF 0x10 of (ff3e::1,ff3e::2) from tree of "
                         "BVI-EN("));
    EXPECT_EQ(live_idbs(), 0U);
}

TEST_F(IdbRoutes, RemoveOfAnEntryWithoutTheAttributeLeavesItsTie) {
    ipv4mc_intf_entry_st *entry = add(1, 2, 0x10);
    ipv4mc_bvi_entry_t bvi{};
    ipv4mc_bvi_if_t tie{};
    tie.bvi_entry = &bvi;
    entry->bvi_if = &tie;
    EXPECT_EQ(remove(entry), 0U);
    EXPECT_EQ(entry->bvi_if, &tie);
    EXPECT_TRUE(heard_.errors().empty());
}

}  // namespace
}  // namespace idb_test
