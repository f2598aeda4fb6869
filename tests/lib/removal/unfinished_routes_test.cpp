// Routes that were made and never committed end with their table, and with the next owner's start.
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "services/events/event_manager.h"
#include "tests/kit/child.h"
#include "tests/kit/window_check.h"
#include "tests/lib/removal/rig.h"

using namespace bed;

namespace {

// A detached route with interfaces, one of them local egress, and a rate record, on its encap.
void leave_unfinished(ipv4mc_table_st *table, uint32_t number) {
    table->vtable->rate_per_route = 1;
    ipv4mc_route_entry_st *route = create(table, sg(number));
    join(route, {IPV4MC_INTF_ORDINARY, 0x10, 0, 0});
    join(route, {IPV4MC_INTF_ORDINARY, 0x11, 0, 0}, MRIB_INTF_EG);
    route->intf_local_EG_cnt = 1;
    ++table->route_counters.local_eg_cnt;
    ipv4mc_route_update_st update{};
    update.encap_id = 7;
    EXPECT_EQ(ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_ENCAP, &update), 0U);
}

void start_errors() {
    static event_manager_t *manager = nullptr;
    if (manager == nullptr) {
        event_manager_create(&manager);
    }
    ipmc_platform_err_handler_init(manager);
}

int die_with_unfinished_routes(const kit::post &parent) {
    platform_info_t info{};
    platform_info_defaults(&info);
    info.router_type = PLATFORM_ROUTER_TYPE_ASYNC_A;
    platform_info_set(&info);
    kit::library owner;
    start_interfaces();
    start_errors();
    ipv4mc_table_st *table = make_table(5, 6, "red");
    rig::make_encap(7);
    add(table, sg(1));
    join(add(table, sg(2)), {IPV4MC_INTF_ORDINARY, 0x10, 0, 0});
    leave_unfinished(table, 3);
    leave_unfinished(table, 4);
    sim_arm_fault(SIM_OP_INTF, IPV4MC_ACTION_COMMIT, 0, 1, EIO);
    ipv4mc_route_entry_st *failed = create(table, sg(5));
    ipv4mc_intf_entry_st *entry = nullptr;
    intf_operate(IPV4MC_ACTION_CREATE, failed, {IPV4MC_INTF_ORDINARY, 0x12, 0, 0}, &entry, 1);
    intf_operate(IPV4MC_ACTION_COMMIT, failed, {IPV4MC_INTF_ORDINARY, 0x12, 0, 0}, &entry, 1);
    EXPECT_EQ(failed->err, 1);
    EXPECT_EQ(kit::window_faults(), std::vector<std::string>{});
    EXPECT_EQ(kit::window_leftovers().size(), 4U);  // three routes and a retry element
    EXPECT_EQ(table->route_counters.local_eg_cnt, 2U);
    if (testing::Test::HasFailure()) {
        return 1;  // unheard, which fails the test
    }
    parent.tell();
    parent.hear();
    return 0;
}

class UnfinishedRoutes : public bed::Test {};

}  // namespace

TEST(UnfinishedRoutesOfTheDead, AreEndedByTheNextOwner) {
    kit::run_dir dir;
    kit::child first(die_with_unfinished_routes);
    ASSERT_EQ(first.hear(), '.');
    first.kill();
    kit::child second([](const kit::post &) {
        platform_info_t info{};
        platform_info_defaults(&info);
        info.router_type = PLATFORM_ROUTER_TYPE_ASYNC_A;
        platform_info_set(&info);
        kit::library owner;
        start_interfaces();
        ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(5);
        EXPECT_EQ(kit::window_faults(), std::vector<std::string>{});
        // The search key of the dead, and nothing else.
        EXPECT_EQ(kit::window_leftovers(), std::vector<std::string>{"orphan of type AVL"});
        EXPECT_EQ(table->rate_route_count, 2);
        EXPECT_EQ(table->route_counters.local_eg_cnt, 0U);
        EXPECT_NE(find(table, sg(2)), nullptr);
        ipv4mc_idb_st *kept = idb_of(0x10);
        EXPECT_EQ(kept != nullptr ? kept->route_count : 0, 1U);
        EXPECT_EQ(kept != nullptr ? kept->refcount : 0, 1U);
        EXPECT_EQ(idb_of(0x11), nullptr);
        EXPECT_EQ(idb_of(0x12), nullptr);
        EXPECT_EQ(rig::header()->retry_queue->next, rig::header()->retry_queue);
        ipv4mc_encap_entry_st *encap = nullptr;
        ip6mc_encapid_lookup(7, &encap);
        EXPECT_EQ(encap != nullptr ? encap->route_cnt : 9, 0U);
        EXPECT_EQ(encap != nullptr ? encap->intf_local_EG_cnt : 9, 0U);
        uint64_t ids = 0;
        fib_obj_id_in_use(rig::header()->obj_id_domain, &ids);
        EXPECT_EQ(ids, 3U);  // of two routes and an interface
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(second.wait(), 0);
}

TEST_F(UnfinishedRoutes, EndWithTheirTable) {
    rig::make_encap(7);
    leave_unfinished(table, 3);
    leave_unfinished(table, 4);
    EXPECT_EQ(kit::window_leftovers().size(), 2U);
    ipv4mc_table_st *vrf = table->vtable;
    ASSERT_EQ(ip6mc_table_operation(IPV4MC_ACTION_DELETE, table->tid, vrf->vrf_id, "red", &vrf, 0),
              0U);
    EXPECT_EQ(ip6mc_table_lookup_by_tbl_id(0xe0000005), nullptr);
    EXPECT_EQ(idb_of(0x10), nullptr);
    EXPECT_EQ(kit::window_faults(), std::vector<std::string>{});
    EXPECT_EQ(kit::window_leftovers(), std::vector<std::string>{});
}
