#include <cerrno>
#include <cstring>

#include "services/diag/text.h"
#include "tests/lib/ipv4_mcast_tables/tables.h"

using namespace tables;

namespace {

class TableOperation : public with_owner {
  protected:
    // VRF "red" with id 6, table id 5.
    ipv4mc_table_st *make_red(uint32_t tid = 5) {
        ipv4mc_table_st *table = nullptr;
        EXPECT_EQ(operate(IPV4MC_ACTION_ACTIVATE, tid, 6, "red", &table), 0U);
        sim_log_clear();
        heard.clear();
        return table;
    }
};
FOR_BOTH_KINDS_OF_TRIES(TableOperation);

TEST_P(TableOperation, RefusesWhileTheLibraryIsNotReady) {
    sim_set_state(IPV4MC_PLATFORM_STATE_READY - 1);
    heard.clear();
    ipv4mc_table_st *table = nullptr;
    EXPECT_EQ(operate(3, 5, 6, "red", &table), EBADF);
    EXPECT_EQ(heard.errors(), texts{"Multicast library Not ready\n"});
    sim_set_state(IPV4MC_PLATFORM_STATE_READY);
}

TEST_P(TableOperation, RefusesANameOf33CharactersWithoutAnotherKey) {
    const std::string name(33, 'x');
    EXPECT_EQ(operate(3, 0, 0, name.c_str(), nullptr), EINVAL);
    EXPECT_EQ(heard.errors(), texts{"Invalid Parameters"});
    EXPECT_TRUE(has(events(), "Just in action CREATE, t:0x0/v:0x0/" + name + ", table ptr NULL"));
    EXPECT_EQ(operate(3, 0, 0, "", nullptr), EINVAL);
    EXPECT_EQ(operate(3, 0, 0, nullptr, nullptr), EINVAL);
    EXPECT_EQ(operate(3, 0, 0, std::string(32, 'x').c_str(), nullptr), 0U);
    EXPECT_NE(find(0, std::string(32, 'x').c_str()), nullptr);
}

TEST_P(TableOperation, ActionsOnATableNeedOne) {
    for (uint32_t action : {4U, 6U, 7U, 11U, 12U, 13U, 14U, 15U, 16U}) {
        ipv4mc_table_st *table = nullptr;
        heard.clear();
        EXPECT_EQ(operate(action, 5, 6, "red", &table), EINVAL) << action;
        EXPECT_EQ(operate(action, 5, 6, "red", nullptr), EINVAL) << action;
        char text[100];
        snprintf(text, sizeof(text), "Invalid Parameters for table red/t:0x5/v:0x6 oper 0x%x",
                 action);
        EXPECT_EQ(heard.errors(), (texts{text, text}));
    }
}

TEST_P(TableOperation, LooksUpAndMakesNothing) {
    const counts before = live_blocks();
    ipv4mc_table_st dummy{};
    ipv4mc_table_st *table = &dummy;
    EXPECT_EQ(operate(2, 5, 6, "red", &table), ENOENT);
    EXPECT_EQ(table, nullptr);
    EXPECT_TRUE(has(events(), std::string("Action ") + ipv4_mlib_action_string(2, nullptr) +
                                  " Table t:0x5 absent, Table v:0x6/red absent"));
    EXPECT_TRUE(has(events(), "Table v:0x6/red does not exist and action=0x2"));
    EXPECT_TRUE(has(events(), "Table t:0x5 does not exist and action=0x2"));
    EXPECT_TRUE(has(events(), "Table action 0x2 but cannot find 0x5/v:0x6/red"));
    table = &dummy;
    EXPECT_EQ(operate(2, 5, 0, nullptr, &table), ENOENT);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(live_blocks(), before);
    EXPECT_TRUE(platform_calls().empty());
    EXPECT_TRUE(heard.errors().empty());
}

TEST_P(TableOperation, ActivationMakesAndActivatesBothSides) {
    ipv4mc_table_st *table = nullptr;
    EXPECT_EQ(operate(9, 5, 6, "red", &table), 0U);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->table_type, 0U);
    EXPECT_STREQ(table->vrf_name, "red");
    EXPECT_EQ(table->vrf_id, 6U);
    EXPECT_EQ(table->tid, 0U);
    EXPECT_EQ(table->active, 1U);
    EXPECT_EQ(table->mtu, 9000U);
    EXPECT_EQ(table->mtu2, 9000U);
    EXPECT_EQ(table->table_limit, -1);
    EXPECT_EQ(table->table_limit_step, 1000U);
    ipv4mc_table_st *tid = table->tid_table;
    ASSERT_NE(tid, nullptr);
    EXPECT_EQ(tid->vtable, table);
    EXPECT_EQ(tid->tid, 5U);
    EXPECT_EQ(tid->table_type, 1U);
    EXPECT_EQ(tid->active, 1U);
    EXPECT_EQ(ip6mc_table_is_valid(table), 1);
    EXPECT_EQ(platform_calls(), (texts{"3 5 6 1", "3 5 6 1", "9 0 6 1", "9 5 6 0"}));
    EXPECT_EQ(events(),
              (texts{"Action ACTIVATE Table t:0x5 absent, Table v:0x6/red absent",
                     "Table v:0x6/red does not exist and action=0x9",
                     "Table t:0x5 does not exist and action=0x9",
                     "Tbl add wavl done for red/vid:0x0, type 0x0",
                     "Tbl add wavl done for red/vid:0x6, type 0x0", "Table red/v:0x6 created !!",
                     "Tbl add avl done for tid:0x5", "Table tid 0x5 created !!",
                     "VRF table 0x6/red activated",
                     "Linking table red/0x6 with table 0x5 mtu_cfg 0 mtu 9000",
                     "TID table 0x5 activated", "Success table action ACTIVATE for 0x5(red)"}));
    EXPECT_TRUE(heard.errors().empty());
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_TABLE), 2U);

    heard.clear();
    EXPECT_EQ(operate(9, 5, 6, "red", &table), 0U);
    EXPECT_TRUE(platform_calls().empty());
    EXPECT_TRUE(has(events(), "VRF table already active !!"));
    EXPECT_TRUE(has(events(), "TID table already active !!"));
}

