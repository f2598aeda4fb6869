#include <algorithm>

#include "services/gtrie/gtrie.h"
#include "services/window/setup.h"
#include "tests/lib/routes/bed.h"

using namespace bed;
using RouteOperation = bed::Test;

namespace {

constexpr uint32_t every_action[] = {11, 12, 13, 14, 15, 16};

void expect_key(const std::string &text, const char *part) {
    EXPECT_NE(text.find(part), std::string::npos) << text;
}

}  // namespace

TEST_F(RouteOperation, IsRefusedWhileTheLibraryIsNotReady) {
    ipv4mc_update_state(1);
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 5;
    forget();
    EXPECT_EQ(operate(IPV4MC_ACTION_CREATE, table, sg(1), &route, &is_new), 9U);
    EXPECT_EQ(operate(19, table, sg(1), nullptr, nullptr), 9U);
    EXPECT_EQ(errors(), (texts{"Multicast library Not ready\n", "Multicast library Not ready\n"}));
    EXPECT_EQ(is_new, 5);
    ipv4mc_update_state(2);
}

TEST_F(RouteOperation, Action19IsNotEntered) {
    forget();
    EXPECT_EQ(operate(19, table, sg(1), nullptr, nullptr), 0U);
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(platform_calls(), texts{});
}

TEST_F(RouteOperation, ActionsWithoutMeaningSucceedWithANullEntry) {
    for (const uint32_t action : {1U, 2U, 7U, 9U, 10U, 17U, 18U, 22U, 99U}) {
        EXPECT_EQ(operate(action, table, sg(1), nullptr, nullptr), 0U) << action;
    }
    EXPECT_TRUE(errors().empty());
}

TEST_F(RouteOperation, NullPointersAreToldApart) {
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    forget();
    EXPECT_EQ(operate(IPV4MC_ACTION_COMMIT, table, sg(1), nullptr, &is_new), 22U);
    auto said = errors();
    ASSERT_EQ(said.size(), 2U);
    EXPECT_EQ(said[0], "Action is COMMIT but route_entry is NULL ");
    EXPECT_EQ(said[1],
              "Rte-V2: route operation failed for 0xe0000005 (2001:db8::1, ff3e::1) action 0x8 - " +
                  std::string(cerr_strerror(22)));
    EXPECT_EQ(operate(IPV4MC_ACTION_COMMIT, table, sg(1), &route, &is_new), 22U);
    EXPECT_EQ(errors()[0], "Action is COMMIT but  *route_entry is NULL");
    for (const uint32_t action : every_action) {
        EXPECT_EQ(operate(action, table, sg(1), nullptr, &is_new), 22U);
        expect_key(errors()[0], "but route_entry is NULL ");
        EXPECT_EQ(operate(action, table, sg(1), &route, &is_new), 22U);
        expect_key(errors()[0], "but  *route_entry is NULL");
    }
    for (const uint32_t action : {0U, 3U, 5U}) {
        EXPECT_EQ(operate(action, table, sg(1), nullptr, &is_new), 22U);
        const auto texts_now = errors();
        EXPECT_EQ(texts_now[0].substr(texts_now[0].find(" but ")), " but route_entry is NULL");
    }
    EXPECT_EQ(operate(IPV4MC_ACTION_CREATE, nullptr, sg(1), &route, &is_new), 22U);
    EXPECT_EQ(errors()[0], "NULL table ");
    auto *there = add(table, sg(1));
    forget();
    for (const uint32_t action : {3U, 4U, 6U, 8U}) {
        EXPECT_EQ(operate(action, table, sg(1), &there, nullptr), 22U);
        expect_key(errors()[0], " but is_new is NULL");
    }
    EXPECT_EQ(find(table, sg(1)), there);
    EXPECT_EQ(platform_calls(), texts{});
}

