#include <cstdlib>
#include <filesystem>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "services/diag/run_dir.h"
#include "services/events/ptimer.h"
#include "tests/platforms/sim/sim_fixture.h"

namespace {

class SimControl : public SimTest {
  protected:
    SimControl() : route(table, "::", "ff3e::1", 128) {}
    test_route route;
};

TEST_F(SimControl, AFaultLetsSomeCallsGoThenRefusesSome) {
    ASSERT_EQ(sim_arm_fault(SIM_OP_ROUTE, SIM_ANY_ACTION, 2, 3, 99), 0U);
    const cerrno expected[] = {0, 0, 99, 99, 99, 0};
    for (const cerrno code : expected) {
        EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), code);
    }
    EXPECT_EQ(sim_faults_hit(), 3U);
}

TEST_F(SimControl, AFaultOfOneActionLeavesTheOthersAlone) {
    ASSERT_EQ(sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_DELETE, 0, SIM_FOR_EVER, 99), 0U);
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U);
    EXPECT_EQ(route_op(IPV4MC_ACTION_DELETE, route), 99U);
    EXPECT_EQ(route_op(IPV4MC_ACTION_DELETE, route), 99U);
    EXPECT_EQ(find(route), 0U) << "the hardware was not touched";
    sim_clear_faults();
    EXPECT_EQ(route_op(IPV4MC_ACTION_DELETE, route), 0U);
}

TEST_F(SimControl, FaultsOfOneOperationCountSideBySide) {
    ASSERT_EQ(sim_arm_fault(SIM_OP_ROUTE, SIM_ANY_ACTION, 0, 1, 1), 0U);
    ASSERT_EQ(sim_arm_fault(SIM_OP_ROUTE, SIM_ANY_ACTION, 1, 1, 2), 0U);
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 1U);
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 2U);
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U);
}

TEST_F(SimControl, ImpossibleFaultsAreRefused) {
    const auto einval = static_cast<cerrno>(EINVAL);
    EXPECT_EQ(sim_arm_fault(SIM_OPS, SIM_ANY_ACTION, 0, 1, 5), einval);
    EXPECT_EQ(sim_arm_fault(SIM_OP_ROUTE, SIM_ANY_ACTION, 0, 1, 0), einval);
    EXPECT_EQ(sim_arm_fault(SIM_OP_SW_ONLY_GTRIE, SIM_ANY_ACTION, 0, 1, 5), einval);
    EXPECT_EQ(sim_arm_fault(SIM_OP_BUNDLE_HASH, SIM_ANY_ACTION, 0, 1, 5), einval);
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(sim_arm_fault(SIM_OP_ROUTE, SIM_ANY_ACTION, 1000, 1, 5), 0U);
    }
    EXPECT_EQ(sim_arm_fault(SIM_OP_ROUTE, SIM_ANY_ACTION, 0, 1, 5), static_cast<cerrno>(ENOSPC));
}

