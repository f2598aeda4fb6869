#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

using IdbReferences = Idb;

TEST_F(IdbReferences, LockMakesTheRecordAndCounts) {
    ipv4mc_idb_st *idb = locked(0x10);
    EXPECT_EQ(idb->refcount, 1U);
    EXPECT_EQ(locked(0x10), idb);
    EXPECT_EQ(idb->refcount, 2U);
    EXPECT_EQ(idb->vrf_id, 0U);
    EXPECT_EQ(idb->vtable, nullptr);
    EXPECT_EQ(live_idbs(), 1U);
    EXPECT_EQ(ip6mc_idb_lock(0x10, nullptr, nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_lock_v2(0x10, 5, nullptr, nullptr), 22U);
    EXPECT_EQ(heard_.errors(), (std::vector<std::string>{"Null IDB pointer", "Null IDB pointer"}));
    EXPECT_EQ(ip6mc_idb_lock(0, &idb, nullptr), 22U);
    EXPECT_TRUE(contains(heard_.errors(), "Cannot find/create IDB for "));
}

TEST_F(IdbReferences, LockPassesTheCodeOfTheCreationOn) {
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_CREATE, 0, 1, 28);
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_lock(0x10, &idb, nullptr), 28U);
    EXPECT_EQ(idb, nullptr);
    EXPECT_TRUE(contains(heard_.errors(), "Cannot find/create IDB for Nf0x00000010: "));
}

TEST_F(IdbReferences, LockWithAVrfMovesTheRecordAndSaysThatItDoesNot) {
    ipv4mc_idb_st *idb = nullptr;
    ASSERT_EQ(ip6mc_idb_lock_v2(0x10, 0x61, &idb, nullptr), 0U);
    EXPECT_EQ(idb->vrf_id, 0x61U);
    EXPECT_EQ(idb->refcount, 1U);
    EXPECT_EQ(idb->vtable, nullptr) << "its table is not there yet";
    heard_.errors();
    ASSERT_EQ(ip6mc_idb_lock_v2(0x10, 0x62, &idb, nullptr), 0U);
    EXPECT_EQ(idb->vrf_id, 0x62U);
    EXPECT_EQ(idb->refcount, 2U);
    EXPECT_TRUE(
        contains(heard_.errors(),
                 "Error: idb 0x10 already linked to vrf_id 0x61 : NOT linking to vrf_id 0x62"));
    ASSERT_EQ(ip6mc_idb_lock_v2(0x10, 0x62, &idb, nullptr), 0U);
    EXPECT_TRUE(heard_.errors().empty()) << "the same VRF is no move";
    idb->vrf_id = 0;
}

