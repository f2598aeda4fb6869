#include "tests/lib/routes/bed.h"

using namespace bed;
using Records = bed::Test;

TEST_F(Records, ASourceMakesTheKeyExactWhateverTheLength) {
    const ipv4mc_route_entry_st *route = create(table, {address("2001:db8::9"), address("ff3e::1"), 64});
    EXPECT_EQ(route->pfx_len, 256);
    EXPECT_EQ(route->group_mask_len, 128);
}

TEST_F(Records, ARangeKeepsItsLength) {
    const ipv4mc_route_entry_st *route = create(table, star_g("ff3e::", 96));
    EXPECT_EQ(route->pfx_len, 96);
    EXPECT_EQ(route->group_mask_len, 96);
}

TEST_F(Records, InitTouchesWhatItOwnsAndNoMore) {
    auto *route = create(table, sg(1));
    auto *marker = reinterpret_cast<ipv4mc_route_entry_st *>(uintptr_t{0x1000});
    route->memd_next[0] = route->memd_prev[1] = route->mdt_cand_next = route->mt_upd_prev = route->amt_upd_prev =
        marker;
    route->mofrr_upd_next = route->mofrr_upd_prev = marker;
    route->route_counters[5] = 7;
    route->mdt_candidate = 1;
    route->obj_id = 12;
    route->aux_addr = address("2001:db8::77");
    const key k = sg(2);
    EXPECT_EQ(ipv4mc_init_route(0, &k.source, &k.group, 256, route, 9), 0U);
    EXPECT_EQ(route->memd_next[0], nullptr);
    EXPECT_EQ(route->memd_prev[1], nullptr);
    EXPECT_EQ(route->mdt_cand_next, nullptr);
    EXPECT_EQ(route->mt_upd_prev, nullptr);
    EXPECT_EQ(route->amt_upd_prev, nullptr);
    EXPECT_EQ(route->mofrr_upd_next, marker);
    EXPECT_EQ(route->mofrr_upd_prev, marker);
    EXPECT_EQ(route->route_counters[5], 0U);
    EXPECT_EQ(route->mdt_candidate, 0);
    EXPECT_EQ(route->obj_id, IPMC_OBJ_ID_NONE);
    EXPECT_EQ(route->init_arg, 9);
    const ip_maddr_st kept = address("2001:db8::77");
    EXPECT_EQ(memcmp(&route->aux_addr, &kept, sizeof(kept)), 0);
    EXPECT_EQ(route->table, table);
}

TEST_F(Records, InitWithoutWindowIsEfault) {
    auto *route = create(table, sg(1));
    ipv4mc_route_entry_st copy = *route;
    forget();
    const auto open = ipv4mc_desc->shmwin_init;
    ipv4mc_desc->shmwin_init = 0;
    const cerrno rc = ipv4mc_init_route(0, &route->source, &route->group, 256, &copy, 0);
    ipv4mc_desc->shmwin_init = open;
    EXPECT_EQ(rc, 14U);
    EXPECT_EQ(errors(), texts{"Route creation skipped, shared memory window Not Initialized"});
}

TEST_F(Records, AnInterfaceEntryArrivesLinkedToNothing) {
    ipv4mc_intf_entry_st *entry = ipv4mc_create_intf(0x40, IPV4MC_INTF_AMT, 5, 0x01020304, 2268);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->key_ifh, 0U);
    EXPECT_EQ(entry->ifh, 0x40U);
    EXPECT_EQ(entry->intf_arg, 5U);
    EXPECT_EQ(entry->amt_port, 2268);
    EXPECT_EQ(entry->obj_id, IPMC_OBJ_ID_NONE);
    EXPECT_NE(entry->create_time.tv_sec + entry->create_time.tv_nsec, 0);
    EXPECT_EQ(entry->route, nullptr);
    EXPECT_EQ(entry->next_intf, nullptr);
    EXPECT_EQ(entry->on_idb_list, 0);
    EXPECT_EQ(ipv4mc_clear_intf(&entry), 0U);
    EXPECT_EQ(entry, nullptr);
}

TEST_F(Records, TheOrderIsTypeHandleAddressPort) {
    ipv4mc_intf_entry_st a{};
    ipv4mc_intf_entry_st b{};
    const auto compare = [&] { return ipmc_intf_avl_compare(&a.avl_node, &b.avl_node); };
    EXPECT_EQ(compare(), 1);
    a.ifh = 99;  // no part of the key
    EXPECT_EQ(compare(), 1);
    a.amt_port = 1;
    EXPECT_EQ(compare(), 2);
    b.amt_addr = 0x80000000;
    EXPECT_EQ(compare(), 0);
    a.key_ifh = 0x80000000;
    EXPECT_EQ(compare(), 2);
    b.intf_type = 1;
    EXPECT_EQ(compare(), 0);
    EXPECT_EQ(ipmc_intf_avl2intf(&a.avl_node), &a);
}

TEST_F(Records, ANullNodeIsAnAssertion) {
    EXPECT_DEATH(ipmc_intf_avl2intf(nullptr), "Assertion");
    ipv4mc_intf_entry_st a{};
    EXPECT_DEATH(ipmc_intf_avl_compare(&a.avl_node, nullptr), "Assertion");
}
