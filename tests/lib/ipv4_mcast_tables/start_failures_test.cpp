// Each step of a start that can fail, with its report, and the start that is called again.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/events/event_manager.h"
#include "services/window/inspect.h"
#include "services/window/setup.h"
#include "tests/kit/child.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"
#include "tests/kit/service_faults.h"
#include "tests/kit/window_check.h"

using lines = std::vector<std::string>;

namespace {

struct failing_step {
    const char *name;
    std::function<void()> arm;
    cerrno code;
    lines reports;
    bool window_open;
    uint32_t state;
};

void PrintTo(const failing_step &step, std::ostream *out) {
    *out << step.name;
}

std::function<void()> service(const char *name, cerrno code, uint64_t skip = 0) {
    return [=] { kit::fail_service(name, code, 1, skip); };
}

std::function<void()> platform(sim_op op, cerrno code) {
    return [=] { sim_arm_fault(op, SIM_ANY_ACTION, 0, 1, code); };
}

const failing_step steps[] = {
    {"PlatformParameters",
     service("platform_get_mcast_params", EIO),
     EIO,
     {"Cannot get platform specific info for shared mem 5: Input/output error"},
     false,
     0},
    {"WindowPlace",
     service("shmwin_platform_info", EINVAL),
     EINVAL,
     {"Cannot get shared mem window info 22: Invalid argument",
      "Cannot open shared mem window: 22 Invalid argument"},
     false,
     0},
    {"Pool",
     service("shmwin_malloc", ENOMEM),
     ENOMEM,
     {"Cannot Allocate shmwin buffer pool from shared memory 12: Cannot allocate memory",
      "Cannot open shared mem window: 12 Cannot allocate memory"},
     true,
     0},
    {"TableNameTree",
     service("shm_wavl_init", EINVAL),
     EINVAL,
     {"Cannot init wavl tree for tables 22: Invalid argument",
      "Cannot open shared mem window: 22 Invalid argument"},
     true,
     0},
    {"TableIdTree",
     service("shm_avl_tree_init", ENOMEM),
     ENOMEM,
     {"Cannot init avl tree for table(tid based) 12: Cannot allocate memory",
      "Cannot open shared mem window: 12 Cannot allocate memory"},
     true,
     0},
    {"BviInterfaces",
     service("rn_tree_init_v2", ENOMEM),
     1,
     {"ip6mc_bvi_intf_db_init:initializaing the BVI Intf DB tree root",
      "ip6mc_shmwin_open: ERR:BVI Intf DB Init FAILED",
      "Cannot open shared mem window: 1 Operation not permitted"},
     true,
     0},
    {"Monitor",
     service("shmwin_monitor_lock", EBADF),
     EBADF,
     {"Cannot register to monitor shared memory mutex: Bad file descriptor"},
     true,
     0},
    {"TableSearch",
     service("shm_avl_tree_allocate_object", ENOMEM),
     ENOMEM,
     {"Cannot allocate " + std::to_string(sizeof(ipv4mc_table_st)) +
      " bytes for table search : Cannot allocate memory"},
     true,
     0},
    {"GtrieLibrary",
     service("ip6mc_gtrie_platform_lib_init", EIO),
     EIO,
     {"Cannot initialize platform gtrie library: Input/output error"},
     true,
     1},
    {"TransportTree",
     service("rn_tree_init_v2", ENOMEM, 1),
     EINVAL,
     {"Error initializing regdb tree", "Cannot re-initialize tables: Invalid argument"},
     true,
     1},
    {"EncapTrie",
     service("ip6mc_gtrie_platform_init", ENOMEM),
     ENOMEM,
     {"Cannot init new encap Gtrie error 12 Cannot allocate memory",
      "Cannot re-initialize tables: Cannot allocate memory"},
     true,
     1},
    {"PlatformLibrary",
     platform(SIM_OP_LIB_INIT, EPERM),
     EPERM,
     {"Cannot initialize platform specific library: Operation not permitted"},
     true,
     1},
    {"PlatformState",
     platform(SIM_OP_GET_STATE, EIO),
     EIO,
     {"Cannot get the state of platform lib: Input/output error"},
     true,
     1},
};

class FailingStart : public ::testing::TestWithParam<failing_step> {
  protected:
    FailingStart() {
        sim_reset();
        kit::heal_services();
        kit::take_messages();
    }
    ~FailingStart() override {
        kit::heal_services();
        ip6mc_lib_terminate(0, 0);
        sim_reset();
    }

