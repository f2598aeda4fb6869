#include <cerrno>
#include <cstring>
#include <utility>

#include "tests/lib/ipv4_mcast_tables/tables.h"

using namespace tables;

namespace {

class TableTrees : public with_owner {};
FOR_BOTH_KINDS_OF_TRIES(TableTrees);

TEST_P(TableTrees, ASearchWhileNotReadyIsRefused) {
    sim_set_state(IPV4MC_PLATFORM_STATE_READY - 1);
    heard.clear();
    EXPECT_EQ(ip6mc_table_lookup_by_tbl_id(5), nullptr);
    EXPECT_EQ(ip6mc_table_tid_get_first(), nullptr);
    EXPECT_EQ(ip6mc_table_tid_get_next(0), nullptr);
    EXPECT_EQ(ip6mc_table_tid_get_next_eq(0), nullptr);
    EXPECT_EQ(heard.errors(), texts(4, "Multicast library Not ready\n"));
    sim_set_state(IPV4MC_PLATFORM_STATE_READY);
}

TEST_P(TableTrees, TidTablesAreWalkedInTheOrderOfTheirIds) {
    EXPECT_EQ(ip6mc_table_tid_get_first(), nullptr);
    for (uint32_t tid : {30U, 10U, 0xfffffff0U, 20U}) {
        ipv4mc_table_st *table = nullptr;
        ASSERT_EQ(operate(3, tid, 0, nullptr, &table), 0U);
    }
    heard.clear();
    EXPECT_EQ(ip6mc_table_tid_get_first()->tid, 10U);
    EXPECT_EQ(ip6mc_table_tid_get_next(10)->tid, 20U);
    EXPECT_EQ(ip6mc_table_tid_get_next(11)->tid, 20U);
    EXPECT_EQ(ip6mc_table_tid_get_next_eq(20)->tid, 20U);
    EXPECT_EQ(ip6mc_table_tid_get_next_eq(21)->tid, 30U);
    EXPECT_EQ(ip6mc_table_tid_get_next(30)->tid, 0xfffffff0U);
    EXPECT_EQ(ip6mc_table_tid_get_next(0xfffffff0U), nullptr);
    EXPECT_EQ(ip6mc_table_tid_get_next_eq(0xfffffff1U), nullptr);
    EXPECT_EQ(ip6mc_table_lookup_by_tbl_id(11), nullptr);
    EXPECT_TRUE(heard.errors().empty());
    EXPECT_TRUE(heard.lines(IPV4_DEBUG_WRN).empty());
}

TEST_P(TableTrees, AFailedSearchIsAWarning) {
    shm_avl_tree *&root = ipv4mc_desc->shmwin_info->table_tid_tree;
    shm_avl_tree *const tree = std::exchange(root, nullptr);
    EXPECT_EQ(ip6mc_table_lookup_by_tbl_id(0x51), nullptr);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_WRN),
              texts{std::string("Tbl lookup failed for tid:0x51 : ") + cerr_strerror(EINVAL)});
    root = tree;
}

TEST_P(TableTrees, ATableIsValidWithBothItsTries) {
    EXPECT_EQ(ip6mc_table_is_valid(nullptr), 0);
    ipv4mc_table_st vrf{};
    EXPECT_EQ(ip6mc_table_is_valid(&vrf), 0);
    ipv4mc_table_st tid{};
    tid.table_type = IPV4MC_TABLE_TID;
    int trie = 0;
    tid.signal_gtrie = &trie;
    EXPECT_EQ(ip6mc_table_is_valid(&tid), 0);
    tid.ingress_gtrie = &trie;
    EXPECT_EQ(ip6mc_table_is_valid(&tid), 1);
    vrf.tid_table = &tid;
    EXPECT_EQ(ip6mc_table_is_valid(&vrf), 1);
    tid.signal_gtrie = nullptr;
    EXPECT_EQ(ip6mc_table_is_valid(&vrf), 0);
}

TEST_P(TableTrees, ATableIsLocalForThreeReasons) {
    EXPECT_EQ(ip6mc_table_is_local(5), 0);
    ipv4mc_table_st *vrf = nullptr;
    ASSERT_EQ(operate(9, 5, 6, "red", &vrf), 0U);
    ipv4mc_table_st *tid = vrf->tid_table;
    EXPECT_EQ(ip6mc_table_is_local(5), 0);
    tid->child_route_count = 1;
    EXPECT_EQ(ip6mc_table_is_local(5), 1);
    tid->child_route_count = 0;
    tid->mdt_master_lc = 1;
    EXPECT_EQ(ip6mc_table_is_local(5), 1);
    tid->mdt_master_lc = 0;
    vrf->svd_location = IPV4MC_SVD_PENDING_LOCAL;
    EXPECT_EQ(ip6mc_table_is_local(5), 0);
    vrf->svd_location = IPV4MC_SVD_LOCAL;
    EXPECT_EQ(ip6mc_table_is_local(5), 1);
    vrf->svd_location = IPV4MC_SVD_REMOTE;
}