TEST_F(RouteOperation, IsRefusedWhileTheWindowIsClosed) {
    auto *route = add(table, sg(1));
    int is_new = 0;
    ipv4mc_desc->shmwin_init = 0;
    forget();
    EXPECT_EQ(operate(IPV4MC_ACTION_COMMIT, table, sg(1), &route, &is_new), 9U);
    const auto said = errors();
    EXPECT_EQ(operate(IPV4MC_ACTION_LOOKUP, table, sg(1), &route, nullptr), 9U);
    EXPECT_EQ(operate(99, table, sg(1), &route, nullptr), 9U);
    ipv4mc_desc->shmwin_init = 1;
    EXPECT_NE(
        std::find(said.begin(), said.end(),
                  "Action is COMMIT but shmwin_info is NULL: " + std::string(cerr_strerror(9))),
        said.end());
    EXPECT_EQ(platform_calls(), texts{});
}

TEST_F(RouteOperation, TellsOfEachStep) {
    forget();
    auto *route = add(table, sg(1));
    route->attributes = MRIB_ROUTE_IA | MRIB_ROUTE_IF;
    EXPECT_EQ(commit(table, route, 0, 0), 0U);
    const auto lines = heard.lines(IPV4_DEBUG_EV);
    const auto has = [&lines](const std::string &end) {
        return std::any_of(lines.begin(), lines.end(),
                           [&end](const std::string &line) { return line.ends_with(end); });
    };
    EXPECT_EQ(lines[0], "Rte: Just in for 0xe0000005:(2001:db8::1,ff3e::1/256) action CREATE");
    EXPECT_TRUE(has("Creating route (2001:db8::1,ff3e::1/256) "));
    EXPECT_TRUE(has("] Route (2001:db8::1,ff3e::1/256) IA set action COMMIT "));
    EXPECT_TRUE(has("] Route (2001:db8::1,ff3e::1/256) IF set action COMMIT "));
    route->attributes = 0;
    EXPECT_EQ(commit(table, route, 0, MRIB_ROUTE_IA | MRIB_ROUTE_IF), 0U);
}

TEST_F(RouteOperation, ADetachedLeafIsFoundByNobody) {
    ipv4mc_route_entry_st *route = create(table, sg(1));
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(find(table, sg(1)), nullptr);
    EXPECT_EQ(find(table, sg(1), IPV4MC_ACTION_LOOKUP), nullptr);
    const key k = sg(1);
    EXPECT_EQ(ip6mc_route_first_key(table, &k.source, &k.group, 256), nullptr);
    EXPECT_EQ(route->table, table);
    EXPECT_EQ(table->rate_route_count, 1);
    EXPECT_EQ(platform_calls(), texts{});
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE),
              (texts{"Successful exact match cannot find (2001:db8::1,ff3e::1/256)",
                     "Success lookup cannot find (2001:db8::1,ff3e::1/256)"}));
    EXPECT_EQ(commit(table, route, 1), 0U);
    EXPECT_EQ(find(table, sg(1)), route);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE_COMMIT),
              texts{"Committed new route (2001:db8::1,ff3e::1/256)"});
    EXPECT_EQ(platform_calls(), texts{"route 8 new 1 -> 0"});
    EXPECT_EQ(heard.lines(IPV4_DEBUG_OBJ_ID),
              texts{"Allocated for route (2001:db8::1,ff3e::1/256, v:red)"});
    EXPECT_TRUE(errors().empty());
}

TEST_F(RouteOperation, LookupIsALongestMatchAndExactLookupIsNot) {
    auto *range = add(table, star_g("ff3e::", 16));
    auto *wide = add(table, star_g("ff3e::1"));
    auto *exact = add(table, sg(1));
    EXPECT_EQ(find(table, sg(1), IPV4MC_ACTION_LOOKUP), exact);
    EXPECT_EQ(find(table, {address("2001:db8::2"), address("ff3e::1"), 256}, IPV4MC_ACTION_LOOKUP),
              wide);
    // The length plays no part in a longest match.
    EXPECT_EQ(find(table, {{}, address("ff3e::1"), 3}, IPV4MC_ACTION_LOOKUP), wide);
    EXPECT_EQ(find(table, sg(77), IPV4MC_ACTION_LOOKUP), range);
    EXPECT_EQ(find(table, sg(77)), nullptr);
    EXPECT_EQ(find(table, star_g("ff3e::", 16)), range);
    EXPECT_EQ(find(table, star_g("ff3e::", 17)), nullptr);
}

