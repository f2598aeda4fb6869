#include "tests/lib/removal/rig.h"

using namespace bed;
using rig::has_text;

namespace {

class RouteUpdate : public bed::Test {
  protected:
    RouteUpdate() : route(add(table, sg(1))) { forget(); }
    cerrno update(uint32_t type, const ipv4mc_route_update_st &with) {
        return ip6mc_route_update(route, type, &with);
    }
    ipv4mc_route_entry_st *route;
    ipv4mc_route_update_st upd{};
};

}  // namespace

TEST_F(RouteUpdate, RefusesWhatIsNull) {
    EXPECT_EQ(ip6mc_route_update(nullptr, 1, &upd), 22U);
    EXPECT_EQ(ip6mc_route_update(route, 1, nullptr), 22U);
    ipv4mc_update_state(1);
    EXPECT_EQ(update(4, upd), 9U);
    ipv4mc_update_state(2);
    auto said = errors();
    EXPECT_EQ(said[0].find("ipv4mc_route_update: route/upd is NULL route:"), 0U);
    EXPECT_EQ(said[2], "Multicast library Not ready\n");
    EXPECT_EQ(platform_calls(), texts{});
}

TEST_F(RouteUpdate, UnlinkingARouteWithoutEncapAnswers0WithoutThePlatform) {
    EXPECT_EQ(update(1, upd), 0U);
    EXPECT_TRUE(has_text(errors(), "ipv4mc_route_update: EID Unlink Error: route:"));
    EXPECT_EQ(platform_calls(), texts{});
}

TEST_F(RouteUpdate, AnEncapThatIsNotThereIsRefused) {
    upd.encap_id = 5;
    EXPECT_EQ(update(1, upd), 22U);
    EXPECT_TRUE(has_text(errors(), "ipv4mc_route_update: Erro encap id:5 , route:"));
    EXPECT_EQ(platform_calls(), texts{});
}

TEST_F(RouteUpdate, AnUnknownTypeIsRefusedAfterThePlatformHasAgreed) {
    EXPECT_EQ(update(9, upd), 22U);
    EXPECT_EQ(platform_calls(), texts{"route_update 9 new 0 -> 0"});
    EXPECT_TRUE(has_text(errors(), "route_update failed unkown upd type route: "));
    for (const uint32_t type : {3U, 5U, 6U, 7U, 16U})
        EXPECT_EQ(update(type, upd), 0U);
    EXPECT_TRUE(errors().empty());
}

TEST_F(RouteUpdate, PlainValuesAreTaken) {
    upd.rpf_id = 17;
    upd.upd4_value = 18;
    EXPECT_EQ(update(8, upd), 0U);
    EXPECT_EQ(update(4, upd), 0U);
    EXPECT_EQ(route->rpf_id, 17U);
    EXPECT_EQ(route->upd4_value, 18);
    sim_arm_fault(SIM_OP_ROUTE_UPDATE, SIM_ANY_ACTION, 0, 1, 70);
    upd.rpf_id = 19;
    EXPECT_EQ(update(8, upd), 70U);
    EXPECT_EQ(route->rpf_id, 17U);
    EXPECT_TRUE(has_text(errors(), "platform route update failed on route: "));
}

TEST_F(RouteUpdate, ATBitWithoutItsCountLeavesTheTable) {
    upd.t_bit = 1;
    EXPECT_EQ(update(2, upd), 0U);
    EXPECT_EQ(route->t_bit, 1);
    EXPECT_EQ(table->route_counters.t_cnt, 0U);
}

TEST_F(RouteUpdate, TBitsOfATableMoveItsCoreRoutesAtTheFirstAndTheLast) {
    ipv4mc_table_st *core = rig::make_default_table();
    auto *core_route = add(core, sg(9));
    ip6mc_route_link_route_to_vrf(core_route, 0, table->tid, "core");
    auto *second = add(table, sg(2));
    upd.t_bit = upd.t_count = 1;
    EXPECT_EQ(update(2, upd), 0U);
    EXPECT_EQ(core_route->attributes, MRIB_ROUTE_DT);
    EXPECT_EQ(ip6mc_route_update(second, 2, &upd), 0U);
    EXPECT_EQ(table->route_counters.t_cnt, 2U);
    upd.t_bit = 0;
    EXPECT_EQ(update(2, upd), 0U);
    EXPECT_EQ(core_route->attributes, MRIB_ROUTE_DT);
    EXPECT_EQ(ip6mc_route_update(second, 2, &upd), 0U);
    EXPECT_EQ(core_route->attributes, 0U);
}

