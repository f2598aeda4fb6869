// What a table's end does with routes and signals that its bulk removal leaves.
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "tests/kit/window_check.h"
#include "tests/lib/removal/rig.h"

using namespace rig;

namespace {

class TableEnd : public SharedOrNot {
  protected:
    void end_table() {
        ipv4mc_table_st *given = table;
        EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_DELETE, 0, 0, nullptr, &given, 0), 0U);
        EXPECT_EQ(given, nullptr);
    }
    ipv4mc_route_entry_st *post(ifhtype ifh) {
        const auto k = bed::sg(1);
        ipv4mc_route_entry_st *route = nullptr;
        EXPECT_EQ(ip6mc_signal_add_mutex(table, &k.source, &k.group, ifh, &route, nullptr, nullptr),
                  0U);
        return route;
    }
};

}  // namespace

TEST_P(TableEnd, TakesARouteWithItWhoseInterfaceThePlatformKeeps) {
    // Whatever the first table left in the window stays for the second.
    bed::make_table(0xe0000007, 0x60000008, "blue");
    end_table();
    const auto before = kit::live_blocks();
    table = bed::make_table(0xe0000005, 0x60000006, "red");
    auto *route = bed::add(table, bed::sg(1));
    bed::join(route, {.ifh = 1});
    bed::join(route, {.ifh = 2});
    bed::add(table, bed::star_g("ff3e::1"));
    sim_arm_fault(SIM_OP_INTF, IPV4MC_ACTION_DELETE, 0, 1, EIO);
    forget();
    end_table();
    EXPECT_TRUE(has_text(errors(), "Cannot delete all routes & signals from Table"));
    EXPECT_EQ(bed::idb_of(1), nullptr);
    EXPECT_EQ(bed::idb_of(2), nullptr);
    EXPECT_EQ(kit::live_blocks(), before);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
}

TEST_P(TableEnd, TakesSignalRoutesWithSeveralInterfacesWithIt) {
    bed::make_table(0xe0000007, 0x60000008, "blue");
    end_table();
    const auto before = kit::live_blocks();
    table = bed::make_table(0xe0000005, 0x60000006, "red");
    post(1);
    post(2);
    post(3);
    EXPECT_EQ(header()->changed_route_count, 1U);
    end_table();
    EXPECT_EQ(header()->changed_route_head, nullptr);
    EXPECT_EQ(header()->changed_route_count, 0U);
    EXPECT_EQ(kit::live_blocks(), before);
}

TEST_P(TableEnd, ClearingLeavesThemAsBefore) {
    ipv4mc_route_entry_st *signal = post(1);
    EXPECT_EQ(post(2), signal);
    ipv4mc_table_st *given = table;
    EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_CLEAR, 0, 0, nullptr, &given, 0), 0U);
    EXPECT_EQ(table->signal_route_count, 1U);
    EXPECT_EQ(header()->changed_route_head, signal);
}

TEST_P(TableEnd, ClearingCountsTheReceiversOfARouteThatThePlatformKeeps) {
    const fed_customer customer(make_default_table(), table);
    ipv4mc_route_update_st update{};
    update.t_bit = 1;
    update.t_count = 1;
    EXPECT_EQ(ip6mc_route_update(customer.route, IPV4MC_ROUTE_UPDATE_T_BIT, &update), 0U);
    ipv4mc_route_entry_st *gone = bed::add(table, bed::sg(2));
    EXPECT_EQ(ip6mc_route_update(gone, IPV4MC_ROUTE_UPDATE_T_BIT, &update), 0U);
    table->route_counters.route_clears = 5;
    sim_arm_fault(SIM_OP_INTF, IPV4MC_ACTION_DELETE, 1, 1, EIO);
    ipv4mc_table_st *given = table;
    EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_CLEAR, 0, 0, nullptr, &given, 0), 0U);
    EXPECT_EQ(bed::find(table, bed::sg(2)), nullptr);
    ASSERT_EQ(bed::find(table, bed::sg(1)), customer.route);
    EXPECT_EQ(customer.route->intf_local_EG_cnt, 1U);
    EXPECT_EQ(table->route_counters.local_eg_cnt, 1U);
    EXPECT_EQ(table->route_counters.t_cnt, 1U);
    EXPECT_EQ(table->route_counters.route_clears, 0U);
    EXPECT_EQ(erase(table, customer.route), 0U);
    EXPECT_EQ(table->route_counters.local_eg_cnt, 0U);
}

TEST_P(TableEnd, ClearingCountsTheReceiversOfARouteThatIsNotCommittedYet) {
    const auto k = bed::sg(1);
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    ASSERT_EQ(ip6mc_route_operation(IPV4MC_ACTION_CREATE, table, &k.source, &k.group, k.length,
                                    nullptr, &route, 0, 0, &is_new),
              0U);
    route->intf_local_EG_cnt = 2;
    table->route_counters.local_eg_cnt = 2;
    ipv4mc_table_st *given = table;
    EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_CLEAR, 0, 0, nullptr, &given, 0), 0U);
    EXPECT_EQ(table->route_counters.local_eg_cnt, 2U);
    end_table();
}

INSTANTIATE_TEST_SUITE_P(Tries, TableEnd, testing::Values(0, 1));
