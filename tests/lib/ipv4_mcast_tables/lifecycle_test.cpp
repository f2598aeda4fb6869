#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/window/inspect.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"
#include "tests/kit/service_faults.h"

using lines = std::vector<std::string>;

class Lifecycle : public ::testing::Test {
  protected:
    Lifecycle() {
        sim_reset();
        kit::heal_services();
        kit::take_messages();
        kit::answer_callback_with(0);
    }
    ~Lifecycle() override { sim_reset(); }

    static uint32_t state() { return ipv4mc_desc->state; }

    kit::run_dir dir_;
    kit::listener heard_;
};

TEST_F(Lifecycle, TellsEachStepOfAStart) {
    const kit::library owner;
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_EV),
              (lines{"ip6mc_lib_init:Multicast Library Init", "LIB initialized"}));
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_STATE), (lines{"Lib state changed from DOWN to INIT",
                                                     "Lib state changed from INIT to READY"}));
    const auto told = kit::take_messages();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].type, 0U);
    EXPECT_EQ(told[0].u.state.state, 2U);
    EXPECT_EQ(told[0].u.state.prev_state, 1U);
    EXPECT_EQ(*reinterpret_cast<const uint32_t *>(ipv4mc_desc->shmwin_info), 0x1000fU);
}

TEST_F(Lifecycle, FillsTheDescriptor) {
    int context = 0;
    int callback_context = 0;
    int idb_param = 0;
    const auto callback = [](ipv4mc_descriptor_struct *, const ipv4mc_lib_callback_msg *,
                             void *) -> cerrno { return 0; };
    const auto hook = [](void *, int) {};
    ipv4mc_desc->reserved = 5;
    ASSERT_EQ(ip6mc_lib_init(nullptr, &context, 0, 7, 8, 9, 10, 3, callback, hook,
                             &callback_context, &idb_param, 0),
              0U);
    EXPECT_EQ(ipv4mc_desc->evm, nullptr);
    EXPECT_EQ(ipv4mc_desc->im_context, &context);
    EXPECT_EQ(ipv4mc_desc->protocol, 7U);
    EXPECT_EQ(ipv4mc_desc->caps, 8U);
    EXPECT_EQ(ipv4mc_desc->default_tid, 9U);
    EXPECT_EQ(ipv4mc_desc->default_vrf_id, 10U);
    EXPECT_EQ(ipv4mc_desc->node_role, 3U);
    EXPECT_EQ(ipv4mc_desc->callback, +callback);
    EXPECT_EQ(ipv4mc_desc->free_hook, +hook);
    EXPECT_EQ(ipv4mc_desc->callback_context, &callback_context);
    EXPECT_EQ(ipv4mc_desc->idb_param, &idb_param);
    EXPECT_EQ(ipv4mc_desc->platform_callback, ipv4mc_local_platform_callback_func);
    EXPECT_EQ(ipv4mc_desc->reserved, 0U);
    EXPECT_EQ(ipv4mc_desc->lib_init, 1);
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 1);
    EXPECT_EQ(ipv4mc_desc->buffer_pool_enabled, 1);

    EXPECT_EQ(ip6mc_update_im_context(&idb_param), 0U);
    EXPECT_EQ(ipv4mc_desc->im_context, &idb_param);
    EXPECT_EQ(ip6mc_update_im_context(nullptr), 0U);
    EXPECT_EQ(ip6mc_lib_terminate(0, 0), 0U);
}

TEST_F(Lifecycle, ASecondStartChangesNothingWhateverItsArguments) {
    const kit::library owner;
    const ipv4mc_descriptor_struct before = *ipv4mc_desc;
    heard_.clear();
    kit::take_messages();
    int context = 0;
    EXPECT_EQ(ip6mc_lib_init(&context, &context, 1, 1, 2, 3, 4, 5, nullptr, nullptr, &context,
                             &context, 1),
              0U);
    EXPECT_EQ(memcmp(&before, ipv4mc_desc, sizeof(before)), 0);
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_EV),
              (lines{"Multicast Library already initialized", "HOW??????"}));
    EXPECT_EQ(heard_.lines().size(), 2U);
    EXPECT_TRUE(kit::take_messages().empty());
}

TEST_F(Lifecycle, StaysInInitUntilThePlatformIsReady) {
    sim_set_state(1);
    kit::library owner;
    EXPECT_EQ(state(), 1U);
    EXPECT_EQ(ipv4mc_desc->lib_init, 1);
    auto told = kit::take_messages();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].u.state.state, 1U);
    EXPECT_EQ(told[0].u.state.prev_state, 0U);
    heard_.clear();

    sim_set_state(2);
    EXPECT_EQ(state(), 2U);
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_STATE),
              (lines{"Platform lib state changed from INIT to READY",
                     "Lib state changed from INIT to READY"}));
    told = kit::take_messages();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].type, 0U);
    EXPECT_EQ(told[0].u.state.state, 2U);

    sim_set_state(0);
    EXPECT_EQ(state(), 1U);
    ASSERT_EQ(kit::take_messages().size(), 1U);
}

