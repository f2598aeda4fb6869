#include "services/window/inspect.h"
#include "services/window/setup.h"
#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

using IdbCreation = Idb;

TEST_F(IdbCreation, GivesANewRecordWithoutAReference) {
    cerrno rc = 1;
    ipv4mc_idb_st *idb = ipv4mc_idb_alloc(0x1a, 0, nullptr, &rc, 0);
    ASSERT_NE(idb, nullptr);
    EXPECT_EQ(rc, 0U);
    EXPECT_EQ(idb->ifh, 0x1aU);
    EXPECT_EQ(idb->refcount, 0U);
    EXPECT_EQ(idb->create_state, 0U);
    EXPECT_EQ(idb->im_create_rcvd, 0);
    EXPECT_STREQ(idb->name, "Ha0x1a");
    EXPECT_EQ(idb->mcast_enabled, 0U);
    EXPECT_EQ(idb->vtable, nullptr);
    EXPECT_EQ(idb->vlan_tree, nullptr);
    EXPECT_EQ(idb->bundle_ifh, 0U);
    EXPECT_EQ(idb->im_type, 0);
    EXPECT_EQ(idb->cfg_flags, 0);
    EXPECT_EQ(idb->tree_flags, 0);
    EXPECT_EQ(found(0x1a), idb);
    EXPECT_EQ(in_tree(IPV4MC_IDB_THREAD_NAME), 0U);
    EXPECT_EQ(header()->idb_in_hand, nullptr);
    EXPECT_EQ(idb_calls(), std::vector<uint32_t>{0x2000});
    EXPECT_EQ(sim_find_idb(0x1a, nullptr), 0U);
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB),
                         "Not adding Ha0x1a to vrf tree (bndl: null dbl ptr)"));
    expect_whole();
}

TEST_F(IdbCreation, HandsTheBundleToThePlatform) {
    ipv4mc_idb_st *bundle = locked(0x50);
    ipv4mc_idb_st *none = nullptr;
    sim_log_clear();
    heard_.clear();
    cerrno rc = 0;
    ipv4mc_idb_alloc(0x51, 0, &bundle, &rc, 0);
    ipv4mc_idb_alloc(0x52, 0, &none, &rc, 0);
    ASSERT_EQ(sim_log_count(), 2U);
    EXPECT_EQ(sim_log_at(0)->ifh, 0x51U);
    EXPECT_EQ(sim_log_at(0)->other_ifh, 0x50U);
    EXPECT_EQ(sim_log_at(1)->other_ifh, 0U);
    EXPECT_TRUE(
        contains(heard_.lines(IPV4_DEBUG_IDB), "Not adding Ha0x51 to vrf tree (bndl: valid)"));
    EXPECT_TRUE(
        contains(heard_.lines(IPV4_DEBUG_IDB), "Not adding Ha0x52 to vrf tree (bndl: null ptr)"));
}

TEST_F(IdbCreation, WantsAPlaceForTheCode) {
    const uint32_t records = live_idbs();
    EXPECT_EQ(ipv4mc_idb_alloc(5, 0, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(live_idbs(), records);
    EXPECT_EQ(sim_log_count(), 0U);
    EXPECT_TRUE(heard_.errors().empty());
}

TEST_F(IdbCreation, LeavesNothingBehindWhenThePlatformRefuses) {
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_CREATE, 0, 1, 28);
    const uint32_t records = live_idbs();
    cerrno rc = 0;
    EXPECT_EQ(ipv4mc_idb_alloc(0x1a, 0, nullptr, &rc, 0), nullptr);
    EXPECT_EQ(rc, 28U);
    EXPECT_TRUE(
        contains(heard_.errors(), "Cannot init platform dependant portion of IDB for Ha0x1a: "));
    EXPECT_EQ(live_idbs(), records);
    EXPECT_EQ(found(0x1a), nullptr);
    EXPECT_EQ(header()->idb_in_hand, nullptr);
}

TEST_F(IdbCreation, SaysSoWhenTheWindowIsFull) {
    // Fills what the heap has, with blocks of the record's size.
    ip6mc_shmwin_buffer_status(0);
    ASSERT_EQ(shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 1), 0U);
    std::vector<void *> blocks;
    while (void *block = ip6mc_shmwin_malloc(sizeof(ipv4mc_idb_st))) {
        blocks.push_back(block);
    }
    heard_.errors();
    const uint32_t records = live_idbs();
    cerrno rc = 0;
    EXPECT_EQ(ipv4mc_idb_alloc(0x1a, 0, nullptr, &rc, 0), nullptr);
    EXPECT_EQ(rc, 12U);
    EXPECT_TRUE(contains(heard_.errors(), "Cannot allocate 416 bytes for adj IDB"));
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_lock(0x1a, &idb, nullptr), 12U);
    EXPECT_EQ(idb, nullptr);
    EXPECT_TRUE(contains(heard_.errors(), "Cannot find/create IDB for "));
    EXPECT_EQ(live_idbs(), records);
    EXPECT_EQ(sim_log_count(), 0U);
    for (void *block : blocks) {
        ip6mc_shmwin_free(block);
    }
    EXPECT_EQ(ip6mc_idb_lock(0x1a, &idb, nullptr), 0U);
    ip6mc_shmwin_buffer_status(1);
}