TEST_P(TableTrees, KeysAreComparedOver32CharactersAndByTheirOwnThread) {
    ipv4mc_table_st a{};
    ipv4mc_table_st b{};
    std::memset(a.vrf_name, 'x', sizeof(a.vrf_name));
    std::memset(b.vrf_name, 'x', sizeof(b.vrf_name));
    b.vrf_name[32] = 'y';
    EXPECT_EQ(ipmc_tbl_wavl_compare_vrf_name(&a, &b), 1);
    b.vrf_name[31] = 'y';
    EXPECT_EQ(ipmc_tbl_wavl_compare_vrf_name(&a, &b), 0);
    EXPECT_EQ(ipmc_tbl_wavl_compare_vrf_name(&b, &a), 2);
    a.vrf_id = 0xfffffff0;
    b.vrf_id = 1;
    EXPECT_EQ(ipmc_tbl_wavl_compare_vrf_id(&a.node[1], &b.node[1]), 2);
    EXPECT_EQ(ipmc_tbl_wavl_compare_vrf_id(&b.node[1], &a.node[1]), 0);
    EXPECT_EQ(ipmc_tbl_wavl_compare_vrf_id(&b.node[1], &b.node[1]), 1);
    a.tid = 0xfffffff0;
    b.tid = 1;
    EXPECT_EQ(ipmc_tbl_avl_compare_tbl_id(&a, &b), 2);
    EXPECT_EQ(ipmc_tbl_avl_compare_tbl_id(&b, &a), 0);
    for (auto compare : {ipmc_tbl_wavl_compare_vrf_name, ipmc_tbl_wavl_compare_vrf_id,
                         ipmc_tbl_avl_compare_tbl_id}) {
        EXPECT_EQ(compare(nullptr, &a), 1);
        EXPECT_EQ(compare(&a, nullptr), 1);
    }
    EXPECT_EQ(ip6mc_tbl_wavl2db(&a), &a);
    EXPECT_EQ(ip6mc_tbl_db2wavl(&a), &a);
}

TEST_P(TableTrees, ANameThatIsTakenIsReportedAtInsertionAndRemoval) {
    ipv4mc_table_st *red = nullptr;
    ASSERT_EQ(operate(9, 5, 6, "red", &red), 0U);
    ipv4mc_table_st *second = nullptr;
    ASSERT_EQ(operate(9, 7, 8, "red", &second), 0U);
    EXPECT_EQ(heard.errors(), texts{"Tbl add wavl failed for red/vid:0x0, type 0x0"});
    EXPECT_EQ(find(0, "red"), red);
    EXPECT_EQ(find(8, nullptr), second);
    ASSERT_EQ(operate(4, 0, 0, nullptr, &second), 0U);
    EXPECT_EQ(heard.errors(), texts{"Tbl del wavl failed for red/vid:0x0/tid:0x0, type 0x0"});
    EXPECT_EQ(find(0, "red"), red);
}

TEST_P(TableTrees, OthersReachTheTrees) {
    EXPECT_EQ(ipmc_table_tid_prep_for_special_access(), 0U);
    ipv4mc_table_st *vrf = nullptr;
    ASSERT_EQ(operate(9, 5, 6, "red", &vrf), 0U);
    ipv4mc_table_st key{};
    key.tid = 5;
    void *found = nullptr;
    EXPECT_EQ(shm_avl_tree_search(nullptr, ip6mc_get_table_tid_db(), shm_avl_exact, &key, &found),
              0U);
    EXPECT_EQ(found, vrf->tid_table);
    EXPECT_EQ(ip6mc_get_table_tid_db_fns(), &ipmc_db_tid_fns);
    EXPECT_EQ(ip6mc_get_table_vid_name_db_fns(), &ipmc_db_table_fns);
    EXPECT_EQ(multicast_table_wrapper_for_shm_wavl_get_first(ip6mc_get_table_vid_name_db(), 1),
              vrf);
}

TEST(TableTreesWithoutAWindow, AreNull) {
    EXPECT_EQ(ip6mc_get_table_vid_name_db(), nullptr);
    EXPECT_EQ(ip6mc_get_table_tid_db(), nullptr);
    EXPECT_NE(ipmc_table_tid_prep_for_special_access(), 0U);
    EXPECT_EQ(multicast_table_wrapper_for_shm_wavl_get_first(nullptr, 0), nullptr);
}

}  // namespace
