// Interfaces: the limit of a table, VRFs, links that go and come back, boundaries, thresholds.
#include <algorithm>
#include <numeric>

#include "services/diag/messages.h"
#include "tests/platforms/linux/router.h"

namespace {

using bed::A;
using bed::any;
using bed::F;
using bed::sg;
using list = std::vector<uint32_t>;

constexpr const char *S1 = "2001:db8::1";
constexpr const char *G1 = "ff3e::1";
constexpr uint32_t red = 100;
constexpr uint32_t blue = 200;

std::vector<uint32_t> upto(uint32_t last) {
    std::vector<uint32_t> numbers(last);
    std::iota(numbers.begin(), numbers.end(), 1);
    return numbers;
}

TEST(LinuxInterfaces, The33rdIsRefusedAndChangesNothing) {
    ROUTER_OR_SKIP(r, upto(34));
    std::vector<bed::leg> legs = {{1, A}};
    for (uint32_t n = 2; n <= 32; ++n) {
        legs.push_back({n, F});
    }
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), legs), 0U);
    const auto before = bed::kernel_entries(254);
    EXPECT_EQ(r.o->set_leg(r.table, sg(S1, G1), {33, F}), uint32_t{ENOSPC});
    EXPECT_EQ(r.o->add(r.table, sg(S1, "ff3e::2"), {{1, A}, {33, F}}), uint32_t{ENOSPC});
    EXPECT_EQ(linux_set_interface_table(net::network::handle(34), kit::default_tid),
              uint32_t{ENOSPC});
    EXPECT_EQ(bed::kernel_entries(254), before);
    EXPECT_EQ(r.forward(1, S1, G1).size(), 31U);
    EXPECT_GE(bed::owner::status().full, 3U);
    EXPECT_EQ(bed::owner::status().most_interfaces, 32U);
    // Another table has room of its own.
    ipv4mc_table_st *table = r.o->table(red, "red");
    EXPECT_EQ(r.o->add(table, sg(S1, G1), {{33, A}, {34, F}}), 0U);
    EXPECT_EQ(r.forward(33, S1, G1), list{34});
    // One that leaves makes room.
    ASSERT_EQ(r.o->drop_leg(r.table, sg(S1, G1), 7), 0U);
    EXPECT_EQ(bed::owner::status().most_interfaces, 31U);
    EXPECT_EQ(r.o->set_leg(r.table, sg(S1, G1), {33, F}), 0U);
    const list out = r.forward(1, S1, G1);
    EXPECT_EQ(out.size(), 31U);
    EXPECT_EQ(std::count(out.begin(), out.end(), 7U), 0);
    EXPECT_EQ(std::count(out.begin(), out.end(), 33U), 1);
}

TEST(LinuxInterfaces, ALinkThatIsNotThereIsRefused) {
    ROUTER_OR_SKIP(r, {1, 2});
    EXPECT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {40, F}}), uint32_t{ENODEV});
    EXPECT_EQ(bed::kernel_entries(254).size(), 0U);
    EXPECT_EQ(bed::owner::status().most_interfaces, 0U);
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
}