TEST_P(TableOperation, DeletionLeavesNothingBehind) {
    const counts before = live_blocks();
    ipv4mc_table_st *table = make_red();
    EXPECT_EQ(operate(4, 0, 0, nullptr, &table), 0U);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(platform_calls(), (texts{"4 5 6 0", "4 5 6 0"}));
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(find(6, nullptr), nullptr);
    EXPECT_EQ(find(0, "red"), nullptr);
    EXPECT_EQ(ip6mc_table_lookup_by_tbl_id(5), nullptr);
    EXPECT_TRUE(heard.errors().empty());
    const texts all = events();
    for (const char *text :
         {"Table t:0x5 exists, action=DELETE. All routes deleted",
          "Action DELETE : Table red/0x6 (Y) 0x5x (Y)",
          "Action DELETE: Unlinking TID table 0x5 (Y)",
          "Action DELETE: Unlinking VID table 0x6/red (Y)",
          "Tbl del wavl for red/vid:0x6/tid:0x0, type 0x0", "Action=DELETE, Table being deleted",
          "Tbl del wavl for red/vid:0x0/tid:0x0, type 0x0",
          "Tbl del avl done for -/vid:0x0/tid:0x5", "Action=DELETE, Tables deleted",
          "Success table action DELETE for 0x5(red)"}) {
        EXPECT_TRUE(has(all, text)) << text;
    }
    EXPECT_EQ(heard.lines(IPV4_DEBUG_DEV),
              texts{"Action DELETE : Table red/0x6 has 0 idbs (mdt present N)"});
    EXPECT_EQ(
        heard.lines(IPV4_DEBUG_BVI),
        texts{
            "ipmc_table_deactivate:TBL DEL! Moving BVI entries from vid[0x6] to tid[0x60000000]"});
    for (const auto &line : heard.lines()) {
        if (line.text.starts_with("Action=DELETE")) {
            EXPECT_TRUE(line.header.starts_with("ML-EV: ipmc_table_deactivate ")) << line.header;
        }
    }
}

TEST_P(TableOperation, DeletionByTheTidSideTakesTheVrfSideToo) {
    const counts before = live_blocks();
    ipv4mc_table_st *table = make_red()->tid_table;
    EXPECT_EQ(operate(4, 0, 0, nullptr, &table), 0U);
    EXPECT_EQ(live_blocks(), before);
}