    kit::run_dir dir_;
    kit::listener heard_;
};

}  // namespace

TEST_P(FailingStart, ReportsTheStepAndCanBeCalledAgain) {
    const failing_step &step = GetParam();
    step.arm();
    EXPECT_EQ(kit::start_library(), step.code);
    EXPECT_EQ(heard_.errors(), step.reports);
    EXPECT_EQ(ipv4mc_desc->shmwin_init, step.window_open ? 1 : 0);
    EXPECT_EQ(ipv4mc_desc->lib_init, 0);
    EXPECT_EQ(ipv4mc_desc->state, step.state);
    EXPECT_TRUE(kit::take_messages().empty());
    kit::heal_services();
    sim_clear_faults();

    // What was open stays open, so a window that could not be set up is closed first.
    if (step.window_open && step.state == 0 && step.name != std::string("Monitor") &&
        step.name != std::string("TableSearch")) {
        EXPECT_EQ(ip6mc_lib_terminate(0, 0), 0U);
    }
    heard_.clear();
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(ipv4mc_desc->state, 2U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(kit::window_faults(), lines{});
}

INSTANTIATE_TEST_SUITE_P(Owner, FailingStart, ::testing::ValuesIn(steps),
                         [](const auto &one) { return std::string(one.param.name); });

namespace {
class Start : public ::testing::Test {
  protected:
    Start() {
        sim_reset();
        kit::heal_services();
        kit::take_messages();
    }
    ~Start() override {
        kit::heal_services();
        ip6mc_lib_terminate(0, 0);
        sim_reset();
    }

    kit::run_dir dir_;
    kit::listener heard_;
};
}  // namespace

TEST_F(Start, GoesOnWithoutThePendingSessions) {
    kit::fail_service("rn_tree_init", ENOMEM);
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(heard_.errors(), lines{"Failed to initialize pppoe_parent_db"});
}

TEST_F(Start, GoesOnWithALockThatCouldNotBeMade) {
    kit::fail_service("rrw_lock_init", EBUSY);
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(ip6mc_lib_terminate(0, 0), 0U);
    kit::fail_service("rrw_lock_init", EINVAL);
    EXPECT_EQ(kit::start_library(), 0U);
    const lines reports = heard_.errors();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_TRUE(reports[0].ends_with("] Cannot init rwlock [22] : Invalid argument")) << reports[0];
}

TEST_F(Start, GoesOnWithoutTheRetryLibrary) {
    event_manager_t *evm = nullptr;
    ASSERT_EQ(event_manager_create(&evm), 0U);
    kit::start how;
    how.evm = evm;
    kit::fail_service("retry_init", ENOMEM);
    EXPECT_EQ(kit::start_library(how), 0U);
    EXPECT_EQ(heard_.errors(), lines{"Cannot initialize retry library: Cannot allocate memory"});
    EXPECT_EQ(ip6mc_lib_terminate(0, 0), 0U);
    EXPECT_EQ(kit::start_library(how), 0U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(kit::service_calls("retry_init"), 2U);
    EXPECT_EQ(ip6mc_lib_terminate(0, 0), 0U);
    event_manager_destroy(evm);
}

TEST_F(Start, WithoutAnEventManagerStartsNoRetryLibrary) {
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(kit::service_calls("retry_init"), 0U);
}

TEST_F(Start, OnAFullWindowIsReportedAndSucceedsWhenThereIsSpace) {
    kit::child former([](const kit::post &) {
        if (kit::start_library() != 0 || shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 1) != 0) {
            return 1;
        }
        for (size_t size : {size_t{65536}, size_t{4096}, size_t{512}, size_t{64}, size_t{0}}) {
            while (ip6mc_shmwin_malloc(size) != nullptr) {
            }
        }
        return 0;  // without an end: its search key stays behind as well
    });
    ASSERT_EQ(former.wait(), 0);
    EXPECT_EQ(kit::start_library(), 12U);
    const std::string size = std::to_string(sizeof(ipv4mc_table_st));
    EXPECT_EQ(
        heard_.errors(),
        (lines{"Cannot Allocate " + size + " bytes from shared memory " +
                   std::to_string(SHMWIN_ERR_SPACE) + ": " + shmwin_strerror(SHMWIN_ERR_SPACE),
               "Cannot allocate " + size + " bytes for table search : Cannot allocate memory"}));
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 1);
    EXPECT_EQ(ipv4mc_desc->state, 0U);
    EXPECT_EQ(kit::window_faults(), lines{});
    shmwin_each_block(
        ipv4mc_desc->shmwin_id, 0,
        [](const shmwin_block *block, void *) {
            const bool large = block->words[1] == 65536;
            if (large) {
                ip6mc_shmwin_free(static_cast<char *>(block->address) +
                                  sizeof(ipmc_shmwin_guard_st));
            }
            return large ? 1 : 0;
        },
        nullptr);
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(kit::window_faults(), lines{});
}