TEST_F(Lifecycle, APlatformThatIsReadyTwiceTellsNoOne) {
    const ipv4mc_platform_msg_st ready{0, 2, 1};
    ipv4mc_local_platform_callback_func(ipv4mc_desc, &ready);
    EXPECT_EQ(state(), 0U);
    const kit::library owner;
    kit::take_messages();
    heard_.clear();
    ipv4mc_local_platform_callback_func(ipv4mc_desc, &ready);
    EXPECT_EQ(state(), 2U);
    EXPECT_TRUE(heard_.lines().empty());
    EXPECT_TRUE(kit::take_messages().empty());
    // Not ready in INIT changes nothing either.
    const ipv4mc_platform_msg_st down{0, 0, 2};
    ipv4mc_local_platform_callback_func(ipv4mc_desc, &down);
    EXPECT_EQ(state(), 1U);
    kit::take_messages();
    ipv4mc_local_platform_callback_func(ipv4mc_desc, &down);
    EXPECT_EQ(state(), 1U);
    EXPECT_EQ(ipv4mc_desc->prev_state, 2U);
    EXPECT_TRUE(kit::take_messages().empty());
}

TEST_F(Lifecycle, PassesThePlatformsMessageOnAndNamesAnUnknownOne) {
    const kit::library owner;
    kit::take_messages();
    heard_.clear();
    sim_notify();
    const auto told = kit::take_messages();
    ASSERT_EQ(told.size(), 1U);
    ipv4mc_lib_callback_msg expected{};
    expected.type = 1;
    EXPECT_EQ(memcmp(&told[0], &expected, sizeof(expected)), 0);
    const ipv4mc_platform_msg_st odd{5, 2, 1};
    ipv4mc_local_platform_callback_func(ipv4mc_desc, &odd);
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_EV), lines{"Got message type 5"});
    EXPECT_TRUE(kit::take_messages().empty());
}

TEST_F(Lifecycle, WithoutACallbackTheStateChangesWithoutAWord) {
    kit::start quiet;
    quiet.with_callback = false;
    const kit::library owner(quiet);
    heard_.clear();
    sim_set_state(1);
    EXPECT_EQ(state(), 1U);
    sim_notify();
    EXPECT_TRUE(heard_.lines().empty());
    EXPECT_EQ(kit::service_calls("shmwin_monitor_lock"), 0U);
}

TEST_F(Lifecycle, EveryChangeOfStateLeavesATrace) {
    { const kit::library owner; }
    const auto traces = heard_.traces(ip6mc_mlib_eve_ltrace(), 0x100000001);
    ASSERT_EQ(traces.size(), 4U);  // to 1, to 2, to 0 by the reset, to 0 by the end
    EXPECT_EQ(traces[0].word[0], 0U);
    EXPECT_EQ(traces[0].word[1], 1U);
    EXPECT_EQ(traces[1].word[1], 2U);
    EXPECT_EQ(traces[2].word[0], 2U);
    EXPECT_EQ(traces[2].word[1], 0U);
}

TEST_F(Lifecycle, TellsStatesAndVersion) {
    kit::library owner;
    heard_.clear();
    uint32_t mine = 77;
    uint32_t platform = 77;
    EXPECT_EQ(ip6mc_get_state(nullptr, &platform), 22U);
    EXPECT_EQ(platform, 77U);
    EXPECT_EQ(heard_.errors(), lines{"NULL state pointer"});
    sim_arm_fault(SIM_OP_GET_STATE, SIM_ANY_ACTION, 0, 1, ENOMEM);
    EXPECT_EQ(ip6mc_get_state(&mine, &platform), 12U);
    EXPECT_EQ(mine, 77U);
    EXPECT_EQ(heard_.errors(), lines{"Cannot get platform lib state: Cannot allocate memory"});
    EXPECT_EQ(ip6mc_get_state(&mine, &platform), 0U);
    EXPECT_EQ(mine, 2U);
    EXPECT_EQ(platform, 2U);
    uint16_t major = 0;
    uint16_t minor = 0;
    ip6mc_get_version(&major, &minor);
    EXPECT_EQ(major, 1U);
    EXPECT_EQ(minor, 15U);
}