TEST_F(RouteOperation, CreateOfAnExistingRouteAnswers17AndTakesTheAddress) {
    auto *route = add(table, sg(1), 0x400);
    const ipv4mc_route_entry_st before = *route;
    ipv4mc_route_entry_st *found = nullptr;
    int is_new = 7;
    const ip_maddr_st aux = address("2001:db8::aa");
    forget();
    EXPECT_EQ(operate(IPV4MC_ACTION_CREATE, table, sg(1), &found, &is_new, 0, &aux), 17U);
    EXPECT_EQ(found, route);
    EXPECT_EQ(is_new, 0);
    EXPECT_EQ(memcmp(&route->aux_addr, &aux, sizeof(aux)), 0);
    ipv4mc_route_entry_st after = *route;
    after.aux_addr = before.aux_addr;
    EXPECT_EQ(memcmp(&after, &before, sizeof(after)), 0);
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE), texts{"Existing route"});
    EXPECT_EQ(table->rate_route_count, 1);
    EXPECT_EQ(operate(IPV4MC_ACTION_CREATE, table, sg(1), &found, &is_new), 17U);
    EXPECT_EQ(memcmp(&route->aux_addr, &aux, sizeof(aux)), 0);
}

TEST_F(RouteOperation, AnImpossibleLengthIsATrieError) {
    ipv4mc_route_entry_st *route = reinterpret_cast<ipv4mc_route_entry_st *>(table);
    int is_new = 7;
    forget();
    EXPECT_EQ(operate(IPV4MC_ACTION_CREATE, table, star_g("ff3e::", 300), &route, &is_new), 14U);
    EXPECT_EQ(route, nullptr);
    EXPECT_EQ(is_new, 0);
    EXPECT_EQ(table->rate_route_count, 0);
    const auto said = errors();
    ASSERT_EQ(said.size(), 2U);
    EXPECT_EQ(said[0],
              "Cannot create/lookup in ingress table for (*,ff3e::/300) action 3 CREATE Error: " +
                  std::string(cerr_strerror(GTRIE_E_LENGTH)) + " ");
}

TEST_F(RouteOperation, ATableWithoutTrieGives14ToAll) {
    void *trie = table->ingress_gtrie;
    table->ingress_gtrie = nullptr;
    ipv4mc_route_entry_st *route = reinterpret_cast<ipv4mc_route_entry_st *>(table);
    int is_new = 7;
    forget();
    EXPECT_EQ(operate(IPV4MC_ACTION_LOOKUP, table, sg(1), &route, &is_new), 14U);
    EXPECT_EQ(route, nullptr);
    expect_key(errors()[0], "Problems in Gtrie while looking up route  (2001:db8::1,ff3e::1) ");
    route = reinterpret_cast<ipv4mc_route_entry_st *>(table);
    EXPECT_EQ(operate(IPV4MC_ACTION_EXACT_LOOKUP, table, sg(1), &route, &is_new), 14U);
    EXPECT_EQ(route, nullptr);
    expect_key(errors()[0], "Problems in Gtrie during exact route match (2001:db8::1,ff3e::1) ");
    EXPECT_EQ(operate(IPV4MC_ACTION_CREATE, table, sg(1), &route, &is_new), 14U);
    table->ingress_gtrie = trie;
}

TEST_F(RouteOperation, ANewRouteTakesTheSettingsOfItsVrf) {
    table->vtable->acct_per_prefix = 1;
    table->vtable->acct_fwd_only = 1;
    table->vtable->rate_per_route = 1;
    auto *route = create(table, sg(1));
    EXPECT_EQ(route->acct_per_prefix, 1);
    EXPECT_EQ(route->acct_fwd_only, 0);  // the two exclude each other
    ASSERT_NE(route->rate, nullptr);
    EXPECT_EQ(route->rate_per_route, 1);
    table->vtable->acct_per_prefix = 0;
    auto *other = create(table, sg(2));
    EXPECT_EQ(other->acct_fwd_only, 1);
    ip6mc_route_oper_create_fail_cleanup(table, &route, table->ingress_gtrie);
    EXPECT_EQ(route, nullptr);
    EXPECT_EQ(table->rate_route_count, 1);
}

