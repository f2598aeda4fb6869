#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "services/cbuf/cbuf.h"
#include "services/events/event_manager.h"
#include "services/events/ptimer.h"
#include "tests/kit/child.h"
#include "tests/lib/routes/bed.h"

using namespace bed;

namespace {

class ErrorHandler : public testing::Test {
  protected:
    ErrorHandler() : lib(10), table(make_table(0xe0000005, 0x60000006, "red")) {
        sim_log_on(4096);
        ptimer_test_clock_on();
        event_manager_create(&manager);
        EXPECT_EQ(ipmc_platform_err_handler_init(manager), 0U);
        route = create(table, sg(1));
        forget();
    }
    ~ErrorHandler() override {
        platform_info_t info{};
        platform_info_defaults(&info);
        platform_info_set(&info);
        ipmc_platform_err_handler_init(nullptr);  // off again
        ptimer_test_clock_off();
    }
    void forget() {
        heard.clear();
        sim_log_clear();
    }
    static uint32_t queued() {
        uint32_t count = 0;
        const dlqueue_node_t *queue = ipv4mc_desc->shmwin_info->retry_queue;
        for (const dlqueue_node_t *node = queue->next; node != queue; node = node->next) ++count;
        return count;
    }
    uint32_t events() const { return route->event_history == nullptr ? 0 : cbuf_count(route->event_history); }
    using texts = std::vector<std::string>;

    library lib;
    ipv4mc_table_st *table;
    kit::listener heard;
    event_manager_t *manager = nullptr;
    ipv4mc_route_entry_st *route;
};

}  // namespace

TEST(ErrorHandlerOff, GivesFailuresBackUnchanged) {
    library lib;
    auto *table = make_table(0xe0000005, 0x60000006, "red");
    auto *route = create(table, sg(1));
    EXPECT_EQ(ipmc_platform_err_handler_init(nullptr), 0U);
    EXPECT_EQ(ipmc_platform_get_async_oor_support(), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_sync_route(route, 5), 5U);
    EXPECT_EQ(ipmc_platform_err_handler_sync_intf(nullptr, nullptr, 6), 6U);
    EXPECT_EQ(ipmc_platform_err_handler_sync_encap(nullptr, 7), 7U);
    EXPECT_EQ(ipmc_platform_err_handler_async_obj(1, 1), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_async_route_err(nullptr), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_async_route_oor(nullptr), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_async_intf_oor(nullptr, nullptr), 0U);
    EXPECT_EQ(route->err, 0);
    EXPECT_EQ(route->event_history, nullptr);
    EXPECT_EQ(ipmc_platform_route_get_err(nullptr), 0);
    route->oor = 1;
    EXPECT_EQ(ipmc_platform_can_program_route(route, 0), 0);
    route->oor = 0;
    EXPECT_EQ(ipmc_platform_can_program_route(route, 1), 1);
}

TEST_F(ErrorHandler, AFailedCommitIsTakenOverAndTheRoutePublished) {
    sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_COMMIT, 0, 1, 5);
    EXPECT_EQ(commit(table, route, 1), 0U);
    EXPECT_EQ(find(table, sg(1)), route);
    EXPECT_EQ(ipmc_platform_route_get_err(route), 1);
    EXPECT_EQ(queued(), 1U);
    EXPECT_EQ(events(), 1U);
    EXPECT_EQ(heard.errors().size(), 1U);
    // A second failure adds nothing.
    EXPECT_EQ(ipmc_platform_err_handler_sync_route(route, 5), 0U);
    EXPECT_EQ(queued(), 1U);
    EXPECT_EQ(events(), 1U);
    EXPECT_EQ(ipmc_platform_err_handler_sync_route(nullptr, 5), 22U);
    EXPECT_EQ(heard.errors(), texts{"ipmc_platform_err_handler_sync_route: route is NULL"});
    forget();
    ipmc_platform_err_handler_clear_route_err(route);
    EXPECT_EQ(route->err, 0);
    EXPECT_EQ(queued(), 0U);
    const auto lines = heard.lines(IPV4_DEBUG_EV);
    EXPECT_EQ(lines, (texts{"ipmc_retry_msg_queue_rem_route: Route found",
                            "ipmc_platform_err_handler_clear_route_err: Table red Route (2001:db8::1,ff3e::1) has been "
                            "removed from retry queue."}));
    route->err = 1;  // flagged, not queued
    ipmc_platform_err_handler_clear_route_err(route);
    EXPECT_EQ(route->err, 0);
    EXPECT_EQ(heard.errors(), texts{"ipmc_platform_err_handler_clear_route_err: Table red Route "
                                    "(2001:db8::1,ff3e::1) is not in retry queue."});
    EXPECT_EQ(ipmc_retry_msg_queue_rem_route(route), 22U);
}

