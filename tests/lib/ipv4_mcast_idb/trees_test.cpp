#include <cstring>

#include "services/trees/wavl.h"
#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

using IdbTrees = Idb;

ipv4mc_idb_st record(ifhtype ifh, const char *name) {
    ipv4mc_idb_st idb{};
    idb.ifh = ifh;
    memcpy(idb.name, name, strnlen(name, sizeof(idb.name)));
    return idb;
}

TEST(IdbComparison, OrdersHandlesAsUnsignedNumbersOnTheirOwnThread) {
    const ipv4mc_idb_st low = record(1, "b");
    const ipv4mc_idb_st high = record(0xffffffff, "a");
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_global(&low.node[0], &high.node[0]), 0);
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_global(&low.node[0], &low.node[0]), 1);
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_global(&high.node[0], &low.node[0]), 2);
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_vrf(&low.node[1], &high.node[1]), 0);
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_vrf(&high.node[1], &high.node[1]), 1);
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_vrf(&high.node[1], &low.node[1]), 2);
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_name(&high.node[2], &low.node[2]), 0);
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_name(&low.node[2], &high.node[2]), 2);
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_dummy(&low, &high), 1);
}

TEST(IdbComparison, FindsNullEqualToEverything) {
    const ipv4mc_idb_st idb = record(7, "x");
    for (const auto compare : {ipmc_idb_avl_compare_ifh_global, ipmc_idb_avl_compare_ifh_vrf,
                               ipmc_idb_avl_compare_ifh_name, ipmc_idb_avl_compare_ifh_dummy}) {
        EXPECT_EQ(compare(&idb.node[0], nullptr), 1);
        EXPECT_EQ(compare(nullptr, &idb.node[0]), 1);
    }
}

TEST(IdbComparison, StopsAtSixtyFourCharactersOfAName) {
    const std::string same(64, 'n');
    const ipv4mc_idb_st a = record(1, (same + "a").c_str());
    const ipv4mc_idb_st b = record(2, (same + "b").c_str());
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_name(&a.node[2], &b.node[2]), 1);
    const ipv4mc_idb_st c = record(3, (std::string(63, 'n') + "o").c_str());
    EXPECT_EQ(ipmc_idb_avl_compare_ifh_name(&a.node[2], &c.node[2]), 0);
}

TEST(IdbConversion, GoesBetweenRecordAndFirstNode) {
    ipv4mc_idb_st idb{};
    EXPECT_EQ(ipmc_idb_idb2wavl(&idb), &idb.node[0]);
    EXPECT_EQ(ipmc_idb_wavl2idb(&idb.node[0]), &idb);
    EXPECT_EQ(ipmc_idb_wavl2idb(nullptr), nullptr);
}

TEST(IdbFunctions, UseTheirThreadsAndTheWindowForNodes) {
    EXPECT_EQ(ipmc_idb_fns.compare[0], ipmc_idb_avl_compare_ifh_global);
    EXPECT_EQ(ipmc_idb_fns.compare[1], ipmc_idb_avl_compare_ifh_dummy);
    EXPECT_EQ(ipmc_idb_fns.compare[2], ipmc_idb_avl_compare_ifh_name);
    EXPECT_EQ(ipmc_table_idb_fns.compare[0], ipmc_idb_avl_compare_ifh_dummy);
    EXPECT_EQ(ipmc_table_idb_fns.compare[1], ipmc_idb_avl_compare_ifh_vrf);
    EXPECT_EQ(ipmc_table_idb_fns.compare[2], ipmc_idb_avl_compare_ifh_dummy);
    for (const auto *fns : {&ipmc_idb_fns, &ipmc_table_idb_fns}) {
        EXPECT_EQ(fns->node_alloc, ipmc_shmwin_wavl_malloc);
        EXPECT_EQ(fns->node_free, ipmc_shmwin_wavl_free);
        EXPECT_EQ(fns->node_to_record, ipmc_idb_wavl2idb);
        EXPECT_EQ(fns->unused, nullptr);
    }
}