TEST_F(Lifecycle, HidesTheResultOfClearingTheHardware) {
    const kit::library owner;
    heard_.clear();
    sim_log_on(16);
    EXPECT_EQ(ip6mc_clear_hw_resources(3), 0U);
    ASSERT_EQ(sim_log_count(), 1U);
    EXPECT_EQ(sim_log_at(0)->action, 3U);
    sim_arm_fault(SIM_OP_CLEAR_HW, SIM_ANY_ACTION, 0, 1, EIO);
    EXPECT_EQ(ip6mc_clear_hw_resources(3), 0U);
    EXPECT_EQ(heard_.errors(), lines{"Plat clear hw resources API : Input/output error"});
}

TEST_F(Lifecycle, AsynchronousErrorsReachTheirHandlerWithAllSixArguments) {
    static std::vector<uint64_t> got;
    got.clear();
    ipmc_platform_async_err_set_cb([](uint64_t id, uint32_t oor, cerrno code, uint32_t type,
                                      uint32_t unit, void *context) -> cerrno {
        got = {id, oor, code, type, unit, reinterpret_cast<uint64_t>(context)};
        return 42;
    });
    EXPECT_EQ(ipmc_platform_async_err_handler(1, 2, 3, 4, 5, reinterpret_cast<void *>(6)), 42U);
    EXPECT_EQ(got, (std::vector<uint64_t>{1, 2, 3, 4, 5, 6}));
    ipmc_platform_async_err_set_cb(nullptr);
}

TEST_F(Lifecycle, KeepsTheNoteOfACompleteDownload) {
    EXPECT_EQ(ipmc_get_download_complete_rcvd(), 0);
    ipmc_set_download_complete_rcvd(-3);
    EXPECT_EQ(ipmc_get_download_complete_rcvd(), -3);
    ipmc_set_download_complete_rcvd(0);
}

TEST_F(Lifecycle, AnEndEmptiesTheWindowAndTellsTheClient) {
    kit::library owner;
    kit::take_messages();
    heard_.clear();
    sim_log_on(16);
    EXPECT_EQ(owner.terminate(1), 0U);
    EXPECT_EQ(ipv4mc_desc->shmwin_info, nullptr);
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 0);
    EXPECT_EQ(ipv4mc_desc->lib_init, 0);
    EXPECT_EQ(ipv4mc_desc->idb_init, 0);
    EXPECT_EQ(state(), 0U);
    // The reset went to DOWN before the end did.
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_STATE), (lines{"Lib state changed from READY to DOWN",
                                                     "Lib state changed from DOWN to DOWN"}));
    const auto told = kit::take_messages();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].u.state.state, 0U);
    EXPECT_EQ(told[0].u.state.prev_state, 0U);
    ASSERT_EQ(sim_log_count(), 1U);
    EXPECT_EQ(sim_log_at(0)->op, static_cast<sim_op>(SIM_OP_LIB_TERMINATE));
    EXPECT_EQ(sim_log_at(0)->action, 1U);
    EXPECT_EQ(heard_.traces(ip6mc_mlib_eve_ltrace(), 0x100000002).size(), 1U);
    EXPECT_EQ(heard_.errors(), lines{});
}

TEST_F(Lifecycle, AnEndForAnUpdateLeavesTheWindowMappedAndFlagged) {
    kit::library owner;
    const auto *hdr = ipv4mc_desc->shmwin_info;
    const uint32_t id = ipv4mc_desc->shmwin_id;
    EXPECT_EQ(owner.terminate(2), 0U);
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 0);
    EXPECT_EQ(ipv4mc_desc->shmwin_info, hdr);
    EXPECT_EQ(hdr->update_in_progress, 1U);
    EXPECT_NE(hdr->table_tid_tree, nullptr);
    EXPECT_EQ(state(), 0U);
    EXPECT_EQ(shmwin_close(id, 1), 0U);
}

TEST_F(Lifecycle, AHigherReasonClearsTheFlagAndTouchesNothingElse) {
    kit::library owner;
    const auto *hdr = ipv4mc_desc->shmwin_info;
    const uint32_t id = ipv4mc_desc->shmwin_id;
    ip6mc_set_update_in_progress_flag();
    EXPECT_EQ(owner.terminate(3), 0U);
    EXPECT_EQ(hdr->update_in_progress, 0U);
    EXPECT_NE(hdr->table_tid_tree, nullptr);
    EXPECT_EQ(hdr->version_major, 1U);
    EXPECT_EQ(shmwin_close(id, 1), 0U);
}