TEST_P(TableOperation, AVrfTableWaitsForItsTableId) {
    const counts before = live_blocks();
    ipv4mc_table_st *vrf = nullptr;
    EXPECT_EQ(operate(3, 0, 6, "red", &vrf), 0U);
    ASSERT_NE(vrf, nullptr);
    EXPECT_EQ(vrf->active, 0U);
    EXPECT_TRUE(has(events(), "IFRS VRF table red. No more table processing"));
    EXPECT_EQ(platform_calls(), texts{"3 0 6 1"});
    EXPECT_EQ(ip6mc_table_is_valid(vrf), 0);

    ipv4mc_table_st *again = nullptr;
    EXPECT_EQ(operate(9, 5, 6, "red", &again), 0U);
    EXPECT_EQ(again, vrf);
    ASSERT_NE(vrf->tid_table, nullptr);
    EXPECT_EQ(vrf->tid_table->vtable, vrf);
    EXPECT_TRUE(has(events(), "Table red/v:0x6 updated !!"));
    EXPECT_EQ(platform_calls(), (texts{"3 5 6 1", "9 0 6 0", "9 5 6 0"}));
    EXPECT_EQ(operate(4, 0, 0, nullptr, &vrf), 0U);
    EXPECT_EQ(live_blocks(), before);
}

TEST_P(TableOperation, ACommitOfAVrfTableAloneGoesToThePlatform) {
    ipv4mc_table_st *vrf = nullptr;
    EXPECT_EQ(operate(8, 0, 6, "red", &vrf), 0U);
    EXPECT_EQ(platform_calls(), (texts{"3 0 6 1", "8 0 6 1"}));
    EXPECT_EQ(operate(8, 0, 6, "red", &vrf), 0U);
    EXPECT_EQ(platform_calls(), texts{"8 0 6 0"});
    EXPECT_TRUE(has(events(), "Table 0x0/v:0x6/red exists and action=COMMIT"));
    sim_arm_fault(SIM_OP_TABLE, 8, 0, 1, EIO);
    heard.clear();
    EXPECT_EQ(operate(8, 0, 6, "red", &vrf), EIO);
    EXPECT_EQ(heard.errors(),
              texts{std::string("Error in platform dependant call action 8 COMMIT new table "
                                "0x0(red): 5 ") +
                    strerror(EIO)});
}

TEST_P(TableOperation, AnOrphanTidTableWaitsForItsVrf) {
    ipv4mc_table_st *tid = nullptr;
    EXPECT_EQ(operate(3, 5, 0, nullptr, &tid), 0U);
    ASSERT_NE(tid, nullptr);
    EXPECT_EQ(tid->table_type, 1U);
    EXPECT_EQ(tid->active, 1U);
    EXPECT_EQ(tid->vtable, nullptr);
    EXPECT_EQ(ip6mc_table_is_valid(tid), 1);
    EXPECT_TRUE(has(events(), "No link to VRF table"));
    EXPECT_EQ(platform_calls(), (texts{"3 5 0 1", "9 5 0 1"}));

    ipv4mc_table_st *vrf = nullptr;
    EXPECT_EQ(operate(9, 5, 6, "red", &vrf), 0U);
    ASSERT_NE(vrf, nullptr);
    EXPECT_EQ(vrf->tid_table, tid);
    EXPECT_EQ(tid->vtable, vrf);
    EXPECT_EQ(platform_calls(), (texts{"3 5 6 1", "9 0 6 1"}));
}

TEST_P(TableOperation, AnActivatedOrphanIsCommittedBehindItsActivation) {
    ipv4mc_table_st *tid = nullptr;
    EXPECT_EQ(operate(9, 5, 0, nullptr, &tid), 0U);
    EXPECT_EQ(platform_calls(), (texts{"3 5 0 1", "9 5 0 1", "9 5 0 1"}));
}

TEST_P(TableOperation, ANameSeenBeforeWithANewIdUpdatesTheVrfSide) {
    ipv4mc_table_st *vrf = nullptr;
    ASSERT_EQ(operate(3, 0, 0, "red", &vrf), 0U);
    vrf->mtu = 1500;
    vrf->mtu2 = 1400;
    vrf->mtu2_cfg = 1;
    ipv4mc_table_st *again = nullptr;
    EXPECT_EQ(operate(3, 5, 6, "red", &again), 0U);
    EXPECT_EQ(again, vrf);
    EXPECT_EQ(vrf->vrf_id, 6U);
    EXPECT_EQ(find(6, nullptr), vrf);
    EXPECT_EQ(vrf->mtu, 9000U);
    EXPECT_EQ(vrf->mtu2, 1400U);
    ASSERT_NE(ip6mc_table_lookup_by_tbl_id(5), nullptr);
    EXPECT_TRUE(has(events(), "Table red/v:0x6 updated !!"));
    EXPECT_TRUE(has(events(), "Table tid 0x5 created !!"));
}

