#include "tests/lib/removal/rig.h"

using namespace bed;
using rig::has_text;

namespace {

class VrfLinks : public bed::Test {
  protected:
    VrfLinks() : core(rig::make_default_table()) { forget(); }
    ipv4mc_route_entry_st *core_route(uint32_t n, uint64_t attributes = 0) {
        return add(core, sg(n), attributes);
    }
    cerrno link(ipv4mc_route_entry_st *route, uint32_t index = 0) {
        return ip6mc_route_link_route_to_vrf(route, index, table->tid, "core");
    }
    uint32_t &local_egress() { return table->route_counters.local_eg_cnt; }
    static bool has_dt(const ipv4mc_route_entry_st *route) {
        return (route->attributes & MRIB_ROUTE_DT) != 0;
    }
    ipv4mc_table_st *core;
};

}  // namespace

TEST_F(VrfLinks, ALocalLinkPutsTheRouteAtTheHeadOfTheTablesList) {
    auto *a = core_route(1);
    auto *b = core_route(2);
    EXPECT_EQ(link(a), 0U);
    forget();
    EXPECT_EQ(link(b), 0U);
    EXPECT_EQ(table->memd_route_list, b);
    EXPECT_EQ(b->memd_next[0], a);
    EXPECT_EQ(a->memd_prev[0], b);
    EXPECT_EQ(b->vrf_table[0], table);
    EXPECT_EQ(b->vrf_table_id[0], table->tid);
    EXPECT_FALSE(has_dt(b));
    EXPECT_EQ(platform_calls(), texts{});
    EXPECT_TRUE(has_text(
        heard.lines(IPV4_DEBUG_ROUTE),
        "Added (2001:db8::1,ff3e::2/256) a:0x0 to memd list of LOCAL table 0xe0000005 [0]"));
    EXPECT_TRUE(has_text(
        heard.lines(IPV4_DEBUG_ROUTE),
        "Saved VRF LOCAL table (0xe0000005) link on core route core(DT unset now, prev unset)"));
}

TEST_F(VrfLinks, DtFollowsTheReceiversOfTheTable) {
    local_egress() = 1;
    auto *a = core_route(1);
    link(a);
    EXPECT_TRUE(has_dt(a));
    local_egress() = 0;
    table->route_counters.t_cnt = 1;
    auto *b = core_route(2, MRIB_ROUTE_TID_DEMAND);
    link(b);
    EXPECT_TRUE(has_dt(b));
    table->route_counters.t_cnt = 0;
    table->mdt_master_lc = 1;
    auto *c = core_route(3);
    link(c);
    EXPECT_TRUE(has_dt(c));
    auto *d = core_route(4, MRIB_ROUTE_TID_DEMAND | MRIB_ROUTE_DT);
    link(d);
    EXPECT_FALSE(has_dt(d));
}

TEST_F(VrfLinks, ASecondLinkOfARouteOnTheListIsReportedAndAnswers0) {
    auto *a = core_route(1);
    auto *b = core_route(2);
    link(a);
    link(b);
    forget();
    EXPECT_EQ(link(b), 0U);
    EXPECT_EQ(
        errors(),
        texts{"LOCAL TID route (2001:db8::1,ff3e::2/256) a:0x0 already present in memd list of "
              "0xe0000005 (0xe0000005) p:N n:Y!!!"});
    // The only one on its list has no neighbours.
    link(core_route(3), 0);
    ip6mc_route_unlink_route_from_vrf(a, 0, "core");
    ip6mc_route_unlink_route_from_vrf(b, 0, "core");
    auto *only = find(core, sg(3));
    forget();
    EXPECT_EQ(link(only), 0U);
    EXPECT_EQ(errors(), texts{"LOCAL TID route 2001:db8::1,ff3e::3 already has dep table "
                              "0xe0000005. new 0xe0000005"});
}

TEST_F(VrfLinks, AnEarlierLinkThatDoesNotFitIsRefused) {
    ipv4mc_table_st *other = make_table(0xe0000009, 0x60000009, "other");
    auto *a = core_route(1);
    a->vrf_table[0] = table;
    forget();
    EXPECT_EQ(link(a), 2U);
    EXPECT_TRUE(has_text(errors(), "LOCAL TID (2001:db8::1,ff3e::1) Not in memd list"));
    a->vrf_table[0] = other;
    EXPECT_EQ(link(a), 2U);
    EXPECT_TRUE(has_text(errors(), "LOCAL TID (2001:db8::1,ff3e::1) Different dep TIDs"));
    EXPECT_EQ(table->memd_route_list, nullptr);
    a->vrf_table[0] = nullptr;
}