TEST_F(Lifecycle, AnEndReportsEachFailureAndReturnsTheLast) {
    kit::library owner;
    heard_.clear();
    kit::fail_service("ip6mc_gtrie_platform_lib_terminate", EIO);
    sim_arm_fault(SIM_OP_LIB_TERMINATE, SIM_ANY_ACTION, 0, 1, EPERM);
    kit::fail_service("shmwin_reset", EBUSY);
    EXPECT_EQ(owner.terminate(0), 16U);
    EXPECT_EQ(heard_.errors(),
              (lines{"Cannot terminate platform gtrie library: Input/output error",
                     "Cannot terminate platform library: Operation not permitted",
                     "Cannot reset shared mem window: Device or resource busy",
                     "Cannot reset shared memory window: Device or resource busy"}));
    EXPECT_EQ(state(), 0U);
}

TEST_F(Lifecycle, AnEarlierFailureStandsWhenTheLaterStepsPass) {
    kit::library owner;
    kit::fail_service("ip6mc_gtrie_platform_lib_terminate", EIO);
    EXPECT_EQ(owner.terminate(0), 5U);
    kit::library again;
    heard_.clear();
    kit::fail_service("shmwin_close", EIO);
    EXPECT_EQ(again.terminate(0), 5U);
    EXPECT_EQ(heard_.errors(), lines{"Cannot close shared mem window: Input/output error"});
    EXPECT_EQ(ipv4mc_desc->shmwin_info, nullptr);
    EXPECT_EQ(shmwin_close(ipv4mc_desc->shmwin_id, 1), 0U);
}

TEST_F(Lifecycle, AnEndBeforeAnyWindowIsASuccessEvenIfThePlatformFails) {
    kit::fail_service("ip6mc_gtrie_platform_lib_terminate", EIO);
    sim_arm_fault(SIM_OP_LIB_TERMINATE, SIM_ANY_ACTION, 0, 1, EPERM);
    EXPECT_EQ(ip6mc_lib_terminate(0, 0), 0U);
    EXPECT_EQ(heard_.errors().size(), 2U);
    EXPECT_EQ(ipv4mc_desc->shmwin_info, nullptr);
    EXPECT_TRUE(heard_.lines(IPV4_DEBUG_STATE).empty());
    EXPECT_TRUE(kit::take_messages().empty());
}

TEST_F(Lifecycle, TheEndOfAnUnfinishedStartClosesTheWindowWithoutAWord) {
    sim_arm_fault(SIM_OP_LIB_INIT, SIM_ANY_ACTION, 0, 1, EIO);
    ASSERT_EQ(kit::start_library(), 5U);
    EXPECT_EQ(state(), 1U);
    kit::take_messages();
    heard_.clear();
    sim_arm_fault(SIM_OP_LIB_TERMINATE, SIM_ANY_ACTION, 0, 1, EPERM);
    EXPECT_EQ(ip6mc_lib_terminate(0, 0), 1U);
    EXPECT_EQ(state(), 0U);
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 0);
    EXPECT_EQ(ipv4mc_desc->shmwin_info, nullptr);
    EXPECT_TRUE(heard_.lines(IPV4_DEBUG_STATE).empty());
    EXPECT_TRUE(kit::take_messages().empty());

    sim_arm_fault(SIM_OP_LIB_INIT, SIM_ANY_ACTION, 0, 1, EIO);
    ASSERT_EQ(kit::start_library(), 5U);
    heard_.clear();
    kit::fail_service("shmwin_close", EIO);
    EXPECT_EQ(ip6mc_lib_terminate(0, 0), 5U);
    EXPECT_EQ(heard_.errors(), (lines{"Cannot close shared mem window: Input/output error",
                                      "Cannot close shared memory window: Input/output error"}));
    EXPECT_EQ(shmwin_close(ipv4mc_desc->shmwin_id, 1), 0U);
}

TEST_F(Lifecycle, SuspectedCorruptionIsLeftByAStartInTheSameProcess) {
    kit::library owner;
    ipv4mc_table_st *table = nullptr;
    ASSERT_EQ(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, 5, 6, "red", &table, 16), 0U);
    // What an operation does that finds a trie in a state that must not be.
    ipv4mc_desc->shmwin_info->mlib_corrupted = 1;
    ipv4mc_desc->lib_init = 0;
    ipv4mc_update_state(0);
    heard_.clear();
    EXPECT_EQ(ip6mc_table_lookup_by_tbl_id(5), nullptr);
    EXPECT_EQ(heard_.errors(), lines{"Multicast library Not ready\n"});

    ASSERT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(state(), 2U);
    EXPECT_NE(ip6mc_table_lookup_by_tbl_id(5), nullptr);
    EXPECT_EQ(ipv4mc_desc->shmwin_info->mlib_corrupted, 1U);
    EXPECT_EQ(heard_.errors(), lines{});
}