TEST_F(IdbReferences, LockOfARecordInHandCounts) {
    ipv4mc_idb_st *idb = locked(0x10);
    EXPECT_EQ(ip6mc_idb_lock_idb(&idb), 0U);
    EXPECT_EQ(idb->refcount, 2U);
    ipv4mc_idb_st *none = nullptr;
    EXPECT_EQ(ip6mc_idb_lock_idb(nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_lock_idb(&none), 22U);
    EXPECT_EQ(heard_.errors(),
              (std::vector<std::string>{"Null idb_p pointer", "Null *idb_p pointer"}));
}

// ---- by handle and name ----

class IdbNamedLock : public Idb {
  protected:
    ipv4mc_idb_st *lock(ifhtype ifh, const char *name, cerrno expected = 0) {
        ipv4mc_idb_st *idb = nullptr;
        EXPECT_EQ(ip6mc_idb_lock_v3(ifh, name, &idb, nullptr), expected);
        return idb;
    }
};

TEST_F(IdbNamedLock, TestsItsArgumentsInOrder) {
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_lock_v3(0, nullptr, nullptr, nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_lock_v3(0, nullptr, &idb, nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_lock_v3(0, "x", &idb, nullptr), 22U);
    EXPECT_EQ(heard_.errors(),
              (std::vector<std::string>{"Null IDB pointer", "Null name", "Null handle"}));
}

TEST_F(IdbNamedLock, PutsANewRecordIntoTheNameThread) {
    ipv4mc_idb_st *idb = lock(0x10, "Eth0");
    ASSERT_NE(idb, nullptr);
    EXPECT_STREQ(idb->name, "Eth0");
    EXPECT_EQ(idb->tree_flags, IPV4MC_IDB_TREE_NAME);
    EXPECT_EQ(idb->refcount, 1U);
    ipv4mc_idb_st *by_name = nullptr;
    ip6mc_idb_lookup_by_name("Eth0", &by_name);
    EXPECT_EQ(by_name, idb);
    const auto lines = heard_.lines(IPV4_DEBUG_IDB);
    EXPECT_TRUE(contains(lines, "Find/Create_v2 called for idb Eth0 0x10 v:0x0"));
    EXPECT_TRUE(contains(lines, "INSERTED handle_idb Eth0 in NAME tree"));
    expect_whole();
}

TEST_F(IdbNamedLock, NamesARecordThatIsThere) {
    ipv4mc_idb_st *idb = locked(0x10);
    EXPECT_EQ(lock(0x10, "Eth0"), idb);
    EXPECT_EQ(idb->refcount, 2U);
    EXPECT_STREQ(idb->name, "Eth0");
    EXPECT_EQ(in_tree(IPV4MC_IDB_THREAD_NAME), 1U);
}

TEST_F(IdbNamedLock, CountsEachTimeUntilTheManagerHasAnnouncedTheInterface) {
    ipv4mc_idb_st *idb = lock(0x10, "Eth0");
    EXPECT_EQ(lock(0x10, "Eth0"), idb);
    EXPECT_EQ(idb->refcount, 2U);
    idb->im_create_rcvd = 1;
    EXPECT_EQ(lock(0x10, "Eth0"), idb);
    EXPECT_EQ(idb->refcount, 2U);
    EXPECT_EQ(lock(0x10, "Other"), idb) << "the name is not looked at then";
    EXPECT_STREQ(idb->name, "Eth0");
}

TEST_F(IdbNamedLock, RefusesAHandleThatHasAnotherRecordsName) {
    ipv4mc_idb_st *a = lock(0x10, "Eth0");
    ipv4mc_idb_st *b = lock(0x20, "Eth1");
    heard_.errors();
    EXPECT_EQ(lock(0x10, "Eth1", 22), nullptr);
    char text[200];
    snprintf(text, sizeof(text), "ptr mismatch for Eth1 0x10 Hptr %p, Nptr %p Hname Eth0",
             static_cast<void *>(a), static_cast<void *>(b));
    const auto errors = heard_.errors();
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_EQ(errors[0], text);
    EXPECT_EQ(errors[1].rfind("Cannot find/create_v2 IDB for Eth1: ", 0), 0U);
    EXPECT_EQ(a->refcount, 1U);
    EXPECT_EQ(b->refcount, 1U);
}

TEST_F(IdbNamedLock, RefusesANewHandleForAKnownName) {
    ipv4mc_idb_st *a = lock(0x10, "Eth0");
    heard_.errors();
    EXPECT_EQ(lock(0x20, "Eth0", 22), nullptr);
    EXPECT_EQ(found(0x20), nullptr);
    EXPECT_EQ(a->refcount, 1U);
    const auto errors = heard_.errors();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].rfind("Cannot find/create_v2 IDB for Eth0: ", 0), 0U);
}

TEST_F(IdbNamedLock, RefusesAnEmptyName) {
    EXPECT_EQ(lock(0x10, "", 22), nullptr);
    EXPECT_EQ(live_idbs(), 0U);
    EXPECT_TRUE(contains(heard_.errors(), "Cannot find/create_v2 IDB for : "));
}

TEST_F(IdbNamedLock, PassesAFailedCreationOn) {
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_CREATE, 0, 1, 28);
    EXPECT_EQ(lock(0x10, "Eth0", 28), nullptr);
    const auto errors = heard_.errors();
    EXPECT_TRUE(contains(errors, "Cannot find/create IDB for Eth0 0x10: "));
    EXPECT_TRUE(contains(errors, "Cannot find/create_v2 IDB for Eth0: "));
    EXPECT_EQ(live_idbs(), 0U);
}

TEST_F(IdbNamedLock, KeepsARecordThatTheNameThreadRefuses) {
    // In the thread by hand, with the flag clear: the second insertion of the node is refused.
    ipv4mc_idb_st *idb = locked(0x10);
    ip6mc_idb_insert_in_name_tree(idb);
    ipv4mc_idb_st *again = lock(0x10, "Eth0");
    EXPECT_EQ(again, idb);
    EXPECT_EQ(idb->refcount, 2U);
    EXPECT_EQ(idb->tree_flags, 0);
    EXPECT_STREQ(idb->name, "Eth0");
    EXPECT_EQ(heard_.errors(), std::vector<std::string>{"IDB add failed for Eth0 to name tree"});
    idb->tree_flags = IPV4MC_IDB_TREE_NAME;
}

