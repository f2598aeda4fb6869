#include "services/diag/messages.h"
#include "services/diag/text.h"
#include "tests/lib/removal/rig.h"

using namespace bed;
using rig::has_text;

namespace {

struct seen {
    std::vector<uint32_t> ids;
    std::vector<uint32_t> counts;
    cerrno answer = 0;
    uint32_t fail_at = 99;
};

cerrno note(ipv4mc_table_st *table, uint32_t count, void *, void *context) {
    auto *s = static_cast<seen *>(context);
    s->ids.push_back(table->table_type == IPV4MC_TABLE_TID ? table->tid : table->vrf_id);
    s->counts.push_back(count);
    return count == s->fail_at ? s->answer : 0;
}

class TableWalk : public bed::Test {
  protected:
    TableWalk() {
        make_table(0xe0000003, 0x60000009, "blue");
        make_table(0xe0000007, 0x60000001, "green");
        forget();
    }
    seen s;
};

// Each test is an hour behind the one before: no message is held back for one of another test.
uint64_t next_hour() {
    static uint64_t hours = 0;
    return ++hours * 3'600'000'000'000;
}

class RouteSettings : public bed::Test {
  protected:
    RouteSettings() { orv_msg_set_clock(next_hour); }
    ~RouteSettings() override { orv_msg_set_clock(nullptr); }
    cerrno account(uint32_t action) { return ipv4mc_route_accounting_fn(route, &action); }
    cerrno rate(uint32_t action) { return ipv4mc_route_rate_per_route_fn(route, &action); }
    ipv4mc_route_entry_st *route = add(table, sg(1));
};

}  // namespace

TEST_F(TableWalk, VisitsTablesInTheOrderOfTheTree) {
    EXPECT_EQ(ip6mc_table_walk(note, 1, 0, &s, 0), 0U);
    EXPECT_EQ(s.ids, (std::vector<uint32_t>{0xe0000003, 0xe0000005, 0xe0000007}));
    EXPECT_EQ(s.counts, (std::vector<uint32_t>{0, 1, 2}));
    s = {};
    EXPECT_EQ(ip6mc_table_walk(note, 0, 0, &s, 0), 0U);  // blue, green, red
    EXPECT_EQ(s.ids, (std::vector<uint32_t>{0x60000009, 0x60000001, 0x60000006}));
    s = {};
    EXPECT_EQ(ip6mc_table_walk(note, 0, 1, &s, 0), 0U);
}

TEST_F(TableWalk, AFailureEndsItOnlyWhenAskedTo) {
    for (const uint32_t tree : {0U, 1U}) {
        s = {};
        s.answer = 33;
        s.fail_at = 1;
        forget();
        EXPECT_EQ(ip6mc_table_walk(note, tree, 0, &s, 0), 0U);
        EXPECT_EQ(s.ids.size(), 3U);
        auto said = errors();
        ASSERT_EQ(said.size(), 1U);
        EXPECT_EQ(said[0].find("Walk function failed while processing table num 1 [N, "), 0U);
        s.ids.clear();
        EXPECT_EQ(ip6mc_table_walk(note, tree, 0, &s, 1), 33U);
        EXPECT_EQ(s.ids.size(), 2U);
        EXPECT_TRUE(has_text(errors(), "table num 1 [Y, "));
    }
}

TEST_F(TableWalk, RefusesWhatIsNot) {
    EXPECT_EQ(ip6mc_table_walk(nullptr, 1, 0, nullptr, 0), 22U);
    EXPECT_EQ(ip6mc_table_walk(nullptr, 0, 0, nullptr, 0), 22U);
    EXPECT_EQ(ip6mc_table_walk(note, 2, 0, &s, 0), 22U);
    shm_avl_tree *tree = std::exchange(rig::header()->table_tid_tree, nullptr);
    EXPECT_EQ(ip6mc_table_walk(note, 1, 0, &s, 0), 22U);
    rig::header()->table_tid_tree = tree;
    ipv4mc_update_state(1);
    EXPECT_EQ(ip6mc_table_walk(note, 1, 0, &s, 0), 9U);
    EXPECT_EQ(ip6mc_table_delete_all(0), 9U);
    EXPECT_EQ(ip6mc_table_clear_all(0), 9U);
    ipv4mc_update_state(2);
}