TEST_P(TableOperation, DeactivationKeepsBothTablesAndTheName) {
    ipv4mc_table_st *vrf = make_red();
    ipv4mc_table_st *tid = vrf->tid_table;
    void *trie = tid->ingress_gtrie;
    ipv4mc_table_st *given = vrf;
    EXPECT_EQ(operate(10, 0, 0, nullptr, &given), 0U);
    EXPECT_EQ(given, vrf);
    EXPECT_EQ(platform_calls(), (texts{"10 5 6 0", "10 5 6 0"}));
    EXPECT_EQ(vrf->active, 0U);
    EXPECT_EQ(vrf->vrf_id, 0U);
    EXPECT_EQ(vrf->prev_tid, 5U);
    EXPECT_EQ(vrf->tid_table, nullptr);
    EXPECT_EQ(tid->active, 0U);
    EXPECT_EQ(tid->vtable, nullptr);
    EXPECT_EQ(find(6, nullptr), nullptr);
    EXPECT_EQ(find(0, "red"), vrf);
    EXPECT_EQ(faults(), "");

    // With the same table id everything is as it was, tries included.
    const counts before = live_blocks();
    EXPECT_EQ(operate(9, 5, 6, "red", &given), 0U);
    EXPECT_EQ(given, vrf);
    EXPECT_EQ(vrf->vrf_id, 6U);
    EXPECT_EQ(vrf->tid_table, tid);
    EXPECT_EQ(vrf->prev_tid, 0U);
    EXPECT_EQ(tid->ingress_gtrie, trie);
    EXPECT_EQ(live_blocks(), before);
}

TEST_P(TableOperation, ATableWithoutANameKeepsItsIdWhenItIsDeactivated) {
    ipv4mc_table_st *vrf = nullptr;
    ASSERT_EQ(operate(9, 5, 6, nullptr, &vrf), 0U);
    const counts with_one = live_blocks();
    ipv4mc_table_st *given = vrf;
    ASSERT_EQ(operate(10, 0, 0, nullptr, &given), 0U);
    EXPECT_EQ(vrf->active, 0U);
    EXPECT_EQ(find(6, nullptr), vrf);
    EXPECT_EQ(faults(), "");
    EXPECT_EQ(operate(9, 5, 6, nullptr, &given), 0U);
    EXPECT_EQ(given, vrf);
    EXPECT_EQ(live_blocks(), with_one);
    ASSERT_EQ(operate(10, 0, 0, nullptr, &given), 0U);
    // Also by its record alone: the platform is told which one it is.
    EXPECT_EQ(operate(4, 0, 0, nullptr, &given), 0U);
    EXPECT_EQ(find(6, nullptr), nullptr);
}

TEST_P(TableOperation, ATableWhoseNameAnotherOneHasKeepsItsIdToo) {
    ipv4mc_table_st *red = make_red();
    ipv4mc_table_st *second = nullptr;
    ASSERT_EQ(operate(9, 7, 8, "red", &second), 0U);
    ASSERT_EQ(find(0, "red"), red);
    ipv4mc_table_st *given = second;
    ASSERT_EQ(operate(10, 0, 0, nullptr, &given), 0U);
    EXPECT_EQ(find(8, nullptr), second);
    ASSERT_EQ(operate(4, 0, 8, nullptr, &given), 0U);
    EXPECT_EQ(find(8, nullptr), nullptr);
    EXPECT_EQ(find(0, "red"), red);
}

TEST_P(TableOperation, ReactivationWithANewIdDeletesTheTableLeftBehind) {
    ipv4mc_table_st *vrf = make_red();
    const counts with_one = live_blocks();
    ipv4mc_table_st *given = vrf;
    ASSERT_EQ(operate(10, 0, 0, nullptr, &given), 0U);
    sim_log_clear();
    ASSERT_EQ(operate(9, 7, 6, "red", &given), 0U);
    EXPECT_EQ(given, vrf);
    EXPECT_EQ(ip6mc_table_lookup_by_tbl_id(5), nullptr);
    ASSERT_NE(vrf->tid_table, nullptr);
    EXPECT_EQ(vrf->tid_table->tid, 7U);
    EXPECT_EQ(vrf->prev_tid, 0U);
    EXPECT_EQ(platform_calls(), (texts{"3 7 6 1", "9 0 6 0", "4 5 0 0", "9 7 6 0"}));
    EXPECT_EQ(live_blocks(), with_one);
}