TEST_F(RouteOperation, WithoutRoomForTheRateRecordNothingIsLeft) {
    ipv4mc_route_entry_st *spare = create(table, sg(99));
    ipv4mc_route_entry_st *second_spare = create(table, sg(98));
    shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 1);
    std::vector<void *> held;
    for (const size_t size : {65536U, 4096U, 512U, 192U, 64U}) {
        for (void *block = ip6mc_shmwin_malloc(size); block != nullptr;
             block = ip6mc_shmwin_malloc(size)) {
            held.push_back(block);
        }
    }
    // Room for a leaf, and none for the rate record.
    ip6mc_route_oper_create_fail_cleanup(table, &spare, table->ingress_gtrie);
    table->vtable->rate_per_route = 1;
    ipv4mc_route_entry_st *route = spare;
    int is_new = 7;
    const int32_t count = table->rate_route_count;
    heard.clear();
    EXPECT_EQ(operate(IPV4MC_ACTION_CREATE, table, sg(1), &route, &is_new), 12U);
    EXPECT_EQ(route, nullptr);
    EXPECT_EQ(is_new, 1);
    EXPECT_EQ(table->rate_route_count, count);
    bool told = false;
    for (const auto &text : errors()) {
        told |= text == "CREATE can not allocate memory for route rate (2001:db8::1,ff3e::1/256)";
    }
    EXPECT_TRUE(told);
    // RATE ENABLE says it on the debug class only, beside what the allocator says.
    table->vtable->rate_per_route = 0;
    heard.clear();
    is_new = 0;
    EXPECT_EQ(operate(15, table, sg(98), &second_spare, &is_new), 12U);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE),
              texts{"ENABLE can not allocate memory for route rate (2001:db8::1,ff3e::62/256)"});
    for (void *block : held)
        ip6mc_shmwin_free(block);
}

TEST_F(RouteOperation, CleanupNamesWhatIsMissing) {
    auto *route = create(table, sg(1));
    ipv4mc_route_entry_st *none = nullptr;
    forget();
    ip6mc_route_oper_create_fail_cleanup(nullptr, &route, table->ingress_gtrie);
    ip6mc_route_oper_create_fail_cleanup(table, nullptr, table->ingress_gtrie);
    ip6mc_route_oper_create_fail_cleanup(table, &none, nullptr);
    EXPECT_EQ(
        errors(),
        (texts{
            "ipv4mc_route_oper_create_fail_cleanup INVAL PARAMS t:n, r_e:y, r:y, gtrie_hndl:y",
            "ipv4mc_route_oper_create_fail_cleanup INVAL PARAMS t:y, r_e:n, r:n, gtrie_hndl:y",
            "ipv4mc_route_oper_create_fail_cleanup INVAL PARAMS t:y, r_e:y, r:n, gtrie_hndl:n"}));
    ASSERT_EQ(commit(table, route, 1), 0U);
    const int32_t count = table->rate_route_count;
    ipv4mc_route_entry_st *published = route;
    ip6mc_route_oper_create_fail_cleanup(table, &published, table->ingress_gtrie);
    expect_key(errors()[0],
               "ipv4mc_route_oper_create_fail_cleanup: Cannot free gtrie leaf Error: ");
    EXPECT_EQ(published, nullptr);
    EXPECT_EQ(table->rate_route_count, count - 1);
    EXPECT_EQ(find(table, sg(1)), route);
}

TEST_F(RouteOperation, APlatformFailureLeavesANewRouteDetached) {
    auto *route = create(table, sg(1));
    sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_COMMIT, 0, 1, 5);
    forget();
    EXPECT_EQ(commit(table, route, 1), 5U);
    EXPECT_EQ(find(table, sg(1)), nullptr);
    const auto said = errors();
    ASSERT_EQ(said.size(), 2U);
    EXPECT_EQ(said[0],
              "Platform specific route operation failed (2001:db8::1,ff3e::1/256) action 8 COMMIT "
              "Error 5 " +
                  std::string(cerr_strerror(5)) + " ");
    EXPECT_EQ(commit(table, route, 1), 0U);
    EXPECT_EQ(find(table, sg(1)), route);
    // Of an existing one without the trailing blank; the word that the caller wrote stays.
    sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_COMMIT, 0, 1, 5);
    route->attributes = 0x400;
    forget();
    EXPECT_EQ(commit(table, route, 0, 0), 5U);
    EXPECT_EQ(errors()[0],
              "Platform specific route operation failed (2001:db8::1,ff3e::1/256) action 8 COMMIT "
              "Error 5 " +
                  std::string(cerr_strerror(5)));
    EXPECT_EQ(route->attributes, 0x400U);
    EXPECT_EQ(find(table, sg(1)), route);
}

