// What a failed operation leaves behind: nothing, and the next one works.
#include <dlfcn.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <set>

#include "tests/lib/ipv4_mcast_tables/tables.h"

namespace {
uint64_t fail_in = 0;  // 0: never
}  // namespace

// Stands before the window service's: the library calls this one.
extern "C" __attribute__((visibility("default"))) cerrno shmwin_malloc(uint32_t id, size_t size,
                                                                       void **block) {
    using malloc_ft = cerrno (*)(uint32_t, size_t, void **);
    static const auto real = reinterpret_cast<malloc_ft>(dlsym(RTLD_NEXT, "shmwin_malloc"));
    if (fail_in != 0 && --fail_in == 0) {
        return ENOMEM;
    }
    return real(id, size, block);
}

using namespace tables;

namespace {

class TableFailures : public with_owner {
  protected:
    std::string code(cerrno rc) { return std::to_string(rc) + " " + cerr_strerror(rc); }
    void drop_all() {
        while (ipv4mc_table_st *tid = ip6mc_table_tid_get_first()) {
            ASSERT_EQ(operate(4, 0, 0, nullptr, &tid), 0U);
        }
        for (ipv4mc_table_st *vrf = find(0, "red"); vrf != nullptr; vrf = find(0, "red")) {
            ASSERT_EQ(operate(4, 0, 0, nullptr, &vrf), 0U);
        }
    }
};
FOR_BOTH_KINDS_OF_TRIES(TableFailures);

TEST_P(TableFailures, ThePlatformRefusesTheNewVrfTable) {
    const counts before = live_blocks();
    sim_arm_fault(SIM_OP_TABLE, SIM_ANY_ACTION, 0, 1, EIO);
    ipv4mc_table_st dummy{};
    ipv4mc_table_st *table = &dummy;
    EXPECT_EQ(operate(9, 5, 6, "red", &table), ENOMEM);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(heard.errors(),
              texts{"Error in platform dependant call action 0x3 CREATE new VRF table "
                    "red/0x6 : " +
                    code(EIO)});
    EXPECT_EQ(platform_calls(), texts{"3 5 6 1 !5"});
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(find(0, "red"), nullptr);
}

TEST_P(TableFailures, ThePlatformRefusesTheNewTidTable) {
    const counts before = live_blocks();
    sim_arm_fault(SIM_OP_TABLE, SIM_ANY_ACTION, 1, 1, EIO);
    ipv4mc_table_st *table = nullptr;
    EXPECT_EQ(operate(9, 5, 6, "red", &table), ENOMEM);
    EXPECT_EQ(heard.errors(),
              texts{"Error in platform dependant call action 0x3 CREATE new TID table "
                    "0x5 : " +
                    code(EIO)});
    EXPECT_EQ(live_blocks(), before);
    // The VRF side first.
    const texts all = events();
    const auto vrf =
        std::find(all.begin(), all.end(), "Tbl del wavl for red/vid:0x6/tid:0x0, type 0x0");
    const auto tid = std::find(all.begin(), all.end(), "Tbl del avl done for -/vid:0x0/tid:0x5");
    ASSERT_NE(vrf, all.end());
    ASSERT_NE(tid, all.end());
    EXPECT_LT(vrf, tid);
}

TEST_P(TableFailures, AnExistingVrfTableOutlivesAFailedTidTable) {
    ipv4mc_table_st *vrf = nullptr;
    ASSERT_EQ(operate(3, 0, 6, "red", &vrf), 0U);
    const counts before = live_blocks();
    sim_arm_fault(SIM_OP_TABLE, SIM_ANY_ACTION, 0, 1, EIO);
    ipv4mc_table_st *given = nullptr;
    EXPECT_EQ(operate(3, 5, 6, "red", &given), ENOMEM);
    EXPECT_EQ(find(6, nullptr), vrf);
    EXPECT_EQ(live_blocks(), before);
}

TEST_P(TableFailures, ThePlatformRefusesTheActivationOfTheVrfTable) {
    const counts before = live_blocks();
    sim_arm_fault(SIM_OP_TABLE, 9, 0, 1, EIO);
    ipv4mc_table_st *table = nullptr;
    EXPECT_EQ(operate(9, 5, 6, "red", &table), EIO);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(
        heard.errors(),
        (texts{"Error in platform dependant call action 0x9 ACTIVATE new VRF table red/0x6 : " +
                   code(EIO),
               "VRF Table activation failed",
               std::string("table action ACTIVATE for 0x5(red) failed : ") + cerr_strerror(EIO)}));
    EXPECT_EQ(find(0, "red"), nullptr);
    EXPECT_EQ(find(6, nullptr), nullptr);
    drop_all();
    EXPECT_EQ(live_blocks(), before);
}

TEST_P(TableFailures, ThePlatformRefusesTheActivationOfAnExistingVrfTable) {
    ipv4mc_table_st *tid = nullptr;
    ASSERT_EQ(operate(3, 5, 0, nullptr, &tid), 0U);
    const counts before = live_blocks();
    ipv4mc_table_st *vrf = nullptr;
    ASSERT_EQ(operate(3, 0, 6, "red", &vrf), 0U);
    heard.clear();
    sim_arm_fault(SIM_OP_TABLE, 9, 0, 1, EIO);
    EXPECT_EQ(operate(9, 5, 6, "red", &vrf), EIO);
    EXPECT_EQ(vrf, nullptr);
    EXPECT_TRUE(has(events(), "table action ACTIVATE for 0x5(red) REMOVE from VRF_NAME TREE"));
    EXPECT_TRUE(has(events(), "table action ACTIVATE for 0x5(red) REMOVE from VRF_ID TREE"));
    EXPECT_TRUE(has(heard.errors(), std::string("table action ACTIVATE for 0x5(red) failed : ") +
                                        cerr_strerror(EIO)));
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(tid->vtable, nullptr);
}

TEST_P(TableFailures, ThePlatformRefusesTheActivationOfTheTidTable) {
    const counts before = live_blocks();
    sim_arm_fault(SIM_OP_TABLE, 9, 1, 1, EIO);
    ipv4mc_table_st *table = nullptr;
    EXPECT_EQ(operate(9, 5, 6, "red", &table), EIO);
    EXPECT_TRUE(
        has(heard.errors(),
            "Error in platform dependant call action 0x9 ACTIVATE existing TID table 5(red): " +
                code(EIO)));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(ip6mc_table_is_valid(table), 0);
    EXPECT_EQ(faults(), "");
    EXPECT_EQ(operate(9, 5, 6, "red", &table), 0U);
    EXPECT_EQ(ip6mc_table_is_valid(table), 1);
    drop_all();
    EXPECT_EQ(live_blocks(), before);
}

TEST_P(TableFailures, AnOrphanThatCannotBeActivated) {
    sim_arm_fault(SIM_OP_TABLE, 9, 0, 1, EIO);
    ipv4mc_table_st *table = nullptr;
    EXPECT_EQ(operate(3, 5, 0, nullptr, &table), EIO);
    EXPECT_EQ(heard.errors(),
              (texts{"Error in platform dependant call action 0x9 ACTIVATE new TID table 5(): " +
                         code(EIO),
                     "VRF Table activation failed"}));
}

TEST_P(TableFailures, ThePlatformRefusesTheDeletion) {
    for (uint64_t call : {0U, 1U}) {
        const counts before = live_blocks();
        ipv4mc_table_st *red = nullptr;
        ASSERT_EQ(operate(9, 5, 6, "red", &red), 0U);
        ipv4mc_table_st *tid = red->tid_table;
        heard.clear();
        sim_arm_fault(SIM_OP_TABLE, 4, call, 1, EIO);
        EXPECT_EQ(operate(4, 0, 0, nullptr, &red), EIO);
        EXPECT_EQ(
            heard.errors(),
            (texts{
                call == 0 ? "Error in platform dependant call action 4 DELETE existing table 0x5 " +
                                code(EIO)
                          : "Error in platform dependant call action 4 DELETE existing table "
                            "v:0x6(red) " +
                                code(EIO),
                std::string("table action DELETE for 0x5(red) failed : ") + cerr_strerror(EIO)}));
        // The links are cut; both tables stay, and can be deleted.
        EXPECT_EQ(red->tid_table, nullptr);
        EXPECT_EQ(tid->vtable, nullptr);
        EXPECT_EQ(find(0, "red"), red);
        EXPECT_EQ(faults(), "");
        EXPECT_EQ(operate(4, 5, 6, "red", &red), 0U);
        EXPECT_EQ(live_blocks(), before);
    }
}

TEST_P(TableFailures, AFailureAtAnyPlatformCallCanBeRepeated) {
    const counts before = live_blocks();
    for (uint32_t first : {3U, 8U, 9U}) {
        for (uint64_t call = 0; call < 6; ++call) {
            sim_clear_faults();
            sim_arm_fault(SIM_OP_TABLE, SIM_ANY_ACTION, call, 1, EIO);
            ipv4mc_table_st *table = nullptr;
            operate(first, 5, 6, "red", &table);
            sim_clear_faults();
            ASSERT_EQ(faults(), "") << first << " " << call;
            ASSERT_EQ(operate(9, 5, 6, "red", &table), 0U) << first << " " << call;
            ASSERT_EQ(ip6mc_table_is_valid(table), 1);
            drop_all();
            ASSERT_EQ(live_blocks(), before) << first << " " << call;
        }
    }
}

// Activates a table with the window full at the first, second, ... allocation, until none fails.
// What was reported; each failure leaves nothing behind.
std::set<std::string> run_out_of_space_everywhere(const std::function<void()> &drop_all,
                                                  kit::listener &heard) {
    std::set<std::string> said;
    ip6mc_shmwin_buffer_status(0);
    const counts before = live_blocks();
    for (uint64_t allocation = 1;; ++allocation) {
        ipv4mc_table_st *table = nullptr;
        fail_in = allocation;
        const cerrno rc = operate(9, 5, 6, "red", &table);
        const bool failed = fail_in == 0;
        fail_in = 0;
        const texts all = heard.errors();
        said.insert(all.begin(), all.end());
        EXPECT_EQ(faults(), "") << allocation;
        EXPECT_EQ(rc, failed ? static_cast<cerrno>(ENOMEM) : 0U) << allocation;
        if (table == nullptr) {
            EXPECT_EQ(live_blocks(), before) << allocation;
        }
        // Repeated as it stands, and once more from the start.
        EXPECT_EQ(operate(9, 5, 6, "red", &table), 0U) << allocation;
        EXPECT_EQ(ip6mc_table_is_valid(table), 1);
        drop_all();
        EXPECT_EQ(live_blocks(), before) << allocation;
        if (!failed || testing::Test::HasFailure()) {
            EXPECT_GT(allocation, 6U);
            break;
        }
    }
    ip6mc_shmwin_buffer_status(1);
    return said;
}

TEST_P(TableFailures, OutOfSpaceAtAnyAllocationLeavesNothingBehind) {
    const auto said = run_out_of_space_everywhere([this] { drop_all(); }, heard);
    const std::string no_memory = cerr_strerror(ENOMEM);
    EXPECT_TRUE(said.contains("Cannot allocate 544 bytes for new table 0x5/0x6/red"));
    EXPECT_TRUE(said.contains("Cannot allocate 544 bytes for table <tid> 0x5 : " + no_memory));
    EXPECT_TRUE(
        said.contains("Cannot init signal Gtrie for new table 0x5(red) error 12 " + no_memory));
    EXPECT_TRUE(
        said.contains("Cannot init GTRIE for new SW table 0x5(red) error " + no_memory + " "));
}

TEST_P(TableFailures, AnIngressTrieOfHardwareIsDual) {
    sim_answer_sw_only_gtrie(0);
    const auto said = run_out_of_space_everywhere([this] { drop_all(); }, heard);
    EXPECT_TRUE(said.contains(std::string("Cannot init GTRIE for new dual table 0x5(red) error ") +
                              cerr_strerror(ENOMEM) + " "));
}

TEST_P(TableFailures, AnOrphanThatCannotBeMade) {
    ip6mc_shmwin_buffer_status(0);
    ipv4mc_table_st *table = nullptr;
    fail_in = 1;
    EXPECT_EQ(operate(9, 5, 0, nullptr, &table), ENOMEM);
    EXPECT_EQ(fail_in, 0U);
    EXPECT_EQ(ip6mc_table_tid_get_first(), nullptr);
    ip6mc_shmwin_buffer_status(1);
}

}  // namespace
