#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

class SignalRemoveAll : public with_owner {
  protected:
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
};

constexpr const char *key = "(2001:db8::1,ff0e::2/256)";

TEST_F(SignalRemoveAll, OfTwoInterfacesOneStaysAndSuccessIsReported) {
    for (const auto remove : {ip6mc_signal_remove_all_mutex, ip6mc_signal_remove_all}) {
        ipv4mc_route_entry_st *route = nullptr;
        ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
        ASSERT_EQ(add(table, 1, 2, ifh_b, &route), 0U);
        heard->clear();
        EXPECT_EQ(remove(table, &s, &g), 0U);
        EXPECT_TRUE(has(event_lines(), text("%s: Just in %s ", tag.c_str(), key)));
        EXPECT_TRUE(has(signal_lines(), text("%s: Removed all signals on %s", tag.c_str(), key)));
        EXPECT_EQ(interfaces(route), 1U);
        EXPECT_NE(intf_of(route, ifh_a), nullptr);  // the newest went
        EXPECT_EQ(remove(table, &s, &g), 0U);
        EXPECT_EQ(route_of(table, 1, 2), nullptr);
        heard->clear();
        EXPECT_EQ(remove(table, &s, &g), 0U);
        EXPECT_EQ(signal_lines(), texts{text("%s: No signal found on %s", tag.c_str(), key)});
        EXPECT_EQ(errors(), texts{});
        EXPECT_EQ(faults(table), "");
    }
}

TEST_F(SignalRemoveAll, AFailureIsReportedAndIsTheResult) {
    ASSERT_EQ(add(table, 1, 2, ifh_a), 0U);
    ip6mc_gtrie_reset_handle_db(0);
    EXPECT_EQ(ip6mc_signal_remove_all_mutex(table, &s, &g), unsigned{EFAULT});
    const texts said = errors();
    EXPECT_TRUE(has(said, text("%s: Cannot remove signal %s %s Error %d %s. Continuing...",
                               tag.c_str(), key, "Er0x00000010", EFAULT, cerr_strerror(EFAULT))));
}

TEST_F(SignalRemoveAll, AllRoutesOfATableGo) {
    for (uint32_t n = 1; n <= 10; ++n)
        ASSERT_EQ(add(table, n, n, ifh_a), 0U);
    ASSERT_EQ(add(table, 5, 5, ifh_b), 0U);
    errors();
    EXPECT_EQ(ip6mc_signal_remove_all_routes(table, 3, 0), 0U);
    EXPECT_TRUE(has(signal_lines(), tag + ": Successfuly deleted all signals "));
    // Of the one with two interfaces, one is left.
    EXPECT_EQ(table->signal_route_count, 1U);
    EXPECT_NE(route_of(table, 5, 5), nullptr);
    EXPECT_EQ(ip6mc_signal_remove_all_routes(table, 0, 2), 0U);
    EXPECT_TRUE(
        has(signal_lines(), tag + ": Successfuly deleted all signals and preserved packets"));
    EXPECT_EQ(table->signal_route_count, 0U);
    EXPECT_EQ(faults(table), "");
    EXPECT_EQ(ip6mc_signal_remove_all_routes(nullptr, 0, 2), unsigned{EINVAL});
}

TEST_F(SignalRemoveAll, AFailureEndsTheBulkRemoval) {
    for (uint32_t n = 1; n <= 3; ++n)
        ASSERT_EQ(add(table, n, n, ifh_a), 0U);
    ip6mc_gtrie_reset_handle_db(0);
    EXPECT_EQ(ip6mc_signal_remove_all_routes(table, 0, 0), unsigned{EFAULT});
    EXPECT_TRUE(has(errors(), text("%s: Error while deleting all signal routes: %s", tag.c_str(),
                                   cerr_strerror(EFAULT))));
    EXPECT_EQ(table->signal_route_count, 3U);
}

TEST_F(SignalRemoveAll, TheDeletionOfATablesRoutesTakesItsSignalsToo) {
    for (uint32_t n = 1; n <= 4; ++n)
        ASSERT_EQ(add(table, n, n, ifh_a), 0U);
    uint32_t kept = 7;
    EXPECT_EQ(ip6mc_route_delete_all(table, 2, 0, 1, &kept), 0U);
    EXPECT_EQ(kept, 0U);
    EXPECT_EQ(table->signal_route_count, 0U);
    EXPECT_EQ(ip6mc_signal_first_key(table, &any, &any), nullptr);
    EXPECT_EQ(faults(table), "");
}

}  // namespace