TEST_F(RouteOperation, TheFaultPointIsTriedBehindThePlatform) {
    auto *route = create(table, sg(1));
    fim_arm(mlib_fim_hdl, MLIB_FAULT_ROUTE_COMMIT, 0, 1);
    forget();
    EXPECT_EQ(commit(table, route, 1), 11U);
    EXPECT_EQ(platform_calls(), texts{"route 8 new 1 -> 0"});
    EXPECT_EQ(find(table, sg(1)), nullptr);
    EXPECT_EQ(commit(table, route, 1), 0U);
    fim_arm(mlib_fim_hdl, MLIB_FAULT_ROUTE_COMMIT, 0, 1);
    EXPECT_EQ(commit(table, route, 0), 11U);
    EXPECT_EQ(commit(table, route, 0), 0U);
}

TEST_F(RouteOperation, AMarkedRouteIsPublishedWithoutThePlatform) {
    auto *route = create(table, sg(1));
    route->oor = 1;
    forget();
    EXPECT_EQ(commit(table, route, 1), 0U);
    EXPECT_EQ(find(table, sg(1)), route);
    EXPECT_EQ(commit(table, route, 0), 0U);
    EXPECT_EQ(platform_calls(), texts{});
    const auto lines = heard.lines(IPV4_DEBUG_ROUTE);
    ASSERT_GE(lines.size(), 2U);
    expect_key(lines[0], " - Skip HW prog Route (2001:db8::1,ff3e::1/256)");
}

TEST_F(RouteOperation, OldAttributesGoToThePlatformOnlyForAnExistingRoute) {
    auto *route = create(table, sg(1));
    int is_new = 1;
    const key k = sg(1);
    EXPECT_EQ(ip6mc_route_operation(IPV4MC_ACTION_COMMIT, table, &k.source, &k.group, 256, nullptr,
                                    &route, 0x700, 9, &is_new),
              0U);
    EXPECT_EQ(sim_log_at(sim_log_count() - 1)->old_attributes, 0U);
    EXPECT_EQ(sim_log_at(sim_log_count() - 1)->value, 0U);
    is_new = 0;
    EXPECT_EQ(ip6mc_route_operation(IPV4MC_ACTION_COMMIT, table, &k.source, &k.group, 256, nullptr,
                                    &route, 0x700, 9, &is_new),
              0U);
    EXPECT_EQ(sim_log_at(sim_log_count() - 1)->old_attributes, 0x700U);
    EXPECT_EQ(sim_log_at(sim_log_count() - 1)->value, 9U);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE_COMMIT).back(),
              "Committed Existing route (2001:db8::1,ff3e::1/256)");
}

TEST_F(RouteOperation, AChildWithoutParentIsCommittedAllTheSame) {
    auto *route = add(table, sg(1), MRIB_ROUTE_IA);
    EXPECT_EQ(route->IF_parent, nullptr);
    EXPECT_EQ(find(table, sg(1)), route);
    EXPECT_TRUE(errors().empty());
}

TEST_F(RouteOperation, AChildFindsItsParentWhenItIsCommittedAndWhenItTurns) {
    auto *parent = add(table, star_g("ff3e::", 16));
    parent->attributes =
        MRIB_ROUTE_IF;  // not by COMMIT: that would turn children, which others test
    forget();
    auto *child = add(table, sg(1), MRIB_ROUTE_IA);
    EXPECT_EQ(child->IF_parent, parent);
    auto lines = heard.lines(IPV4_DEBUG_EV);
    bool told = false;
    for (const auto &line : lines) {
        told |=
            line.ends_with("] Route (2001:db8::1,ff3e::1/256). New IF parent is (*,ff3e::/16)") &&
            line[0] == '[';
    }
    EXPECT_TRUE(told);
    child->attributes = 0;
    EXPECT_EQ(commit(table, child, 0, MRIB_ROUTE_IA), 0U);
    EXPECT_EQ(child->IF_parent, nullptr);
    child->attributes = MRIB_ROUTE_IA;
    EXPECT_EQ(commit(table, child, 0, 0), 0U);
    EXPECT_EQ(child->IF_parent, parent);
    told = false;
    for (const auto &line : heard.lines(IPV4_DEBUG_EV)) {
        told |= line.ends_with("IA unset action COMMIT ");
    }
    EXPECT_TRUE(told);
}

