#include "tests/lib/removal/rig.h"

using namespace bed;
using rig::has_text;

namespace {

class RouteClear : public bed::Test {
  protected:
    RouteClear() : core(rig::make_default_table()) { forget(); }
    ipv4mc_table_st *core;
    char text[8] = "a text";
};

}  // namespace

TEST_F(RouteClear, TheRouteStaysWithItsKeyAndLosesItsInterfaces) {
    auto *route = add(table, sg(1), MRIB_ROUTE_CLEAR_ATTR | 1);
    int is_new = 0;
    operate(IPV4MC_ACTION_RATE_ENABLE, table, sg(1), &route, &is_new);
    auto *rate = route->rate;
    for (ifhtype ifh = 1; ifh <= 3; ++ifh)
        join(route, {0, ifh, 0, 0}, MRIB_INTF_COUNTED);
    route->counted_intf_cnt = 2;
    route->irmi_cnt = 4;
    for (auto &word : route->route_counters)
        word = 5;
    route->clear_u32 = route->clear_u16 = route->clear_u8 = 5;
    for (auto &word : route->acct_stats.words64)
        word = 5;
    for (auto &word : route->acct_stats.words32)
        word = 5;
    forget();
    EXPECT_EQ(rig::clear(table, route), 0U);
    EXPECT_EQ(find(table, sg(1)), route);
    EXPECT_EQ(route->intf_list, nullptr);
    EXPECT_EQ(check_interfaces(route), "");
    EXPECT_EQ(route->counted_intf_cnt, 0);  // never below
    EXPECT_EQ(route->irmi_cnt, 4);
    EXPECT_EQ(route->attributes, 1U);
    for (auto word : route->route_counters)
        EXPECT_EQ(word, 0U);
    for (auto word : route->acct_stats.words64)
        EXPECT_EQ(word, 0U);
    for (auto word : route->acct_stats.words32)
        EXPECT_EQ(word, 0U);
    EXPECT_EQ(route->clear_u32 + route->clear_u16 + route->clear_u8, 0U);
    EXPECT_EQ(route->rate, rate);
    EXPECT_EQ(table->rate_route_count, 1);
    EXPECT_EQ(table->route_counters.route_clears, 1U);
    EXPECT_EQ(rig::route_calls(), (texts{"intf 4 new 0 -> 0", "intf 4 new 0 -> 0",
                                         "intf 4 new 0 -> 0", "route 6 new 0 -> 0"}));
    EXPECT_TRUE(errors().empty());
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_DEV),
                         "0xe0000005 [0x0] - 0x0, attr 0x2000001, p:N n:N d:N h:A, rp:N "
                         "rn:N rd:Nr h:A ep:N en:N"));
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_ROUTE), "Success"));
}

TEST_F(RouteClear, AFailingPlatformIsReportedAndNotMore) {
    auto *route = add(table, sg(1));
    sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_CLEAR, 0, 1, 70);
    forget();
    EXPECT_EQ(rig::clear(table, route), 0U);
    EXPECT_TRUE(has_text(
        errors(), "Failed to clear route  (2001:db8::1,ff3e::1/256) action 6 CLEAR Error 70 "));
}

TEST_F(RouteClear, AnInterfaceThatThePlatformKeepsIsForcedOut) {
    auto *route = add(table, sg(1));
    for (ifhtype ifh = 1; ifh <= 3; ++ifh)
        join(route, {0, ifh, 0, 0}, MRIB_INTF_FORWARD);
    sim_arm_fault(SIM_OP_INTF, IPV4MC_ACTION_DELETE, 1, 1, 71);
    forget();
    EXPECT_EQ(rig::clear(table, route), 0U);
    EXPECT_TRUE(has_text(
        errors(), "Failed to delete 0x2 (attr:0x2) from route 0xe0000005:2001:db8::1,ff3e::1"));
    EXPECT_EQ(route->intf_list, nullptr);
    EXPECT_EQ(check_interfaces(route), "");
    EXPECT_EQ(rig::header()->alloc_count[IPMC_SHMWIN_ALLOC_INTF], 0U);
}

