#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/diag/errors.h"
#include "services/diag/messages.h"
#include "services/locks/rrw_lock.h"
#include "services/platform_info/platform_info.h"
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

class Window : public ::testing::Test {
  protected:
    Window() {
        sim_reset();
        kit::heal_services();
        kit::take_messages();
        kit::answer_callback_with(0);
    }
    ~Window() override {
        kit::heal_services();
        kit::answer_callback_with(0);
        ip6mc_lib_terminate(0, 0);
    }

    // Runs an owner in a process of its own, to leave a window behind.
    static void leave_a_window() {
        kit::child owner([](const kit::post &) {
            return kit::start_library() == 0 && ip6mc_lib_terminate(0, 3) == 0 ? 0 : 1;
        });
        ASSERT_EQ(owner.wait(), 0);
    }

    void damage_the_file() const {
        const int fd = open((dir_.path() + "/mfwdv6").c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        const uint64_t garbage = 0x6767676767676767;
        ASSERT_EQ(pwrite(fd, &garbage, sizeof(garbage), 0), ssize_t{sizeof(garbage)});
        close(fd);
    }

    static std::string cannot_init(cerrno code) {
        void *base = nullptr;
        size_t most = 0;
        shmwin_platform_info("mfwdv6", &base, &most);
        char text[512];
        snprintf(text, sizeof(text),
                 "Cannot init shared mem window  mfwdv6 base_addr=%p max_table_size=%zd "
                 "hdr_size=%zd  %d: %s",
                 base, most, sizeof(ipv4mc_shmwin_hdr_st), static_cast<int>(code),
                 cerr_strerror(code));
        return text;
    }

    kit::run_dir dir_;
    kit::listener heard_;
};

}  // namespace

TEST_F(Window, IsOpenedWithARecordOfKnownLayout) {
    EXPECT_EQ(kit::start_library(), 0U);
    int32_t open = 7;
    EXPECT_EQ(ip6mc_shmwin_is_init(&open), 0U);
    EXPECT_EQ(open, 1);
    uint32_t id = 0;
    EXPECT_EQ(ip6mc_shmwin_get_id(&id), 0U);
    EXPECT_EQ(id, ipv4mc_desc->shmwin_id);
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    EXPECT_EQ(ip6mc_shmwin_get_info(&hdr), 0U);
    EXPECT_EQ(hdr, ipv4mc_desc->shmwin_info);
    EXPECT_TRUE(wavl_running(&hdr->table_name_tree));
    EXPECT_NE(hdr->table_tid_tree, nullptr);
    EXPECT_NE(hdr->buffer_pool, nullptr);
    EXPECT_NE(hdr->bvi_intf_db_root, nullptr);
    EXPECT_EQ(hdr->retry_queue, nullptr);  // not on this router type
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(ip6mc_shmwin_is_init(nullptr), 22U);
    EXPECT_EQ(ip6mc_shmwin_get_id(nullptr), 22U);
    EXPECT_EQ(ip6mc_shmwin_get_info(nullptr), 22U);
    EXPECT_EQ(heard_.errors(), lines(3, "NULL pointer"));
}

TEST_F(Window, AnswersNineWhenClosed) {
    int32_t open = 7;
    EXPECT_EQ(ip6mc_shmwin_is_init(&open), 0U);
    EXPECT_EQ(open, 0);
    uint32_t id = 77;
    EXPECT_EQ(ip6mc_shmwin_get_id(&id), 9U);
    EXPECT_EQ(id, 77U);
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    EXPECT_EQ(ip6mc_shmwin_get_info(&hdr), 9U);
    EXPECT_EQ(ip6mc_shmwin_reset(1), 9U);
    EXPECT_EQ(heard_.errors(), lines(3, "Shared Memory Window Not Initialized"));
    EXPECT_EQ(ip6mc_shmwin_close(), 0U);
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_EV), lines{"Shmwin already closed"});
    EXPECT_TRUE(kit::take_messages().empty());
}

