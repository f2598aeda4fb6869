#include "tests/kit/service_faults.h"
#include "tests/lib/removal/rig.h"

using namespace bed;

namespace {

class Lookup : public bed::Test {
  protected:
    cerrno look(const char *source, const char *group, ifhtype ifh) {
        const ip_maddr_st s = address(source);
        const ip_maddr_st g = address(group);
        return ip6mc_lookup(table, &s, &g, ifh, &route, &intf);
    }
    ipv4mc_route_entry_st *const untouched_route = reinterpret_cast<ipv4mc_route_entry_st *>(8);
    ipv4mc_intf_entry_st *const untouched_intf = reinterpret_cast<ipv4mc_intf_entry_st *>(16);
    ipv4mc_route_entry_st *route = untouched_route;
    ipv4mc_intf_entry_st *intf = untouched_intf;
};

using Walk = rig::SharedOrNot;

std::vector<ipv4mc_route_entry_st *> walk_by_steps(ipv4mc_table_st *table) {
    const ip_maddr_st any{};
    std::vector<ipv4mc_route_entry_st *> seen;
    for (auto *r = ip6mc_route_first_key(table, &any, &any, 0); r != nullptr;
         r = ip6mc_route_next(table, r)) {
        seen.push_back(r);
    }
    return seen;
}

cerrno collect(ipv4mc_route_entry_st *route, void *context) {
    static_cast<std::vector<ipv4mc_route_entry_st *> *>(context)->push_back(route);
    return 0;
}

cerrno refuse(ipv4mc_route_entry_st *, void *context) {
    ++*static_cast<int *>(context);
    return 5;
}

cerrno erase_each(ipv4mc_route_entry_st *route, void *context) {
    return rig::erase(static_cast<ipv4mc_table_st *>(context), route);
}

}  // namespace

TEST_F(Lookup, NamesWhatIsNull) {
    const ip_maddr_st a{};
    forget();
    EXPECT_EQ(ip6mc_lookup(nullptr, &a, &a, 1, &route, &intf), 22U);
    EXPECT_EQ(ip6mc_lookup(table, &a, &a, 1, nullptr, &intf), 22U);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE), (texts{"Null table", "Null route_entry"}));
    EXPECT_EQ(heard.lines(IPV4_DEBUG_EV)[0], "Just in for (*,::) int Nf0x00000001");
    EXPECT_EQ(route, untouched_route);
    EXPECT_EQ(intf, untouched_intf);
}

TEST_F(Lookup, IsRefusedWhileNotReady) {
    ipv4mc_update_state(1);
    forget();
    EXPECT_EQ(look("2001:db8::1", "ff3e::1", 7), 9U);
    EXPECT_TRUE(
        rig::has_text(errors(), "Problems while looking up route for (2001:db8::1,ff3e::1) int "));
    EXPECT_EQ(route, untouched_route);
    ipv4mc_update_state(2);
}

TEST_F(Lookup, AMissClearsBothAnswers) {
    EXPECT_EQ(look("2001:db8::1", "ff3e::1", 7), 2U);
    EXPECT_EQ(route, nullptr);
    EXPECT_EQ(intf, nullptr);
    EXPECT_TRUE(rig::has_text(heard.lines(IPV4_DEBUG_ROUTE),
                              "NOT found (2001:db8::1,ff3e::1) int Nf0x00000007"));
    const ip_maddr_st a = address("ff3e::1");
    route = untouched_route;
    EXPECT_EQ(ip6mc_lookup(table, &a, &a, 7, &route, nullptr), 2U);
    EXPECT_EQ(route, nullptr);
}

TEST_F(Lookup, TheLongestMatchAnswers) {
    auto *range = add(table, star_g("ff3e::", 32));
    auto *group = add(table, star_g("ff3e::1"));
    auto *exact = add(table, sg(1));
    auto *on_exact = join(exact, {0, 7, 0, 0});
    auto *on_group = join(group, {0, 7, 0, 0});
    forget();
    EXPECT_EQ(look("2001:db8::1", "ff3e::1", 7), 0U);
    EXPECT_EQ(route, exact);
    EXPECT_EQ(intf, on_exact);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE).back(),
              "Found (2001:db8::1,ff3e::1) int Ha0x7 matched (2001:db8::1,ff3e::1/256) int Ha0x7");
    EXPECT_EQ(look("2001:db8::2", "ff3e::1", 7), 0U);
    EXPECT_EQ(route, group);
    EXPECT_EQ(intf, on_group);
    EXPECT_EQ(look("2001:db8::2", "ff3e::2", 7), 0U);
    EXPECT_EQ(route, range);
    EXPECT_EQ(intf, nullptr);
    EXPECT_TRUE(errors().empty());
}