TEST_P(TableOperation, ATableThatAnotherVrfTookOverIsNotLeftBehind) {
    ipv4mc_table_st *red = make_red();
    ipv4mc_table_st *given = red;
    ASSERT_EQ(operate(10, 0, 0, nullptr, &given), 0U);
    ipv4mc_table_st *blue = nullptr;
    ASSERT_EQ(operate(9, 5, 8, "blue", &blue), 0U);
    ASSERT_EQ(operate(9, 7, 6, "red", &given), 0U);
    ASSERT_NE(blue->tid_table, nullptr);
    EXPECT_EQ(ip6mc_table_lookup_by_tbl_id(5), blue->tid_table);
    EXPECT_EQ(find(8, nullptr), blue);
}

TEST_P(TableOperation, ANewPartnerEndsTheOldLinkOnBothSides) {
    ipv4mc_table_st *red = make_red();
    ipv4mc_table_st *five = red->tid_table;
    ipv4mc_table_st *given = nullptr;
    ASSERT_EQ(operate(9, 7, 6, "red", &given), 0U);
    EXPECT_EQ(five->vtable, nullptr);
    EXPECT_EQ(red->tid_table->tid, 7U);
    ipv4mc_table_st *blue = nullptr;
    ASSERT_EQ(operate(9, 7, 8, "blue", &blue), 0U);
    EXPECT_EQ(red->tid_table, nullptr);
    EXPECT_EQ(faults(), "");
    ASSERT_EQ(operate(4, 0, 0, nullptr, &red), 0U);
    EXPECT_NE(ip6mc_table_lookup_by_tbl_id(7), nullptr);
}

TEST_P(TableOperation, ATidSideDeletedAloneIsForgottenByItsVrf) {
    ipv4mc_table_st *red = nullptr;
    ASSERT_EQ(operate(9, 5, 0, "red", &red), 0U);  // no VRF id, so the TID side cannot name it
    ipv4mc_table_st *tid = red->tid_table;
    ASSERT_EQ(operate(4, 0, 0, nullptr, &tid), 0U);
    EXPECT_EQ(red->tid_table, nullptr);
    EXPECT_EQ(faults(), "");
}

TEST_P(TableOperation, ANamePassesOnWhenTheTableThatIsFoundByItGoes) {
    ipv4mc_table_st *first = nullptr;
    ASSERT_EQ(operate(9, 5, 6, "red", &first), 0U);
    ipv4mc_table_st *given = first;
    ASSERT_EQ(operate(10, 0, 0, nullptr, &given), 0U);  // keeps the name, gives up the id
    ipv4mc_table_st *second = nullptr;
    ASSERT_EQ(operate(9, 0, 6, nullptr, &second), 0U);
    ASSERT_NE(second, first);
    ASSERT_EQ(operate(9, 0, 6, "red", &second), 0U);
    ASSERT_STREQ(second->vrf_name, "red");
    ipv4mc_table_st *gone = first;
    ASSERT_EQ(operate(4, 0, 0, nullptr, &gone), 0U);
    ipv4mc_table_st *found = nullptr;
    EXPECT_EQ(operate(IPV4MC_ACTION_TABLE_LOOKUP, 0, 0, "red", &found), 0U);
    EXPECT_EQ(found, second);
    EXPECT_EQ(ip6mc_table_delete_all(0), 0U);
    EXPECT_EQ(operate(IPV4MC_ACTION_TABLE_LOOKUP, 0, 6, nullptr, &found), 2U);
    EXPECT_EQ(faults(), "");
}