TEST_F(ErrorHandler, AnInterfaceFailsInTheNameOfItsRoute) {
    ipv4mc_intf_entry_st *entry = nullptr;
    const intf_key k{IPV4MC_INTF_ORDINARY, 0x100, 0, 0};
    sim_arm_fault(SIM_OP_INTF, SIM_ANY_ACTION, 0, 2, 5);
    EXPECT_EQ(intf_operate(IPV4MC_ACTION_CREATE, route, k, &entry, 1), 0U);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(intf_operate(IPV4MC_ACTION_COMMIT, route, k, &entry, 1), 0U);
    EXPECT_EQ(route->intf_list, entry);
    EXPECT_EQ(route->err, 1);
    EXPECT_EQ(queued(), 1U);
    heard.clear();
    EXPECT_EQ(ipmc_platform_err_handler_sync_intf(entry, nullptr, 5), 22U);
    EXPECT_EQ(ipmc_platform_err_handler_sync_intf(nullptr, route, 5), 22U);
    EXPECT_EQ(heard.errors(),
              (texts{"ipmc_platform_err_handler_sync_intf: Intf is Ok or route is NULL, ifh: 0x100",
                     "ipmc_platform_err_handler_sync_intf: Intf is NULL or route is Ok, ifh: 0x0"}));
}

TEST_F(ErrorHandler, ARouteAndAnEncapAtOneAddressAreTold) {
    auto *encap = reinterpret_cast<ipv4mc_encap_entry_st *>(route);
    ASSERT_EQ(ipmc_retry_msg_queue_insert_route(route), 0U);
    EXPECT_EQ(ipmc_retry_msg_queue_rem_encap(encap), 22U);
    ASSERT_EQ(ipmc_retry_msg_queue_insert_encap(encap), 0U);
    EXPECT_EQ(queued(), 2U);
    EXPECT_EQ(ipmc_retry_msg_queue_rem_encap(encap), 0U);
    EXPECT_EQ(ipmc_retry_msg_queue_rem_route(route), 0U);
    EXPECT_EQ(queued(), 0U);
    ipv4mc_encap_entry_st real{};
    real.encap_id = 12;
    EXPECT_EQ(ipmc_platform_err_handler_sync_encap(&real, 5), 0U);
    EXPECT_EQ(real.retry_queued, 1);
    EXPECT_EQ(queued(), 1U);
    ipmc_platform_err_handler_clear_encap_err(&real);
    EXPECT_EQ(real.retry_queued, 0);
    EXPECT_EQ(queued(), 0U);
    heard.clear();
    EXPECT_EQ(ipmc_platform_err_handler_sync_encap(nullptr, 5), 22U);
    ipmc_retry_msg_queue_rem_element(nullptr, nullptr);
    dlqueue_node_t *queue = ipv4mc_desc->shmwin_info->retry_queue;
    ipmc_retry_msg_queue_rem_element(queue, queue);
    EXPECT_EQ(heard.errors(), (texts{"ipmc_platform_err_handler_sync_encap: Encap is Null",
                                     "ipmc_retry_msg_queue_rem_element:ERR Retry msg queue is NULL\n",
                                     "ipmc_retry_msg_queue_rem_element:ERR Retry msg queue is empty\n"}));
}

TEST_F(ErrorHandler, AFullHardwareStopsNewObjectsOnly) {
    ASSERT_EQ(commit(table, route, 1), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_async_obj(route->obj_id, 1), 0U);
    EXPECT_EQ(route->oor, 1);
    EXPECT_EQ(events(), 1U);
    EXPECT_EQ(ipmc_platform_err_handler_get_oor_mode(), 2U);
    EXPECT_EQ(ipmc_platform_err_handler_async_route_oor(route), 0U);
    EXPECT_EQ(events(), 1U);
    auto *other = create(table, sg(2));
    EXPECT_EQ(ipmc_platform_can_program_route(other, 0), 1);
    EXPECT_EQ(ipmc_platform_can_program_route(other, 1), 0);
    forget();
    ipv4mc_intf_entry_st *entry = nullptr;
    const intf_key k{IPV4MC_INTF_ORDINARY, 0x100, 0, 0};
    EXPECT_EQ(intf_operate(IPV4MC_ACTION_CREATE, other, k, &entry, 1), 0U);
    EXPECT_EQ(other->oor, 1);
    EXPECT_EQ(intf_operate(IPV4MC_ACTION_COMMIT, other, k, &entry, 1), 0U);
    EXPECT_EQ(commit(table, other, 1), 0U);
    EXPECT_EQ(find(table, sg(2)), other);
    for (const auto &call : platform_calls()) EXPECT_TRUE(call.starts_with("idb")) << call;
}

