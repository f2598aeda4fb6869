#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

class SignalRpfAlive : public with_owner {};

constexpr const char *key = "(2001:db8::1,ff0e::2/256)";

TEST_F(SignalRpfAlive, TakesTheGroupBeforeTheSource) {
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ASSERT_EQ(ip6mc_signal_rpf_alive(table, &g, ifh_a, &s), 0U);
    EXPECT_NE(route_of(table, 1, 2), nullptr);
}

TEST_F(SignalRpfAlive, ANewRouteHasTheFlagOnItsInterfaceOnly) {
    ASSERT_EQ(probe(table, 1, 2, ifh_a), 0U);
    ipv4mc_route_entry_st *route = route_of(table, 1, 2);
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(intf_of(route, ifh_a)->attributes, MRIB_INTF_SP);
    EXPECT_EQ(route->attributes, 0U);
    EXPECT_EQ(changed(), std::vector{route});
    EXPECT_TRUE(
        has(event_lines(), text("Processing signal %s: %s intf=%s", tag.c_str(), key, name_a)));
    EXPECT_TRUE(has(signal_lines(), text("%s: Signaled %s %s route %p", tag.c_str(), name_a, key,
                                         static_cast<void *>(route))));
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalRpfAlive, ARouteWithTheInterfaceGetsTheFlagOnceAndIsMarkedEachTime) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    ASSERT_EQ(ipv4mc_changelist_remove_route(route), 0U);
    heard->clear();
    ASSERT_EQ(probe(table, 1, 2, ifh_a), 0U);
    EXPECT_EQ(route->attributes, MRIB_INTF_SP);
    EXPECT_EQ(intf_of(route, ifh_a)->attributes, MRIB_INTF_SP);
    EXPECT_EQ(changed(), std::vector{route});
    const std::string posting =
        text("%s: Signal route exits without SP, Posting SP flag on %s %s, route %p", tag.c_str(),
             name_a, key, static_cast<void *>(route));
    EXPECT_EQ(signal_lines(),
              (texts{text("Signal route exists %s: %s", tag.c_str(), key),
                     text("Signal route exists %s: %s with probed interface %s(no SP)", tag.c_str(),
                          key, name_a),
                     posting}));
    ASSERT_EQ(ipv4mc_changelist_remove_route(route), 0U);
    heard->clear();
    ASSERT_EQ(probe(table, 1, 2, ifh_a), 0U);
    EXPECT_EQ(changed(), std::vector{route});
    EXPECT_EQ(signal_lines(), (texts{text("Signal route exists %s: %s", tag.c_str(), key),
                                     text("Signal route exists %s: %s with probed interface %s(SP)",
                                          tag.c_str(), key, name_a)}));
    EXPECT_EQ(interfaces(route), 1U);
    EXPECT_EQ(table->signal_route_adds, 1U);
}

TEST_F(SignalRpfAlive, ARouteWithoutTheInterfaceGetsIt) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    ASSERT_EQ(ipv4mc_changelist_remove_route(route), 0U);
    ASSERT_EQ(probe(table, 1, 2, ifh_b), 0U);
    ASSERT_EQ(interfaces(route), 2U);
    EXPECT_EQ(intf_of(route, ifh_b)->attributes, MRIB_INTF_SP);
    EXPECT_EQ(intf_of(route, ifh_a)->attributes, 0U);
    EXPECT_EQ(route->attributes, MRIB_INTF_SP);
    EXPECT_EQ(changed(), std::vector{route});
    EXPECT_TRUE(has_start(signal_lines(),
                          tag + ": Signal route exits without SP, Posting SP flag on " + name_b));
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalRpfAlive, LockAndUnlockFailuresShareOneText) {
    const std::string said = text(
        "Cannot lock shmwin_mutex in signal_rpf_alive %s: %s Intf %s: ", tag.c_str(), key, name_a);
    {
        const no_lock full;
        EXPECT_EQ(probe(table, 1, 2, ifh_a), unsigned{ENOLCK});
        EXPECT_TRUE(has(errors(), said + reason(ENOLCK)));
    }
    const unlock_at once(tag + ": Signaled");
    EXPECT_EQ(probe(table, 1, 2, ifh_a), 0U);
    EXPECT_TRUE(has(errors(), said + reason(EPERM)));
}

TEST_F(SignalRpfAlive, AFailedSearchIsReported) {
    void *trie = std::exchange(table->signal_gtrie, nullptr);
    EXPECT_EQ(probe(table, 1, 2, ifh_a), unsigned{GTRIE_E_BAD_HANDLE});
    table->signal_gtrie = trie;
    EXPECT_TRUE(
        has_start(errors(), text("Cannot search in signal table for %s:%s", tag.c_str(), key)));
}

}  // namespace