TEST_F(RouteOperation, ChildrenTurnToANewParentBehindThePlatformAndAwayAheadOfIt) {
    auto *wide = add(table, star_g("ff3e::", 16), MRIB_ROUTE_IF);
    auto *child = add(table, sg(1), MRIB_ROUTE_IA);
    ASSERT_EQ(child->IF_parent, wide);
    auto *near = create(table, star_g("ff3e::", 96));
    near->attributes = MRIB_ROUTE_IF;
    forget();
    ASSERT_EQ(commit(table, near, 1), 0U);
    EXPECT_EQ(child->IF_parent, near);
    auto calls = platform_calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0], "route 8 new 1 -> 0");
    EXPECT_TRUE(calls[1].starts_with(sim_op_name(SIM_OP_CHANGE_IF_PARENT))) << calls[1];
    near->attributes = 0;
    ASSERT_EQ(commit(table, near, 0, MRIB_ROUTE_IF), 0U);
    EXPECT_EQ(child->IF_parent, wide);
    calls = platform_calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_TRUE(calls[0].starts_with(sim_op_name(SIM_OP_CHANGE_IF_PARENT))) << calls[0];
    EXPECT_EQ(calls[1], "route 8 new 0 -> 0");
    near->attributes = MRIB_ROUTE_IF;
    ASSERT_EQ(commit(table, near, 0, 0), 0U);
    EXPECT_EQ(child->IF_parent, near);
    EXPECT_EQ(platform_calls()[0], "route 8 new 0 -> 0");
    // A platform that refuses keeps the children where they were.
    auto *nearer = create(table, star_g("ff3e::", 120));
    nearer->attributes = MRIB_ROUTE_IF;
    sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_COMMIT, 0, 1, 5);
    EXPECT_EQ(commit(table, nearer, 1), 5U);
    EXPECT_EQ(child->IF_parent, near);
}

TEST_F(RouteOperation, ATrieThatRefusesTheLeafStopsTheLibrary) {
    auto *first = create(table, sg(1));
    auto *second = create(table, sg(1));
    ASSERT_EQ(commit(table, first, 1), 0U);
    forget();
    EXPECT_EQ(commit(table, second, 1), 14U);
    expect_key(errors()[0], "Failed to insert (Commit) ingress route (2001:db8::1,ff3e::1/256): ");
    EXPECT_EQ(ipv4mc_desc->shmwin_info->mlib_corrupted, 1U);
    EXPECT_EQ(ipv4mc_desc->lib_init, 0U);
    EXPECT_EQ(ipv4mc_desc->state, 0U);
    EXPECT_EQ(ipv4mc_desc->prev_state, 2U);
    ipv4mc_route_entry_st *route = nullptr;
    EXPECT_EQ(operate(IPV4MC_ACTION_LOOKUP, table, sg(1), &route, nullptr), 9U);
    ipv4mc_desc->lib_init = 1;
    ipv4mc_desc->shmwin_info->mlib_corrupted = 0;
    ipv4mc_update_state(2);
}

