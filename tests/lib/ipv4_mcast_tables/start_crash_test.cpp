// An owner killed at each of its journaled stores: the next one starts, and the window is whole.
#include <gtest/gtest.h>

#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "tests/kit/child.h"
#include "tests/kit/crash.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"
#include "tests/kit/window_check.h"

namespace {

constexpr uint64_t more_than_enough = 100000;

int start_and_say() {
    const cerrno rc = kit::start_library();
    if (rc != 0) {
        fprintf(stderr, "start: 0x%x\n", rc);
    }
    return rc == 0 ? 0 : 1;
}

// Blocks that a killed owner may leave behind: its search key, of no use to anybody else.
constexpr uint32_t lost_search_keys = 1;

// A new owner on the window finds it whole. Prints what is wrong. 0, or 1.
int look_at_it(const std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> *expected) {
    if (start_and_say() != 0) {
        return 1;
    }
    int wrong = 0;
    for (const std::string &fault : kit::window_faults()) {
        fprintf(stderr, "%s\n", fault.c_str());
        wrong = 1;
    }
    const auto live = kit::live_blocks();
    for (uint32_t type = 0; expected != nullptr && type < live.size(); ++type) {
        const uint32_t lost = type == IPMC_SHMWIN_ALLOC_AVL ? lost_search_keys : 0;
        if (live[type] < (*expected)[type] || live[type] > (*expected)[type] + lost) {
            fprintf(stderr, "type %u: %u live, %u expected\n", type, live[type], (*expected)[type]);
            wrong = 1;
        }
    }
    ipv4mc_table_st *table = nullptr;
    if (ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, 5, 6, "red", &table, 16) != 0 ||
        ip6mc_table_lookup_by_tbl_id(5) == nullptr) {
        fprintf(stderr, "no table can be made\n");
        wrong = 1;
    }
    return wrong;
}

int in_a_new_owner(const std::function<int()> &work) {
    kit::child process([&](const kit::post &) { return work(); });
    return process.wait();
}

std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> blocks_of_a_start() {
    static std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> live;
    kit::run_dir dir;
    const kit::library owner;
    live = kit::live_blocks();
    return live;
}

}  // namespace

TEST(Crash, InAStartOnANewWindow) {
    const auto expected = blocks_of_a_start();
    uint64_t points = 0;
    for (uint64_t point = 1; point < more_than_enough; ++point) {
        const kit::run_dir dir;
        int code = 0;
        if (!kit::killed_at(
                point, [] {}, start_and_say, &code)) {
            EXPECT_EQ(code, 0);
            points = point - 1;
            break;
        }
        ASSERT_EQ(in_a_new_owner([&] { return look_at_it(&expected); }), 0)
            << "killed at point " << point;
    }
    RecordProperty("points", static_cast<int>(points));
    printf("%lu points\n", points);
    EXPECT_GT(points, 100U);
}

TEST(Crash, InAStartOnAWindowThatIsKept) {
    uint64_t points = 0;
    for (uint64_t point = 1; point < more_than_enough; ++point) {
        const kit::run_dir dir;
        ASSERT_EQ(in_a_new_owner([] {
                      start_and_say();
                      ipv4mc_table_st *table = nullptr;
                      return ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, 5, 6, "red", &table,
                                                   16) == 0
                                 ? 0
                                 : 1;
                  }),
                  0);
        int code = 0;
        if (!kit::killed_at(
                point, [] {}, start_and_say, &code)) {
            EXPECT_EQ(code, 0);
            points = point - 1;
            break;
        }
        ASSERT_EQ(in_a_new_owner([] { return look_at_it(nullptr); }), 0)
            << "killed at point " << point;
    }
    printf("%lu points\n", points);
    EXPECT_GT(points, 20U);
}

TEST(Crash, InAnEnd) {
    uint64_t points = 0;
    for (uint64_t point = 1; point < more_than_enough; ++point) {
        const kit::run_dir dir;
        int code = 0;
        if (!kit::killed_at(
                point, [] { start_and_say(); },
                [] { return static_cast<int>(ip6mc_lib_terminate(0, 0)); }, &code)) {
            EXPECT_EQ(code, 0);
            points = point - 1;
            break;
        }
        ASSERT_EQ(in_a_new_owner([] { return look_at_it(nullptr); }), 0)
            << "killed at point " << point;
    }
    printf("%lu points\n", points);
    EXPECT_GT(points, 5U);
}
