#include <algorithm>
#include <functional>

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
        event_manager_destroy(manager);
        ptimer_test_clock_off();
        for (const auto *failed : {route, other}) {
            mfwd_route_event_history_destroy(failed != nullptr ? failed->event_history : nullptr);
        }
    }
    void forget() {
        heard.clear();
        sim_log_clear();
    }
    static uint32_t queued() {
        uint32_t count = 0;
        const dlqueue_node_t *queue = ipv4mc_desc->shmwin_info->retry_queue;
        for (const dlqueue_node_t *node = queue->next; node != queue; node = node->next)
            ++count;
        return count;
    }
    uint32_t events() const {
        return route->event_history == nullptr ? 0 : cbuf_count(route->event_history);
    }
    using texts = std::vector<std::string>;

    library lib;
    ipv4mc_table_st *table;
    kit::listener heard;
    event_manager_t *manager = nullptr;
    ipv4mc_route_entry_st *route;
    ipv4mc_route_entry_st *other = nullptr;  // a second one that fails
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
                            "ipmc_platform_err_handler_clear_route_err: Table red Route "
                            "(2001:db8::1,ff3e::1) has been "
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
    EXPECT_EQ(
        heard.errors(),
        (texts{"ipmc_platform_err_handler_sync_intf: Intf is Ok or route is NULL, ifh: 0x100",
               "ipmc_platform_err_handler_sync_intf: Intf is NULL or route is Ok, ifh: 0x0"}));
}

TEST_F(ErrorHandler, AFaultPointIsTakenOverAsAFailureOfThePlatform) {
    struct row {
        uint32_t point;
        std::function<cerrno()> work;
        const char *said;
    };
    ipv4mc_intf_entry_st *entry = nullptr;
    const intf_key k{IPV4MC_INTF_ORDINARY, 0x100, 0, 0};
    const auto on_intf = [&](ipv4mc_action_type action, int is_new) {
        return [&, action, is_new] { return intf_operate(action, route, k, &entry, is_new); };
    };
    const row rows[] = {{MLIB_FAULT_INTF_CREATE, on_intf(IPV4MC_ACTION_CREATE, 1),
                         "platform CREATE failed new I/F "},
                        {MLIB_FAULT_INTF_COMMIT, on_intf(IPV4MC_ACTION_COMMIT, 1),
                         "platform COMMIT failed on new I/F "},
                        {MLIB_FAULT_ROUTE_COMMIT, [&] { return commit(table, route, 1); },
                         "Platform specific route operation failed "},
                        {MLIB_FAULT_ROUTE_COMMIT, [&] { return commit(table, route, 0); },
                         "Platform specific route operation failed "},
                        {MLIB_FAULT_INTF_COMMIT, on_intf(IPV4MC_ACTION_COMMIT, 0),
                         "platform COMMIT failed on existing I/F "}};
    for (const row &r : rows) {
        fim_arm(mlib_fim_hdl, r.point, 0, 1);
        forget();
        EXPECT_EQ(r.work(), 0U) << r.said;
        // Behind the platform, which agreed.
        EXPECT_EQ(sim_log_at(sim_log_count() - 1)->result, 0U);
        const auto all = heard.errors();
        ASSERT_EQ(all.size(), 1U) << r.said;
        EXPECT_EQ(all[0].find(r.said), 0U) << all[0];
        EXPECT_NE(all[0].find(cerr_strerror(11)), std::string::npos) << all[0];
        EXPECT_EQ(route->err, 1);
        EXPECT_EQ(queued(), 1U);
        ipmc_platform_err_handler_clear_route_err(route);
        EXPECT_EQ(queued(), 0U);
    }
    EXPECT_EQ(find(table, sg(1)), route);
    EXPECT_EQ(route->intf_list, entry);
    // An existing entry: the answer is that it exists.
    fim_arm(mlib_fim_hdl, MLIB_FAULT_INTF_CREATE, 0, 1);
    EXPECT_EQ(intf_operate(IPV4MC_ACTION_CREATE, route, k, &entry, 0), 17U);
    EXPECT_EQ(queued(), 1U);
}

