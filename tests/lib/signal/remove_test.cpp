#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

class SignalRemove : public with_owner {
  protected:
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
};

constexpr const char *key = "(2001:db8::1,ff0e::2/256)";

TEST_F(SignalRemove, TheLastInterfaceTakesTheRouteWithIt) {
    const auto empty = counts();
    for (const bool with_mutex : {true, false}) {
        ipv4mc_route_entry_st *route = nullptr;
        ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
        ASSERT_EQ(add(table, 1, 2, ifh_b, &route), 0U);
        heard->clear();
        const auto remove =
            with_mutex ? ip6mc_signal_remove_signal_route_mutex : ip6mc_signal_remove_signal_route;
        auto *const whole = route;
        ipv4mc_intf_entry_st *intf = intf_of(route, ifh_a);
        EXPECT_EQ(remove(table, &route, &intf), 0U);
        EXPECT_EQ(route, whole);
        EXPECT_EQ(intf, nullptr);
        EXPECT_EQ(interfaces(route), 1U);
        EXPECT_EQ(table->signal_route_count, 1U);
        EXPECT_TRUE(
            has(signal_lines(), text("%s: Removed signal on %s %s", tag.c_str(), name_a, key)));
        EXPECT_TRUE(has(event_lines(), text("%s: Just in %s intf=%s", tag.c_str(), key, name_a)));
        intf = intf_of(route, ifh_b);
        EXPECT_EQ(remove(table, &route, &intf), 0U);
        EXPECT_EQ(route, nullptr);
        EXPECT_EQ(intf, nullptr);
        EXPECT_EQ(table->signal_route_count, 0U);
        EXPECT_TRUE(
            has(signal_lines(), text("%s: Removed LAST signal on %s ", tag.c_str(), name_b)));
        EXPECT_EQ(changed().size(), 0U);
        EXPECT_EQ(counts()[IPMC_SHMWIN_ALLOC_ROUTE], empty[IPMC_SHMWIN_ALLOC_ROUTE]);
        EXPECT_EQ(counts()[IPMC_SHMWIN_ALLOC_INTF], empty[IPMC_SHMWIN_ALLOC_INTF]);
        EXPECT_EQ(errors(), texts{});
        EXPECT_EQ(faults(table), "");
    }
    // What was ever added is not counted down.
    EXPECT_EQ(table->signal_route_adds, 2U);
}

TEST_F(SignalRemove, NamesWhatIsMissing) {
    ipv4mc_route_entry_st *route = nullptr;
    ipv4mc_intf_entry_st *intf = nullptr;
    auto *const some_route = reinterpret_cast<ipv4mc_route_entry_st *>(&route);
    constexpr cerrno refused = EINVAL;
    EXPECT_EQ(ip6mc_signal_remove_signal_route_mutex(table, nullptr, nullptr), refused);
    EXPECT_EQ(ip6mc_signal_remove_signal_route_mutex(table, &route, &intf), refused);
    EXPECT_EQ(errors(), (texts{tag + " : NULL route_entryintf_entry",
                               tag + " : NULL *route_entry*intf_entry"}));
    route = some_route;
    EXPECT_EQ(ip6mc_signal_remove_signal_route(table, &route, &intf), refused);
    EXPECT_EQ(ip6mc_signal_remove_signal_route(table, &route, nullptr), refused);
    EXPECT_EQ(errors(), (texts{tag + ": NULL *intf_entry", tag + ": NULL intf_entry"}));
    EXPECT_EQ(ip6mc_signal_remove_signal_route(nullptr, &route, &intf), refused);
    EXPECT_EQ(ip6mc_signal_remove(table, nullptr, &g, ifh_a), refused);
}

TEST_F(SignalRemove, ByKeyRemovesTheOneInterface) {
    for (const auto remove : {ip6mc_signal_remove_mutex, ip6mc_signal_remove}) {
        ipv4mc_route_entry_st *route = nullptr;
        ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
        ASSERT_EQ(add(table, 1, 2, ifh_b, &route), 0U);
        heard->clear();
        EXPECT_EQ(remove(table, &s, &g, ifh_a), 0U);
        EXPECT_TRUE(has(event_lines(), text("%s: Just in %s intf=%s", tag.c_str(), key, name_a)));
        EXPECT_EQ(intf_of(route, ifh_a), nullptr);
        EXPECT_EQ(remove(table, &s, &g, ifh_b), 0U);
        EXPECT_EQ(route_of(table, 1, 2), nullptr);
        EXPECT_EQ(errors(), texts{});
        EXPECT_EQ(faults(table), "");
    }
}