TEST_F(RouteUpdate, LinkingMovesTheRouteAndItsCount) {
    auto *a = rig::make_encap(1, IPV4MC_ENCAP_LKP_ON_FIRST);
    auto *b = rig::make_encap(2, IPV4MC_ENCAP_LKP_ON_FIRST);
    route->intf_local_EG_cnt = 3;
    upd.encap_id = 1;
    forget();
    EXPECT_EQ(update(1, upd), 0U);
    EXPECT_EQ(route->encap, a);
    EXPECT_EQ(a->ip_lkp, 1);
    EXPECT_EQ(platform_calls(), (texts{"route_update 1 new 0 -> 0", "encap_update 1 new 0 -> 0",
                                       "encap 8 new 0 -> 0"}));
    upd.encap_id = 2;
    EXPECT_EQ(update(1, upd), 0U);
    EXPECT_EQ(a->route_cnt, 0U);
    EXPECT_EQ(a->intf_local_EG_cnt, 0U);
    EXPECT_EQ(a->ip_lkp, 0);
    EXPECT_EQ(b->intf_local_EG_cnt, 3U);
    EXPECT_EQ(b->route_head, route);
}

TEST_F(RouteUpdate, OnlyTheLowHalfOfTheEarlierCountIsLookedAt) {
    auto *a = rig::make_encap(1, IPV4MC_ENCAP_LKP_ON_FIRST);
    a->intf_local_EG_cnt = 0x20000;
    route->intf_local_EG_cnt = 1;
    upd.encap_id = 1;
    EXPECT_EQ(update(1, upd), 0U);
    EXPECT_EQ(a->ip_lkp, 1);
    auto *second = add(table, sg(2));
    second->intf_local_EG_cnt = 1;
    forget();
    EXPECT_EQ(ip6mc_route_update(second, 1, &upd), 0U);
    EXPECT_EQ(platform_calls(), texts{"route_update 1 new 0 -> 0"});
    EXPECT_EQ(a->route_head, second);
    EXPECT_EQ(route->prev_encap, second);
}

TEST_F(RouteUpdate, ARouteWithEncapLinksOfNobodyIsRefusedUnseen) {
    auto *a = rig::make_encap(1);
    route->next_encap = route;
    upd.encap_id = 1;
    EXPECT_EQ(update(1, upd), 0U);
    EXPECT_TRUE(has_text(errors(), "link_route_to_encap: invalid route:"));
    EXPECT_EQ(a->route_cnt, 0U);
    route->next_encap = nullptr;
}

TEST_F(RouteUpdate, AFailedUnlinkStillUnlinks) {
    auto *a = rig::make_encap(1);
    upd.encap_id = 1;
    update(1, upd);
    sim_arm_fault(SIM_OP_ROUTE_UPDATE, SIM_ANY_ACTION, 0, 1, 70);
    upd.encap_id = 0;
    EXPECT_EQ(update(1, upd), 70U);
    EXPECT_EQ(route->encap, nullptr);
    EXPECT_EQ(a->route_head, nullptr);
}

TEST_F(RouteUpdate, EncapFailuresAreHandedBack) {
    auto *a = rig::make_encap(1);
    EXPECT_EQ(ip6mc_encap_update(nullptr, 1, &upd), 22U);
    EXPECT_EQ(ip6mc_encap_update(a, 1, nullptr), 22U);
    EXPECT_EQ(ipmc_unlink_route_from_encap(nullptr, a), 22U);
    EXPECT_EQ(ipmc_unlink_route_from_encap(route, nullptr), 22U);
    errors();
    sim_arm_fault(SIM_OP_ENCAP, SIM_ANY_ACTION, 0, 1, 70);
    EXPECT_EQ(ip6mc_encap_platform_commit(a), 70U);
    auto said = errors();
    EXPECT_TRUE(has_text(said, "platform op ENCAP COMMIT failed on encap_entry id : 1 rc:"));
    EXPECT_TRUE(has_text(said, "ENCAP COMMIT failed handle error encap_entry id : 1 rc:"));
}