TEST_F(SimControl, EveryOperationThatCanFailCanBeMadeToFail) {
    for (sim_op op = 0; op < SIM_OPS; ++op) {
        if (op != SIM_OP_SW_ONLY_GTRIE && op != SIM_OP_BUNDLE_HASH) {
            ASSERT_EQ(sim_arm_fault(op, SIM_ANY_ACTION, 0, SIM_FOR_EVER, 70 + op), 0U);
        }
    }
    ipv4mc_table_st *t = &table;
    ipv4mc_intf_entry_st &e = entry(1, 0);
    ipv4mc_route_update_st update = {};
    ipv4mc_encap_entry_st encap = {};
    ipv4mc_encap_leaf_st leaf = {};
    ipv4mc_regdb_entry_st regdb = {};
    ipv4mc_idb_st idb = {};
    ip6mc_platform_held_st held = {};
    uint32_t state = 0;
    uint64_t count = 0;
    uint8_t local = 0;
    int answer = 0;
    const uint8_t byte = 0;
    const ip_maddr_st any = {};
    EXPECT_EQ(ip6mc_platform_lib_init(nullptr, 0, nullptr), 70U + SIM_OP_LIB_INIT);
    EXPECT_EQ(ip6mc_platform_lib_terminate(0, 0), 70U + SIM_OP_LIB_TERMINATE);
    EXPECT_EQ(ip6mc_platform_get_state(&state), 70U + SIM_OP_GET_STATE);
    EXPECT_EQ(ip6mc_platform_clear_hw_resources(0), 70U + SIM_OP_CLEAR_HW);
    EXPECT_EQ(ip6mc_platform_table_operation(3, 7, 0, "", &t, 1), 70U + SIM_OP_TABLE);
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 70U + SIM_OP_ROUTE);
    EXPECT_EQ(ip6mc_platform_route_update(&route.record, 1, &update), 70U + SIM_OP_ROUTE_UPDATE);
    EXPECT_EQ(ip6mc_platform_change_IF_parent(&table, &route.record, nullptr),
              70U + SIM_OP_CHANGE_IF_PARENT);
    EXPECT_EQ(
        ipv6_mfwd_platform_is_slotmask_xid_change(&table, &route.record, &any, &any, 0, &answer),
        70U + SIM_OP_SLOTMASK);
    EXPECT_EQ(intf_op(IPV4MC_ACTION_CREATE, route, e), 70U + SIM_OP_INTF);
    EXPECT_EQ(ip6mc_platform_idb_operation(IPV4MC_IDB_OP_CREATE, &idb, nullptr, nullptr),
              70U + SIM_OP_IDB);
    EXPECT_EQ(ip6mc_platform_encapid_operation(3, &encap), 70U + SIM_OP_ENCAP);
    EXPECT_EQ(ip6mc_platform_encap_update(&encap, 1, &byte), 70U + SIM_OP_ENCAP_UPDATE);
    EXPECT_EQ(ip6mc_platform_encap_leaf_operation(3, &leaf, &encap, &regdb, 0), 70U + SIM_OP_LEAF);
    EXPECT_EQ(ip6mc_platform_regdb_operation(3, &regdb, nullptr), 70U + SIM_OP_REGDB);
    EXPECT_EQ(ip6mc_platform_get_hw_in_stats(&table, &any, &any, 0, nullptr, &count),
              70U + SIM_OP_STATS);
    EXPECT_EQ(ip6mc_platform_encap_get_hw_in_stats(1, nullptr, nullptr, &count, &count, nullptr),
              70U + SIM_OP_STATS);
    EXPECT_EQ(ip6mc_platform_is_virtual_interface_local(1, &local), 70U + SIM_OP_VIRTUAL_LOCAL);
    EXPECT_EQ(ipv6_mfwd_platform_is_bvi_local(&byte, 1, &answer), 70U + SIM_OP_BVI_LOCAL);
    EXPECT_EQ(ip6mc_platform_enumerate(
                  0, [](const ip6mc_platform_held_st *, void *) -> cerrno { return 0; }, nullptr),
              70U + SIM_OP_ENUMERATE);
    EXPECT_EQ(ip6mc_platform_remove_held(&held), 70U + SIM_OP_REMOVE_HELD);
    EXPECT_EQ(sim_faults_hit(), 21U);
    for (ip6mc_platform_kind kind = 0; kind < IP6MC_PLATFORM_KINDS; ++kind) {
        EXPECT_EQ(sim_count(kind), 0U) << kind;
    }
}

