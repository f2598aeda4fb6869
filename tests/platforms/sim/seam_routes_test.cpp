#include <cstdlib>

#include "services/gtrie/gtrie.h"
#include "tests/platforms/sim/sim_fixture.h"

namespace {

class SimRoutes : public SimTest {};

TEST_F(SimRoutes, ACommittedRouteIsHeldWithItsInterfaces) {
    test_route route(table, "2001:db8::1", "ff3e::1", 64);
    route.record.attributes = MRIB_ROUTE_SIGNAL;
    route.record.obj_id = 42;
    program(route, {&entry(1, MRIB_INTF_ACCEPT), &entry(2, MRIB_INTF_FORWARD)});
    ip6mc_platform_held_st held = {};
    ASSERT_EQ(find(route, &held), 0U);
    EXPECT_EQ(held.attributes, MRIB_ROUTE_SIGNAL);
    EXPECT_EQ(held.obj_id, 42U);
    EXPECT_EQ(held.pfx_len, 256);
    EXPECT_EQ(held.active, 1);
    ASSERT_EQ(find(route, 2, &held), 0U);
    EXPECT_EQ(held.attributes, MRIB_INTF_FORWARD);
    EXPECT_EQ(held.active, 1);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 1U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 2U);
}

TEST_F(SimRoutes, InterfacesThatComeBeforeTheirRouteDoNotMakeItHeld) {
    test_route route(table, "::", "ff3e::", 32);
    ipv4mc_intf_entry_st &e = entry(1, MRIB_INTF_FORWARD);
    ASSERT_EQ(intf_op(IPV4MC_ACTION_CREATE, route, e, 0, 1), 0U);
    EXPECT_EQ(find(route), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
    EXPECT_EQ(listed(IP6MC_PLATFORM_ROUTE).size(), 0U);
    EXPECT_EQ(listed(IP6MC_PLATFORM_INTF).size(), 1U);
    ASSERT_EQ(intf_op(IPV4MC_ACTION_DELETE, route, e), 0U);
    EXPECT_EQ(listed(IP6MC_PLATFORM_INTF).size(), 0U);
}

TEST_F(SimRoutes, EverythingMayBeRepeated) {
    test_route route(table, "::", "ff3e::1", 128);
    ipv4mc_intf_entry_st &e = entry(1, MRIB_INTF_FORWARD);
    program(route, {&e});
    program(route, {&e});
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 1U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 1U);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(intf_op(IPV4MC_ACTION_DELETE, route, e), 0U);
        ASSERT_EQ(route_op(IPV4MC_ACTION_DELETE, route), 0U);
    }
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 0U);
}

TEST_F(SimRoutes, AnyLengthWithASourceIsTheOneExactRoute) {
    test_route a(table, "2001:db8::1", "ff3e::1", 64);
    test_route b(table, "2001:db8::1", "ff3e::1", 64);
    b.record.pfx_len = 64;
    ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, a, 0, 1), 0U);
    ASSERT_EQ(route_op(IPV4MC_ACTION_DELETE, b), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
}

TEST_F(SimRoutes, GroupRangesOfDifferentLengthAreDifferentRoutes) {
    test_route wide(table, "::", "ff3e::", 16);
    test_route narrow(table, "::", "ff3e::", 32);
    program(wide, {});
    program(narrow, {});
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 2U);
}

TEST_F(SimRoutes, ACommitTakesTheNewAttributeWord) {
    test_route route(table, "::", "ff3e::1", 128);
    ipv4mc_intf_entry_st &e = entry(1, MRIB_INTF_FORWARD);
    program(route, {&e});
    route.record.attributes = MRIB_ROUTE_DROP;
    e.attributes = MRIB_INTF_ACCEPT;
    ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route, 0), 0U);
    ASSERT_EQ(intf_op(IPV4MC_ACTION_COMMIT, route, e, MRIB_INTF_FORWARD), 0U);
    ip6mc_platform_held_st held = {};
    ASSERT_EQ(find(route, &held), 0U);
    EXPECT_EQ(held.attributes, MRIB_ROUTE_DROP);
    ASSERT_EQ(find(route, 1, &held), 0U);
    EXPECT_EQ(held.attributes, MRIB_INTF_ACCEPT);
}