TEST_F(IdbTrees, LookupRefusesHandleZeroAndNoPointerWithoutAReport) {
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_lookup(0, &idb), 22U);
    EXPECT_EQ(ip6mc_idb_lookup(5, nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_lookup_by_name("", &idb), 22U);
    EXPECT_EQ(ip6mc_idb_lookup_by_name(nullptr, &idb), 22U);
    EXPECT_EQ(ip6mc_idb_lookup_by_name("x", nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_lookup_vrf("x", 0, &idb), 22U);
    EXPECT_EQ(ip6mc_idb_lookup_vrf(nullptr, 5, &idb), 22U);
    EXPECT_EQ(ip6mc_idb_lookup_vrf("x", 5, nullptr), 22U);
    EXPECT_TRUE(heard_.errors().empty());
}

TEST_F(IdbTrees, LookupOfAnUnknownHandleIsASuccessWithoutARecord) {
    ipv4mc_idb_st there{};
    ipv4mc_idb_st *idb = &there;
    EXPECT_EQ(ip6mc_idb_lookup(4711, &idb), 0U);
    EXPECT_EQ(idb, nullptr);
    idb = &there;
    EXPECT_EQ(ip6mc_idb_lookup_by_name("nowhere", &idb), 0U);
    EXPECT_EQ(idb, nullptr);
}

TEST_F(IdbTrees, LookupFindsByHandle) {
    ipv4mc_idb_st *a = locked(10);
    ipv4mc_idb_st *b = locked(0x80000000);
    EXPECT_EQ(found(10), a);
    EXPECT_EQ(found(0x80000000), b);
    EXPECT_EQ(a->refcount, 1U);
}

TEST_F(IdbTrees, NameThreadHoldsWhatWasPutThere) {
    ipv4mc_idb_st *idb = locked(10);
    ASSERT_EQ(ip6mc_idb_set_name(idb, "Eth0"), 0U);
    ipv4mc_idb_st *by_name = nullptr;
    EXPECT_EQ(ip6mc_idb_lookup_by_name("Eth0", &by_name), 0U);
    EXPECT_EQ(by_name, nullptr);

    EXPECT_EQ(ip6mc_idb_insert_in_name_tree(idb), 0U);
    EXPECT_EQ(ip6mc_idb_lookup_by_name("Eth0", &by_name), 0U);
    EXPECT_EQ(by_name, idb);
    EXPECT_EQ(idb->tree_flags, 0);  // the caller's to set
    idb->tree_flags = IPV4MC_IDB_TREE_NAME;

    EXPECT_EQ(ip6mc_idb_delete_from_name_tree(idb), 0U);
    EXPECT_EQ(idb->tree_flags, 0);
    EXPECT_EQ(ip6mc_idb_lookup_by_name("Eth0", &by_name), 0U);
    EXPECT_EQ(by_name, nullptr);
    EXPECT_TRUE(heard_.errors().empty());
}

TEST_F(IdbTrees, NameThreadReportsWhatItRefuses) {
    ipv4mc_idb_st *a = locked(0x10);
    ipv4mc_idb_st *b = locked(0x20);
    ip6mc_idb_set_name(a, "same");
    ip6mc_idb_set_name(b, "same");
    ip6mc_idb_insert_in_name_tree(a);
    EXPECT_EQ(ip6mc_idb_insert_in_name_tree(b), 0U);
    char text[200];
    snprintf(text, sizeof(text), "Failed to insert idb same[0x20] idb ptr %p to NAME tree",
             static_cast<void *>(b));
    EXPECT_EQ(heard_.errors(), std::vector<std::string>{text});

    b->tree_flags = IPV4MC_IDB_TREE_NAME;
    memset(b->name, 0, sizeof(b->name));
    EXPECT_EQ(ip6mc_idb_delete_from_name_tree(b), 0U);
    snprintf(text, sizeof(text), "Failed to Delete idb Unk[0x20] idb ptr %p from NAME tree",
             static_cast<void *>(b));
    EXPECT_EQ(heard_.errors(), std::vector<std::string>{text});
    EXPECT_EQ(b->tree_flags, IPV4MC_IDB_TREE_NAME);
    b->tree_flags = 0;
    a->tree_flags = IPV4MC_IDB_TREE_NAME;
}

TEST_F(IdbTrees, NameThreadTakesNamesOfSixtyFourCharacters) {
    const std::string longest(64, 'x');
    ipv4mc_idb_st *idb = locked(10);
    ip6mc_idb_set_name(idb, (longest + "tail").c_str());
    EXPECT_EQ(std::string(idb->name, 64), longest);
    ip6mc_idb_insert_in_name_tree(idb);
    ipv4mc_idb_st *by_name = nullptr;
    EXPECT_EQ(ip6mc_idb_lookup_by_name((longest + "other tail").c_str(), &by_name), 0U);
    EXPECT_EQ(by_name, idb);
    EXPECT_EQ(ip6mc_idb_lookup_by_name(std::string(63, 'x').c_str(), &by_name), 0U);
    EXPECT_EQ(by_name, nullptr);
}

TEST_F(IdbTrees, NameThreadWantsARecord) {
    EXPECT_EQ(ip6mc_idb_insert_in_name_tree(nullptr), 22U);
    EXPECT_EQ(ip6mc_idb_delete_from_name_tree(nullptr), 22U);
    EXPECT_EQ(heard_.errors(),
              (std::vector<std::string>{"Null idb_p pointer", "Null idb_p pointer"}));
}

TEST_F(IdbTrees, LookupInATableReportsATableThatIsNotThere) {
    ipv4mc_idb_st there{};
    ipv4mc_idb_st *idb = &there;
    EXPECT_EQ(ip6mc_idb_lookup_vrf("red", 10, &idb), 0U);
    EXPECT_EQ(idb, nullptr);
    EXPECT_TRUE(contains(heard_.errors(), "Failed to lookup table red : "));
}

TEST_F(IdbTrees, LookupInATablePassesAFailureOn) {
    const std::string too_long(40, 'v');
    ipv4mc_idb_st there{};
    ipv4mc_idb_st *idb = &there;
    const cerrno rc = ip6mc_idb_lookup_vrf(too_long.c_str(), 10, &idb);
    EXPECT_EQ(idb, nullptr);
    EXPECT_EQ(rc, 0U) << "a table that no name can name is not there";
}

TEST_F(IdbTrees, LookupInATableSeesOnlyItsOwn) {
    ipv4mc_table_st *table = make_table(5, 6, "red");
    ipv4mc_idb_st *inside = locked(10);
    locked(11);
    ASSERT_NE(shm_wavl_insert_thread(&ipmc_table_idb_fns, &table->idb_tree,
                                     ipmc_idb_idb2wavl(inside), IPV4MC_IDB_THREAD_VRF),
              nullptr);
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_lookup_vrf("red", 10, &idb), 0U);
    EXPECT_EQ(idb, inside);
    EXPECT_EQ(ip6mc_idb_lookup_vrf("red", 11, &idb), 0U);
    EXPECT_EQ(idb, nullptr);
    shm_wavl_delete_thread(&ipmc_table_idb_fns, &table->idb_tree, ipmc_idb_idb2wavl(inside),
                           IPV4MC_IDB_THREAD_VRF);
}

}  // namespace
}  // namespace idb_test
