#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/platform_default/src/diagnostics/trace_ids.h"
#include "services/events/ptimer.h"
#include "tests/lib/ipv4_mcast_tables/tables.h"

using namespace tables;

namespace {

class PlatformWrappers : public with_owner {
  protected:
    PlatformWrappers() { ptimer_test_clock_on(); }
    ~PlatformWrappers() override { ptimer_test_clock_off(); }

    struct call {
        sim_op op;
        uint64_t trace;
        std::vector<uint64_t> words;
        std::function<cerrno()> make;
    };
    std::vector<call> calls() {
        return {
            {SIM_OP_TABLE,
             MLIB_TRACE_SLOW_TABLE,
             {3, 2, 5, 6, 1},
             [this] {
                 ipv4mc_table_st *t = &table;
                 return ip6mc_platform_table_operation_wrapper(2, 5, 6, "red", &t, 1);
             }},
            {SIM_OP_ROUTE,
             MLIB_TRACE_SLOW_ROUTE,
             {3, 2, 5, 6},
             [this] {
                 ipv4mc_route_entry_st *r = &route;
                 return ip6mc_platform_route_operation_wrapper(2, &table, &source, &group, 256, &r,
                                                               0, 0, 0);
             }},
            {SIM_OP_INTF,
             MLIB_TRACE_SLOW_INTF,
             {3, 2, 5, 6},
             [this] {
                 ipv4mc_intf_entry_st *i = &intf;
                 return ip6mc_platform_intf_operation_wrapper(2, &table, &route, 0x77, 0, &i, &idb,
                                                              0, 0x10, 0);
             }},
            {SIM_OP_IDB,
             MLIB_TRACE_SLOW_IDB,
             {3, 0x80000000, 0x77, 0, 0},
             [this] {
                 return ip6mc_platform_idb_operation_wrapper(0x80000000, &idb, nullptr, nullptr);
             }},
            {SIM_OP_ROUTE_UPDATE,
             MLIB_TRACE_SLOW_ROUTE_UPDATE,
             {3, 8},
             [this] {
                 ipv4mc_route_update_st u{};
                 return ip6mc_platform_route_update_wrapper(&route, 8, &u);
             }},
            {SIM_OP_ENCAP,
             MLIB_TRACE_SLOW_ENCAP,
             {3, 2},
             [this] { return ip6mc_platform_encapid_operation_wrapper(2, &encap); }},
            {SIM_OP_LEAF,
             MLIB_TRACE_SLOW_ENCAP_LEAF,
             {3, 2},
             [this] {
                 return ip6mc_platform_encap_leaf_operation_wrapper(2, &leaf, &encap, &regdb, 0);
             }},
            {SIM_OP_REGDB,
             MLIB_TRACE_SLOW_REGDB,
             {3, 2},
             [this] { return ip6mc_platform_regdb_operation_wrapper(2, &regdb, nullptr); }},
        };
    }

    ipv4mc_table_st table = [] {
        ipv4mc_table_st t{};
        t.table_type = 1;
        t.tid = 5;
        t.vrf_id = 6;
        return t;
    }();
    ipv4mc_route_entry_st route = [this] {
        ipv4mc_route_entry_st r{};
        r.table = &table;
        return r;
    }();
    ipv4mc_intf_entry_st intf = [this] {
        ipv4mc_intf_entry_st i{};
        i.route = &route;
        return i;
    }();
    ipv4mc_idb_st idb = [] {
        ipv4mc_idb_st i{};
        i.ifh = 0x77;
        return i;
    }();
    ipv4mc_encap_entry_st encap{};
    ipv4mc_encap_leaf_st leaf{};
    ipv4mc_regdb_entry_st regdb{};
    ip_maddr_st source{};
    ip_maddr_st group{};
};
FOR_BOTH_KINDS_OF_TRIES(PlatformWrappers);

TEST_P(PlatformWrappers, ACallOfThreeSecondsLeavesATraceAndAShorterOneNone) {
    for (const call &c : calls()) {
        sim_set_delay(c.op, 2'900'000'000);
        c.make();
        EXPECT_EQ(oper_ts_result.tv_sec, 2);
        EXPECT_EQ(oper_ts_result.tv_nsec, 900'000'000);
        EXPECT_TRUE(heard.traces(ip6mc_mlib_ltrace(), c.trace).empty()) << sim_op_name(c.op);
        sim_set_delay(c.op, 3'000'000'000);
        c.make();
        const auto traces = heard.traces(ip6mc_mlib_ltrace(), c.trace);
        ASSERT_EQ(traces.size(), 1U) << sim_op_name(c.op);
        for (size_t i = 0; i < c.words.size(); ++i) {
            EXPECT_EQ(traces[0].word[i], c.words[i]) << sim_op_name(c.op) << " " << i;
        }
        sim_set_delay(c.op, 0);
    }
    EXPECT_EQ(heard.traces(ip6mc_mlib_ltrace(), MLIB_TRACE_SLOW_ROUTE_KEY).size(), 1U);
    const auto key = heard.traces(ip6mc_mlib_ltrace(), MLIB_TRACE_SLOW_INTF_KEY);
    ASSERT_EQ(key.size(), 1U);
    EXPECT_EQ(key[0].word[0], 0x77U);
    EXPECT_EQ(key[0].word[1], 0x10U);
    EXPECT_EQ(key[0].word[2], 0x77U);
}

TEST_P(PlatformWrappers, TheResultIsThePlatforms) {
    for (const call &c : calls()) {
        for (cerrno code : {1U, 5U, 0x45007000U, 0xffffffffU}) {
            sim_clear_faults();
            ASSERT_EQ(sim_arm_fault(c.op, SIM_ANY_ACTION, 0, 1, code), 0U);
            EXPECT_EQ(c.make(), code) << sim_op_name(c.op);
        }
    }
}

TEST_P(PlatformWrappers, TheQuestionOfTheSlotMaskIsStampedAndNotJudged) {
    int changed = 0;
    sim_answer_slotmask_change(1);
    sim_set_delay(SIM_OP_SLOTMASK, 4'000'000'000);
    EXPECT_EQ(ip6mc_platform_is_slotmask_xid_change(&table, &route, &source, &group, 0, &changed),
              0U);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(oper_ts_result.tv_sec, 4);
    EXPECT_EQ(oper_ts_curr.tv_sec - oper_ts_prev.tv_sec, 4);
    sim_answer_slotmask_change(0);
}

}  // namespace