TEST_F(Lookup, WithoutAPlaceForTheInterfaceNoneIsSearched) {
    auto *exact = add(table, sg(1), MRIB_ROUTE_IA);
    const key k = sg(1);
    forget();
    EXPECT_EQ(ip6mc_lookup(table, &k.source, &k.group, 7, &route, nullptr), 0U);
    EXPECT_EQ(route, exact);
    EXPECT_TRUE(heard.lines(IPV4_DEBUG_INTF).empty());
    EXPECT_TRUE(heard.lines(IPV4_DEBUG_ROUTE).empty());
}

TEST_F(Lookup, AnInheritingRouteWithoutParentLeavesTheInterfaceAlone) {
    auto *exact = add(table, sg(1), MRIB_ROUTE_IA);
    join(exact, {0, 7, 0, 0});
    ASSERT_EQ(exact->IF_parent, nullptr);
    forget();
    EXPECT_EQ(look("2001:db8::1", "ff3e::1", 7), 0U);
    EXPECT_EQ(route, exact);
    EXPECT_EQ(intf, untouched_intf);
    EXPECT_TRUE(
        rig::has_text(heard.lines(IPV4_DEBUG_ROUTE),
                      "matched (2001:db8::1,ff3e::1/256) with IA flag set but parent is Null"));
}

TEST_F(Lookup, AnInheritingRouteAnswersWithItsParentsInterfaces) {
    auto *parent = add(table, star_g("ff3e::1"), MRIB_ROUTE_IF);
    auto *exact = add(table, sg(1), MRIB_ROUTE_IA);
    join(exact, {0, 8, 0, 0});
    auto *accepts = join(parent, {0, 7, 0, 0});
    forget();
    EXPECT_EQ(look("2001:db8::1", "ff3e::1", 7), 0U);
    EXPECT_EQ(route, exact);
    EXPECT_EQ(intf, accepts);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE),
              (texts{"Parent of (2001:db8::1,ff3e::1) is is (*,ff3e::1/128)",
                     "Found (2001:db8::1,ff3e::1) int Ha0x7 matched (2001:db8::1,ff3e::1/256) int "
                     "Ha0x7"}));
    EXPECT_EQ(look("2001:db8::1", "ff3e::1", 8), 0U);
    EXPECT_EQ(intf, nullptr);
}

TEST_F(Lookup, ARouteThatIsItsOwnParentAnswersWithItsOwnInterfaces) {
    auto *own = add(table, sg(1), MRIB_ROUTE_IA | MRIB_ROUTE_IF);
    EXPECT_EQ(own->IF_parent, own);
    auto *entry = join(own, {0, 7, 0, 0});
    forget();
    EXPECT_EQ(look("2001:db8::1", "ff3e::1", 7), 0U);
    EXPECT_EQ(intf, entry);
    EXPECT_FALSE(rig::has_text(heard.lines(IPV4_DEBUG_ROUTE), "is is"));
}

TEST_F(Lookup, OnlyOrdinaryInterfacesMatch) {
    auto *exact = add(table, sg(1));
    auto *amt = join(exact, {IPV4MC_INTF_AMT, 7, 0x01020304, 5});
    EXPECT_EQ(look("2001:db8::1", "ff3e::1", 7), 0U);
    EXPECT_EQ(intf, nullptr);
    auto *ordinary = join(exact, {0, 7, 0, 0});
    EXPECT_EQ(look("2001:db8::1", "ff3e::1", 7), 0U);
    EXPECT_EQ(intf, ordinary);
    EXPECT_NE(intf, amt);
}

TEST_F(Lookup, ParentOfNothingIsRefused) {
    auto *exact = add(table, sg(1));
    ipv4mc_route_entry_st *parent = exact;
    forget();
    EXPECT_EQ(ip6mc_get_parent_IF_route(nullptr, exact, &parent, 0), 22U);
    EXPECT_EQ(ip6mc_get_parent_IF_route(table, nullptr, &parent, 0), 22U);
    EXPECT_EQ(ip6mc_get_parent_IF_route(table, exact, nullptr, 0), 22U);
    EXPECT_EQ(errors(), (texts{"Null pointer table=NULL route=OK parent_route=OK",
                               "Null pointer table=OK route=NULL parent_route=OK",
                               "Null pointer table=OK route=OK parent_route=NULL"}));
    EXPECT_EQ(parent, exact);
}

