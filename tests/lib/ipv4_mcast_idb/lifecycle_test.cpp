#include "services/diag/text.h"
#include "services/events/event_manager.h"
#include "tests/kit/service_faults.h"
#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

std::vector<ipv4mc_idb_callback_msg> told;
void *told_context = nullptr;

cerrno note_state(ipv4mc_descriptor_struct *descriptor, const ipv4mc_idb_callback_msg *message,
                  void *context) {
    EXPECT_EQ(descriptor, ipv4mc_desc);
    told.push_back(*message);
    told_context = context;
    return 0;
}

cerrno no_route_check(ipv4mc_idb_st *, ipv4mc_route_entry_st *, ipv4mc_intf_entry_st *, void *) {
    return 0;
}

class IdbLife : public testing::Test {
  protected:
    IdbLife() {
        told.clear();
        sim_reset();
        sim_log_on(100);
        EXPECT_EQ(event_manager_create(&evm_), 0U);
    }

    ~IdbLife() override {
        ip6mc_idb_terminate(0, 0);
        ipv4mc_idb_update_state(IPV4MC_IDB_STATE_DOWN);
        ipv4mc_idb_update_state(IPV4MC_IDB_STATE_DOWN);
        ipv4mc_desc->evm = nullptr;
        event_manager_destroy(evm_);
        sim_reset();
    }

    cerrno start(int manage, bool with_evm = true) {
        return ip6mc_idb_init(with_evm ? evm_ : nullptr, nullptr, manage, note_state, &told,
                              no_route_check, this);
    }

    static int tree_runs() { return wavl_running(&header()->idb_tree); }

    kit::run_dir dir_;
    kit::listener heard_;
    kit::library owner_;
    event_manager_t *evm_ = nullptr;
};

TEST_F(IdbLife, StartsAtOnceWithoutInterfacesToManage) {
    EXPECT_EQ(tree_runs(), 0);
    EXPECT_EQ(start(0), 0U);
    EXPECT_EQ(ipv4mc_desc->idb_state, 2U);
    EXPECT_EQ(ipv4mc_desc->prev_idb_state, 1U);
    EXPECT_EQ(ipv4mc_desc->idb_init, 1);
    EXPECT_EQ(ipv4mc_desc->evm, evm_);
    EXPECT_EQ(ipv4mc_desc->idb_param, this);
    EXPECT_EQ(ipv4mc_desc->idb_callback, note_state);
    EXPECT_EQ(ipv4mc_desc->idb_callback_context, &told);
    EXPECT_EQ(ip_mfwd_check_bundle_data_mdt_f, no_route_check);
    EXPECT_NE(tree_runs(), 0);
    EXPECT_TRUE(idb_calls().empty()) << "the platform is not asked";
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].type, 0U);
    EXPECT_EQ(told[0].state, 2U);
    EXPECT_EQ(told[0].prev_state, 1U);
    EXPECT_EQ(told_context, &told);
    char text[100];
    snprintf(text, sizeof(text), "IDB state changed from %s to %s", ipv4_mlib_idb_state_string(0),
             ipv4_mlib_idb_state_string(1));
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), text));
    EXPECT_TRUE(heard_.errors().empty());
}

TEST_F(IdbLife, StartsOnce) {
    EXPECT_EQ(start(0), 0U);
    EXPECT_EQ(ip6mc_idb_init(nullptr, nullptr, 1, nullptr, nullptr, nullptr, nullptr), 0U);
    EXPECT_EQ(told.size(), 1U);
    EXPECT_EQ(ipv4mc_desc->evm, evm_);
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), "IDB lib already initialized"));
}