TEST_F(TableWalk, DeletesEveryTableWithItsRoutes) {
    for (uint32_t n = 0; n < 3; ++n)
        add(table, sg(n));
    ipv4mc_table_st *orphan = nullptr;
    EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, 0xe0000011, 0, nullptr, &orphan, 0),
              0U);
    forget();
    EXPECT_EQ(ip6mc_table_delete_all(4), 0U);
    EXPECT_EQ(ip6mc_table_tid_get_first(), nullptr);
    EXPECT_EQ(wavl_count(ip6mc_get_table_vid_name_db(), 0), 0U);
    auto lines = heard.lines(IPV4_DEBUG_EV);
    EXPECT_EQ(lines[0], "Tbl delete all: Walk VID list");
    EXPECT_TRUE(has_text(lines, "Deleted table VID 0x60000006"));
    EXPECT_TRUE(has_text(lines, "Tbl delete all: Walk TID list"));
    EXPECT_TRUE(has_text(lines, "Deleted table TID 0xe0000011"));
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
    forget();
    EXPECT_EQ(ip6mc_table_delete_all(4), 0U);  // straight through
    EXPECT_TRUE(errors().empty());
    table = nullptr;
}

TEST_F(TableWalk, ATableOfTheFirstListThatStaysIsTriedAgain) {
    sim_arm_fault(SIM_OP_TABLE, IPV4MC_ACTION_DELETE, 0, 1, 70);
    forget();
    EXPECT_EQ(ip6mc_table_delete_all(0), 0U);
    EXPECT_EQ(errors().back(),
              "Cannot delete table VID 0x60000009 : " + std::string(cerr_strerror(70)));
    EXPECT_EQ(wavl_count(ip6mc_get_table_vid_name_db(), 0), 0U);
    EXPECT_EQ(ip6mc_table_tid_get_first(), nullptr);
}

TEST_F(TableWalk, ATableOfTheSecondListThatStaysEndsTheDelete) {
    EXPECT_EQ(ip6mc_table_delete_all(0), 0U);
    ipv4mc_table_st *orphan = nullptr;
    for (const uint32_t tid : {0xe0000011U, 0xe0000012U}) {
        orphan = nullptr;
        EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, 0, nullptr, &orphan, 0), 0U);
    }
    sim_arm_fault(SIM_OP_TABLE, IPV4MC_ACTION_DELETE, 0, 1, 70);
    forget();
    const cerrno rc = ip6mc_table_delete_all(0);
    EXPECT_NE(rc, 0U);
    EXPECT_TRUE(has_text(errors(), "Cannot delete table TID 0xe0000011 : "));
    EXPECT_NE(ip6mc_table_lookup_by_tbl_id(0xe0000012), nullptr);
}

TEST_F(TableWalk, ClearingAllStopsAtTheFirstTableThatFails) {
    for (ipv4mc_table_st *t = ip6mc_table_tid_get_first(); t != nullptr;
         t = ip6mc_table_tid_get_next(t->tid)) {
        add(t, sg(1));
    }
    sim_arm_fault(SIM_OP_TABLE, IPV4MC_ACTION_CLEAR, 1, 1, 70);
    sim_arm_fault(SIM_OP_TABLE, IPV4MC_ACTION_DEACTIVATE, 1, 1, 70);
    forget();
    const cerrno rc = ip6mc_table_clear_all(4);
    EXPECT_NE(rc, 0U);
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_WRN), "ClearAll failed : "));
    EXPECT_TRUE(has_text(errors(), "Cannot clear table 0xe000000"));
    // The first table has been cleared, the last one was not reached.
    EXPECT_LT(sim_count(IP6MC_PLATFORM_ROUTE), 3U);
    EXPECT_GE(sim_count(IP6MC_PLATFORM_ROUTE), 1U);
    EXPECT_NE(find(ip6mc_table_lookup_by_tbl_id(0xe0000007), sg(1)), nullptr);
    sim_clear_faults();
    forget();
    EXPECT_EQ(ip6mc_table_clear_all(4), 0U);
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_EV), "ClearAll succeeded !!"));
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
}

TEST_F(RouteSettings, AccountingIsSkippedWhereThereIsNothingToDo) {
    forget();
    EXPECT_EQ(account(12), 0U);
    EXPECT_EQ(account(14), 0U);
    route->acct_per_prefix = route->acct_fwd_only = 1;
    EXPECT_EQ(account(11), 0U);
    EXPECT_EQ(account(13), 0U);
    route->mdt_candidate = 1;
    EXPECT_EQ(account(12), 0U);
    EXPECT_EQ(account(14), 0U);
    EXPECT_EQ(route->acct_per_prefix + route->acct_fwd_only, 2);
    EXPECT_EQ(platform_calls(), texts{});
    route->mdt_candidate = 0;
}