TEST_F(Window, CloseForgetsTheHeaderAndReportsAFailure) {
    ASSERT_EQ(kit::start_library(), 0U);
    kit::fail_service("shmwin_close", EIO);
    EXPECT_EQ(ip6mc_shmwin_close(), 5U);
    EXPECT_EQ(heard_.errors(), lines{"Cannot close shared mem window: Input/output error"});
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 0);
    EXPECT_NE(ipv4mc_desc->shmwin_info, nullptr);  // still mapped
    ipv4mc_desc->shmwin_init = 1;
    EXPECT_EQ(ip6mc_shmwin_close(), 0U);
    EXPECT_EQ(ipv4mc_desc->shmwin_info, nullptr);
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 0);
    ipv4mc_desc->lib_init = 0;  // an end finds no window and leaves it
}

TEST_F(Window, ADamagedWindowIsRepairedOnce) {
    leave_a_window();
    damage_the_file();
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(heard_.errors(), lines{cannot_init(0x41d6f200)});
    EXPECT_EQ(kit::service_calls("shmwin_open_win"), 2U);
    EXPECT_EQ(kit::service_calls("shmwin_reset"), 1U);
    EXPECT_EQ(kit::service_calls("shmwin_close"), 1U);
    EXPECT_EQ(ipv4mc_desc->state, 2U);
    EXPECT_EQ(kit::window_faults(), lines{});
}

TEST_F(Window, AWindowOfAnotherLayoutIsRepairedToo) {
    kit::child other([](const kit::post &) {
        shmwin_set_fingerprint("mfwdv6", 12345);
        void *base = nullptr;
        shmwin_open_record record{};
        shmwin_platform_info("mfwdv6", &base, &record.max_table_size);
        snprintf(record.name, sizeof(record.name), "mfwdv6");
        record.base_addr = base;
        record.hdr_size = 4096;
        record.open_flags = SHMWIN_OPEN_OWNER;
        void *header = nullptr;
        uint32_t id = 0;
        return shmwin_open_win(&record, &header, &id) == 0 ? 0 : 1;
    });
    ASSERT_EQ(other.wait(), 0);
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(heard_.errors(), lines{cannot_init(0x41d6f200)});
}

TEST_F(Window, TheRepairReportsItsStepsAndGoesOn) {
    leave_a_window();
    damage_the_file();
    // Nothing is repaired when reset and close are refused, and so the second open fails as the
    // first did.
    kit::fail_service("shmwin_reset", EIO);
    kit::fail_service("shmwin_close", EPERM);
    EXPECT_EQ(kit::start_library(), 0x41d6f200U);
    EXPECT_EQ(
        heard_.errors(),
        (lines{cannot_init(0x41d6f200), "Cannot reset shared mem window: Input/output error",
               "Cannot close shared mem window: Operation not permitted", cannot_init(0x41d6f200),
               "Cannot open shared mem window: " + std::to_string(0x41d6f200) + " " +
                   cerr_strerror(0x41d6f200)}));
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 0);
    EXPECT_EQ(kit::service_calls("shmwin_open_win"), 2U);
    // And a third start repairs it.
    EXPECT_EQ(kit::start_library(), 0U);
}

TEST_F(Window, AnotherCodeEndsTheCallAtOnce) {
    kit::fail_service("shmwin_open_win", 0x41d6f009);
    EXPECT_EQ(kit::start_library(), 0x41d6f009U);
    const lines reports = heard_.errors();
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0], cannot_init(0x41d6f009));
    EXPECT_EQ(kit::service_calls("shmwin_open_win"), 1U);
    EXPECT_EQ(kit::service_calls("shmwin_reset"), 0U);
}

TEST_F(Window, TheLockIsMadeOnceAndJoinedAfterARestart) {
    leave_a_window();
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(kit::service_calls("rrw_lock_init"), 1U);
    const timespec now{};
    EXPECT_EQ(rrw_lock_get_timedwrlock(&ipv4mc_desc->shmwin_info->tbl_rw_lock, &now), 0U);
    EXPECT_EQ(rrw_lock_unlock(&ipv4mc_desc->shmwin_info->tbl_rw_lock, 1, 0), 0U);
}

