#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

class SignalLookup : public with_owner {};

TEST_F(SignalLookup, FindsTheRouteAndLeavesTheInterfaceVariableAloneWithoutAnInterface) {
    ipv4mc_route_entry_st *added = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &added), 0U);
    heard->clear();
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ipv4mc_route_entry_st *route = nullptr;
    auto *const mark = reinterpret_cast<ipv4mc_intf_entry_st *>(&route);
    ipv4mc_intf_entry_st *intf = mark;
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, &g, 0, &route, &intf), 0U);
    EXPECT_EQ(route, added);
    EXPECT_EQ(intf, mark);
    EXPECT_TRUE(has(event_lines(), tag + ": Just in (2001:db8::1,ff0e::2/256) intf=NONE"));
    EXPECT_EQ(errors(), texts{});
}

TEST_F(SignalLookup, FindsTheInterfaceOfTheRoute) {
    ipv4mc_route_entry_st *added = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &added), 0U);
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ipv4mc_route_entry_st *route = nullptr;
    ipv4mc_intf_entry_st *intf = nullptr;
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, &g, ifh_a, &route, &intf), 0U);
    EXPECT_EQ(route, added);
    EXPECT_EQ(intf, added->intf_list);
    EXPECT_TRUE(has(signal_lines(), tag + ": Signal lookup successful for " + name_a +
                                        " (2001:db8::1,ff0e::2/256)"));
    EXPECT_TRUE(has(event_lines(), tag + ": Just in (2001:db8::1,ff0e::2/256) intf=" + name_a));
    EXPECT_EQ(ip6mc_signal_intf_lookup_mutex(table, route, ifh_a, &intf), 0U);
    EXPECT_EQ(intf, added->intf_list);
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

TEST_F(SignalLookup, OfAnInterfaceNeedsNoVariableForIt) {
    ipv4mc_route_entry_st *added = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &added), 0U);
    heard->clear();
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ipv4mc_route_entry_st *route = nullptr;
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, &g, ifh_a, &route, nullptr), 0U);
    EXPECT_EQ(route, added);
    EXPECT_TRUE(has_start(signal_lines(), tag + ": Signal lookup successful for " + name_a));
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, &g, ifh_b, &route, nullptr), 0U);
    EXPECT_EQ(route, added);
    EXPECT_TRUE(has_start(errors(), tag + ": I/F not found for signal " + name_b));
}

TEST_F(SignalLookup, ReportsAnInterfaceThatTheRouteHasNotGot) {
    ASSERT_EQ(add(table, 1, 2, ifh_a), 0U);
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ipv4mc_route_entry_st *route = nullptr;
    auto *intf = reinterpret_cast<ipv4mc_intf_entry_st *>(&route);
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, &g, ifh_b, &route, &intf), 0U);
    EXPECT_NE(route, nullptr);
    EXPECT_EQ(intf, nullptr);
    const std::string said =
        tag + ": I/F not found for signal " + name_b + " (2001:db8::1,ff0e::2/256)";
    EXPECT_TRUE(has(errors(), said));
    EXPECT_EQ(ip6mc_signal_intf_lookup(table, route, ifh_b, &intf), 0U);
    EXPECT_TRUE(has(errors(), said));
    EXPECT_EQ(ip6mc_signal_intf_lookup_mutex(table, route, ifh_b, &intf), 0U);
    EXPECT_TRUE(has(errors(), said));
}

TEST_F(SignalLookup, ARouteThatIsNotThereIsNoFailure) {
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    auto *route = reinterpret_cast<ipv4mc_route_entry_st *>(&dir);
    auto *intf = reinterpret_cast<ipv4mc_intf_entry_st *>(&dir);
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, &g, ifh_a, &route, &intf), 0U);
    EXPECT_EQ(route, nullptr);
    EXPECT_EQ(intf, nullptr);
    EXPECT_EQ(errors(), texts{});
}

TEST_F(SignalLookup, LocksAreReported) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ipv4mc_intf_entry_st *intf = nullptr;
    {
        const no_lock full;
        const std::string said = tag +
                                 ": Cannot lock shmwin_mutex (2001:db8::1,ff0e::2/256) intf " +
                                 name_a + ": " + reason(ENOLCK);
        EXPECT_EQ(ip6mc_signal_lookup(table, &s, &g, ifh_a, &route, &intf), unsigned{ENOLCK});
        EXPECT_TRUE(has(errors(), said));
        EXPECT_EQ(ip6mc_signal_intf_lookup_mutex(table, route, ifh_a, &intf), unsigned{ENOLCK});
        EXPECT_TRUE(has(errors(), said));
    }
    const std::string said = tag + ": Cannot Unlock shmwin_mutex (2001:db8::1,ff0e::2/256) intf " +
                             name_a + ": " + reason(EPERM);
    const std::string line = tag + ": Signal lookup successful";
    {
        const unlock_at once(line);
        EXPECT_EQ(ip6mc_signal_intf_lookup_mutex(table, route, ifh_a, &intf), 0U);
        EXPECT_TRUE(once.done());
        EXPECT_TRUE(has(errors(), said));
    }
    const unlock_at again(line);
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, &g, ifh_a, &route, &intf), 0U);
    EXPECT_TRUE(has(errors(), said));
}