TEST_F(SimRoutes, ClearEmptiesTheRouteAndKeepsIt) {
    test_route route(table, "::", "ff3e::1", 128);
    program(route, {&entry(1, MRIB_INTF_FORWARD), &entry(2, MRIB_INTF_FORWARD)});
    ASSERT_EQ(sim_set_route_stats(7, &route.record.source, &route.record.group, 128, 5, 6, 7, 8),
              0U);
    ASSERT_EQ(route_op(IPV4MC_ACTION_CLEAR, route), 0U);
    EXPECT_EQ(find(route), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 0U);
    uint64_t packets = 9;
    ASSERT_EQ(ip6mc_platform_get_hw_in_stats(&table, &route.record.source, &route.record.group, 128,
                                             nullptr, &packets),
              0U);
    EXPECT_EQ(packets, 0U);
}

TEST_F(SimRoutes, AmtEntriesAreToldApartByTheirFarEnd) {
    test_route route(table, "::", "ff3e::1", 128);
    ipv4mc_intf_entry_st &a = entry(9, MRIB_INTF_FORWARD);
    ipv4mc_intf_entry_st &b = entry(9, MRIB_INTF_FORWARD);
    for (ipv4mc_intf_entry_st *e : {&a, &b}) {
        e->intf_type = IPV4MC_INTF_AMT;
        e->key_ifh = 0;
        e->amt_addr = 0x0a000001;
    }
    a.amt_port = 1;
    b.amt_port = 2;
    program(route, {&a, &b});
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 2U);
    b.ifh = 10;  // the interface underneath moves, the entry is the same
    ASSERT_EQ(intf_op(IPV4MC_ACTION_COMMIT, route, b), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 2U);
    ASSERT_EQ(intf_op(IPV4MC_ACTION_AMT_STAT_CLEAR, route, b), 0U);
    ASSERT_EQ(intf_op(IPV4MC_ACTION_DELETE, route, a), 0U);
    const auto left = listed(IP6MC_PLATFORM_INTF);
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0].ifh, 10U);
    EXPECT_EQ(left[0].amt_port, 2);
}

TEST_F(SimRoutes, AFullHardwareRefusesAndStaysAsItWas) {
    sim_set_capacity(IP6MC_PLATFORM_ROUTE, 1);
    sim_set_capacity(IP6MC_PLATFORM_INTF, 1);
    sim_set_full_code(1234);
    test_route first(table, "::", "ff3e::1", 128);
    test_route second(table, "::", "ff3e::2", 128);
    program(first, {&entry(1, MRIB_INTF_FORWARD)});
    EXPECT_EQ(intf_op(IPV4MC_ACTION_CREATE, second, entry(1, 0), 0, 1), 1234U);
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, second, 0, 1), 1234U);
    EXPECT_EQ(find(second), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, first), 0U) << "an existing route may change";
    ASSERT_EQ(route_op(IPV4MC_ACTION_DELETE, first), 0U);
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, second, 0, 1), 0U) << "room again";
}

TEST_F(SimRoutes, UpdatesOfAHeldRouteAreTaken) {
    test_route route(table, "::", "ff3e::1", 128);
    program(route, {});
    ipv4mc_route_update_st update = {};
    update.encap_id = 77;
    ASSERT_EQ(ip6mc_platform_route_update(&route.record, IPV4MC_ROUTE_UPDATE_ENCAP, &update), 0U);
    ip6mc_platform_held_st held = {};
    ASSERT_EQ(find(route, &held), 0U);
    EXPECT_EQ(held.encap_id, 77U);
    update.encap_id = 0;
    update.rpf_id = 5;
    ASSERT_EQ(ip6mc_platform_route_update(&route.record, IPV4MC_ROUTE_UPDATE_RPF_ID, &update), 0U);
    ASSERT_EQ(find(route, &held), 0U);
    EXPECT_EQ(held.encap_id, 77U) << "only the named property changes";
}