TEST(LinuxInterfaces, TwoVrfsHaveTheSameSourceAndGroup) {
    ROUTER_OR_SKIP(r, {1, 2, 3, 4, 5, 6});
    ipv4mc_table_st *one = r.o->table(red, "red");
    ipv4mc_table_st *two = r.o->table(blue, "blue");
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    ASSERT_EQ(r.o->add(one, sg(S1, G1), {{3, A}, {4, F}}), 0U);
    ASSERT_EQ(r.o->add(two, any("ff3e::", 32), {{5, A}, {6, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.forward(3, S1, G1), list{4});
    EXPECT_EQ(r.forward(5, S1, G1), list{6});
    EXPECT_EQ(r.o->packets(one, sg(S1, G1)), 1U);
    EXPECT_EQ(r.o->packets(two, any("ff3e::", 32)), 1U);
    // An interface cannot be taken into two.
    EXPECT_EQ(r.o->add(two, sg(S1, "ff3e::5"), {{3, A}, {6, F}}), uint32_t{EBUSY});
    EXPECT_EQ(linux_set_interface_table(net::network::handle(3), blue), uint32_t{EBUSY});
    // A table that ends takes its rules with it.
    ipv4mc_table_st *vrf = one->vtable;
    ASSERT_EQ(ip6mc_table_operation(IPV4MC_ACTION_DELETE, red, 0, nullptr, &vrf, 0), 0U);
    EXPECT_EQ(r.keeper.open.count(red), 0U);
    ASSERT_EQ(r.o->add(two, sg(S1, "ff3e::5"), {{3, A}, {6, F}}), 0U);
    EXPECT_EQ(r.forward(3, S1, "ff3e::5"), list{6});
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
}

TEST(LinuxInterfaces, UnknownFlowsOfAVrfAreReportedThere) {
    ROUTER_OR_SKIP(r, {1, 2});
    (void)r.o->table(red, "red");
    EXPECT_EQ(linux_set_interface_table(net::network::handle(1), blue), uint32_t{ENOENT});
    ASSERT_EQ(linux_set_interface_table(net::network::handle(1), red), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    ASSERT_EQ(r.reports.size(), 1U);
    EXPECT_EQ(r.reports[0].flow.kernel_table, red);
    EXPECT_EQ(r.reports[0].signals, 1);
    ASSERT_EQ(linux_set_interface_table(net::network::handle(1), 0), 0U);
    EXPECT_EQ(bed::owner::status().most_interfaces, 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::2"), list{});
    EXPECT_TRUE(r.reports.empty());
}

TEST(LinuxInterfaces, ALinkMayBeTakenIntoAVrfBeforeItIsThere) {
    ROUTER_OR_SKIP(r, {2});
    (void)r.o->table(red, "red");
    ASSERT_EQ(linux_set_interface_table(net::network::handle(1), red), 0U);
    r.net.add(1, net::network::handle(1));
    linux_age(1);
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    ASSERT_EQ(r.reports.size(), 1U);
    EXPECT_EQ(r.reports[0].flow.kernel_table, red);
}

TEST(LinuxInterfaces, ATableNumberThatTheKernelHasNotIsRefused) {
    ROUTER_OR_SKIP(r, {1});
    EXPECT_EQ(linux_kernel_table(kit::default_tid), LINUX_DEFAULT_KERNEL_TABLE);
    for (const uint32_t tid : {253U, 254U, 255U, LINUX_KERNEL_TABLES_END, 0xe0800001U}) {
        EXPECT_EQ(linux_kernel_table(tid), 0U);
        ipv4mc_table_st *made = nullptr;
        EXPECT_EQ(ip6mc_platform_table_operation(IPV4MC_ACTION_CREATE, tid, 0, "", &made, 1),
                  uint32_t{ERANGE});
        EXPECT_NE(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, 0x60000001, "odd", &made, 0),
                  0U);
    }
    EXPECT_EQ(linux_kernel_table(LINUX_KERNEL_TABLES_END - 1), LINUX_KERNEL_TABLES_END - 1);
}

TEST(LinuxInterfaces, ALinkThatIsMadeAgainGoesOnForwarding) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    r.net.remove(2);
    EXPECT_EQ(r.forward(1, S1, G1), list{3});
    linux_age(1);
    EXPECT_EQ(bed::owner::status().absent_interfaces, 1U);
    r.net.add(2);  // with another index
    linux_age(1);
    EXPECT_EQ(bed::owner::status().absent_interfaces, 0U);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    // The same for the way in.
    r.net.remove(1);
    r.net.add(1);
    linux_age(2);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    EXPECT_EQ(bed::owner::status().kernel_failures, 0U);
}

TEST(LinuxInterfaces, WhatWasMadeWhileALinkWasAwayHasItWhenItComes) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, "ff3e::9"), {{1, A}, {2, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 96), {{1, A}, {2, F}, {3, F}}), 0U);
    r.net.remove(2);
    linux_age(1);
    EXPECT_EQ(r.forward(1, S1, G1), list{3});  // derived without it
    ASSERT_EQ(r.o->add(r.table, sg(S1, "ff3e::8"), {{1, A}, {2, F}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::8"), list{3});
    r.net.add(2);
    linux_age(2);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    EXPECT_EQ(r.forward(1, S1, "ff3e::8"), (list{2, 3}));
    EXPECT_EQ(r.forward(1, S1, "ff3e::9"), list{2});
    EXPECT_TRUE(r.reports.empty());
}

TEST(LinuxInterfaces, AnEventManagerFollowsLinksByItself) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    r.o.reset();
    event_manager_t *evm = nullptr;
    ASSERT_EQ(event_manager_create(&evm), 0U);
    r.o = std::make_unique<bed::owner>(r.dir.path(), evm);
    r.table = r.o->table();
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}, {3, F}}), 0U);
    const auto events = [&] {
        for (int n = 0; n < 20; ++n) {
            event_manager_run_once(evm, 10, nullptr);
        }
    };
    r.net.remove(3);
    r.net.add(3);
    events();
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    r.o.reset();
    event_manager_destroy(evm);
}