TEST_F(IdbNamedLock, HandsTheBundleToThePlatform) {
    ipv4mc_idb_st *bundle = locked(0x50);
    ipv4mc_idb_st *idb = nullptr;
    sim_log_clear();
    EXPECT_EQ(ip6mc_idb_lock_v3(0x51, "Member", &idb, &bundle), 0U);
    ASSERT_EQ(sim_log_count(), 1U);
    EXPECT_EQ(sim_log_at(0)->other_ifh, 0x50U);
}

// ---- the way out ----

TEST_F(IdbReferences, UnlockDestroysWithTheLastReference) {
    ipv4mc_idb_st *idb = locked(0x10);
    locked(0x10);
    ipv4mc_idb_st *second = idb;
    idb->mcast_enabled = 1;
    sim_log_clear();
    EXPECT_EQ(ip6mc_idb_unlock(&second), 0U);
    EXPECT_EQ(second, nullptr) << "cleared although the record stays";
    EXPECT_EQ(idb->refcount, 1U);
    EXPECT_EQ(idb->mcast_enabled, 1U);
    EXPECT_EQ(sim_log_count(), 0U);

    EXPECT_EQ(ip6mc_idb_unlock(&idb), 0U);
    EXPECT_EQ(idb, nullptr);
    EXPECT_EQ(found(0x10), nullptr);
    EXPECT_EQ(live_idbs(), 0U);
    EXPECT_EQ(idb_calls(), std::vector<uint32_t>{0x4000});
    EXPECT_NE(sim_find_idb(0x10, nullptr), 0U);
    EXPECT_EQ(header()->idb_in_hand, nullptr);
    expect_whole();
}

TEST_F(IdbReferences, UnlockCanSaveThePointer) {
    ipv4mc_idb_st *idb = locked(0x10);
    locked(0x10);
    ipv4mc_idb_st *pointer = idb;
    EXPECT_EQ(ipv4mc_idb_save_unlock(&pointer, 1), 0U);
    EXPECT_EQ(pointer, idb);
    EXPECT_EQ(ipv4mc_idb_save_unlock(&pointer, 1), 0U);
    EXPECT_EQ(pointer, nullptr) << "a record that has gone is not saved";
}

TEST_F(IdbReferences, UnlockTakesTheRecordOutOfTheNameThread) {
    ipv4mc_idb_st *idb = nullptr;
    ip6mc_idb_lock_v3(0x10, "Eth0", &idb, nullptr);
    char text[200];
    snprintf(text, sizeof(text), "Deleted idb Eth0[0x10] idb ptr %p  from NAME tree",
             static_cast<void *>(idb));
    EXPECT_EQ(ip6mc_idb_unlock(&idb), 0U);
    EXPECT_EQ(in_tree(IPV4MC_IDB_THREAD_NAME), 0U);
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), text));
    ipv4mc_idb_st *by_name = nullptr;
    EXPECT_EQ(ip6mc_idb_lookup_by_name("Eth0", &by_name), 0U);
    EXPECT_EQ(by_name, nullptr);
}

TEST_F(IdbReferences, UnlockReportsANameThreadThatDoesNotHoldTheRecord) {
    ipv4mc_idb_st *idb = locked(0x10);
    idb->tree_flags = IPV4MC_IDB_TREE_NAME;
    char text[200];
    snprintf(text, sizeof(text), "Failed to Delete idb Ha0x10[0x10] idb ptr %p from NAME tree",
             static_cast<void *>(idb));
    EXPECT_EQ(ip6mc_idb_unlock(&idb), 0U);
    EXPECT_EQ(heard_.errors(), std::vector<std::string>{text});
    EXPECT_EQ(live_idbs(), 0U) << "a tree does not keep a record alive";
}