TEST_F(SignalRemove, WhatIsNotThereIsNoFailure) {
    EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), 0U);
    EXPECT_EQ(signal_lines(), texts{text("No signal found on route %s: %s", tag.c_str(), key)});
    heard->clear();
    EXPECT_EQ(ip6mc_signal_remove(table, &s, &g, ifh_a), 0U);
    EXPECT_EQ(signal_lines(), texts{text("%s: No signal found on route %s", tag.c_str(), key)});
    ASSERT_EQ(add(table, 1, 2, ifh_b), 0U);
    for (const auto remove : {ip6mc_signal_remove_mutex, ip6mc_signal_remove}) {
        heard->clear();
        EXPECT_EQ(remove(table, &s, &g, ifh_a), 0U);
        EXPECT_EQ(signal_lines(),
                  texts{text("%s: No Signal found on %s %s", tag.c_str(), name_a, key)});
    }
    EXPECT_EQ(errors(), texts{});
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

TEST_F(SignalRemove, RefusesAnAllZeroSource) {
    EXPECT_EQ(ip6mc_signal_remove_mutex(table, &any, &g, ifh_a), unsigned{EINVAL});
    EXPECT_EQ(ip6mc_signal_remove(table, &any, &g, ifh_a), unsigned{EINVAL});
    const std::string said = tag + ": S is Zero but pfx_len is 256 greater than 128,";
    EXPECT_EQ(errors(),
              (texts{said + " group=ff0e::2 " + name_a, said + "  group=ff0e::2 " + name_a}));
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

TEST_F(SignalRemove, ACountOfNoneIsReportedAndTheRouteGoes) {
    ASSERT_EQ(add(table, 1, 2, ifh_a), 0U);
    table->signal_route_count = 0;
    EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), 0U);
    // The text of a good outcome, as an error.
    EXPECT_EQ(errors(), texts{text("%s: Removed signal on %s %s", tag.c_str(), name_a, key)});
    EXPECT_EQ(route_of(table, 1, 2), nullptr);
    EXPECT_EQ(table->signal_route_count, 0U);
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalRemove, AnInterfaceThatStaysIsReportedAndTheWorkGoesOn) {
    ipv4mc_route_entry_st *route = nullptr;
    for (const ifhtype ifh : {ifh_a, ifh_b, ifh_c})
        ASSERT_EQ(add(table, 1, 2, ifh, &route), 0U);
    auto *const head = route->intf_list;
    ipv4mc_intf_entry_st *middle = head->next_intf;
    route->intf_list = middle;  // a list gone wrong: a head that has a predecessor
    EXPECT_EQ(ip6mc_signal_remove_signal_route_mutex(table, &route, &middle), 0U);
    EXPECT_TRUE(has(errors(), text("Unable to remove existing %s from %s:%s - %s", name_b,
                                   tag.c_str(), key, cerr_strerror(EINVAL))));
    EXPECT_NE(middle, nullptr);
    EXPECT_TRUE(has(signal_lines(), text("%s: Removed signal on %s %s", tag.c_str(), name_b, key)));
    // The loop of a whole removal goes on past it, to the first that can be removed.
    EXPECT_EQ(ip6mc_signal_remove_all_mutex(table, &s, &g), 0U);
    EXPECT_EQ(intf_of(route, ifh_a), nullptr);
    EXPECT_NE(intf_of(route, ifh_b), nullptr);
    route->intf_list = head;
    EXPECT_EQ(interfaces(route), 2U);
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalRemove, ARouteThatCannotLeaveTheChangedListStays) {
    // The list refuses while the library is not ready, which it becomes with the debug line.
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    for (const bool with_mutex : {true, false}) {
        ipv4mc_update_state(IPV4MC_LIB_STATE_READY);
        if (interfaces(route) == 0) {
            ASSERT_EQ(add(table, 1, 2, ifh_a), 0U);
        }
        ipv4mc_intf_entry_st *intf = intf_of(route, ifh_a);
        ipv4_debug_set_sink(
            [](void *, uint32_t, const char *, const char *line) {
                if (std::string(line).find(": Just in ") != std::string::npos) {
                    ipv4mc_update_state(IPV4MC_LIB_STATE_INIT);
                }
            },
            nullptr);
        errors();
        EXPECT_EQ((with_mutex ? ip6mc_signal_remove_signal_route_mutex
                              : ip6mc_signal_remove_signal_route)(table, &route, &intf),
                  unsigned{EBADF});
        EXPECT_NE(route, nullptr);
        EXPECT_EQ(intf, nullptr);
        const texts said = errors();
        EXPECT_TRUE(
            has_start(said, text("Cannot delete route from changelist %s:%s ", tag.c_str(), key)));
        EXPECT_TRUE(has_start(said, "Failed removing signal on "));
    }
    // The route is still there, and has its last interface back.
    ipv4_debug_set_sink(nullptr, nullptr);
    ipv4mc_update_state(IPV4MC_LIB_STATE_READY);
    EXPECT_EQ(route_of(table, 1, 2), route);
    ASSERT_EQ(add(table, 1, 2, ifh_a), 0U);
    EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), 0U);
}