TEST_F(Lookup, ParentOfARouteThatDoesNotInheritIsReportedAndSearched) {
    auto *above = add(table, star_g("ff3e::1"), MRIB_ROUTE_IF);
    auto *exact = add(table, sg(1));
    ipv4mc_route_entry_st *parent = nullptr;
    forget();
    EXPECT_EQ(ip6mc_get_parent_IF_route(table, exact, &parent, 0), 0U);
    EXPECT_EQ(parent, above);
    EXPECT_EQ(errors(), texts{"0xe0000005(red): (2001:db8::1,ff3e::1/256) does NOT have IA flag"});
}

TEST_F(Lookup, TheOldParentCountsWithoutTheFlagOnRequest) {
    auto *grand = add(table, star_g("ff3e::", 32), MRIB_ROUTE_IF);
    auto *above = add(table, star_g("ff3e::1"), MRIB_ROUTE_IF);
    auto *exact = add(table, sg(1), MRIB_ROUTE_IA);
    ASSERT_EQ(exact->IF_parent, above);
    above->attributes = 0;
    ipv4mc_route_entry_st *parent = nullptr;
    EXPECT_EQ(ip6mc_get_parent_IF_route(table, exact, &parent, 1), 0U);
    EXPECT_EQ(parent, above);
    EXPECT_EQ(ip6mc_get_parent_IF_route(table, exact, &parent, 0), 0U);
    EXPECT_EQ(parent, grand);
}

TEST_F(Lookup, ATrieThatFailsEndsTheSearchForTheParent) {
    add(table, star_g("ff3e::", 32));
    auto *group = add(table, star_g("ff3e::1"));
    auto *exact = add(table, sg(1), MRIB_ROUTE_IA);
    ipv4mc_route_entry_st *parent = exact;
    kit::fail_service("ip6mc_gtrie_platform_less_specific_of_leaf", 5, 1, 1);
    forget();
    EXPECT_EQ(ip6mc_get_parent_IF_route(table, exact, &parent, 0), 14U);
    EXPECT_EQ(parent, nullptr);
    EXPECT_EQ(errors(), texts{"0xe0000005(red): Gtrie problems while getting less specific of "
                              "(*,ff3e::1/128) original route is (2001:db8::1,ff3e::1/256): " +
                              std::string(cerr_strerror(5))});
    EXPECT_NE(group, nullptr);
    // The commit of a route that turns to its parent ends with it.
    kit::fail_service("ip6mc_gtrie_platform_less_specific_of_leaf", 5);
    forget();
    EXPECT_EQ(commit(table, exact, 0, 0), 14U);
    EXPECT_TRUE(rig::has_text(errors(),
                              "Cannot get parent of new route (2001:db8::1,ff3e::1/256) "
                              "action 8 COMMIT Error 14 "));
    EXPECT_EQ(platform_calls(), texts{});
    kit::heal_services();
}

TEST_P(Walk, FirstKeyFollowsItsLengthRules) {
    auto *wide = add(table, star_g("ff3e::", 16));
    auto *group = add(table, star_g("ff3e::5"));
    auto *exact = add(table, sg(5));
    const ip_maddr_st any{};
    const key k = sg(5);
    EXPECT_EQ(ip6mc_route_first_key(table, &any, &any, 99), wide);  // the length is ignored
    EXPECT_EQ(ip6mc_route_first_key(table, &any, &k.group, 128), group);
    EXPECT_EQ(ip6mc_route_first_key(table, &any, &k.group, 16), wide);
    EXPECT_EQ(ip6mc_route_first_key(table, &k.source, &k.group, 3), exact);
    const ip_maddr_st other = address("ff05::1");
    EXPECT_EQ(ip6mc_route_first_key(table, &any, &other, 128), nullptr);
}

TEST_P(Walk, FirstKeyAndNextNameWhatIsNull) {
    const ip_maddr_st any{};
    auto *route = add(table, sg(1));
    forget();
    EXPECT_EQ(ip6mc_route_first_key(nullptr, &any, &any, 0), nullptr);
    EXPECT_EQ(ip6mc_route_next(nullptr, route), nullptr);
    EXPECT_EQ(ip6mc_route_next(table, nullptr), nullptr);
    ipv4mc_update_state(1);
    EXPECT_EQ(ip6mc_route_first_key(table, &any, &any, 0), nullptr);
    EXPECT_EQ(ip6mc_route_next(table, route), nullptr);
    ipv4mc_update_state(2);
    EXPECT_EQ(errors(), (texts{"Null table pointer", "Null table pointer", "Null route pointer",
                               "Multicast library not ready", "Multicast library not ready"}));
}