TEST_F(IdbReferences, UnlockRefusesWhatHoldsNothing) {
    ipv4mc_idb_st *none = nullptr;
    EXPECT_EQ(ip6mc_idb_unlock(nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_unlock(&none), 22U);
    ipv4mc_idb_st *idb = nullptr;
    ip6mc_idb_find_or_create(0x10, 0, &idb, nullptr, 1);
    EXPECT_EQ(ip6mc_idb_unlock(&idb), 22U);
    EXPECT_EQ(found(0x10), idb);
    EXPECT_EQ(heard_.errors(),
              (std::vector<std::string>{"Invalid IDB pointer Null idb_p  for Unknown",
                                        "Invalid IDB pointer Null *idb_p  for Unknown",
                                        "Invalid IDB pointer Zero Refcount for Ha0x10"}));
}

TEST_F(IdbReferences, ATtlKeepsARecordWithoutReferences) {
    ipv4mc_idb_st *idb = locked(0x10);
    ipv4mc_idb_st *stale = idb;
    idb->ttl = 3;
    EXPECT_EQ(ip6mc_idb_unlock(&idb), 0U);
    EXPECT_EQ(idb, nullptr);
    EXPECT_EQ(found(0x10), stale);
    EXPECT_EQ(stale->refcount, 0U);
    ipv4mc_idb_st *pointer = stale;
    EXPECT_EQ(ip6mc_idb_unlock(&pointer), 22U);
    EXPECT_EQ(pointer, stale);
    EXPECT_TRUE(contains(heard_.errors(), "Zero Refcount"));
    stale->ttl = 0;
}

TEST_F(IdbReferences, AnAdjacencyAndABoundaryOfThePlatformKeepARecord) {
    ipv4mc_idb_st *idb = locked(0x10);
    ipv4mc_idb_st *pointer = idb;
    idb->aib = reinterpret_cast<adj_base_t *>(idb);
    EXPECT_EQ(ip6mc_idb_unlock(&pointer), 0U);
    EXPECT_EQ(found(0x10), idb);
    idb->aib = nullptr;
    idb->platform_boundary_ref = uint64_t{1} << 63;
    pointer = idb;
    ip6mc_idb_lock_idb(&pointer);
    EXPECT_EQ(ip6mc_idb_unlock(&pointer), 0U);
    EXPECT_EQ(found(0x10), idb);
    idb->platform_boundary_ref = 0;
    pointer = idb;
    ip6mc_idb_lock_idb(&pointer);
    EXPECT_EQ(ip6mc_idb_unlock(&pointer), 0U);
    EXPECT_EQ(found(0x10), nullptr);
}

TEST_F(IdbReferences, ThePlatformCannotKeepARecord) {
    ipv4mc_idb_st *idb = locked(0x10);
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_DESTROY, 0, 1, 5);
    EXPECT_EQ(ip6mc_idb_unlock(&idb), 0U);
    EXPECT_EQ(idb, nullptr);
    EXPECT_EQ(live_idbs(), 0U);
    EXPECT_TRUE(
        contains(heard_.errors(), "Cannot destroy platform dependant portion of IDB for Ha0x10: "));
}

TEST_F(IdbReferences, TheEndOfTheFabricInterfaceClearsTheHeader) {
    ipv4mc_idb_st *fabric = locked(0x10);
    ipv4mc_idb_st *other = locked(0x20);
    header()->fint_idb = fabric;
    EXPECT_EQ(ip6mc_idb_unlock(&other), 0U);
    EXPECT_EQ(header()->fint_idb, fabric);
    EXPECT_EQ(ip6mc_idb_unlock(&fabric), 0U);
    EXPECT_EQ(header()->fint_idb, nullptr);
}

// ---- all at once ----

TEST_F(IdbReferences, DeleteAllAsksNobody) {
    ipv4mc_idb_st *held = locked(0x10);
    held->ttl = 5;
    locked(0x20);
    ipv4mc_idb_st *named = nullptr;
    ip6mc_idb_lock_v3(0x30, "Eth0", &named, nullptr);
    header()->fint_idb = held;
    sim_log_clear();
    EXPECT_EQ(ip6mc_idb_delete_all(2), 0U);
    EXPECT_EQ(live_idbs(), 0U);
    EXPECT_EQ(in_tree(IPV4MC_IDB_THREAD_GLOBAL), 0U);
    EXPECT_EQ(in_tree(IPV4MC_IDB_THREAD_NAME), 0U);
    EXPECT_EQ(idb_calls(), (std::vector<uint32_t>{0x4000, 0x4000, 0x4000}));
    EXPECT_EQ(header()->fint_idb, held) << "left as it is";
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), "Delete all idbs"));
    header()->fint_idb = nullptr;
    EXPECT_EQ(ip6mc_idb_delete_all(0), 0U) << "nothing is there";
    EXPECT_EQ(found(0x10), nullptr);
    expect_whole();
}

TEST_F(IdbReferences, DeleteAllRemembersTheLastFailure) {
    locked(0x10);
    locked(0x20);
    locked(0x30);
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_DESTROY, 0, 1, 5);
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_DESTROY, 1, 1, 6);
    EXPECT_EQ(ip6mc_idb_delete_all(0), 6U);
    EXPECT_EQ(live_idbs(), 0U);
}

}  // namespace
}  // namespace idb_test