TEST_F(IdbLife, RefusesWhatItCannotStartWith) {
    ipv4mc_desc->state = 1;
    EXPECT_EQ(start(0), 9U);
    ipv4mc_desc->state = 2;
    ipv4mc_shmwin_hdr_st *const window = ipv4mc_desc->shmwin_info;
    ipv4mc_desc->shmwin_info = nullptr;
    EXPECT_EQ(start(0), 22U);
    ipv4mc_desc->shmwin_info = window;
    EXPECT_EQ(start(1, false), 22U);
    EXPECT_EQ(heard_.errors(),
              (std::vector<std::string>{"Multicast library Not ready\n",
                                        "Fatal Error: Null ipv4mc_shmwin_info",
                                        "Fatal Error: Cannot manage I/Fs with NULL evm"}));
    EXPECT_EQ(ipv4mc_desc->idb_init, 0);
    EXPECT_EQ(ipv4mc_desc->idb_state, 0U);
    EXPECT_TRUE(told.empty());
}

TEST_F(IdbLife, WithoutATreeItDoesNotStart) {
    kit::fail_service("shm_wavl_init", 12);
    EXPECT_EQ(start(0), 12U);
    EXPECT_EQ(heard_.errors(),
              (std::vector<std::string>{std::string("Cannot init wavl tree for idb 12: ") +
                                        cerr_strerror(12)}));
    EXPECT_EQ(ipv4mc_desc->idb_init, 0);
    EXPECT_EQ(tree_runs(), 0);
    EXPECT_TRUE(told.empty());
    kit::heal_services();
    EXPECT_EQ(start(0), 0U);
    EXPECT_NE(tree_runs(), 0);
}

TEST_F(IdbLife, AsksThePlatformWhenItManagesInterfaces) {
    EXPECT_EQ(start(1), 0U);
    EXPECT_EQ(idb_calls(), (std::vector<uint32_t>{0x40000, 0x800, 0x40000, 0x20000}));
    EXPECT_EQ(ipv4mc_desc->idb_state, 2U);
    EXPECT_EQ(told.size(), 1U);
}

TEST_F(IdbLife, WaitsForAPlatformThatIsNotReady) {
    sim_set_idb_state(IPV4MC_PLATFORM_STATE_NOT_READY);
    EXPECT_EQ(start(1), 0U);
    EXPECT_EQ(ipv4mc_desc->idb_state, 1U);
    EXPECT_EQ(ipv4mc_desc->idb_init, 1);
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB),
                         std::string("IDB state is still ") + ipv4_mlib_idb_state_string(1)));
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].state, 1U);
    EXPECT_EQ(told[0].prev_state, 0U);
    // The state before is looked at, which is 0 here.
    sim_set_idb_state(IPV4MC_PLATFORM_STATE_READY);
    EXPECT_EQ(ipv4mc_desc->idb_state, 1U);
    EXPECT_EQ(told.size(), 1U);
}

struct failing_step {
    uint32_t action;
    uint64_t after;
    int idb_init;
    const char *error;
    const char *message;
};

TEST_F(IdbLife, EndsWhereThePlatformFails) {
    const failing_step steps[] = {
        {IPV4MC_IDB_OP_SPEC_INIT, 0, 0, nullptr, "Cannot INIT op_spec "},
        {IPV4MC_IDB_OP_INIT, 0, 0, "Error while init HW IDB:", nullptr},
        {IPV4MC_IDB_OP_SPEC_INIT, 1, 1, nullptr, "Cannot INIT op_spec "},
        {IPV4MC_IDB_OP_GET_STATE, 0, 1, nullptr, "Cannot get current platform IDB state "},
    };
    for (const failing_step &step : steps) {
        SCOPED_TRACE(step.action);
        sim_clear_faults();
        sim_arm_fault(SIM_OP_IDB, step.action, step.after, 1, 5);
        heard_.errors();
        EXPECT_EQ(start(1), 5U);
        EXPECT_EQ(ipv4mc_desc->idb_state, 0U);
        EXPECT_EQ(ipv4mc_desc->idb_init, step.idb_init);
        EXPECT_EQ(tree_runs(), 0);
        EXPECT_TRUE(told.empty());
        if (step.error != nullptr) {
            EXPECT_TRUE(contains(heard_.errors(), step.error));
        }
        if (step.idb_init != 0) {
            EXPECT_EQ(start(1), 0U) << "counts as started";
            EXPECT_EQ(ipv4mc_desc->idb_state, 0U);
        }
        ip6mc_idb_terminate(0, 0);
    }
    // The catalogue limits each message to one in a while; the first of its kind is there.
    ASSERT_FALSE(heard_.messages().empty());
    EXPECT_NE(heard_.messages()[0].line.find("Cannot INIT op_spec "), std::string::npos);
    EXPECT_EQ(heard_.messages()[0].severity, 3U);
}