TEST_F(ErrorHandler, ADeletedOrClearedRouteLeavesTheQueue) {
    ASSERT_EQ(commit(table, route, 1), 0U);
    EXPECT_EQ(ipmc_platform_err_handler_sync_route(route, 5), 0U);
    int is_new = 0;
    EXPECT_EQ(operate(IPV4MC_ACTION_CLEAR, table, sg(1), &route, &is_new), 0U);
    EXPECT_EQ(route->err, 0);
    EXPECT_EQ(queued(), 0U);
    route->event_history = nullptr;
    EXPECT_EQ(ipmc_platform_err_handler_sync_route(route, 5), 0U);
    EXPECT_EQ(queued(), 1U);
    EXPECT_EQ(operate(IPV4MC_ACTION_DELETE, table, sg(1), &route, &is_new), 0U);
    EXPECT_EQ(queued(), 0U);
    route = create(table, sg(1));
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
    EXPECT_EQ(heard.errors(),
              (texts{"ipmc_platform_err_handler_sync_encap: Encap is Null",
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
    other = create(table, sg(2));
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
    for (const auto &call : platform_calls())
        EXPECT_TRUE(call.starts_with("idb")) << call;
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
    EXPECT_EQ(
        heard.errors(),
        (texts{"ipmc_platform_err_handler_async_obj: Intf is Null or no route is linked, ifh: 0x77",
               "ipmc_platform_err_handler_async_intf_oor: Intf is Null or no Route is linked, ifh: "
               "0x77"}));
    ipv4mc_clear_intf(&loose);
}

TEST_F(ErrorHandler, TheTimerRunsOnceForAllFailures) {
    // Started at the beginning for what an earlier process left: 60 seconds.
    EXPECT_EQ(ipmc_platform_err_handler_sync_route(route, 5), 0U);
    bool started = false;
    for (const auto &line : heard.lines(IPV4_DEBUG_EV))
        started |= line == "Error periodic retry timer started";
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
    auto *element =
        static_cast<ipmc_retry_msg *>(ipv4mc_desc->shmwin_info->retry_queue->next->data);
    element->type = 9;
    heard.clear();
    EXPECT_EQ(ipmc_retry_msg_queue_walk(), 0U);
    EXPECT_EQ(heard.errors(), texts{"ipmc_retry_msg_queue_walk: Invalid retry msg type 9"});
    EXPECT_EQ(queued(), 1U);
    element->node.data = nullptr;
    EXPECT_EQ(ipmc_retry_msg_queue_walk(), 22U);
    EXPECT_EQ(ipmc_retry_msg_queue_rem_route(route), 22U);
    EXPECT_EQ(heard.errors(),
              (texts{"ipmc_retry_msg_queue_walk: Retry msg queue node is NULL",
                     "ipmc_retry_msg_queue_rem_route: Route retry queue node is NULL\n"}));
}

// What one owner could not program, the next one tries again.
TEST(RetryQueueAcrossProcesses, IsFoundAndWalkedByTheNextOwner) {
    kit::run_dir dir;
    const auto start = [](event_manager_t **manager) {
        platform_info_t info{};
        platform_info_defaults(&info);
        info.router_type = 10;
        platform_info_set(&info);
        ptimer_test_clock_on();
        kit::start_library();
        start_interfaces();
        event_manager_create(manager);
        ipmc_platform_err_handler_init(*manager);
    };
    kit::child first([&](const kit::post &parent) {
        event_manager_t *manager = nullptr;
        start(&manager);
        auto *made = make_table(0xe0000005, 0x60000006, "red");
        for (uint32_t n = 1; n <= 2; ++n) {
            sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_COMMIT, 0, 1, 5);
            add(made, sg(n));
        }
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_EQ(first.hear(), '.');
    first.kill();
    kit::child second([&](const kit::post &) {
        event_manager_t *manager = nullptr;
        start(&manager);
        ipv4mc_table_st *red = ip6mc_table_lookup_by_tbl_id(0xe0000005);
        const dlqueue_node_t *queue = ipv4mc_desc->shmwin_info->retry_queue;
        const dlqueue_node_t *node = queue->next;
        for (uint32_t n = 1; n <= 2; ++n, node = node->next) {
            auto *route = find(red, sg(n));
            EXPECT_EQ(route->err, 1);
            EXPECT_EQ(static_cast<const ipmc_retry_msg *>(node->data)->object, route);
        }
        EXPECT_EQ(node, queue);
        // The timer runs from the start on.
        kit::listener heard;
        uint32_t dispatched = 0;
        ptimer_test_clock_advance(60'000'000'000);
        event_manager_run_once(manager, 0, &dispatched);
        const auto lines = heard.lines(IPV4_DEBUG_EV);
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [](const std::string &line) {
                                    return line.starts_with(
                                        "ipmc_retry_msg_queue_walk: retry msg type 0 rc ");
                                }),
                  2);
        // Routes go with their elements.
        for (uint32_t n = 1; n <= 2; ++n) {
            int is_new = 0;
            EXPECT_EQ(operate(IPV4MC_ACTION_DELETE, red, sg(n), nullptr, &is_new), 0U);
        }
        EXPECT_EQ(queue->next, queue);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(second.wait(), 0);
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