TEST_F(SignalLookup, AFailedSearchIsReported) {
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ipv4mc_route_entry_st *route = nullptr;
    void *trie = std::exchange(table->signal_gtrie, nullptr);
    const cerrno rc = ip6mc_signal_lookup(table, &s, &g, 0, &route, nullptr);
    table->signal_gtrie = trie;
    EXPECT_EQ(rc, unsigned{GTRIE_E_BAD_HANDLE});
    EXPECT_TRUE(has(errors(), tag +
                                  ": Cannot search in signal table for (2001:db8::1,ff0e::2/256) "
                                  "NONE Error " +
                                  reason(rc)));
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

TEST_F(SignalLookup, RefusesWhatIsMissing) {
    const ip_maddr_st s = source(1);
    ipv4mc_route_entry_st *route = nullptr;
    ipv4mc_intf_entry_st *intf = nullptr;
    EXPECT_EQ(ip6mc_signal_lookup(nullptr, &s, &s, 0, &route, nullptr), unsigned{EINVAL});
    EXPECT_EQ(ip6mc_signal_lookup(table, nullptr, &s, 0, &route, nullptr), unsigned{EINVAL});
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, nullptr, 0, &route, nullptr), unsigned{EINVAL});
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, &s, 0, nullptr, nullptr), unsigned{EINVAL});
    EXPECT_EQ(ip6mc_signal_intf_lookup(table, nullptr, ifh_a, &intf), unsigned{EINVAL});
    ipv4mc_route_entry_st some_route{};
    EXPECT_EQ(ip6mc_signal_intf_lookup(table, &some_route, ifh_a, nullptr), unsigned{EINVAL});
    EXPECT_EQ(errors().size(), 6U);
}

TEST_F(SignalLookup, EveryEntryRefusesALibraryThatIsNotReady) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    ipv4mc_intf_entry_st *intf = route->intf_list;
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ipv4mc_update_state(IPV4MC_LIB_STATE_INIT);
    errors();
    constexpr cerrno refused = EBADF;
    EXPECT_EQ(ip6mc_signal_lookup(table, &s, &g, 0, &route, nullptr), refused);
    EXPECT_EQ(ip6mc_signal_intf_lookup_mutex(table, route, ifh_a, &intf), refused);
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, nullptr, nullptr), refused);
    EXPECT_EQ(ip6mc_signal_incr_total_pkts_preserved(), refused);
    EXPECT_EQ(ip6mc_signal_add_mutex(table, &s, &g, ifh_a, &route, nullptr, nullptr), refused);
    EXPECT_EQ(ip6mc_signal_add(table, &s, &g, ifh_a, &route), refused);
    EXPECT_EQ(ip6mc_signal_rpf_alive(table, &g, ifh_a, &s), refused);
    EXPECT_EQ(ip6mc_signal_remove_signal_route_mutex(table, &route, &intf), refused);
    EXPECT_EQ(ip6mc_signal_remove_signal_route(table, &route, &intf), refused);
    EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), refused);
    EXPECT_EQ(ip6mc_signal_remove(table, &s, &g, ifh_a), refused);
    EXPECT_EQ(ip6mc_signal_remove_all_mutex(table, &s, &g), refused);
    EXPECT_EQ(ip6mc_signal_remove_all(table, &s, &g), refused);
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 0), refused);
    EXPECT_EQ(ip6mc_signal_remove_route_pak(table, &s, &g, 0), refused);
    EXPECT_EQ(errors(), texts(15, "Multicast library Not ready\n"));
    EXPECT_EQ(ip6mc_signal_remove_all_routes(table, 0, 0), refused);
    errors();
    // A text of their own.
    EXPECT_EQ(ip6mc_signal_first_key(table, &s, &g), nullptr);
    EXPECT_EQ(ip6mc_signal_next(table, route), nullptr);
    EXPECT_EQ(errors(), texts(2, "Multicast library not ready"));
    ipv4mc_update_state(IPV4MC_LIB_STATE_READY);
    EXPECT_EQ(interfaces(route), 1U);
}

TEST_F(SignalLookup, PreservedPacketsAreCountedUpOnlyAndReadAsManyWhenNotReady) {
    EXPECT_EQ(ip6mc_signal_get_total_pkts_preserved(), 0U);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(ip6mc_signal_incr_total_pkts_preserved(), 0U);
    EXPECT_EQ(ip6mc_signal_get_total_pkts_preserved(), 3U);
    EXPECT_EQ(ipv4mc_desc->shmwin_info->total_pkts_preserved, 3U);
    for (const uint32_t state : {0U, 1U}) {
        ipv4mc_update_state(state);
        errors();
        EXPECT_EQ(ip6mc_signal_get_total_pkts_preserved(), 5000U);
        EXPECT_EQ(errors(), texts{"Multicast library Not ready\n"});
    }
    ipv4mc_update_state(IPV4MC_LIB_STATE_READY);
    EXPECT_EQ(ip6mc_signal_get_total_pkts_preserved(), 3U);
}

}  // namespace
