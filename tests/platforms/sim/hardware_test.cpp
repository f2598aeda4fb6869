// The hardware as a whole: churn against a model, draining, many routes.
#include <map>
#include <random>
#include <set>
#include <tuple>

#include "tests/platforms/sim/sim_fixture.h"

namespace {

class SimHardware : public SimTest {};

ip_maddr_st numbered(uint8_t top, uint32_t n) {
    ip_maddr_st a = {};
    a.bytes[0] = top;
    a.bytes[12] = static_cast<uint8_t>(n >> 24);
    a.bytes[13] = static_cast<uint8_t>(n >> 16);
    a.bytes[14] = static_cast<uint8_t>(n >> 8);
    a.bytes[15] = static_cast<uint8_t>(n);
    return a;
}

TEST_F(SimHardware, ChurnAgreesWithAModelAndDrainsToNothing) {
    std::set<uint32_t> routes;                     // held
    std::set<std::pair<uint32_t, uint32_t>> legs;  // held, of held routes and announced ones
    std::mt19937 random(3);
    const auto few = [&](uint32_t below) { return static_cast<uint32_t>(random()) % below; };
    const auto act = [&](uint32_t r, uint32_t leg, uint32_t action) {
        ipv4mc_route_entry_st record = {};
        record.source = numbered(0x20, r);
        record.group = numbered(0xff, r / 3);
        record.pfx_len = 256;
        record.table = &table;
        ipv4mc_route_entry_st *p = &record;
        if (leg == 0) {
            ASSERT_EQ(ip6mc_platform_route_operation(action, &table, &record.source, &record.group,
                                                     256, &p, 0, 0, 0),
                      0U);
            return;
        }
        ipv4mc_intf_entry_st e = {};
        e.ifh = e.key_ifh = leg;
        ipv4mc_intf_entry_st *ep = &e;
        ASSERT_EQ(ip6mc_platform_intf_operation(action, &table, p, leg, 0, &ep, nullptr, 0, 0, 0),
                  0U);
    };
    for (int step = 0; step < 40000; ++step) {
        const uint32_t r = few(60);
        const uint32_t leg = few(6);
        const bool down = few(5) < 2;
        act(r, leg, down ? IPV4MC_ACTION_DELETE : IPV4MC_ACTION_COMMIT);
        if (leg != 0) {
            if (down) {
                legs.erase({r, leg});
            } else {
                legs.insert({r, leg});
            }
        } else if (down) {
            routes.erase(r);
            std::erase_if(legs, [&](const auto &l) { return l.first == r; });
        } else {
            routes.insert(r);
        }
        ASSERT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), routes.size()) << step;
        ASSERT_EQ(sim_count(IP6MC_PLATFORM_INTF), legs.size()) << step;
        if (step % 500 == 0) {
            ASSERT_EQ(listed(IP6MC_PLATFORM_ROUTE).size(), routes.size());
            ASSERT_EQ(listed(IP6MC_PLATFORM_INTF).size(), legs.size());
        }
    }
    for (uint32_t r = 0; r < 60; ++r) {
        act(r, 0, IPV4MC_ACTION_DELETE);
        for (uint32_t leg = 1; leg < 6; ++leg) {
            act(r, leg, IPV4MC_ACTION_DELETE);
        }
    }
    EXPECT_EQ(listed(IP6MC_PLATFORM_KINDS).size(), 0U);
    act(1, 0, IPV4MC_ACTION_COMMIT);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 1U) << "a drained account takes one more";
}

TEST_F(SimHardware, AHundredThousandRoutesAreFoundAgain) {
    constexpr uint32_t many = 100000;
    for (uint32_t r = 0; r < many; ++r) {
        ipv4mc_route_entry_st record = {};
        record.source = numbered(0x20, r);
        record.group = numbered(0xff, r % 1000);
        record.pfx_len = 256;
        record.obj_id = r;
        ipv4mc_route_entry_st *p = &record;
        ASSERT_EQ(ip6mc_platform_route_operation(IPV4MC_ACTION_COMMIT, &table, &record.source,
                                                 &record.group, 256, &p, 0, 0, 1),
                  0U);
    }
    ASSERT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), many);
    for (uint32_t r = 0; r < many; ++r) {
        const ip_maddr_st source = numbered(0x20, r);
        const ip_maddr_st group = numbered(0xff, r % 1000);
        ip6mc_platform_held_st held = {};
        ASSERT_EQ(sim_find_route(7, &source, &group, 256, &held), 0U);
        ASSERT_EQ(held.obj_id, r);
    }
}

TEST_F(SimHardware, TablesAreApart) {
    ipv4mc_table_st other = table;
    other.tid = 8;
    test_route mine(table, "::", "ff3e::1", 128);
    test_route theirs(other, "::", "ff3e::1", 128);
    program(mine, {&entry(1, MRIB_INTF_ACCEPT)});
    EXPECT_EQ(find(theirs), static_cast<cerrno>(ENOENT));
    sim_packet packet = {};
    packet.tid = 8;
    packet.ifh = 1;
    packet.group = mine.record.group;
    packet.source = address("2001:db8::1");
    sim_forward(&packet);
    EXPECT_EQ(packet.verdict, static_cast<uint32_t>(SIM_NO_ROUTE));
    program(theirs, {&entry(1, MRIB_INTF_ACCEPT)});
    ASSERT_EQ(route_op(IPV4MC_ACTION_DELETE, mine), 0U);
    sim_forward(&packet);
    EXPECT_EQ(packet.verdict, static_cast<uint32_t>(SIM_FORWARDED));
}

}  // namespace