TEST_F(RouteClear, MdtCountersWrapBelowZeroWithAReport) {
    auto *route = add(table, sg(1));
    join(route, {0, 1, 0, 0},
         MRIB_INTF_MI | MRIB_INTF_LMI | MRIB_INTF_TMI | MRIB_INTF_IRMI | MRIB_INTF_TRMI);
    route->lmi_cnt = 3;
    forget();
    ip6mc_route_clear(table, route, text);
    EXPECT_EQ(route->mi_cnt, 255);
    EXPECT_EQ(route->lmi_cnt, 2);
    EXPECT_EQ(route->tmi_cnt, 255);
    EXPECT_EQ(route->trmi_cnt, 255);
    EXPECT_EQ(route->irmi_cnt, 0);
    auto said = errors();
    EXPECT_TRUE(has_text(said, "Decrement mi_cnt on a text, Ha0x1, int 0x1 current mi_cnt 0"));
    EXPECT_TRUE(has_text(said, "Decrement tmi_cnt on a text, Ha0x1, int 0x1 current tmi_cnt 0"));
    EXPECT_TRUE(has_text(said, "Decrement trmi_cnt on a text, Ha0x1, int 0x1 current trmi_cnt 0"));
    EXPECT_FALSE(has_text(said, "lmi_cnt"));
    texts kinds;
    for (const auto &line : heard.lines(IPV4_DEBUG_ROUTE)) {
        const auto at = line.find("of kind ");
        if (at != std::string::npos)
            kinds.push_back(line.substr(at + 8, 1));
    }
    EXPECT_EQ(kinds, (texts{"1", "2", "3", "4", "6"}));  // not the order of DELETE
}

TEST_F(RouteClear, AnLmiCounterWrapsAsTheOthers) {
    auto *route = add(table, sg(1));
    join(route, {0, 1, 0, 0}, MRIB_INTF_LMI);
    forget();
    ip6mc_route_clear(table, route, text);
    EXPECT_EQ(route->lmi_cnt, 255);
    EXPECT_EQ(errors()[0], "Decrement lmi_cnt on a text, Ha0x1, int 0x1 current lmi_cnt 0");
}

TEST_F(RouteClear, WhatCannotBeForcedOutIsToldAndTheWalkGoesOn) {
    auto *route = add(table, sg(1));
    join(route, {0, 1, 0, 0});
    auto *head = join(route, {0, 2, 0, 0});
    // The head of a list has nothing before it.
    head->prev_intf = route->intf_list->next_intf;
    sim_arm_fault(SIM_OP_INTF, IPV4MC_ACTION_DELETE, 0, 1, 71);
    forget();
    ip6mc_route_clear(table, route, text);
    EXPECT_TRUE(has_text(
        errors(), "Unable to remove  existing Nf0x00000002 from (2001:db8::1,ff3e::1/256): " +
                      std::string(cerr_strerror(22))));
    ASSERT_EQ(route->intf_list, head);
    EXPECT_EQ(head->next_intf, nullptr);
    head->prev_intf = nullptr;
    // Its interface has let it go already, and is gone.
    sim_arm_fault(SIM_OP_INTF, IPV4MC_ACTION_DELETE, 0, 1, 71);
    ipv4mc_desc->idb_state = 1;
    forget();
    ip6mc_route_clear(table, route, text);
    ipv4mc_desc->idb_state = 2;
    EXPECT_TRUE(
        has_text(errors(), "Unable to remove (2001:db8::1,ff3e::1/256) from IDB for existing "));
    EXPECT_EQ(route->intf_list, nullptr);
    EXPECT_EQ(rig::header()->alloc_count[IPMC_SHMWIN_ALLOC_INTF], 0U);
}

TEST_F(RouteClear, ATransportThatCannotBeUnboundIsTold) {
    auto *route = add(core, sg(1));
    route->regdb_entry = rig::make_transport();
    forget();
    ip6mc_route_clear(core, route, text);
    const auto said = errors();
    route->regdb_entry = nullptr;
    if (said.empty())
        GTEST_SKIP() << "transports are built: their own tests make them fail";
    EXPECT_TRUE(has_text(said, "Route-Clear: Regdb-Unlink COMMIT failed ("));
    EXPECT_TRUE(has_text(said, ") for GRE: (2001:db8::1, ff3e::1)"));
}