TEST(LinuxInterfaces, AGroupInsideABoundaryNeitherComesInNorGoesOut) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, "ff35::1"), {{1, A}, {2, F}, {3, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, sg(S1, "ff3e::1"), {{1, A}, {2, F}, {3, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, any("ff35::", 16), {{1, A}, {2, F}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff35::2"), (list{2, 3}));
    const linux_prefix site = {net::address("ff35::"), 16};
    ASSERT_EQ(linux_set_boundary(net::network::handle(2), &site, 1), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff35::1"), list{3});
    EXPECT_EQ(r.forward(1, S1, "ff35::2"), list{3});  // a flow that stood there already
    EXPECT_EQ(r.forward(1, S1, "ff35::3"), list{3});  // a new one
    EXPECT_EQ(r.forward(1, S1, "ff3e::1"), (list{2, 3}));
    ASSERT_EQ(linux_set_boundary(net::network::handle(1), &site, 1), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff35::1"), list{});
    EXPECT_EQ(r.forward(1, S1, "ff35::2"), list{});
    EXPECT_EQ(r.forward(1, S1, "ff35::4"), list{});
    ASSERT_EQ(r.o->remove(r.table, any("ff35::", 16)), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff35::5"), list{});
    ASSERT_EQ(r.reports.size(), 1U);
    EXPECT_EQ(r.reports[0].signals, 0);  // not even a signal
    ASSERT_EQ(r.o->add(r.table, any("ff35::", 16), {{1, A}, {2, F}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::1"), (list{2, 3}));
    ASSERT_EQ(linux_set_boundary(net::network::handle(1), nullptr, 0), 0U);
    ASSERT_EQ(linux_set_boundary(net::network::handle(2), nullptr, 0), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff35::1"), (list{2, 3}));
    EXPECT_EQ(r.forward(1, S1, "ff35::2"), (list{2, 3}));
    const linux_prefix bad = {net::address("ff35::"), 129};
    EXPECT_EQ(linux_set_boundary(net::network::handle(2), &bad, 1), uint32_t{EINVAL});
}

TEST(LinuxInterfaces, ATtlThresholdIsKeptAndSaidNotToBeEnforced) {
    ROUTER_OR_SKIP(r, {1, 2});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    ipv4mc_idb_st idb = {};
    idb.ifh = net::network::handle(2);
    idb.ttl = 16;
    ASSERT_EQ(ip6mc_platform_idb_operation(IPV4MC_IDB_OP_TTL_SET, &idb, nullptr, nullptr), 0U);
    EXPECT_EQ(bed::owner::status().ttl_thresholds, 1U);
    // What the status says is so: a packet with less than the threshold leaves.
    r.drain();
    r.net.send(1, {S1, G1, 7, 5});
    EXPECT_EQ(r.net.wait_for(2, 1).size(), 1U);
}

TEST(LinuxInterfaces, MoreGroupsThanNeighboursAreCounted) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    const uint64_t limit = bed::owner::status().neighbour_limit;
    ASSERT_GT(limit, 0U);
    for (uint64_t n = 0; n <= limit / 2; ++n) {
        char group[32];
        snprintf(group, sizeof(group), "ff3e::%x", static_cast<unsigned>(n + 1));
        ASSERT_EQ(r.o->add(r.table, sg(S1, group), {{1, A}, {2, F}, {3, F}}), 0U);
        // Another source of a group takes no more neighbours.
        ASSERT_EQ(r.o->add(r.table, sg("2001:db8::2", group), {{1, A}, {2, F}}), 0U);
    }
    static std::vector<std::string> told;
    qv_syslog_set_sink([](void *, uint32_t, const char *line) { told.push_back(line); }, nullptr);
    EXPECT_EQ(bed::owner::status().neighbours_wanted, (limit / 2 + 1) * 2);
    EXPECT_EQ(bed::owner::status().neighbours_short, 1U);
    linux_age(1000);
    linux_age(2000);
    qv_syslog_set_sink(nullptr, nullptr);
    ASSERT_EQ(told.size(), 1U);  // once
    EXPECT_NE(told[0].find("gc_thresh3"), std::string::npos) << told[0];
}

}  // namespace