TEST_F(ErrorHandler, AsynchronousReportsFindTheirObjectOrSayWhyNot) {
    auto *entry = join(route, {IPV4MC_INTF_ORDINARY, 0x100, 0, 0});
    EXPECT_NE(ipmc_platform_err_handler_async_obj(IPMC_OBJ_ID_NONE, 1), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_get_oor_mode(), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_async_obj(entry->obj_id, 0), 0U);
    EXPECT_EQ(route->err, 1);
    EXPECT_EQ(route->oor, 0);
    EXPECT_EQ(ipmc_platform_err_handler_get_oor_mode(), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_async_obj(entry->obj_id, 3), 0U);
    EXPECT_EQ(route->oor, 0);
    EXPECT_EQ(ipmc_platform_err_handler_get_oor_mode(), 2U);
    EXPECT_EQ(ipmc_platform_err_handler_async_obj(entry->obj_id, 1), 0U);
    EXPECT_EQ(route->oor, 1);
    heard.clear();
    auto *loose = ipv4mc_create_intf(0x77, 0, 0, 0, 0);
    ASSERT_EQ(ipmc_object_ida_alloc_intf(loose), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_async_obj(loose->obj_id, 0), 22U);
    EXPECT_EQ(ipmc_platform_err_handler_async_obj(loose->obj_id, 1), 22U);
    EXPECT_EQ(heard.errors(),
              (texts{"ipmc_platform_err_handler_async_obj: Intf is Null or no route is linked, ifh: 0x77",
                     "ipmc_platform_err_handler_async_intf_oor: Intf is Null or no Route is linked, ifh: 0x77"}));
    ipv4mc_clear_intf(&loose);
}

TEST_F(ErrorHandler, TheTimerRunsOnceForAllFailures) {
    // Started at the beginning for what an earlier process left: 60 seconds.
    EXPECT_EQ(ipmc_platform_err_handler_sync_route(route, 5), 0U);
    bool started = false;
    for (const auto &line : heard.lines(IPV4_DEBUG_EV)) started |= line == "Error periodic retry timer started";
    EXPECT_FALSE(started);
    forget();
    uint32_t dispatched = 0;
    ptimer_test_clock_advance(59'000'000'000);
    event_manager_run_once(manager, 0, &dispatched);
    EXPECT_EQ(queued(), 1U);
    EXPECT_TRUE(heard.errors().empty());
    ptimer_test_clock_advance(1'000'000'000);
    event_manager_run_once(manager, 0, &dispatched);
    bool walked = false;
    for (const auto &line : heard.lines(IPV4_DEBUG_EV)) {
        walked |= line.starts_with("ipmc_retry_msg_queue_walk: retry msg type 0 rc ");
    }
    EXPECT_TRUE(walked);
}

TEST_F(ErrorHandler, AnElementOfNoKnownTypeStays) {
    ASSERT_EQ(ipmc_retry_msg_queue_insert_route(route), 0U);
    auto *element = static_cast<ipmc_retry_msg *>(ipv4mc_desc->shmwin_info->retry_queue->next->data);
    element->type = 9;
    heard.clear();
    EXPECT_EQ(ipmc_retry_msg_queue_walk(), 0U);
    EXPECT_EQ(heard.errors(), texts{"ipmc_retry_msg_queue_walk: Invalid retry msg type 9"});
    EXPECT_EQ(queued(), 1U);
    element->node.data = nullptr;
    EXPECT_EQ(ipmc_retry_msg_queue_walk(), 22U);
    EXPECT_EQ(ipmc_retry_msg_queue_rem_route(route), 22U);
    EXPECT_EQ(heard.errors(), (texts{"ipmc_retry_msg_queue_walk: Retry msg queue node is NULL",
                                     "ipmc_retry_msg_queue_rem_route: Route retry queue node is NULL\n"}));
}

TEST(ErrorHandlerWithoutTimer, EndsTheProcess) {
    kit::child process([](const kit::post &) {
        library lib(16);
        kit::listener heard;
        ipmc_platform_err_handler_init(nullptr);
        return 7;
    });
    EXPECT_EQ(process.wait(), 1);
}