TEST_P(TableOperation, ClearKeepsTheTablesAndZeroesTheCounters) {
    ipv4mc_table_st *red = make_red();
    ipv4mc_table_st *tid = red->tid_table;
    tid->route_counters.local_eg_cnt = 3;
    tid->route_counters.route_clears = 4;
    ipv4mc_table_st *given = red;
    EXPECT_EQ(operate(6, 0, 0, nullptr, &given), 0U);
    EXPECT_EQ(given, red);
    EXPECT_EQ(tid->route_counters.local_eg_cnt, 0U);
    EXPECT_EQ(tid->route_counters.route_clears, 0U);
    EXPECT_EQ(platform_calls(), (texts{"6 5 6 0", "6 5 6 0"}));
    EXPECT_TRUE(has(events(), "Action=CLEAR, Table NOT deleted"));
    EXPECT_EQ(red->tid_table, tid);
    EXPECT_EQ(ip6mc_table_is_valid(red), 1);
    // The same without routes that stopped it.
    EXPECT_EQ(operate(7, 0, 0, nullptr, &given), 0U);
    EXPECT_EQ(platform_calls(), (texts{"6 5 6 0", "6 5 6 0"}));
}

TEST_P(TableOperation, ClearOfAVrfTableAloneHasNoRoutes) {
    ipv4mc_table_st *vrf = nullptr;
    ASSERT_EQ(operate(3, 0, 6, "red", &vrf), 0U);
    heard.clear();
    EXPECT_EQ(operate(6, 0, 0, nullptr, &vrf), 0U);
    EXPECT_TRUE(has(events(), "No link to TID table. No routes to clear"));
}

ipv4mc_route_entry_st *add_route(ipv4mc_table_st *tid, uint8_t number) {
    ip_maddr_st source{};
    ip_maddr_st group{};
    auto *s = reinterpret_cast<uint8_t *>(&source);
    auto *g = reinterpret_cast<uint8_t *>(&group);
    s[0] = 0x20, s[15] = number;
    g[0] = 0xff, g[1] = 0x3e, g[15] = 1;
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    EXPECT_EQ(ip6mc_route_operation(IPV4MC_ACTION_CREATE, tid, &source, &group, 256, nullptr,
                                    &route, 0, 0, &is_new),
              0U);
    EXPECT_EQ(ip6mc_route_operation(IPV4MC_ACTION_COMMIT, tid, &source, &group, 256, nullptr,
                                    &route, 0, 0, &is_new),
              0U);
    return route;
}

TEST_P(TableOperation, RoutesThatStayStopAClearOfRoutes) {
    ipv4mc_table_st *red = make_red();
    for (uint8_t i = 1; i <= 3; ++i) {
        add_route(red->tid_table, i)->route_flags |= 0x04;
    }
    sim_log_clear();
    heard.clear();
    ipv4mc_table_st *given = red;
    EXPECT_EQ(operate(7, 0, 0, nullptr, &given), 0U);
    EXPECT_TRUE(platform_calls().empty());
    EXPECT_EQ(red->tid_table->vtable, red);
    EXPECT_EQ(red->active, 1U);
    EXPECT_TRUE(has(events(), "Table t:0x5 exists, action=CLEAR ROUTES. All routes deleted"));

    uint32_t stopped = 9;
    EXPECT_EQ(ip6mc_route_delete_all(red, 1, 2, 1, &stopped), 0U);
    EXPECT_EQ(stopped, 3U);
    EXPECT_TRUE(has(events(), "Rte_del_all: type 0x0 t0x5/v0x6/red"));
}

TEST_P(TableOperation, TheHoldsOfThePacketMutexAreReported) {
    ipv4mc_table_st *red = make_red();
    ipv6_mlib_pak_client_mutex_lock("holder", 42);
    ipv6_mlib_pak_client_mutex_lock("holder", 43);
    heard.clear();
    EXPECT_EQ(operate(6, 0, 0, nullptr, &red), 0U);
    texts all = heard.errors();
    // The operation, the deletion of the routes, and the walk over the signals look each for
    // themselves.
    ASSERT_EQ(all.size(), 3U);
    EXPECT_NE(all[0].find("] Multiple lock count 2 (holder/43)"), std::string::npos) << all[0];
    EXPECT_NE(all[1].find("] Mult lock count 2 (holder/43)"), std::string::npos) << all[1];
    EXPECT_NE(all[2].find("lock count 2 (holder/43)"), std::string::npos) << all[2];
    ipv6_mlib_pak_client_mutex_unlock("holder", 44);
    ipv6_mlib_pak_client_mutex_unlock("holder", 45);
    ipv4mc_desc->shmwin_info->pak_lock_count = UINT32_MAX;
    EXPECT_EQ(operate(6, 0, 0, nullptr, &red), 0U);
    ipv4mc_desc->shmwin_info->pak_lock_count = 0;
    all = heard.errors();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_NE(all[0].find("] Negative lock count: -1"), std::string::npos) << all[0];
}