TEST_F(IdbLife, FollowsThePlatformByThePreviousState) {
    ASSERT_EQ(start(1), 0U);  // 2, before it 1
    told.clear();
    const auto tell = [](uint32_t type, uint32_t state, uint32_t before) {
        const ipv4mc_platform_msg_st message{type, state, before};
        ipv4mc_local_platform_idb_callback_func(ipv4mc_desc, &message);
    };
    tell(0, 1, 2);
    EXPECT_EQ(ipv4mc_desc->idb_state, 2U) << "the state before is not 2";
    tell(7, 2, 1);
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), "Got message type 7"));
    EXPECT_TRUE(told.empty());

    heard_.clear();
    tell(0, 2, 1);  // the state before is 1
    EXPECT_EQ(ipv4mc_desc->idb_state, 2U);
    EXPECT_EQ(ipv4mc_desc->prev_idb_state, 2U);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].state, 2U);
    EXPECT_EQ(told[0].prev_state, 2U);
    char text[100];
    snprintf(text, sizeof(text), "Platform IDB state changed from %s to %s",
             ipv4_mlib_platform_idb_state_string(1), ipv4_mlib_platform_idb_state_string(2));
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), text));
    snprintf(text, sizeof(text), "IDB state changed from %s to %s", ipv4_mlib_idb_state_string(2),
             ipv4_mlib_idb_state_string(2));
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), text));

    tell(0, 0, 2);  // the state before is 2
    EXPECT_EQ(ipv4mc_desc->idb_state, 1U);
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[1].state, 1U);

    ipv4mc_desc->evm = nullptr;
    heard_.clear();
    tell(0, 0, 2);
    EXPECT_EQ(told.size(), 3U);
    EXPECT_TRUE(heard_.lines(IPV4_DEBUG_IDB).empty()) << "no lines without an event manager";
}

TEST_F(IdbLife, StopsWithOrWithoutTheTree) {
    ASSERT_EQ(start(0), 0U);
    locked(0x10);
    EXPECT_EQ(ip6mc_idb_terminate(0, 0), 0U);
    EXPECT_NE(tree_runs(), 0);
    EXPECT_EQ(ipv4mc_desc->idb_state, 0U);
    EXPECT_EQ(ipv4mc_desc->idb_init, 0);
    char text[100];
    snprintf(text, sizeof(text), "IDB state changed from %s to %s", ipv4_mlib_idb_state_string(2),
             ipv4_mlib_idb_state_string(0));
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), text));

    ASSERT_EQ(start(0), 0U);
    EXPECT_NE(found(0x10), nullptr) << "a tree that runs is kept";
    EXPECT_EQ(ip6mc_idb_terminate(1, 1), 0U);
    EXPECT_NE(tree_runs(), 0);
    ASSERT_EQ(start(0), 0U);
    EXPECT_EQ(ip6mc_idb_terminate(1, 0), 0U);
    EXPECT_EQ(tree_runs(), 0);
    EXPECT_EQ(live_idbs(), 1U) << "records stay";
}