TEST_F(SignalRemove, LocksAreReported) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    ipv4mc_intf_entry_st *intf = intf_of(route, ifh_a);
    {
        const no_lock full;
        constexpr cerrno refused = ENOLCK;
        EXPECT_EQ(ip6mc_signal_remove_signal_route_mutex(table, &route, &intf), refused);
        EXPECT_TRUE(has(errors(), text("Cannot lock shmwin_mutex %s:%s intf %s: %s", tag.c_str(),
                                       key, name_a, cerr_strerror(ENOLCK))));
        EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), refused);
        EXPECT_TRUE(has(errors(), text("%s: Cannot lock shmwin_mutex %s intf %s: %s", tag.c_str(),
                                       key, name_a, cerr_strerror(ENOLCK))));
        EXPECT_EQ(ip6mc_signal_remove_all_mutex(table, &s, &g), refused);
        EXPECT_TRUE(has(errors(), text("%s: Cannot lock shmwin_mutex %s %s", tag.c_str(), key,
                                       cerr_strerror(ENOLCK))));
        EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 0), refused);
        EXPECT_TRUE(has(errors(), text("%s: Cannot lock shmwin_mutex for %s: %s", tag.c_str(), key,
                                       cerr_strerror(ENOLCK))));
    }
    const std::string line = tag + ": Removed LAST";
    {
        const unlock_at once(line);
        EXPECT_EQ(ip6mc_signal_remove_signal_route_mutex(table, &route, &intf), 0U);
        EXPECT_TRUE(has(errors(), text("Cannot Unlock shmwin_mutex %s:%s intf %s: %s", tag.c_str(),
                                       key, name_a, cerr_strerror(EPERM))));
    }
    ASSERT_EQ(add(table, 1, 2, ifh_a), 0U);
    {
        const unlock_at once(line);
        EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), 0U);
        EXPECT_TRUE(has(errors(), text("%s: Cannot Unlock shmwin_mutex %s intf %s: %s", tag.c_str(),
                                       key, name_a, cerr_strerror(EPERM))));
    }
    for (const bool pak : {false, true}) {
        ASSERT_EQ(add(table, 1, 2, ifh_a), 0U);
        const unlock_at once(line);
        EXPECT_EQ(pak ? ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 0)
                      : ip6mc_signal_remove_all_mutex(table, &s, &g),
                  0U);
        EXPECT_TRUE(has(errors(), text("%s: Cannot Unlock shmwin_mutex %s: %s", tag.c_str(), key,
                                       cerr_strerror(EPERM))));
    }
}

TEST_F(SignalRemove, FailedSearchesAreReported) {
    void *trie = std::exchange(table->signal_gtrie, nullptr);
    constexpr cerrno bad = GTRIE_E_BAD_HANDLE;
    const std::string why = reason(bad);
    EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), bad);
    EXPECT_TRUE(has(errors(), text("Cannot search in signal table for %s:%s %s: %s", tag.c_str(),
                                   key, name_a, why.c_str())));
    EXPECT_EQ(ip6mc_signal_remove(table, &s, &g, ifh_a), bad);
    EXPECT_TRUE(has(errors(), text("%s: Cannot search in signal table for %s %s: %s", tag.c_str(),
                                   key, name_a, why.c_str())));
    // The others answer with a code of their own.
    EXPECT_EQ(ip6mc_signal_remove_all_mutex(table, &s, &g), unsigned{EFAULT});
    EXPECT_EQ(ip6mc_signal_remove_all(table, &s, &g), unsigned{EFAULT});
    EXPECT_EQ(errors(), texts(2, text("%s: Cannot search in signal table for %s Error %s",
                                      tag.c_str(), key, why.c_str())));
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 0), unsigned{EFAULT});
    EXPECT_EQ(ip6mc_signal_remove_route_pak(table, &s, &g, 0), unsigned{EFAULT});
    EXPECT_EQ(errors(), texts(2, text("%s: Cannot search in signal table for %s: %s", tag.c_str(),
                                      key, why.c_str())));
    table->signal_gtrie = trie;
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

}  // namespace