TEST_F(SimControl, FaultPointsThatTheLibraryLeavesToItsPlatformAreTested) {
    char folder[] = "/dev/shm/mfwd6-fault-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    ASSERT_EQ(diag_set_run_dir(folder), 0U);
    const char texts[MLIB_FAULT_POINTS][MLIB_FAULT_TEXT_SIZE] = {"0", "1", "2", "3", "4",
                                                                 "5", "6", "7", "8", "9"};
    ASSERT_EQ(fim_register("mlib6", texts, MLIB_FAULT_POINTS, 0, &mlib_fim_hdl, nullptr), 0U);
    ipv4mc_table_st *t = &table;
    ipv4mc_encap_entry_st encap = {};
    ipv4mc_encap_leaf_st leaf = {};
    ipv4mc_regdb_entry_st regdb = {};
    const auto table_op = [&](uint32_t action) {
        return ip6mc_platform_table_operation(action, 7, 0, "", &t, 1);
    };
    const auto leaf_op = [&](uint32_t action) {
        return ip6mc_platform_encap_leaf_operation(action, &leaf, &encap, &regdb, 0);
    };
    const auto check = [&](uint32_t point, auto call) {
        ASSERT_EQ(fim_arm(mlib_fim_hdl, point, 0, 1), 0U);
        EXPECT_EQ(call(), static_cast<cerrno>(EAGAIN)) << point;
        EXPECT_EQ(call(), 0U) << point;
    };
    check(MLIB_FAULT_TABLE_CREATE, [&] { return table_op(IPV4MC_ACTION_CREATE); });
    check(MLIB_FAULT_TABLE_COMMIT, [&] { return table_op(IPV4MC_ACTION_COMMIT); });
    check(MLIB_FAULT_ROUTE_CREATE, [&] { return route_op(IPV4MC_ACTION_CREATE, route); });
    check(MLIB_FAULT_BUCKET_CREATE, [&] { return leaf_op(IPV4MC_ACTION_CREATE); });
    check(MLIB_FAULT_BUCKET_COMMIT, [&] { return leaf_op(IPV4MC_ACTION_COMMIT); });
    // The library passes its own points; here they must not fail a second time.
    for (const uint32_t point : {MLIB_FAULT_ROUTE_COMMIT, MLIB_FAULT_INTF_CREATE,
                                 MLIB_FAULT_INTF_COMMIT, MLIB_FAULT_ENCAP_CREATE}) {
        ASSERT_EQ(fim_arm(mlib_fim_hdl, point, 0, 1), 0U);
    }
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U);
    EXPECT_EQ(intf_op(IPV4MC_ACTION_CREATE, route, entry(1, 0)), 0U);
    EXPECT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_CREATE, &encap), 0U);
    ASSERT_EQ(fim_disarm_all(mlib_fim_hdl), 0U);
    mlib_fim_hdl = nullptr;
    std::filesystem::remove_all(folder);
}

TEST_F(SimControl, ADelayIsTimeOfTheTestClock) {
    ASSERT_EQ(sim_set_delay(SIM_OP_ROUTE, 2900000000), 0U);
    ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U) << "on the real clock it does nothing";
    ptimer_test_clock_on();
    timespec before = {};
    timespec after = {};
    timespec took = {};
    ptimer_gettime(&before);
    ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U);
    ptimer_gettime(&after);
    ptimer_diff_timespec(&after, &before, &took);
    EXPECT_EQ(took.tv_sec, 2);
    EXPECT_EQ(took.tv_nsec, 900000000);
    ptimer_test_clock_off();
    EXPECT_EQ(sim_set_delay(SIM_OPS, 1), static_cast<cerrno>(EINVAL));
}