TEST_P(Walk, EachTableSeesItsOwnRoutesInOrder) {
    ipv4mc_table_st *before = make_table(0xe0000004, 0x60000004, "early");
    ipv4mc_table_st *behind = make_table(0xe0000007, 0x60000007, "late");
    std::vector<ipv4mc_route_entry_st *> mine;
    for (uint32_t n = 1; n <= 20; ++n) {
        add(before, sg(n));
        mine.push_back(add(table, sg(n)));
        add(behind, sg(n));
    }
    EXPECT_EQ(walk_by_steps(table), mine);
    std::vector<ipv4mc_route_entry_st *> walked;
    EXPECT_EQ(ip6mc_route_walk(table, 3, collect, &walked), 0U);
    EXPECT_EQ(walked, mine);
    // With leaves of another table behind the last one, the walk goes through them to the end.
    EXPECT_EQ(ip6mc_route_next(table, mine.back()), nullptr);
    for (auto *each : {before, table, behind}) {
        EXPECT_EQ(ip6mc_route_walk(each, 0, erase_each, each), 0U);
    }
}

TEST_P(Walk, AnEmptyTableHasNoFirstRouteWhateverItsNeighboursHold) {
    ipv4mc_table_st *behind = make_table(0xe0000007, 0x60000007, "late");
    add(behind, sg(1));
    EXPECT_TRUE(walk_by_steps(table).empty());
    int calls = 0;
    EXPECT_EQ(ip6mc_route_walk(table, 0, refuse, &calls), 0U);
    EXPECT_EQ(calls, 0);
}

TEST_P(Walk, NextPassesOverForeignLeavesAndFirstDoesNot) {
    // A leaf of this trie that has come to belong to another table.
    add(table, sg(1));
    auto *foreign = find(table, sg(1));
    auto *second = add(table, sg(2));
    auto *third = add(table, sg(3));
    ipv4mc_table_st *other = make_table(0xe0000009, 0x60000009, "other");
    foreign->table = other;
    const ip_maddr_st any{};
    EXPECT_EQ(ip6mc_route_first_key(table, &any, &any, 0), nullptr);
    foreign->table = table;
    second->table = other;
    EXPECT_EQ(ip6mc_route_next(table, foreign), third);
    second->table = table;
}

TEST_P(Walk, AFailingFunctionEndsTheWalkWith125) {
    add(table, sg(1));
    add(table, sg(2));
    int calls = 0;
    EXPECT_EQ(ip6mc_route_walk(table, 0, refuse, &calls), 125U);
    EXPECT_EQ(calls, 1);
}

TEST_P(Walk, TheFunctionMayDeleteTheRouteAtHand) {
    for (uint32_t n = 0; n < 50; ++n)
        add(table, sg(n));
    EXPECT_EQ(ip6mc_route_walk(table, 7, erase_each, table), 0U);
    EXPECT_TRUE(walk_by_steps(table).empty());
    EXPECT_EQ(table->rate_route_count, 0);
}

TEST_P(Walk, RefusesWhatIsNull) {
    int calls = 0;
    forget();
    EXPECT_EQ(ip6mc_route_walk(nullptr, 0, refuse, &calls), 22U);
    EXPECT_EQ(ip6mc_route_walk(table, 0, nullptr, &calls), 22U);
    ipv4mc_update_state(1);
    EXPECT_EQ(ip6mc_route_walk(table, 0, refuse, &calls), 9U);
    ipv4mc_update_state(2);
    EXPECT_EQ(errors(), (texts{"Null table pointer.", "Null function pointer.",
                               "Multicast library Not ready\n"}));
}

TEST_P(Walk, YieldingWithThePacketMutexHeldIsReported) {
    for (uint32_t n = 0; n < 4; ++n)
        add(table, sg(n));
    std::vector<ipv4mc_route_entry_st *> walked;
    rig::header()->pak_lock_count = 1;
    snprintf(rig::header()->pak_lock_fn, IPMC_LOCK_FN_SIZE, "somebody");
    rig::header()->pak_lock_line = 77;
    forget();
    EXPECT_EQ(ip6mc_route_walk(table, 2, collect, &walked), 0U);
    auto said = errors();
    rig::header()->pak_lock_count = 0;
    ASSERT_EQ(said.size(), 1U);
    EXPECT_TRUE(rig::has_text(said, "Mult lock count 1 (somebody/77)"));
    EXPECT_EQ(ip6mc_route_walk(table, 0, collect, &walked), 0U);
    EXPECT_TRUE(errors().empty());
}

INSTANTIATE_TEST_SUITE_P(Tries, Walk, testing::Values(0, 1));