TEST_F(RouteOperation, AccountingSkipsByItsOwnRules) {
    struct row {
        uint32_t action;
        uint8_t candidate, per_prefix, fwd_only;
        const char *skip;
    };
    const row rows[] = {
        {11, 0, 0, 0, nullptr},
        {11, 1, 1, 0, "Accounting per prefix enabled. Skip"},
        {12, 0, 1, 0, nullptr},
        {12, 0, 0, 0, "No reason to come here. Skip"},
        {12, 1, 1, 0, "No reason to come here. Skip"},
        {13, 0, 0, 0, nullptr},
        {13, 0, 0, 1, "Accounting per prefix fwd-only enabled. Skip"},
        {14, 0, 0, 1, nullptr},
        {14, 1, 0, 0, nullptr},  // goes ahead where 12 never does
        {14, 0, 0, 0, "fwd-only: No reason to come here. Skip"},
        {14, 1, 0, 1, "fwd-only: No reason to come here. Skip"},
    };
    auto *route = add(table, sg(1));
    for (const row &r : rows) {
        route->mdt_candidate = r.candidate;
        route->acct_per_prefix = r.per_prefix;
        route->acct_fwd_only = r.fwd_only;
        forget();
        int is_new = 0;
        EXPECT_EQ(operate(r.action, table, sg(1), &route, &is_new), 0U);
        const auto lines = heard.lines(IPV4_DEBUG_ROUTE);
        if (r.skip != nullptr) {
            EXPECT_EQ(lines, texts{r.skip});
            EXPECT_EQ(platform_calls(), texts{});
        } else {
            EXPECT_EQ(platform_calls(), texts{"route " + std::to_string(r.action) + " new 0 -> 0"});
        }
        EXPECT_EQ(route->acct_per_prefix, r.per_prefix);
        EXPECT_EQ(route->acct_fwd_only, r.fwd_only);
    }
}

TEST_F(RouteOperation, AccountingZeroesWhatItCountsAndReportsThePlatform) {
    auto *route = add(table, sg(1));
    memset(&route->acct_stats, 0x5a, sizeof(route->acct_stats));
    sim_arm_fault(SIM_OP_ROUTE, 11, 0, 1, 5);
    int is_new = 0;
    forget();
    EXPECT_EQ(operate(11, table, sg(1), &route, &is_new), 5U);
    const ipv4mc_route_acct_st zero{};
    EXPECT_EQ(memcmp(&route->acct_stats, &zero, sizeof(zero)), 0);
    EXPECT_EQ(errors()[0].substr(0, 17), "Failed action 11 ");
    EXPECT_EQ(operate(15, table, sg(1), &route, &is_new), 0U);
    ASSERT_NE(route->rate, nullptr);
    memset(route->rate, 0x5a, sizeof(*route->rate));
    route->acct_per_prefix = 1;
    EXPECT_EQ(operate(12, table, sg(1), &route, &is_new), 0U);
    EXPECT_EQ(*reinterpret_cast<const uint64_t *>(route->rate), 0U);
    EXPECT_NE(route->rate->stamp.tv_sec + route->rate->stamp.tv_nsec, 0);
    route->acct_per_prefix = 0;
}

TEST_F(RouteOperation, RateKeepsItsRecordAndNotTheFlag) {
    auto *route = add(table, sg(1));
    int is_new = 0;
    forget();
    EXPECT_EQ(operate(15, table, sg(1), &route, &is_new), 0U);
    ASSERT_NE(route->rate, nullptr);
    EXPECT_EQ(route->rate_per_route, 0);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE)[0],
              "ENABLE Done allocating and init route rate struct (2001:db8::1,ff3e::1/256)");
    auto *record = route->rate;
    forget();
    EXPECT_EQ(operate(15, table, sg(1), &route, &is_new), 0U);
    EXPECT_EQ(route->rate, record);
    route->rate_per_route = 1;
    forget();
    EXPECT_EQ(operate(15, table, sg(1), &route, &is_new), 0U);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE)[0], "Rate per route enabled. Skip");
    route->mdt_candidate = 1;
    forget();
    EXPECT_EQ(operate(15, table, sg(1), &route, &is_new), 0U);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE)[0], "Data MDT enabled route. Skip");
    forget();
    EXPECT_EQ(operate(16, table, sg(1), &route, &is_new), 0U);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE)[0],
              "Disable Freed mem for rate struct for (2001:db8::1,ff3e::1/256)");
    EXPECT_EQ(route->rate, nullptr);
    EXPECT_EQ(route->rate_per_route, 1);
    route->rate_per_route = route->mdt_candidate = 0;
    forget();
    EXPECT_EQ(operate(16, table, sg(1), &route, &is_new), 0U);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_ROUTE)[0], "No reason to come here. Skip");
    EXPECT_EQ(platform_calls(), texts{});
    EXPECT_TRUE(errors().empty());
}