TEST_F(IdbLife, StopsWhatWasNeverStarted) {
    ipv4mc_idb_update_state(1);
    EXPECT_EQ(ip6mc_idb_terminate(1, 0), 0U);
    EXPECT_EQ(ipv4mc_desc->idb_state, 0U);
    EXPECT_EQ(ipv4mc_desc->prev_idb_state, 1U);
    EXPECT_TRUE(contains(heard_.lines(IPV4_DEBUG_IDB), "IDB lib is not initialized"));

    ASSERT_EQ(start(0), 0U);
    ipv4mc_shmwin_hdr_st *const window = ipv4mc_desc->shmwin_info;
    ipv4mc_desc->shmwin_info = nullptr;
    EXPECT_EQ(ip6mc_idb_terminate(0, 0), 0U);
    ipv4mc_desc->shmwin_info = window;
    EXPECT_EQ(heard_.errors(), std::vector<std::string>{"NULL shared mem descriptor"});
    EXPECT_EQ(ipv4mc_desc->idb_init, 1);
}

TEST_F(IdbLife, NeedsNoSecondStart) {
    EXPECT_EQ(ip6mc_idb_reinit(), 0U);
    ASSERT_EQ(start(0), 0U);
    EXPECT_EQ(ip6mc_idb_reinit(), 0U);
}

TEST_F(IdbLife, MarksWhatWasAnnouncedBeforeTheRestart) {
    ASSERT_EQ(start(0), 0U);
    ipv4mc_idb_st *announced = locked(0x10);
    ipv4mc_idb_st *other = locked(0x20);
    for (ipv4mc_idb_st *idb : {announced, other}) {
        idb->create_state = IPV4MC_IDB_CREATED;
        idb->cfg_flags = IPV4MC_IDB_CFG_PPPOE_ENABLE;
    }
    announced->im_create_rcvd = 1;
    ip6mc_idb_terminate(0, 0);
    heard_.clear();
    ASSERT_EQ(start(0), 0U);
    EXPECT_EQ(announced->create_state, 0U);
    EXPECT_EQ(announced->cfg_flags, IPV4MC_IDB_CFG_PPPOE_ENABLE | IPV4MC_IDB_CFG_STALE);
    EXPECT_EQ(announced->im_create_rcvd, 1);
    EXPECT_EQ(announced->refcount, 1U);
    EXPECT_EQ(other->create_state, uint32_t{IPV4MC_IDB_CREATED});
    EXPECT_EQ(other->cfg_flags, IPV4MC_IDB_CFG_PPPOE_ENABLE);
    const auto lines = heard_.lines(IPV4_DEBUG_IDB);
    EXPECT_TRUE(contains(
        lines, "Marking Ha0x10 0x10 refcount 1 STALE due to MFWD restart, im_create_rcvd 1"));
    EXPECT_TRUE(contains(
        lines,
        "IDB Ha0x20 (0x20) refct 1 not marked as stale  due to MFWD restart im_create_rcvd 0"));
    const auto walks = heard_.traces(ip6mc_mlib_ltrace(), 0x100060002);
    ASSERT_FALSE(walks.empty());
    EXPECT_EQ(walks.back().word[0], 1U) << "one was marked";
}

TEST_F(IdbLife, MarksNothingWithoutAnEventManager) {
    ASSERT_EQ(start(0, false), 0U);
    ipv4mc_idb_st *announced = locked(0x10);
    announced->im_create_rcvd = 1;
    ip6mc_idb_terminate(0, 0);
    ASSERT_EQ(start(0, false), 0U);
    EXPECT_EQ(announced->cfg_flags, 0);
}

TEST_F(IdbLife, ReportsAWalkThatCannotBeMade) {
    ASSERT_EQ(start(0), 0U);
    ipv4mc_desc->state = 1;
    ipv4mc_idb_update_state(2);
    ipv4mc_desc->state = 2;
    EXPECT_TRUE(contains(heard_.errors(), "IDB walk failed"));
}

}  // namespace
}  // namespace idb_test