TEST_F(RouteClear, AnInterfaceIsClearedOnlyWithAllThatItNeeds) {
    auto *route = add(table, sg(1));
    auto *entry = join(route, {0, 1, 0, 0}, MRIB_INTF_COUNTED);
    route->counted_intf_cnt = 5;
    ipv4mc_shmwin_hdr_st *hdr = rig::header();
    ip6mc_intf_clear(nullptr, table, route, entry, text);
    ip6mc_intf_clear(hdr, nullptr, route, entry, text);
    ip6mc_intf_clear(hdr, table, nullptr, entry, text);
    ip6mc_intf_clear(hdr, table, route, nullptr, text);
    EXPECT_EQ(route->counted_intf_cnt, 5);
    ip6mc_intf_clear(hdr, table, route, entry, text);
    EXPECT_EQ(route->counted_intf_cnt, 4);
    EXPECT_EQ(route->intf_list, entry);
}

TEST_F(RouteClear, ARouteWithoutATableIsClearedByForce) {
    auto *route = add(table, sg(1));
    join(route, {0, 1, 0, 0}, MRIB_INTF_COUNTED);
    route->counted_intf_cnt = 1;
    ip6mc_route_clear(nullptr, route, text);
    EXPECT_EQ(route->intf_list, nullptr);
    EXPECT_EQ(route->counted_intf_cnt, 1);
    EXPECT_EQ(table->route_counters.route_clears, 0U);
}

TEST_F(RouteClear, EgressGoesWithoutProgrammingTheEncap) {
    auto *route = add(table, sg(1));
    join(route, {0, 1, 0, 0}, MRIB_INTF_EG);
    route->intf_local_EG_cnt = 1;
    route->ex_eg_cnt = 1;
    table->route_counters.local_eg_cnt = 1;
    auto *encap = rig::make_encap(80);
    ipv4mc_route_update_st link{};
    link.encap_id = 80;
    ip6mc_route_update(route, 1, &link);
    encap->ip_lkp = 1;
    forget();
    ip6mc_intf_clear(rig::header(), table, route, route->intf_list, text);
    EXPECT_EQ(route->intf_local_EG_cnt, 0);
    EXPECT_EQ(route->ex_eg_cnt, 0);
    EXPECT_EQ(table->route_counters.local_eg_cnt, 0U);
    EXPECT_EQ(encap->intf_local_EG_cnt, 0U);
    EXPECT_EQ(encap->ip_lkp, 0);
    const auto calls = platform_calls();
    EXPECT_TRUE(has_text(calls, "encap_update 1"));
    EXPECT_FALSE(has_text(calls, "encap 8"));
    // Other than DELETE it tells of the encap's count only.
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE),
              texts{"2001:db8::1,ff3e::1/256: Dec local EG cnt (0) on EID 0x50"});
}

TEST_F(RouteClear, TheLastReceiverOfACustomerClearsTheFlagOfItsCoreRoutes) {
    const auto [fed, route] = rig::fed_customer(core, table);
    forget();
    EXPECT_EQ(rig::clear(table, route), 0U);
    EXPECT_EQ(table->route_counters.local_eg_cnt, 0U);
    EXPECT_EQ(fed->attributes, 0U);
    // Other than in DELETE the core route comes ahead of the interface.
    EXPECT_EQ(rig::route_calls(), (texts{"intf 4 new 0 -> 0", "route 8 new 0 -> 0",
                                         "intf 4 new 0 -> 0", "route 6 new 0 -> 0"}));
}

TEST_F(RouteClear, ACustomerWithVeryManyCoreRoutesIsClearedTheSameWay) {
    constexpr uint32_t many = 600;
    for (uint32_t n = 0; n < many; ++n)
        ip6mc_route_link_route_to_vrf(add(core, sg(1000 + n)), 0, table->tid, "core");
    auto *route = add(table, sg(1));
    join(route, {0, 1, 0, 0}, MRIB_INTF_EG);
    route->intf_local_EG_cnt = 1;
    table->route_counters.local_eg_cnt = 1;
    ip6mc_tbl_update_memd_routes(table, 1);
    EXPECT_EQ(rig::clear(table, route), 0U);
    EXPECT_EQ(route->intf_list, nullptr);
    EXPECT_EQ(table->route_counters.local_eg_cnt, 0U);
    uint32_t count = 0;
    for (auto *fed = table->memd_route_list; fed != nullptr; fed = fed->memd_next[0]) {
        EXPECT_EQ(fed->attributes, 0U);
        ++count;
    }
    EXPECT_EQ(count, many);
}