TEST_F(RouteUpdate, ForeignEgressCountsForTheTableOfTheReceiver) {
    ipv4mc_table_st *receiver = make_table(0xe0000009, 0x60000009, "receiver");
    uint32_t &count = receiver->route_counters.local_eg_cnt;
    ipv4mc_idb_st idb{};
    idb.table_id = receiver->tid;
    ip6mc_ex_eg_update_rte(route, 1);
    ip6mc_ex_eg_update_rte(route, 1);
    EXPECT_EQ(route->ex_eg_cnt, 2);
    ip6mc_ex_eg_update_rcvr_tbl(receiver, 1, route, &idb);
    EXPECT_EQ(count, 1U);
    ip6mc_ex_eg_update_rcvr_tbl(receiver, 3, route, &idb);
    EXPECT_EQ(count, 3U);
    ip6mc_ex_eg_update_rcvr_tbl(receiver, 2, route, &idb);
    ip6mc_ex_eg_update_rcvr_tbl(receiver, 0, route, &idb);
    EXPECT_EQ(count, 0U);
    ip6mc_ex_eg_update_rcvr_tbl(receiver, 4, route, &idb);
    ip6mc_ex_eg_update_rcvr_tbl(receiver, 1, route, nullptr);
    ip6mc_ex_eg_update_rcvr_tbl(nullptr, 1, route, &idb);
    idb.table_id = table->tid;  // not foreign
    ip6mc_ex_eg_update_rcvr_tbl(receiver, 1, route, &idb);
    EXPECT_EQ(count, 0U);
    ip6mc_ex_eg_update_rte(route, -1);
    EXPECT_EQ(route->ex_eg_cnt, 1);
}

TEST_F(RouteUpdate, ForeignEgressMovesTheCoreRoutesOfTheReceiver) {
    ipv4mc_table_st *core = rig::make_default_table();
    ipv4mc_table_st *receiver = make_table(0xe0000009, 0x60000009, "receiver");
    auto *core_route = add(core, sg(9));
    ip6mc_route_link_route_to_vrf(core_route, 0, receiver->tid, "core");
    ipv4mc_idb_st idb{};
    idb.table_id = receiver->tid;
    ip6mc_ex_eg_update_rcvr_tbl(receiver, 1, route, &idb);
    EXPECT_EQ(core_route->attributes, MRIB_ROUTE_DT);
    ip6mc_ex_eg_update_rcvr_tbl(receiver, 0, route, &idb);
    EXPECT_EQ(core_route->attributes, 0U);
}

TEST_F(RouteUpdate, TheLeavesOfAnEncapAreFollowedUntilOneHasNoInterface) {
    ipv4mc_table_st *receiver = make_table(0xe0000009, 0x60000009, "receiver");
    EXPECT_EQ(ipmc_ex_eg_upd_encap_rcvr_tbl(route, 1), 0U);
    auto *encap = rig::make_encap(1);
    route->encap = encap;
    EXPECT_EQ(ipmc_ex_eg_upd_encap_rcvr_tbl(route, 1), 0U);
    ipv4mc_encap_leaf_st leaves[3]{};
    ipv4mc_regdb_entry_st transports[3]{};
    for (int n = 0; n < 3; ++n) {
        leaves[n].regdb_entry = &transports[n];
        leaves[n].next_encap_leaf = n < 2 ? &leaves[n + 1] : nullptr;
    }
    encap->encap_leaf_head = leaves;
    join(add(table, sg(5)), {0, 50, 0, 0});
    ipv4mc_idb_st *idb = idb_of(50);
    ASSERT_NE(idb, nullptr);
    idb->table_id = receiver->tid;
    ipv4mc_table_st *before = std::exchange(idb->vtable, receiver->vtable);
    transports[0].ifhandle = 50;
    transports[2].ifhandle = 50;
    EXPECT_EQ(ipmc_ex_eg_upd_encap_rcvr_tbl(route, 1), 0U);
    EXPECT_EQ(receiver->route_counters.local_eg_cnt, 1U);
    ipv4mc_desc->idb_state = 1;
    forget();
    EXPECT_NE(ipmc_ex_eg_upd_encap_rcvr_tbl(route, 1), 0U);
    EXPECT_TRUE(has_text(errors(), "Cannot lookup IDB for "));
    ipv4mc_desc->idb_state = 2;
    idb->vtable = before;
    encap->encap_leaf_head = nullptr;
    route->encap = nullptr;
}