TEST_F(SimControl, TheLogKeepsCallsInOrderWithTheirArguments) {
    ASSERT_EQ(sim_log_on(10), 0U);
    ipv4mc_intf_entry_st &e = entry(21, MRIB_INTF_FORWARD);
    e.intf_arg = 22;
    route.record.attributes = MRIB_ROUTE_SIGNAL;
    ASSERT_EQ(intf_op(IPV4MC_ACTION_CREATE, route, e, 5, 1), 0U);
    ASSERT_EQ(sim_arm_fault(SIM_OP_ROUTE, SIM_ANY_ACTION, 0, 1, 99), 0U);
    ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route, MRIB_ROUTE_DROP, 1), 99U);
    ASSERT_EQ(sim_log_count(), 2U);
    const sim_call *first = sim_log_at(0);
    EXPECT_EQ(first->sequence, 0U);
    EXPECT_EQ(first->op, static_cast<uint32_t>(SIM_OP_INTF));
    EXPECT_EQ(first->action, static_cast<uint32_t>(IPV4MC_ACTION_CREATE));
    EXPECT_EQ(first->ifh, 21U);
    EXPECT_EQ(first->other_ifh, 22U);
    EXPECT_EQ(first->attributes, MRIB_INTF_FORWARD);
    EXPECT_EQ(first->old_attributes, 5U);
    EXPECT_EQ(first->is_new, 1);
    EXPECT_EQ(first->record, &e);
    EXPECT_EQ(first->result, 0U);
    const sim_call *second = sim_log_at(1);
    EXPECT_EQ(second->sequence, 1U);
    EXPECT_EQ(second->op, static_cast<uint32_t>(SIM_OP_ROUTE));
    EXPECT_EQ(second->tid, 7U);
    EXPECT_EQ(second->pfx_len, 128);
    EXPECT_EQ(second->replay, 0);
    EXPECT_EQ(std::memcmp(&second->group, &route.record.group, 16), 0);
    EXPECT_EQ(second->attributes, MRIB_ROUTE_SIGNAL);
    EXPECT_EQ(second->old_attributes, MRIB_ROUTE_DROP);
    EXPECT_EQ(second->result, 99U);
    EXPECT_EQ(sim_log_at(2), nullptr);
}

TEST_F(SimControl, AFullLogKeepsTheLatestCalls) {
    ASSERT_EQ(sim_log_on(3), 0U);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U);
    }
    ASSERT_EQ(sim_log_count(), 3U);
    EXPECT_EQ(sim_log_at(0)->sequence, 2U);
    EXPECT_EQ(sim_log_at(2)->sequence, 4U);
    sim_log_clear();
    EXPECT_EQ(sim_log_count(), 0U);
    ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U);
    EXPECT_EQ(sim_log_at(0)->sequence, 5U);
    ASSERT_EQ(sim_log_on(0), 0U);
    ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U);
    EXPECT_EQ(sim_log_count(), 0U);
    EXPECT_EQ(sim_log_at(0), nullptr);
    EXPECT_EQ(sim_calls(SIM_OP_ROUTE), 7U);
}

TEST_F(SimControl, ALogTooLargeForMemoryIsRefused) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer ends the process instead of refusing the memory";
#endif
    EXPECT_EQ(sim_log_on(UINT64_MAX / sizeof(sim_call)), static_cast<cerrno>(ENOMEM));
    ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U);
    EXPECT_EQ(sim_log_count(), 0U);
}

TEST_F(SimControl, OperationsHaveNames) {
    for (sim_op op = 0; op < SIM_OPS; ++op) {
        EXPECT_STRNE(sim_op_name(op), "unknown") << op;
    }
    EXPECT_STREQ(sim_op_name(SIM_OP_REMOVE_HELD), "remove_held");
    EXPECT_STREQ(sim_op_name(SIM_OPS), "unknown");
}

TEST_F(SimControl, AChangeOfStateIsToldOnceAndOnlyWhileStarted) {
    static std::vector<ipv4mc_platform_msg_st> heard;
    heard.clear();
    ipv4mc_descriptor_struct descriptor = {};
    descriptor.platform_callback = [](ipv4mc_descriptor_struct *, const ipv4mc_platform_msg_st *m) {
        heard.push_back(*m);
    };
    sim_set_state(IPV4MC_PLATFORM_STATE_NOT_READY);
    ASSERT_EQ(ip6mc_platform_lib_init(nullptr, 0, &descriptor), 0U);
    uint32_t state = 9;
    ASSERT_EQ(ip6mc_platform_get_state(&state), 0U);
    EXPECT_EQ(state, static_cast<uint32_t>(IPV4MC_PLATFORM_STATE_NOT_READY));
    EXPECT_EQ(heard.size(), 0U);
    sim_set_state(IPV4MC_PLATFORM_STATE_READY);
    sim_set_state(IPV4MC_PLATFORM_STATE_READY);
    sim_notify();
    sim_set_state(IPV4MC_PLATFORM_STATE_DOWN);
    ASSERT_EQ(heard.size(), 3U);
    EXPECT_EQ(heard[0].type, static_cast<uint32_t>(IPV4MC_PLATFORM_MSG_STATE));
    EXPECT_EQ(heard[0].new_state, static_cast<uint32_t>(IPV4MC_PLATFORM_STATE_READY));
    EXPECT_EQ(heard[0].old_state, static_cast<uint32_t>(IPV4MC_PLATFORM_STATE_NOT_READY));
    EXPECT_EQ(heard[1].type, static_cast<uint32_t>(IPV4MC_PLATFORM_MSG_NOTIFY));
    EXPECT_EQ(heard[2].new_state, static_cast<uint32_t>(IPV4MC_PLATFORM_STATE_DOWN));
    ASSERT_EQ(ip6mc_platform_lib_terminate(0, 2), 0U);
    sim_set_state(IPV4MC_PLATFORM_STATE_READY);
    EXPECT_EQ(heard.size(), 3U);
    EXPECT_EQ(ip6mc_platform_get_state(nullptr), static_cast<cerrno>(EINVAL));
}

