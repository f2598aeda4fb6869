// Routes of each kind with real packets.
#include "tests/platforms/linux/router.h"

namespace {

using bed::A;
using bed::any;
using bed::F;
using bed::sg;
using list = std::vector<uint32_t>;

constexpr const char *S1 = "2001:db8::1";
constexpr const char *S2 = "2001:db8::2";
constexpr const char *G1 = "ff3e::1";

TEST(LinuxRoutes, SourceAndGroupGoesToItsReceivers) {
    ROUTER_OR_SKIP(r, {1, 2, 3, 4});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    EXPECT_TRUE(r.reports.empty());
    EXPECT_EQ(r.forward(2, S1, G1), list{});
    EXPECT_EQ(r.forward(1, S2, G1), list{});
    ASSERT_EQ(r.reports.size(), 1U);
    EXPECT_EQ(r.reports[0].answer, uint32_t{LINUX_ANSWER_HELD});
    EXPECT_EQ(r.reports[0].ifh, net::network::handle(1));
    EXPECT_EQ(r.reports[0].signals, 1);
    EXPECT_EQ(r.o->packets(r.table, sg(S1, G1)), 2U);  // the one that came the wrong way, too
    EXPECT_EQ(bed::owner::status().own_entries, 1U);
}

TEST(LinuxRoutes, AnySourceTakesNewSourcesWithoutAReport) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, any(G1), {{1, A}, {2, F}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    EXPECT_EQ(r.forward(1, S2, G1), (list{2, 3}));
    EXPECT_TRUE(r.reports.empty());
    EXPECT_EQ(r.o->packets(r.table, any(G1)), 2U);
}

// The kernel looks for (S,G) first: an answer that named the wrong way would stop the flow on the
// right one.
TEST(LinuxRoutes, AFlowOnTheWrongInterfaceDoesNotStopItOnTheRightOne) {
    ROUTER_OR_SKIP(r, {1, 2, 3, 4});
    ASSERT_EQ(r.o->add(r.table, any(G1), {{1, A}, {2, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, sg("2001:db8::9", "ff3e::9"), {{4, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(4, S1, G1), list{});
    ASSERT_GE(r.reports.size(), 1U);
    EXPECT_EQ(r.reports[0].flow.report, LINUX_REPORT_UNKNOWN_FLOW);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.o->packets(r.table, any(G1)), 2U);
}

TEST(LinuxRoutes, ARangeDerivesItsFlows) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 96), {{1, A}, {2, F}}), 0U);
    EXPECT_EQ(bed::kernel_entries(254).size(), 0U);
    for (int n = 1; n <= 20; ++n) {
        const std::string group = "ff3e::" + std::to_string(n);
        EXPECT_EQ(r.forward(1, S1, group), list{2});
        EXPECT_EQ(r.reports.size(), 1U);
        EXPECT_EQ(r.forward(1, S1, group), list{2});
        EXPECT_EQ(r.reports.size(), 0U);
    }
    EXPECT_EQ(bed::owner::status().derived_entries, 20U);
    EXPECT_EQ(r.o->packets(r.table, any("ff3e::", 96)), 40U);
    // The route changes: all its flows do, without a report.
    ASSERT_EQ(r.o->set_leg(r.table, any("ff3e::", 96), {3, F}), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::7"), (list{2, 3}));
    EXPECT_TRUE(r.reports.empty());
    ASSERT_EQ(r.o->drop_leg(r.table, any("ff3e::", 96), 2), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::7"), list{3});
    // It goes: they are held.
    ASSERT_EQ(r.o->remove(r.table, any("ff3e::", 96)), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::7"), list{});
    EXPECT_EQ(bed::owner::status().derived_entries, 0U);
    EXPECT_EQ(bed::owner::status().held_entries, 20U);
}

TEST(LinuxRoutes, ALongerMatchTakesItsFlowsAndGivesThemBack) {
    ROUTER_OR_SKIP(r, {1, 2, 3, 4});
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 32), {{1, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.forward(1, S2, G1), list{2});
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 96), {{1, A}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{3});
    EXPECT_TRUE(r.reports.empty());
    ASSERT_EQ(r.o->add(r.table, any(G1), {{1, A}, {4, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{4});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}, {3, F}, {4, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3, 4}));
    EXPECT_EQ(r.forward(1, S2, G1), list{4});
    ASSERT_EQ(r.o->remove(r.table, any(G1)), 0U);
    EXPECT_EQ(r.forward(1, S2, G1), list{3});
    ASSERT_EQ(r.o->remove(r.table, sg(S1, G1)), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{3});
    ASSERT_EQ(r.o->remove(r.table, any("ff3e::", 96)), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.o->packets(r.table, any("ff3e::", 32)), 3U);
}

TEST(LinuxRoutes, AHeldFlowIsForwardedAsSoonAsARouteTakesIt) {
    ROUTER_OR_SKIP(r, {1, 2});
    ASSERT_EQ(linux_set_interface_table(net::network::handle(1), kit::default_tid), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    EXPECT_EQ(r.reports.size(), 1U);
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    EXPECT_TRUE(r.reports.empty());
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(bed::owner::status().held_entries, 0U);
    EXPECT_EQ(r.o->packets(r.table, sg(S1, G1)), 1U);  // not those that were held before
}

TEST(LinuxRoutes, InheritAcceptTakesPacketsFromTheParentsInterfaces) {
    ROUTER_OR_SKIP(r, {1, 2, 3, 5});
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 16), {{5, A}}, MRIB_ROUTE_IF), 0U);
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{2, F}}, MRIB_ROUTE_IA), 0U);
    EXPECT_EQ(r.forward(5, S1, G1), list{2});
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    // The parent's interfaces change.
    ASSERT_EQ(r.o->set_leg(r.table, any("ff3e::", 16), {1, A}), 0U);
    EXPECT_EQ(r.forward(5, S1, G1), list{2});
    EXPECT_EQ(r.forward(1, S1, G1), list{});  // the first one moves the entry
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    ASSERT_EQ(r.o->drop_leg(r.table, any("ff3e::", 16), 5), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.forward(5, S1, G1), list{});
    // Another parent.
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 64), {{3, A}}, MRIB_ROUTE_IF), 0U);
    EXPECT_EQ(r.forward(3, S1, G1), list{2});
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    ASSERT_EQ(r.o->change(r.table, any("ff3e::", 64), 0), 0U);  // gives its children back
    ASSERT_EQ(r.o->remove(r.table, any("ff3e::", 64)), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
}