TEST_F(RouteSettings, AccountingFollowsThePlatform) {
    forget();
    EXPECT_EQ(account(11), 0U);
    EXPECT_EQ(route->acct_per_prefix, 1);
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_ROUTE),
                         "Successfully " + std::string(ipv4_mlib_action_string(11, nullptr)) +
                             " for (2001:db8::1,ff3e::1/256)."));
    EXPECT_EQ(account(12), 0U);
    EXPECT_EQ(route->acct_per_prefix, 0);
    EXPECT_EQ(account(13), 0U);
    EXPECT_EQ(route->acct_fwd_only, 1);
    EXPECT_EQ(account(14), 0U);
    EXPECT_EQ(route->acct_fwd_only, 0);
    EXPECT_EQ(platform_calls(), (texts{"route 11 new 0 -> 0", "route 12 new 0 -> 0",
                                       "route 13 new 0 -> 0", "route 14 new 0 -> 0"}));
}

TEST_F(RouteSettings, AFailedAccountingIsToldByItsKind) {
    sim_arm_fault(SIM_OP_ROUTE, 11, 0, 1, 70);
    sim_arm_fault(SIM_OP_ROUTE, 13, 0, 1, 12);
    forget();
    EXPECT_EQ(account(11), 70U);
    EXPECT_EQ(account(13), 12U);
    EXPECT_EQ(route->acct_per_prefix + route->acct_fwd_only, 0);
    ASSERT_EQ(heard.messages().size(), 2U);
    EXPECT_EQ(heard.messages()[0].severity, 5U);
    EXPECT_NE(heard.messages()[0].line.find("-PER_PREFIX:"), std::string::npos);
    EXPECT_NE(heard.messages()[0].line.find("for (2001:db8::1,ff3e::1/256).Retrying later. "),
              std::string::npos);
    EXPECT_NE(heard.messages()[1].line.find("-PER_PREFIX_GLACIAL:"), std::string::npos);
}

TEST_F(RouteSettings, RateIsKeptWithoutTheLibrarysOperationForACandidate) {
    route->mdt_candidate = 1;
    forget();
    EXPECT_EQ(rate(16), 0U);
    EXPECT_EQ(rate(15), 0U);
    EXPECT_EQ(route->rate_per_route, 1);
    EXPECT_EQ(route->rate, nullptr);
    EXPECT_EQ(rate(15), 0U);
    EXPECT_EQ(rate(16), 0U);
    EXPECT_EQ(route->rate_per_route, 0);
    EXPECT_EQ(platform_calls(), texts{});
    EXPECT_TRUE(heard.lines(IPV4_DEBUG_EV).empty());  // the operation was not entered
    route->mdt_candidate = 0;
    EXPECT_EQ(rate(15), 0U);
    EXPECT_NE(route->rate, nullptr);
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_ROUTE),
                         "Successfully enabled rate_per_route for (2001:db8::1,ff3e::1/256)."));
    EXPECT_EQ(rate(16), 0U);
    EXPECT_EQ(route->rate, nullptr);
    EXPECT_TRUE(has_text(heard.lines(IPV4_DEBUG_ROUTE),
                         "Successfully disabled rate_per_route for (2001:db8::1,ff3e::1/256)."));
}

TEST_F(RouteSettings, AFailedRateIsMarkedAsAskedAllTheSame) {
    ipv4mc_desc->shmwin_init = 0;
    forget();
    EXPECT_NE(rate(15), 0U);
    ipv4mc_desc->shmwin_init = 1;
    EXPECT_EQ(route->rate_per_route, 1);
    EXPECT_EQ(route->rate, nullptr);
    ASSERT_EQ(heard.messages().size(), 1U);
    EXPECT_NE(heard.messages()[0].line.find(
                  "Cannot enable rate_per_route for (2001:db8::1,ff3e::1/256). Retrying later. "),
              std::string::npos);
    // The other way likewise.
    ipv4mc_desc->shmwin_init = 0;
    heard.clear();
    EXPECT_NE(rate(16), 0U);
    ipv4mc_desc->shmwin_init = 1;
    EXPECT_EQ(route->rate_per_route, 0);
    ASSERT_EQ(heard.messages().size(), 1U);
    EXPECT_NE(heard.messages()[0].line.find(
                  "Cannot disable rate_per_route for (2001:db8::1,ff3e::1/256). Retrying later. "),
              std::string::npos);
}