TEST_F(SimControl, AnEndEmptiesTheHardwareAnUpdateDoesNot) {
    ipv4mc_descriptor_struct descriptor = {};
    program(route, {});
    for (const auto &[attach_only, reason, left] :
         std::vector<std::tuple<int, uint32_t, uint64_t>>{{0, 2, 1}, {1, 0, 1}, {0, 0, 0}}) {
        ASSERT_EQ(ip6mc_platform_lib_init(nullptr, attach_only, &descriptor), 0U);
        ASSERT_EQ(ip6mc_platform_lib_terminate(attach_only, reason), 0U);
        EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), left) << attach_only << " " << reason;
    }
    program(route, {});
    ASSERT_EQ(ip6mc_platform_lib_terminate(0, 0), 0U) << "never started";
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 1U);
    ASSERT_EQ(ip6mc_platform_clear_hw_resources(0), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
}

TEST_F(SimControl, AnAsynchronousErrorNamesTheKindOfObject) {
    route.record.obj_id = 1001;
    ipv4mc_intf_entry_st &e = entry(1, 0);
    e.obj_id = 1002;
    program(route, {&e});
    EXPECT_EQ(sim_raise_async_error(1001, 1, 77), 4711U);
    EXPECT_EQ(last_async.object_type, 1U);
    EXPECT_EQ(last_async.oor_error, 1U);
    EXPECT_EQ(last_async.code, 77U);
    EXPECT_EQ(sim_raise_async_error(1002, 0, 78), 4711U);
    EXPECT_EQ(last_async.object_type, 2U);
    EXPECT_EQ(sim_raise_async_error(1003, 0, 78), 4711U);
    EXPECT_EQ(last_async.object_type, 0U);
    EXPECT_EQ(last_async.obj_id, 1003U);
    EXPECT_EQ(last_async.calls, 3);
}

TEST_F(SimControl, AResetForgetsEverything) {
    program(route, {&entry(1, 0)});
    sim_set_capacity(IP6MC_PLATFORM_ROUTE, 0);
    sim_set_full_code(5);
    sim_set_state(IPV4MC_PLATFORM_STATE_DOWN);
    sim_answer_sw_only_gtrie(0);
    ASSERT_EQ(sim_log_on(4), 0U);
    ASSERT_EQ(sim_arm_fault(SIM_OP_ROUTE, SIM_ANY_ACTION, 0, SIM_FOR_EVER, 9), 0U);
    sim_reset();
    uint32_t state = 0;
    ASSERT_EQ(ip6mc_platform_get_state(&state), 0U);
    EXPECT_EQ(state, static_cast<uint32_t>(IPV4MC_PLATFORM_STATE_READY));
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE) + sim_count(IP6MC_PLATFORM_INTF), 0U);
    EXPECT_EQ(route_op(IPV4MC_ACTION_COMMIT, route), 0U);
    EXPECT_EQ(sim_log_count(), 0U);
    EXPECT_EQ(sim_calls(SIM_OP_ROUTE), 1U);
    EXPECT_EQ(ip6mc_platform_is_sw_only_gtrie(), 1);
}

}  // namespace