TEST_F(Window, AResetLeavesAnEmptyHeaderAndStateDown) {
    ASSERT_EQ(kit::start_library(), 0U);
    ip6mc_shmwin_malloc(100);
    kit::take_messages();
    heard_.clear();
    ipv4mc_desc->idb_init = 1;
    EXPECT_EQ(ip6mc_shmwin_reset(1), 0U);
    const auto *bytes = reinterpret_cast<const unsigned char *>(ipv4mc_desc->shmwin_info);
    for (size_t i = 0; i < sizeof(ipv4mc_shmwin_hdr_st); ++i) {
        ASSERT_EQ(bytes[i], 0) << i;
    }
    EXPECT_EQ(ipv4mc_desc->lib_init, 0);
    EXPECT_EQ(ipv4mc_desc->idb_init, 0);
    EXPECT_EQ(ipv4mc_desc->shmwin_init, 1);
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_STATE), lines{"Lib state changed from READY to DOWN"});
    const auto told = kit::take_messages();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].type, 0U);
    EXPECT_EQ(told[0].u.state.prev_state, 2U);
    shmwin_usage usage{};
    EXPECT_EQ(shmwin_get_usage(ipv4mc_desc->shmwin_id, &usage), 0U);
    EXPECT_EQ(usage.used, 0U);
    // Without `notify` no message.
    EXPECT_EQ(ip6mc_shmwin_reset(0), 0U);
    EXPECT_TRUE(kit::take_messages().empty());
    EXPECT_EQ(heard_.errors(), lines{});
    // What the process had in the heap is forgotten, so the end touches none of it.
    EXPECT_EQ(ip6mc_lib_terminate(0, 0), 0U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(kit::window_faults(), lines{});
}

TEST_F(Window, AFailedResetIsReportedAndGoesOn) {
    ASSERT_EQ(kit::start_library(), 0U);
    kit::fail_service("shmwin_reset", EBUSY);
    EXPECT_EQ(ip6mc_shmwin_reset(0), 16U);
    EXPECT_EQ(heard_.errors(), lines{"Cannot reset shared mem window: Device or resource busy"});
    EXPECT_EQ(ipv4mc_desc->shmwin_info->table_tid_tree, nullptr);
    EXPECT_EQ(ipv4mc_desc->state, 0U);
}

TEST_F(Window, TheRetryQueueIsMadeOnRoutersThatHaveOneAndKept) {
    platform_info_t info;
    platform_info_get(&info);
    const platform_info_t before = info;
    // In a process of its own: the decision stays with the process.
    kit::child owner([&](const kit::post &) {
        info.router_type = PLATFORM_ROUTER_TYPE_ASYNC_A;
        platform_info_set(&info);
        const bool made = kit::start_library() == 0 &&
                          ipv4mc_desc->shmwin_info->retry_queue != nullptr &&
                          ipv4mc_desc->shmwin_info->alloc_count[IPMC_SHMWIN_ALLOC_RETRY_QUEUE] == 1;
        const auto *queue = ipv4mc_desc->shmwin_info->retry_queue;
        platform_info_set(&before);
        ipmc_queue_init();  // enabled once, it stays so
        const bool kept = ipv4mc_desc->shmwin_info->retry_queue == queue &&
                          heard_.traces(ip6mc_mlib_retry_queue_ltrace(), 0x100001008).size() == 2 &&
                          heard_.traces(ip6mc_mlib_retry_queue_ltrace(), 0x1000).size() == 2;
        ip6mc_lib_terminate(0, 3);
        return made && kept ? 0 : 1;
    });
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_NE(ipv4mc_desc->shmwin_info->retry_queue, nullptr);
    const auto traces = heard_.traces(ip6mc_mlib_retry_queue_ltrace(), 0x100001008);
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(traces[0].word[0], 1U);
    EXPECT_TRUE(heard_.traces(ip6mc_mlib_retry_queue_ltrace(), 0x1000).empty());
}

TEST_F(Window, StoresAreKeptByALaterStart) {
    leave_a_window();
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_EQ(kit::service_calls("rn_tree_init_v2"), 0U);
    EXPECT_EQ(kit::service_calls("ip6mc_gtrie_platform_init"), 0U);
    EXPECT_EQ(kit::service_calls("ip6mc_gtrie_platform_re_init"), 1U);
    EXPECT_EQ(kit::service_calls("shm_wavl_init"), 0U);
    EXPECT_EQ(kit::service_calls("shm_avl_tree_init"), 0U);
}