TEST_F(IdbCreation, GoesOnWhenTheTreeRefuses) {
    locked(0x1a);
    cerrno rc = 0;
    ipv4mc_idb_st *second = ipv4mc_idb_alloc(0x1a, 0, nullptr, &rc, 0);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(rc, 0U);
    EXPECT_EQ(heard_.errors(),
              std::vector<std::string>{"IDB add failed for Ha0x1a to global tree"});
    EXPECT_NE(found(0x1a), second);
    EXPECT_EQ(in_tree(IPV4MC_IDB_THREAD_GLOBAL), 1U);
    ip6mc_idb_lock_idb(&second);
    EXPECT_EQ(ip6mc_idb_unlock(&second), 0U);
    EXPECT_EQ(live_idbs(), 1U);
}

TEST_F(IdbCreation, FindOrCreateTakesNoReference) {
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_find_or_create(5, 0, &idb, nullptr, 0), 2U);
    EXPECT_EQ(idb, nullptr);
    EXPECT_EQ(ip6mc_idb_find_or_create(5, 0, &idb, nullptr, 1), 0U);
    ASSERT_NE(idb, nullptr);
    EXPECT_EQ(idb->refcount, 0U);
    ipv4mc_idb_st *again = nullptr;
    EXPECT_EQ(ip6mc_idb_find_or_create(5, 0, &again, nullptr, 0), 0U);
    EXPECT_EQ(again, idb);
    EXPECT_EQ(ip6mc_idb_find_or_create(0, 0, &idb, nullptr, 1), 22U);
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), "Find/Create called for idb 0x5 v:0x0"));
    EXPECT_EQ(ip6mc_idb_find_or_create(5, 0, nullptr, nullptr, 1), 22U);
    EXPECT_EQ(heard_.errors(), std::vector<std::string>{"Null idb ptr"});
}

TEST_F(IdbCreation, FindOrCreatePassesThePlatformsCodeOn) {
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_CREATE, 0, 1, 28);
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_find_or_create(5, 0, &idb, nullptr, 1), 28U);
    EXPECT_EQ(idb, nullptr);
}

TEST_F(IdbCreation, ARecordWithoutReferencesStaysUntilItIsLockedAndUnlocked) {
    ipv4mc_idb_st *idb = nullptr;
    ASSERT_EQ(ip6mc_idb_find_or_create(5, 0, &idb, nullptr, 1), 0U);
    EXPECT_EQ(ip6mc_idb_unlock(&idb), 22U);
    EXPECT_EQ(found(5), idb);
    EXPECT_EQ(ip6mc_idb_lock_idb(&idb), 0U);
    EXPECT_EQ(ip6mc_idb_unlock(&idb), 0U);
    EXPECT_EQ(found(5), nullptr);
}

TEST_F(IdbCreation, FindsARecordThatOnlyItsTableKnows) {
    ipv4mc_table_st *table = make_table(5, 6, "red");
    ipv4mc_idb_st *idb = locked(0x1a);
    idb->vrf_id = 6;
    wavl_tree *global = &header()->idb_tree;
    void *node = ipmc_idb_idb2wavl(idb);
    shm_wavl_insert_thread(&ipmc_table_idb_fns, &table->idb_tree, node, IPV4MC_IDB_THREAD_VRF);
    shm_wavl_delete_thread(&ipmc_idb_fns, global, node, IPV4MC_IDB_THREAD_GLOBAL);
    ASSERT_EQ(found(0x1a), nullptr);

    ipv4mc_idb_st *again = nullptr;
    EXPECT_EQ(ip6mc_idb_find_or_create(0x1a, 6, &again, nullptr, 1), 0U);
    EXPECT_EQ(again, idb);
    EXPECT_EQ(found(0x1a), idb);
    EXPECT_EQ(live_idbs(), 1U);
    shm_wavl_delete_thread(&ipmc_table_idb_fns, &table->idb_tree, node, IPV4MC_IDB_THREAD_VRF);
    idb->vrf_id = 0;
}

TEST_F(IdbCreation, GivesARecordWithoutAVrfItsVrf) {
    ipv4mc_idb_st *idb = locked(0x1a);
    heard_.clear();
    EXPECT_EQ(ip6mc_idb_find_or_create(0x1a, 0x66, &idb, nullptr, 0), 0U);
    EXPECT_EQ(idb->vrf_id, 0x66U);
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB),
                         "Updating vrf id for idb Ha0x1a. Old 0x0, new 0x66"));
    heard_.errors();
    EXPECT_EQ(ip6mc_idb_find_or_create(0x1a, 0, &idb, nullptr, 0), 0U);
    EXPECT_EQ(idb->vrf_id, 0x66U) << "0 asks for nothing";
    EXPECT_TRUE(heard_.errors().empty());
}

}  // namespace
}  // namespace idb_test