TEST_F(SimRoutes, AnUpdateOfARouteThatIsNotHeldMakesNone) {
    test_route route(table, "::", "ff3e::1", 128);
    const ipv4mc_route_update_st update = {};
    EXPECT_EQ(ip6mc_platform_route_update(&route.record, IPV4MC_ROUTE_UPDATE_ENCAP, &update), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
}

TEST_F(SimRoutes, ACommitTakesTheEncapFromTheRecord) {
    test_route route(table, "::", "ff3e::1", 128);
    ipv4mc_encap_entry_st encap = {};
    encap.encap_id = 99;
    route.record.encap = &encap;
    program(route, {});
    ip6mc_platform_held_st held = {};
    ASSERT_EQ(find(route, &held), 0U);
    EXPECT_EQ(held.encap_id, 99U);
}

TEST_F(SimRoutes, MissingArgumentsAreRefused) {
    test_route route(table, "::", "ff3e::1", 128);
    ipv4mc_route_entry_st *record = &route.record;
    ipv4mc_intf_entry_st *none = nullptr;
    const auto einval = static_cast<cerrno>(EINVAL);
    EXPECT_EQ(ip6mc_platform_route_operation(IPV4MC_ACTION_COMMIT, nullptr, &record->source,
                                             &record->group, 128, &record, 0, 0, 1),
              einval);
    EXPECT_EQ(ip6mc_platform_route_operation(IPV4MC_ACTION_COMMIT, &table, nullptr, &record->group,
                                             128, &record, 0, 0, 1),
              einval);
    EXPECT_EQ(ip6mc_platform_intf_operation(IPV4MC_ACTION_CREATE, &table, record, 1, 0, &none,
                                            nullptr, 0, 0, 1),
              einval);
    EXPECT_EQ(ip6mc_platform_route_update(record, 1, nullptr), einval);
    EXPECT_EQ(ip6mc_platform_change_IF_parent(nullptr, record, nullptr), einval);
}

TEST_F(SimRoutes, AReplayWithoutATrieFindsNoRecord) {
    const ip_maddr_st group = address("ff3e::1");
    const ip_maddr_st any = {};
    ipv4mc_route_entry_st *record = nullptr;
    EXPECT_EQ(ip6mc_platform_route_operation(IPV4MC_ACTION_CREATE, &table, &any, &group, 128,
                                             &record, 0, 0, 0),
              static_cast<cerrno>(ENOENT));
}

TEST_F(SimRoutes, AReplayFindsItsRecordInTheTrieByKey) {
    ASSERT_EQ(ip6mc_gtrie_platform_lib_init(nullptr, 0), 0U);
    ip6mc_gtrie_params_t params = {};
    params.gtrie_kind = GTRIE_KIND_DEFAULT;
    params.flags = 1;
    params.key_bits = GTRIE_KEY_BITS;
    params.node_size = GTRIE_NODE_SIZE;
    params.alloc_fn = [](size_t size, uint32_t) { return std::calloc(1, size); };
    params.free_fn = [](void *block, uint32_t) -> cerrno {
        std::free(block);
        return 0;
    };
    cerrno error = 0;
    table.ingress_gtrie = ip6mc_gtrie_platform_init(&params, &error);
    ASSERT_NE(table.ingress_gtrie, nullptr) << error;
    const ip_maddr_st any = {};
    const ip_maddr_st group = address("ff3e::1");
    uint8_t key[GTRIE_PREFIX_BYTES] = {};
    ASSERT_EQ(ip6mc_gtrie_platform_make_prefix(table.ingress_gtrie, key, &any, &group), 0U);
    void *leaf = nullptr;
    int created = 0;
    ASSERT_EQ(ip6mc_gtrie_platform_leaf_create(table.ingress_gtrie, key, 128, &leaf,
                                               sizeof(ipv4mc_route_entry_st), &created),
              0U);
    auto *route = static_cast<ipv4mc_route_entry_st *>(leaf);
    route->group = group;
    route->pfx_len = 128;
    route->attributes = MRIB_ROUTE_SIGNAL;
    ASSERT_EQ(ip6mc_gtrie_platform_leaf_insert(table.ingress_gtrie, leaf, &error), 0U);

    ipv4mc_route_entry_st *record = nullptr;
    ASSERT_EQ(ip6mc_platform_route_operation(IPV4MC_ACTION_CREATE, &table, &any, &group, 128,
                                             &record, 0, 0, 0),
              0U);
    EXPECT_EQ(record, route);
    ip6mc_platform_held_st held = {};
    ASSERT_EQ(sim_find_route(7, &any, &group, 128, &held), 0U);
    EXPECT_EQ(held.active, 0) << "created, not yet committed";
    EXPECT_EQ(held.attributes, MRIB_ROUTE_SIGNAL);
    record = nullptr;
    ASSERT_EQ(ip6mc_platform_route_operation(IPV4MC_ACTION_COMMIT, &table, &any, &group, 128,
                                             &record, 0, 0, 0),
              0U);
    ASSERT_EQ(sim_find_route(7, &any, &group, 128, &held), 0U);
    EXPECT_EQ(held.active, 1);

    ASSERT_EQ(ip6mc_gtrie_platform_leaf_delete(table.ingress_gtrie, leaf, &error), 0U);
    ASSERT_EQ(ip6mc_gtrie_platform_leaf_free(table.ingress_gtrie, leaf), 0U);
    ASSERT_EQ(ip6mc_gtrie_platform_close(&table.ingress_gtrie), 0U);
    ASSERT_EQ(ip6mc_gtrie_platform_lib_terminate(0), 0U);
}

}  // namespace