TEST_F(RouteClear, ListsAndTheirMarksGo) {
    auto *route = add(table, sg(1), MRIB_ROUTE_MT | MRIB_ROUTE_MOFRR_UPD);
    auto &heads = rig::header()->route_list_heads;
    heads[IPMC_ROUTE_LIST_MDT_CAND] = heads[IPMC_ROUTE_LIST_MT_UPD] =
        heads[IPMC_ROUTE_LIST_MOFRR_UPD] = route;
    forget();
    ip6mc_route_clear(table, route, text);
    for (auto *head : heads)
        EXPECT_EQ(head, nullptr);
    EXPECT_EQ(route->attributes, 0U);
    EXPECT_EQ(
        errors(),
        texts{"0xe0000005(2001:db8::1,ff3e::1) : Removing from cand list but boolean false !!"});
    EXPECT_TRUE(has_text(
        heard.lines(IPV4_DEBUG_DEV),
        "0xe0000005: Removed (2001:db8::1,ff3e::1/256) a:0x40010000 from mdt candidate list"));
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_DEV), "a:0x0 from MoFRR upd list"));
    heads[IPMC_ROUTE_LIST_MDT_CAND] = route;
    route->mdt_candidate = 1;
    forget();
    ip6mc_route_clear(table, route, text);
    EXPECT_EQ(route->mdt_candidate, 0);
    EXPECT_TRUE(errors().empty());
}

TEST_F(RouteClear, ACoreRouteLosesItsVrfLinksAndHandle) {
    auto *route = add(core, sg(1), MRIB_ROUTE_TID_DEMAND | MRIB_ROUTE_MH);
    table->route_counters.t_cnt = 1;
    ip6mc_route_link_route_to_vrf(route, 0, table->tid, "x");
    ip6mc_route_link_route_to_vrf(route, 1, 0xe0000055, "x");
    ASSERT_EQ(route->attributes & (MRIB_ROUTE_DT | MRIB_ROUTE_DT_REMOTE),
              MRIB_ROUTE_DT | MRIB_ROUTE_DT_REMOTE);
    forget();
    EXPECT_EQ(rig::clear(core, route), 0U);
    EXPECT_EQ(route->attributes, 0U);
    EXPECT_EQ(route->vrf_table[0], nullptr);
    EXPECT_EQ(route->vrf_table_id[0] | route->vrf_table_id[1], 0U);
    EXPECT_EQ(table->memd_route_list, nullptr);
    EXPECT_TRUE(heard.messages().empty());
}

TEST_F(RouteClear, ALocalMemdLinkThatIsLeftIsAProblemAndARemoteOneIsNot) {
    auto *a = add(core, sg(1), MRIB_ROUTE_TID_DEMAND);
    auto *b = add(core, sg(2), MRIB_ROUTE_TID_DEMAND);
    ip6mc_route_link_route_to_vrf(a, 0, table->tid, "a");
    ip6mc_route_link_route_to_vrf(b, 0, table->tid, "b");
    b->attributes = 0;
    forget();
    EXPECT_EQ(rig::clear(core, b), 0U);
    const std::string text_of_b =
        "Action 0x6 (2001:db8::1,ff3e::2/256) a:0x0 in memd of 0xe0000005 (p:N,n:Y) "
        "0xe0000005/0x0!!!";
    EXPECT_EQ(errors(), texts{text_of_b});
    ASSERT_EQ(heard.messages().size(), 1U);
    EXPECT_NE(heard.messages()[0].line.find(text_of_b + " !problem!"), std::string::npos);
    b->memd_next[0] = nullptr;
    table->memd_route_list = a;
    a->memd_prev[0] = nullptr;
    b->vrf_table[0] = nullptr;
    b->memd_next[1] = a;
    forget();
    EXPECT_EQ(rig::clear(core, b), 0U);
    EXPECT_TRUE(errors().empty());
    b->memd_next[1] = nullptr;
}