TEST_F(VrfLinks, ARemoteLinkKeepsTheIdOfATableThatIsNotThere) {
    auto *a = core_route(1);
    forget();
    EXPECT_EQ(ip6mc_route_link_route_to_vrf(a, 1, 0xe0000077, "core"), 0U);
    EXPECT_EQ(a->vrf_table_id[1], 0xe0000077U);
    EXPECT_EQ(a->vrf_table[1], nullptr);
    EXPECT_EQ(a->attributes, MRIB_ROUTE_DT_REMOTE);
    EXPECT_EQ(ip6mc_table_lookup_by_tbl_id(0xe0000077), nullptr);
    EXPECT_EQ(
        heard.lines(IPV4_DEBUG_ROUTE)[0],
        "Saved VRF REMOTE table (0xe0000077) link on core route core(DT set now, prev unset)");
    ip6mc_route_unlink_route_from_vrf(a, 1, "core");
    EXPECT_EQ(a->attributes, 0U);
    EXPECT_EQ(a->vrf_table_id[1], 0U);
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_ROUTE),
                         "Cleared REMOTE VRF table (0xe0000077) link on core route core"));
    EXPECT_TRUE(errors().empty());
}

TEST_F(VrfLinks, ALocalLinkMakesTheTable) {
    auto *a = core_route(1);
    EXPECT_EQ(ip6mc_route_link_route_to_vrf(a, 0, 0xe0000078, "core"), 0U);
    ipv4mc_table_st *made = ip6mc_table_lookup_by_tbl_id(0xe0000078);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->memd_route_list, a);
}

TEST_F(VrfLinks, ATableThatCannotBeMadeFailsTheLink) {
    auto *a = core_route(1);
    sim_arm_fault(SIM_OP_TABLE, SIM_ANY_ACTION, 0, SIM_FOR_EVER, 70);
    forget();
    EXPECT_EQ(ip6mc_route_link_route_to_vrf(a, 0, 0xe0000079, "core"), 2U);
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_WRN),
                         "Failed to save VRF table (0xe0000079) link on core route core : "));
    EXPECT_EQ(a->vrf_table[0], nullptr);
    sim_clear_faults();
}

TEST_F(VrfLinks, UnlinkingMendsTheListAndClearsTheFlag) {
    auto *a = core_route(1);
    auto *b = core_route(2);
    auto *c = core_route(3);
    local_egress() = 1;
    for (auto *route : {a, b, c})
        link(route);
    forget();
    ip6mc_route_unlink_route_from_vrf(b, 0, "core");
    EXPECT_EQ(c->memd_next[0], a);
    EXPECT_EQ(a->memd_prev[0], c);
    EXPECT_EQ(b->memd_next[0], nullptr);
    EXPECT_EQ(b->memd_prev[0], nullptr);
    EXPECT_EQ(b->vrf_table[0], nullptr);
    EXPECT_FALSE(has_dt(b));
    EXPECT_TRUE(
        has_text(heard.lines(IPV4_DEBUG_ROUTE), "from memd list of vtable: 0xe0000005 [0] memd Y"));
    ip6mc_route_unlink_route_from_vrf(c, 0, "core");
    EXPECT_EQ(table->memd_route_list, a);
    ip6mc_route_unlink_route_from_vrf(a, 0, "core");
    EXPECT_EQ(table->memd_route_list, nullptr);
}

TEST_F(VrfLinks, TheFirstReceiverSetsTheFlagAndTheLastClearsIt) {
    auto *a = core_route(1);
    auto *sticky = core_route(2, MRIB_ROUTE_TID_STICKY);
    link(a);
    link(sticky);
    local_egress() = 1;
    forget();
    ip6mc_tbl_update_memd_routes(table, 1);
    EXPECT_TRUE(has_dt(a));
    EXPECT_TRUE(has_dt(sticky));
    EXPECT_EQ(platform_calls(), (texts{"route 8 new 0 -> 0", "route 8 new 0 -> 0"}));
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_ROUTE),
                         "Set DT flag on 0xe0800000:(2001:db8::1,ff3e::1) new flag:0x100000 for "
                         "cust table 0xe0000005"));
    ip6mc_tbl_update_memd_routes(table, 0);  // there is a receiver still
    EXPECT_TRUE(has_dt(a));
    local_egress() = 0;
    table->route_counters.t_cnt = 1;
    ip6mc_tbl_update_memd_routes(table, 0);
    EXPECT_TRUE(has_dt(a));
    table->route_counters.t_cnt = 0;
    table->mdt_master_lc = 1;
    forget();
    EXPECT_EQ(ip6mc_tbl_update_memd_routes(table, 0), 0U);
    EXPECT_FALSE(has_dt(a));
    EXPECT_TRUE(has_dt(sticky));
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_ROUTE),
                         "UNset DT flag on 0xe0800000:(2001:db8::1,ff3e::1) new flag:0x0 for cust "
                         "table 0xe0000005"));
    EXPECT_EQ(platform_calls(), texts{"route 8 new 0 -> 0"});
    table->mdt_master_lc = 0;
    ip6mc_tbl_update_memd_routes(table, 0);
    EXPECT_FALSE(has_dt(sticky));
}

TEST_F(VrfLinks, TheDefaultTableIsPassedOver) {
    auto *a = core_route(1);
    core->memd_route_list = a;
    a->vrf_table[0] = core;
    forget();
    EXPECT_EQ(ip6mc_tbl_update_memd_routes(core, 1), 0U);
    EXPECT_FALSE(has_dt(a));
    core->memd_route_list = nullptr;
    a->vrf_table[0] = nullptr;
}