// Core routes as the MDT logic links them.
struct core_routes {
    explicit core_routes(ipv4mc_table_st *table, size_t count, uint32_t index) {
        for (size_t i = 0; i < count; ++i) {
            routes[i].vrf_table[index] = table;
            routes[i].memd_next[index] = i + 1 < count ? &routes[i + 1] : nullptr;
            routes[i].memd_prev[index] = i > 0 ? &routes[i - 1] : nullptr;
        }
        table->memd_route_list = &routes[0];
    }
    ipv4mc_route_entry_st routes[3] = {};
};

TEST_P(TableOperation, DeactivationWithCoreRoutesLeavesTheTableActive) {
    ipv4mc_table_st *red = make_red();
    ipv4mc_table_st *tid = red->tid_table;
    core_routes core(tid, 2, 0);
    ipv4mc_table_st *given = red;
    EXPECT_EQ(operate(10, 0, 0, nullptr, &given), 0U);
    EXPECT_EQ(tid->active, 1U);
    EXPECT_EQ(tid->vtable, nullptr);
    EXPECT_EQ(platform_calls(), texts{"10 5 6 0"});
    EXPECT_TRUE(has(events(),
                    "Action DEACTIVATE: leave tbl 0x5 (Y) as ACTIVE since memd list in non-null"));
    EXPECT_EQ(red->prev_tid, 5U);
    EXPECT_EQ(tid->memd_route_list, &core.routes[0]);
}

TEST_P(TableOperation, DeletionForgetsTheCoreRoutes) {
    for (uint32_t index : {0U, 1U}) {
        for (size_t count : {1U, 2U, 3U}) {
            ipv4mc_table_st *red = make_red();
            ipv4mc_table_st *tid = red->tid_table;
            core_routes core(tid, count, index);
            core.routes[0].attributes = 0x1;
            ASSERT_EQ(operate(4, 0, 0, nullptr, &red), 0U);
            for (size_t i = 0; i < count; ++i) {
                EXPECT_EQ(core.routes[i].memd_next[index], nullptr);
                EXPECT_EQ(core.routes[i].memd_prev[index], nullptr);
                EXPECT_EQ(core.routes[i].vrf_table[index], nullptr);
            }
            EXPECT_TRUE(
                has(heard.lines(IPV4_DEBUG_DEV),
                    "MEMD Clear: VRF table 0x5 Core route *,::/0 attr 0x1  mdt handle 0x0"));
            EXPECT_TRUE(heard.errors().empty());
        }
    }
}

TEST_P(TableOperation, ACoreRouteGivesUpItsMdtInterface) {
    ipv4mc_table_st *red = make_red();
    core_routes core(red->tid_table, 2, 0);
    core.routes[1].attributes = MRIB_ROUTE_MH | 0x1;
    core.routes[1].mdt_ifh = 0x70;
    ASSERT_EQ(operate(4, 0, 0, nullptr, &red), 0U);
    EXPECT_EQ(core.routes[1].attributes, 0x1U);
    EXPECT_EQ(core.routes[1].mdt_ifh, 0U);
}

TEST_P(TableOperation, AnMdtHandleGoesEvenWhenItsUnlockFails) {
    ipv4mc_table_st *red = make_red();
    ipv4mc_table_st *tid = red->tid_table;
    for (uint32_t kind = 0; kind < IPV4MC_MDT_KINDS; ++kind) {
        tid->mdt_handles[kind] = 0x100 + kind;  // no such interface
    }
    heard.clear();
    ASSERT_EQ(operate(4, 0, 0, nullptr, &red), 0U);
    texts unset;
    for (const std::string &text : heard.errors()) {
        if (text.find("Failed to unset MDT handle") != std::string::npos) {
            unset.push_back(text.substr(0, text.find(", error")));
        }
    }
    // In this order, the eighth handle left out.
    texts expected;
    for (uint32_t kind : {0U, 1U, 2U, 5U, 3U, 4U, 7U}) {
        char text[80];
        snprintf(text, sizeof(text), "0x5: Failed to unset MDT handle. prev 0x%x", 0x100 + kind);
        expected.push_back(text);
    }
    EXPECT_EQ(unset, expected);
}