// ---- monitor of the window mutex ----

TEST_F(Window, TheMonitorAsksTheClientFirst) {
    ASSERT_EQ(kit::start_library(), 0U);
    kit::take_messages();
    EXPECT_EQ(ipv4mc_shmwin_callback_fn(5, 1, reinterpret_cast<void *>(77)), 0U);
    const auto told = kit::take_messages();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].type, 2U);
    EXPECT_EQ(told[0].u.monitor.window_id, 5U);
    EXPECT_EQ(told[0].u.monitor.event, 1U);
    EXPECT_EQ(told[0].u.monitor.argument, 77U);
    EXPECT_EQ(kit::service_calls("shmwin_kill_and_reset"), 0U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(heard_.traces(ip6mc_mlib_eve_ltrace(), 0x100010001).size(), 1U);
}

TEST_F(Window, AClientThatFailsLeavesAStuckHolderToTheLibrary) {
    ASSERT_EQ(kit::start_library(), 0U);
    kit::answer_callback_with(EIO);
    EXPECT_EQ(ipv4mc_shmwin_callback_fn(5, 2, nullptr), 5U);
    EXPECT_EQ(heard_.errors(), lines{"Callback function failed"});
    EXPECT_EQ(kit::service_calls("shmwin_kill_and_reset"), 0U);
    kit::fail_service("shmwin_kill_and_reset", ETIMEDOUT);
    EXPECT_EQ(ipv4mc_shmwin_callback_fn(5, 1, nullptr), 110U);
    EXPECT_EQ(heard_.errors(), lines{"Callback function failed"});
    ASSERT_EQ(heard_.messages().size(), 1U);
    EXPECT_EQ(heard_.messages()[0].severity, 3U);
    EXPECT_EQ(
        heard_.messages()[0].line,
        "ROUTING-IPV4_MLIB-3-SHMWIN_ERR: Failed in calling shmwin_kill : Connection timed out");
}

TEST_F(Window, WithoutAClientOnlyAStuckHolderMatters) {
    kit::start quiet;
    quiet.with_callback = false;
    ASSERT_EQ(kit::start_library(quiet), 0U);
    EXPECT_EQ(ipv4mc_shmwin_callback_fn(ipv4mc_desc->shmwin_id, 2, nullptr), 0U);
    EXPECT_EQ(kit::service_calls("shmwin_kill_and_reset"), 0U);
    EXPECT_EQ(ipv4mc_shmwin_callback_fn(ipv4mc_desc->shmwin_id, 1, nullptr),
              0U);  // nobody holds it
    EXPECT_EQ(kit::service_calls("shmwin_kill_and_reset"), 1U);
    EXPECT_EQ(heard_.errors(), lines{});
}

TEST_F(Window, AStuckHolderOfTheMutexIsKilled) {
    kit::child owner([](const kit::post &parent) {
        shmwin_set_wait_limit(20);
        kit::answer_callback_with(EIO);
        if (kit::start_library() != 0) {
            return 1;
        }
        parent.tell();
        parent.hear();
        // Waits, finds the holder stuck, and gets the mutex when it is dead.
        if (ip6mc_shmwin_mutex_lock("owner", __LINE__) != 0) {
            return 2;
        }
        uint32_t asked = 0;
        for (const auto &message : kit::take_messages()) {
            asked += message.type == 2 && message.u.monitor.event == 1 ? 1 : 0;
        }
        ip6mc_shmwin_mutex_unlock();
        return asked > 0 && kit::window_faults().empty() ? 0 : 3;
    });
    ASSERT_NE(owner.hear(), '\0');
    kit::child holder([](const kit::post &parent) {
        kit::start how;
        how.attach_only = 1;
        if (kit::start_library(how) != 0 || ip6mc_shmwin_mutex_lock("holder", __LINE__) != 0) {
            return 1;
        }
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_NE(holder.hear(), '\0');
    owner.tell();
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(holder.wait(), 128 + SIGKILL);
}