TEST_F(Start, AnAttachedClientWithAnInterfaceManagerIsRefusedAfterTheWindowOpened) {
    kit::child owner([](const kit::post &parent) {
        const kit::library library;
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_NE(owner.hear(), '\0');
    int context = 0;
    kit::start how;
    how.attach_only = 1;
    how.im_context = &context;
    heard_.clear();
    EXPECT_EQ(kit::start_library(how), 22U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 1);
    EXPECT_EQ(ipv4mc_desc->state, 0U);
    how.im_context = nullptr;
    EXPECT_EQ(kit::start_library(how), 0U);
    EXPECT_EQ(ipv4mc_desc->state, 2U);
    // At once, and not told at class 8.
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_STATE), lines{"Lib state changed from DOWN to INIT"});
    EXPECT_EQ(ipv4mc_desc->buffer_pool_enabled, 0);
    EXPECT_EQ(sim_calls(SIM_OP_GET_STATE), 0U);
    EXPECT_EQ(kit::service_calls("shmwin_monitor_lock"), 0U);
    EXPECT_EQ(ip6mc_lib_terminate(1, 0), 0U);
    owner.tell();
    EXPECT_EQ(owner.wait(), 0);
}

TEST_F(Start, AnAttachedClientReportsItsPlatform) {
    kit::child owner([](const kit::post &parent) {
        const kit::library library;
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_NE(owner.hear(), '\0');
    kit::start how;
    how.attach_only = 1;
    sim_arm_fault(SIM_OP_LIB_INIT, SIM_ANY_ACTION, 0, 1, EPERM);
    EXPECT_EQ(kit::start_library(how), 1U);
    EXPECT_EQ(heard_.errors(),
              lines{"Cannot initialize platform specific library: Operation not permitted"});
    EXPECT_EQ(ipv4mc_desc->state, 1U);
    EXPECT_EQ(ip6mc_lib_terminate(1, 0), 0U);
    owner.tell();
    EXPECT_EQ(owner.wait(), 0);
}

TEST_F(Start, AnAttachedClientWithoutAWindowIsToldSo) {
    kit::start how;
    how.attach_only = 1;
    EXPECT_EQ(kit::start_library(how), SHMWIN_ERR_NO_WINDOW);
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 0);
    EXPECT_EQ(heard_.errors().size(), 2U);
}

TEST_F(Start, AFailedResetOfAnOldVersionEndsIt) {
    ASSERT_EQ(kit::start_library(), 0U);
    ipv4mc_desc->shmwin_info->version_major = 0;
    ipv4mc_desc->shmwin_info->version_minor = 9;
    ip6mc_set_update_in_progress_flag();
    ipv4mc_desc->lib_init = 0;
    heard_.clear();
    kit::fail_service("shmwin_reset", EBUSY);
    EXPECT_EQ(kit::start_library(), 16U);
    EXPECT_EQ(heard_.errors(),
              (lines{"Cannot reset shared mem window: Device or resource busy",
                     "Cannot reset shared mem window: Device or resource busy",
                     "Cannot process version changes from 0.9 to 1.15: Device or resource busy"}));
    EXPECT_EQ(ipv4mc_desc->lib_init, 0);
    EXPECT_EQ(ipv4mc_desc->state, 0U);
}