TEST(LinuxRoutes, ARouteIsChangedAndDeleted) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    ASSERT_EQ(r.o->set_leg(r.table, sg(S1, G1), {3, F}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    ASSERT_EQ(r.o->set_leg(r.table, sg(S1, G1), {2, 0}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{3});
    ASSERT_EQ(r.o->change(r.table, sg(S1, G1), MRIB_ROUTE_DROP), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    ASSERT_EQ(r.o->change(r.table, sg(S1, G1), 0), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{3});
    EXPECT_EQ(r.o->packets(r.table, sg(S1, G1)), 5U);
    ASSERT_EQ(r.o->remove(r.table, sg(S1, G1)), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    EXPECT_EQ(bed::kernel_entries(254).size(), 0U);
}

TEST(LinuxRoutes, AcceptingFromOneMoreInterfaceLosesNothingAndKeepsCounters) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    ASSERT_EQ(r.o->set_leg(r.table, sg(S1, G1), {3, A}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_TRUE(r.reports.empty());
    EXPECT_EQ(r.forward(3, S1, G1), list{});
    EXPECT_EQ(r.forward(3, S1, G1), list{2});
    EXPECT_EQ(r.o->packets(r.table, sg(S1, G1)), 4U);
    ASSERT_EQ(r.o->drop_leg(r.table, sg(S1, G1), 3), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.o->packets(r.table, sg(S1, G1)), 5U);
}

TEST(LinuxRoutes, ALinkLocalSourceIsHeld) {
    ROUTER_OR_SKIP(r, {1, 2});
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 32), {{1, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(1, "fe80::1", G1), list{});
    ASSERT_EQ(r.reports.size(), 1U);
    EXPECT_EQ(r.reports[0].answer, uint32_t{LINUX_ANSWER_HELD});
}

}  // namespace