TEST_P(TableOperation, AccountingIsSetWhateverThePlatformSays) {
    ipv4mc_table_st *red = make_red();
    const auto settings = [&] { return std::pair(red->acct_per_prefix, red->acct_fwd_only); };
    const auto become = [](uint32_t a, uint32_t b) { return std::pair(a, b); };
    red->acct_fwd_only = 1;
    EXPECT_EQ(operate(11, 5, 6, "red", &red), 0U);
    EXPECT_EQ(settings(), become(1, 0));
    EXPECT_EQ(events(),
              texts{"Just in action ACCOUNTING ENABLE, t:0x5/v:0x6/red, table ptr valid "});
    EXPECT_EQ(operate(13, 5, 6, "red", &red), 0U);
    EXPECT_EQ(settings(), become(0, 1));
    EXPECT_EQ(operate(12, 5, 6, "red", &red), 0U);
    EXPECT_EQ(settings(), become(0, 1));
    red->acct_per_prefix = 1;
    EXPECT_EQ(operate(14, 5, 6, "red", &red), 0U);
    EXPECT_EQ(settings(), become(1, 0));
    EXPECT_EQ(platform_calls(), (texts{"11 5 6 0", "13 5 6 0", "12 5 6 0", "14 5 6 0"}));

    sim_arm_fault(SIM_OP_TABLE, 12, 0, 1, EIO);
    EXPECT_EQ(operate(12, 5, 6, "red", &red), EIO);
    EXPECT_EQ(settings(), become(0, 0));
    EXPECT_EQ(heard.errors(),
              texts{std::string("Error in platform dependant call action 12 ACCOUNTING DISABLE "
                                "existing table red 5 ") +
                    strerror(EIO)});
}

TEST_P(TableOperation, RatePerRouteStaysInTheLibrary) {
    ipv4mc_table_st *red = make_red();
    EXPECT_EQ(operate(15, 5, 6, "red", &red), 0U);
    EXPECT_EQ(red->rate_per_route, 1U);
    EXPECT_EQ(operate(16, 5, 6, "red", &red), 0U);
    EXPECT_EQ(red->rate_per_route, 0U);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_DEV),
              (texts{"ip6mc_table_operation : Set rate per route to TRUE",
                     "ip6mc_table_operation : Set rate per route to FALSE"}));
    EXPECT_TRUE(platform_calls().empty());
}

TEST_P(TableOperation, DeactivationOfNothingIsRefused) {
    ipv4mc_table_st *none = nullptr;
    EXPECT_EQ(operate(10, 0, 0, nullptr, &none), EINVAL);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_WRN), texts{"Tbl deactivate: Null table vid"});
}

TEST_P(TableOperation, OtherActionsAnswerTheTable) {
    ipv4mc_table_st *red = make_red();
    for (uint32_t action : {0U, 1U, 2U, 3U, 5U, 31U, 32U, 1000U}) {
        ipv4mc_table_st *given = nullptr;
        EXPECT_EQ(operate(action, 5, 6, "red", &given), 0U) << action;
        EXPECT_EQ(given, red) << action;
        EXPECT_EQ(operate(action, 5, 0, nullptr, &given), 0U);
        EXPECT_EQ(given, red->tid_table) << action;
    }
    EXPECT_TRUE(platform_calls().empty());
}

TEST_P(TableOperation, ManyTablesComeAndGo) {
    const counts before = live_blocks();
    for (int round = 0; round < 2; ++round) {
        for (uint32_t i = 1; i <= 200; ++i) {
            ipv4mc_table_st *table = nullptr;
            const std::string name = "vrf" + std::to_string(i * 7919 % 1000);
            // Links in either order of arrival, or at once.
            if (i % 3 == 0)
                operate(3, 0, i, name.c_str(), &table);
            if (i % 3 == 1)
                operate(3, 1000 - i, 0, nullptr, &table);
            ASSERT_EQ(operate(9, 1000 - i, i, name.c_str(), &table), 0U);
        }
        ASSERT_EQ(faults(), "");
        for (uint32_t i = 1; i <= 200; ++i) {
            ipv4mc_table_st *table =
                i % 2 == 0 ? find(i, nullptr) : ip6mc_table_lookup_by_tbl_id(1000 - i);
            ASSERT_NE(table, nullptr);
            ASSERT_EQ(operate(4, 0, 0, nullptr, &table), 0U);
        }
        EXPECT_EQ(live_blocks(), before);
    }
    EXPECT_TRUE(heard.errors().empty());
}

}  // namespace
