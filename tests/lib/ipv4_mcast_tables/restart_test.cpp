// What a start finds in a window that another process left. Each owner is a process of its own.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/window/inspect.h"
#include "tests/kit/child.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"
#include "tests/kit/window_check.h"

namespace {

// Runs an owner; its exit code is the number of failed expectations in it, or 0.
int run(const std::function<void()> &work) {
    kit::child process([&](const kit::post &) {
        work();
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    return process.wait();
}

// Runs `work` in an owner and kills it behind.
void run_and_kill(const std::function<void()> &work) {
    kit::child process([&](const kit::post &parent) {
        work();
        parent.tell(::testing::Test::HasFailure() ? 'F' : '.');
        parent.hear();
        return 0;
    });
    EXPECT_EQ(process.hear(), '.');
    process.kill();
}

void start() {
    ASSERT_EQ(kit::start_library(), 0U);
}

void make_table(uint32_t tid, uint32_t vrf_id, const char *name) {
    ipv4mc_table_st *table = nullptr;
    ASSERT_EQ(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, vrf_id, name, &table, 16), 0U);
}

void fill_pool(uint32_t blocks, size_t size) {
    std::vector<void *> taken;
    for (uint32_t i = 0; i < blocks; ++i) {
        taken.push_back(ip6mc_shmwin_malloc(size));
    }
    for (void *block : taken) {
        ASSERT_EQ(ip6mc_shmwin_free(block), 0U);
    }
}

const ipv4mc_shmwin_hdr_st &header() {
    return *ipv4mc_desc->shmwin_info;
}

void stamp(uint16_t major, uint16_t minor) {
    ipv4mc_desc->shmwin_info->version_major = major;
    ipv4mc_desc->shmwin_info->version_minor = minor;
}

bool has_table(uint32_t tid) {
    return ip6mc_table_lookup_by_tbl_id(tid) != nullptr;
}

}  // namespace

TEST(Restart, AfterAKillFindsTablesPoolAndCounts) {
    kit::run_dir dir;
    run_and_kill([] {
        start();
        make_table(5, 6, "red");
        fill_pool(10, 100);
        ip6mc_shmwin_mutex_lock("here", 12);
        ip6mc_shmwin_mutex_unlock();
        ipv4mc_desc->shmwin_info->shmwin_lock_count = 3;
        ipv4mc_desc->shmwin_info->pak_lock_total = 4;
        ipv4mc_desc->shmwin_info->pak_lock_fn[0] = 'x';
    });
    EXPECT_EQ(run([] {
                  kit::listener heard;
                  start();
                  EXPECT_TRUE(heard.errors().empty());
                  EXPECT_TRUE(has_table(5));
                  EXPECT_EQ(header().buffer_pool[100].count, 10U);
                  EXPECT_EQ(kit::pooled_blocks(), 10U);
                  EXPECT_EQ(header().shmwin_lock_count, 0U);
                  EXPECT_EQ(header().shmwin_lock_pid, 0U);
                  EXPECT_EQ(header().shmwin_lock_fn[0], '\0');
                  EXPECT_EQ(header().pak_lock_total, 0U);
                  EXPECT_EQ(header().pak_lock_fn[0], '\0');
                  for (const auto &fault : kit::window_faults()) {
                      ADD_FAILURE() << fault;
                  }
                  // The tree's head, the table, the search key, and the one of the killed process.
                  EXPECT_EQ(kit::live_blocks()[IPMC_SHMWIN_ALLOC_AVL], 4U);
                  void *block = ip6mc_shmwin_malloc(100);
                  EXPECT_EQ(header().buffer_pool[100].count, 9U);
                  EXPECT_EQ(header().buffer_pool[100].reuse_count, 1U);
                  EXPECT_EQ(ip6mc_shmwin_free(block), 0U);
                  EXPECT_EQ(ip6mc_lib_terminate(0, 3), 0U);
              }),
              0);
}

TEST(Restart, AfterAnInPlaceUpdateKeepsAllAndFindsTheFlag) {
    kit::run_dir dir;
    EXPECT_EQ(run([] {
                  start();
                  make_table(5, 6, "red");
                  EXPECT_EQ(ip6mc_lib_terminate(0, 2), 0U);
              }),
              0);
    EXPECT_EQ(run([] {
                  start();
                  uint32_t flag = 0;
                  EXPECT_EQ(ip6mc_get_update_in_progress_flag(&flag), 0U);
                  EXPECT_EQ(flag, 1U);
                  EXPECT_TRUE(has_table(5));
                  EXPECT_TRUE(kit::window_faults().empty());
                  EXPECT_EQ(kit::live_blocks()[IPMC_SHMWIN_ALLOC_AVL],
                            3U);  // head, table, search key
              }),
              0);
}

TEST(Restart, AfterAnEndFindsNothing) {
    kit::run_dir dir;
    EXPECT_EQ(run([] {
                  start();
                  make_table(5, 6, "red");
                  EXPECT_EQ(ip6mc_lib_terminate(0, 0), 0U);
              }),
              0);
    EXPECT_EQ(run([] {
                  start();
                  EXPECT_FALSE(has_table(5));
                  EXPECT_TRUE(kit::window_faults().empty());
              }),
              0);
}

TEST(Restart, AVersionBeforeOneInTheMiddleOfAnUpdateIsThrownAway) {
    kit::run_dir dir;
    run_and_kill([] {
        start();
        make_table(5, 6, "red");
        stamp(0, 9);
        ip6mc_set_update_in_progress_flag();
    });
    EXPECT_EQ(run([] {
                  kit::listener heard;
                  start();
                  EXPECT_EQ(sim_calls(SIM_OP_CLEAR_HW), 1U);
                  EXPECT_EQ(header().version_major, 1U);
                  EXPECT_EQ(header().version_minor, 15U);
                  EXPECT_EQ(header().table_tid_tree, nullptr);
                  EXPECT_EQ(header().buffer_pool, nullptr);
                  EXPECT_EQ(header().update_in_progress, 0U);
                  // The start goes on with the empty header; the next open builds the trees.
                  EXPECT_EQ(ipv4mc_desc->lib_init, 1);
                  EXPECT_EQ(ipv4mc_desc->state, 2U);
                  EXPECT_EQ(ipv4mc_desc->prev_state, 0U);
                  const auto told = kit::take_messages();
                  EXPECT_EQ(told.size(), 1U);
                  EXPECT_TRUE(heard.errors().empty());
                  // Nothing of this process writes where its search key was before the reset.
                  std::vector<unsigned char> pattern(1000000, 0x55);
                  void *block = ip6mc_shmwin_malloc(pattern.size());
                  memcpy(block, pattern.data(), pattern.size());
                  EXPECT_FALSE(has_table(5));
                  EXPECT_EQ(memcmp(block, pattern.data(), pattern.size()), 0);
                  EXPECT_EQ(heard.errors().size(), 1U);  // no tree to take a key from
                  EXPECT_EQ(ip6mc_lib_terminate(0, 2), 0U);
              }),
              0);
    EXPECT_EQ(run([] {
                  start();
                  EXPECT_FALSE(has_table(5));
                  make_table(7, 8, "blue");
                  EXPECT_TRUE(has_table(7));
                  EXPECT_TRUE(kit::window_faults().empty());
              }),
              0);
}

TEST(Restart, AnyOtherVersionIsKept) {
    struct {
        uint16_t major;
        uint16_t minor;
        bool updating;
    } const rows[] = {{0, 9, false}, {2, 0, false}, {2, 0, true}, {1, 14, true}, {0, 0, true}};
    for (const auto &row : rows) {
        kit::run_dir dir;
        run_and_kill([&] {
            start();
            make_table(5, 6, "red");
            stamp(row.major, row.minor);
            if (row.updating) {
                ip6mc_set_update_in_progress_flag();
            }
        });
        EXPECT_EQ(run([&] {
                      start();
                      EXPECT_TRUE(has_table(5));
                      EXPECT_EQ(sim_calls(SIM_OP_CLEAR_HW), 0U);
                      EXPECT_EQ(header().version_major, 1U);
                      EXPECT_EQ(header().version_minor, 15U);
                      EXPECT_EQ(header().update_in_progress, row.updating ? 1U : 0U);
                  }),
                  0)
            << row.major << "." << row.minor;
    }
}

TEST(Restart, ASecondOwnerIsRefusedWhileTheFirstLives) {
    kit::run_dir dir;
    kit::child first([](const kit::post &parent) {
        const kit::library owner;
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_NE(first.hear(), '\0');
    EXPECT_EQ(run([] {
                  EXPECT_EQ(kit::start_library(), 16U);
                  EXPECT_EQ(ipv4mc_desc->shmwin_init, 0);
              }),
              0);
    first.tell();
    EXPECT_EQ(first.wait(), 0);
}

TEST(Restart, AttachedClientsSeeWhatTheNextOwnerMakes) {
    kit::run_dir dir;
    run_and_kill([] {
        start();
        make_table(5, 6, "red");
    });
    kit::child client([](const kit::post &parent) {
        kit::start how;
        how.attach_only = 1;
        if (kit::start_library(how) != 0 || !has_table(5)) {
            return 1;
        }
        parent.tell();
        parent.hear();
        return has_table(7) ? 0 : 2;
    });
    ASSERT_NE(client.hear(), '\0');
    run_and_kill([] {
        start();
        make_table(7, 8, "blue");
    });
    client.tell();
    EXPECT_EQ(client.wait(), 0);
}