TEST_F(RouteClear, EncapRpfIdAndTBitGo) {
    auto *route = add(table, sg(1), MRIB_ROUTE_ENCAP | MRIB_ROUTE_RPF_ID);
    auto *encap = rig::make_encap(81);
    ipv4mc_route_update_st upd{};
    upd.encap_id = 81;
    ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_ENCAP, &upd);
    upd.rpf_id = 5;
    ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_RPF_ID, &upd);
    upd.t_bit = 1;
    ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_T_BIT, &upd);
    forget();
    ip6mc_route_clear(table, route, text);
    EXPECT_EQ(route->encap, nullptr);
    EXPECT_EQ(encap->route_cnt, 0U);
    EXPECT_EQ(route->rpf_id, 0U);
    EXPECT_EQ(route->t_bit, 0);
    EXPECT_EQ(route->attributes, 0U);
    texts updates;
    for (const auto &call : platform_calls()) {
        if (call.find("route_update") == 0)
            updates.push_back(call);
    }
    EXPECT_EQ(updates, (texts{"route_update 1 new 0 -> 0", "route_update 8 new 0 -> 0",
                              "route_update 2 new 0 -> 0"}));
}

TEST_F(RouteClear, RefusedUpdatesAreReportedAndTheBitsGoAllTheSame) {
    auto *route = add(table, sg(1), MRIB_ROUTE_RPF_ID);
    auto *encap = rig::make_encap(82);
    ipv4mc_route_update_st upd{};
    upd.encap_id = 82;
    upd.t_bit = 1;
    ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_ENCAP, &upd);
    ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_T_BIT, &upd);
    sim_arm_fault(SIM_OP_ROUTE_UPDATE, SIM_ANY_ACTION, 0, 3, 70);
    forget();
    ip6mc_route_clear(table, route, text);
    auto said = errors();
    EXPECT_TRUE(has_text(said, "Failed to clear encapid on route a text - "));
    EXPECT_TRUE(has_text(said, "Failed to clear rpf id on route a text - "));
    EXPECT_TRUE(has_text(said, "Failed to clear T-bit on route a text - "));
    EXPECT_EQ(route->attributes, 0U);
    EXPECT_EQ(encap->route_head, nullptr);
    EXPECT_EQ(route->t_bit, 1);
}

TEST_F(RouteClear, AClearedRouteCanBeFilledAgainAndDeleted) {
    auto *route = add(table, sg(1));
    join(route, {0, 1, 0, 0});
    EXPECT_EQ(rig::clear(table, route), 0U);
    join(route, {0, 2, 0, 0});
    EXPECT_EQ(commit(table, route, 0), 0U);
    EXPECT_EQ(route->intf_list->ifh, 2U);
    EXPECT_EQ(rig::erase(table, route), 0U);
}

TEST_F(RouteClear, TheEventHistoryIsGoneAndItsFieldKeepsItsValue) {
    auto *route = add(table, sg(1));
    mfwd_route_entry_event_add_msg(route, 1);
    cbuf *history = route->event_history;
    ASSERT_EQ(cbuf_count(history), 1U);
    EXPECT_EQ(rig::clear(table, route), 0U);
    EXPECT_EQ(route->event_history, history);
    EXPECT_EQ(cbuf_count(history), 0U);
    mfwd_route_entry_event_add_msg(route, 2);  // meets a handle whose ring is gone
    EXPECT_EQ(rig::erase(table, route), 0U);
}

TEST_F(RouteClear, FreeingNothingIsRefusedAndALinkedLeafIsKept) {
    forget();
    EXPECT_EQ(ip6mc_route_free(nullptr), 22U);
    EXPECT_EQ(errors(), texts{"Null route_entry"});
    auto *linked = add(table, sg(1));
    EXPECT_NE(ip6mc_route_free(linked), 0U);
    char where[64];
    snprintf(where, sizeof(where),
             "Cannot free route %p from shared memory : ", static_cast<void *>(linked));
    EXPECT_TRUE(has_text(errors(), where));
    auto *detached = create(table, sg(2));
    int is_new = 0;
    operate(IPV4MC_ACTION_RATE_ENABLE, table, sg(2), &detached, &is_new);
    const uint32_t before = rig::header()->alloc_count[IPMC_SHMWIN_ALLOC_ROUTE];
    EXPECT_EQ(ip6mc_route_free(detached), 0U);
    EXPECT_EQ(rig::header()->alloc_count[IPMC_SHMWIN_ALLOC_ROUTE], before - 2);
}