TEST_F(VrfLinks, DemandWaitsForAReceiverOnTheMaster) {
    auto *a = core_route(1, MRIB_ROUTE_TID_DEMAND);
    table->mdt_master_lc = 1;
    link(a);
    EXPECT_EQ(ipmc_route_update_DT_flag(table, a, 1, 1), 0U);
    EXPECT_FALSE(has_dt(a));
    local_egress() = 1;
    EXPECT_EQ(ipmc_route_update_DT_flag(table, a, 1, 0), 0U);
    EXPECT_TRUE(has_dt(a));
    forget();
    EXPECT_EQ(ipmc_route_update_DT_flag(table, a, 1, 1), 0U);  // set already
    EXPECT_EQ(platform_calls(), texts{});
    EXPECT_TRUE(heard.lines(IPV4_DEBUG_ROUTE).empty());
}

TEST_F(VrfLinks, AFailedCommitLeavesTheFlagClearInBothDirections) {
    auto *a = core_route(1);
    link(a);
    sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_COMMIT, 0, 2, 70);
    forget();
    EXPECT_EQ(ipmc_route_update_DT_flag(table, a, 1, 1), 0U);
    EXPECT_FALSE(has_dt(a));
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_WRN),
                         "Failed to set DT flag on 0xe0800000:(2001:db8::1,ff3e::1) flag: 0x0for "
                         "cust table 0xe0000005 : "));
    a->attributes |= MRIB_ROUTE_DT;
    EXPECT_EQ(ipmc_route_update_DT_flag(table, a, 0, 1), 0U);
    EXPECT_FALSE(has_dt(a));
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_WRN), "Failed to unset DT flag on "));
    sim_log_clear();
    ipmc_route_update_DT_flag(table, a, 1, 1);
    EXPECT_EQ(sim_log_at(0)->old_attributes, 0U);
    EXPECT_EQ(sim_log_at(0)->attributes, MRIB_ROUTE_DT);
}

TEST_F(VrfLinks, EncapOutputsKeepHeadAndTail) {
    auto *route = add(table, sg(1));
    ipv4mc_intf_entry_st *e[3];
    for (ifhtype ifh = 0; ifh < 3; ++ifh)
        e[ifh] = join(route, {0, ifh + 1, 0, 0});
    EXPECT_EQ(ip6mc_route_encap_ole_empty(route), 1);
    for (auto *entry : e)
        ip6mc_route_encap_ole_link(entry);
    ip6mc_route_encap_ole_link(e[1]);
    EXPECT_EQ(route->encap_ole_head, e[2]);
    EXPECT_EQ(route->encap_ole_tail, e[0]);
    EXPECT_EQ(e[2]->list_next, e[1]);
    EXPECT_EQ(e[0]->list_prev, e[1]);
    EXPECT_EQ(e[0]->intf_flags & IPV4MC_INTF_FLAG_ENCAP_OLE, IPV4MC_INTF_FLAG_ENCAP_OLE);
    ip6mc_route_encap_ole_unlink(e[0]);
    ip6mc_route_encap_ole_unlink(e[0]);
    EXPECT_EQ(route->encap_ole_tail, e[1]);
    EXPECT_EQ(e[1]->list_next, nullptr);
    ip6mc_route_encap_ole_unlink(e[2]);
    EXPECT_EQ(route->encap_ole_head, e[1]);
    EXPECT_EQ(e[1]->list_prev, nullptr);
    EXPECT_EQ(ip6mc_route_encap_ole_empty(route), 0);
    ip6mc_route_encap_ole_unlink(e[1]);
    EXPECT_EQ(ip6mc_route_encap_ole_empty(route), 1);
    EXPECT_EQ(route->encap_ole_head, nullptr);
    // CLEAR takes an output off while its neighbours are still there.
    for (auto *entry : e)
        ip6mc_route_encap_ole_link(entry);
    EXPECT_EQ(rig::clear(table, route), 0U);
    EXPECT_EQ(route->encap_ole_head, nullptr);
}

TEST_F(VrfLinks, AnInterfaceAlwaysHasAName) {
    char buffer[IPV4MC_IDB_NAME_SIZE];
    EXPECT_STREQ(ip6mc_mlib_interface_name(0x77, buffer), "Nf0x00000077");
    join(add(table, sg(1)), {0, 0x55, 0, 0});
    EXPECT_STREQ(ip6mc_mlib_interface_name(0x55, buffer), idb_of(0x55)->name);
    ipv4mc_desc->idb_state = 1;
    const char *name = ip6mc_mlib_interface_name(0x55, buffer);
    EXPECT_EQ(name, buffer);
    EXPECT_STREQ(name, "Er0x00000055");
    EXPECT_TRUE(has_text(
        errors(), "Cannot lookup IDB for handle 0x55: " + std::string(cerr_strerror(9)) + "\n"));
    ipv4mc_desc->idb_state = 2;
}
