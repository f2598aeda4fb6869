// Rows: routes, a packet in, the packets out. And the longest match against a plain list.
#include <random>

#include "tests/platforms/forwarding_rows.h"
#include "tests/platforms/sim/sim_fixture.h"

namespace {

using namespace forwarding;  // A, F and the rows

class SimForward : public SimTest {
  protected:
    sim_packet send(ifhtype in, const char *source, const char *group, std::vector<ifhtype> &out) {
        sim_packet packet = {};
        packet.tid = 7;
        packet.ifh = in;
        packet.source = address(source);
        packet.group = address(group);
        packet.bytes = 100;
        packet.room = static_cast<uint32_t>(out.size());
        packet.out = out.data();
        sim_forward(&packet);
        out.resize(std::min<size_t>(packet.copies, out.size()));
        return packet;
    }
};

TEST_F(SimForward, Rows) {
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        sim_reset();
        std::vector<std::unique_ptr<test_route>> made;
        for (const row_route &route : r.routes) {
            made.push_back(
                std::make_unique<test_route>(table, route.source, route.group, route.pfx_len));
            made.back()->record.attributes = route.attributes;
            if (route.parent >= 0) {
                made.back()->record.IF_parent = &made[static_cast<size_t>(route.parent)]->record;
            }
            std::vector<ipv4mc_intf_entry_st *> legs;
            for (const leg &l : route.legs) {
                legs.push_back(&entry(l.ifh, l.attributes));
            }
            program(*made.back(), legs);
        }
        std::vector<ifhtype> out(16);
        const sim_packet packet = send(r.in, r.source, r.group, out);
        EXPECT_EQ(packet.verdict, r.verdict);
        EXPECT_EQ(out, r.out);
        EXPECT_EQ(packet.signalled, r.signalled);
        EXPECT_EQ(packet.to_node, r.to_node);
    }
}

TEST_F(SimForward, CopiesBeyondTheRoomAreCountedAndNotWritten) {
    test_route route(table, "::", "ff3e::1", 128);
    program(route, {&entry(1, A), &entry(2, F), &entry(3, F), &entry(4, F)});
    std::vector<ifhtype> out(2);
    EXPECT_EQ(send(1, "2001:db8::1", "ff3e::1", out).copies, 3U);
    EXPECT_EQ(out.size(), 2U);
    std::vector<ifhtype> none;
    EXPECT_EQ(send(1, "2001:db8::1", "ff3e::1", none).copies, 3U);
}

TEST_F(SimForward, PacketsAreCountedWhereTheyComeInAndWhereTheyLeave) {
    test_route route(table, "::", "ff3e::1", 128);
    program(route, {&entry(1, A), &entry(2, F), &entry(3, F)});
    std::vector<ifhtype> out(4);
    send(1, "2001:db8::1", "ff3e::1", out);
    send(2, "2001:db8::1", "ff3e::1", out);
    uint64_t count = 0;
    const ip_maddr_st *s = &route.record.source;
    const ip_maddr_st *g = &route.record.group;
    ASSERT_EQ(ip6mc_platform_get_hw_in_stats(&table, s, g, 128, nullptr, &count), 0U);
    EXPECT_EQ(count, 2U);
    ASSERT_EQ(ip6mc_platform_get_hw_in_stats_bytes(&table, s, g, 128, nullptr, &count), 0U);
    EXPECT_EQ(count, 200U);
    ASSERT_EQ(ip6mc_platform_get_hw_eg_stats(&table, s, g, 128, nullptr, &count), 0U);
    EXPECT_EQ(count, 2U);
    ASSERT_EQ(ip6mc_platform_get_hw_eg_stats_bytes(&table, s, g, 128, nullptr, &count), 0U);
    EXPECT_EQ(count, 200U);
}

TEST_F(SimForward, WhatIsNotCommittedDoesNotForward) {
    test_route route(table, "::", "ff3e::1", 128);
    ipv4mc_intf_entry_st &half = entry(3, F);
    program(route, {&entry(1, A), &entry(2, F)});
    ASSERT_EQ(intf_op(IPV4MC_ACTION_CREATE, route, half, 0, 1), 0U);
    std::vector<ifhtype> out(4);
    send(1, "2001:db8::1", "ff3e::1", out);
    EXPECT_EQ(out, std::vector<ifhtype>{2});
    test_route announced(table, "2001:db8::1", "ff3e::1", 256);
    ASSERT_EQ(intf_op(IPV4MC_ACTION_CREATE, announced, entry(1, A), 0, 1), 0U);
    out.assign(4, 0);
    send(1, "2001:db8::1", "ff3e::1", out);
    EXPECT_EQ(out, std::vector<ifhtype>{2});
}

TEST_F(SimForward, ANewParentIsTakenWhenTold) {
    test_route parent(table, "::", "ff3e::", 16);
    test_route child(table, "2001:db8::1", "ff3e::1", 256);
    parent.record.attributes = MRIB_ROUTE_IF;
    child.record.attributes = MRIB_ROUTE_IA;
    program(parent, {&entry(5, A)});
    program(child, {&entry(2, F)});
    std::vector<ifhtype> out(4);
    EXPECT_EQ(send(5, "2001:db8::1", "ff3e::1", out).verdict,
              static_cast<uint32_t>(SIM_WRONG_INTF));
    child.record.IF_parent = &parent.record;
    ASSERT_EQ(ip6mc_platform_change_IF_parent(&table, &child.record, nullptr), 0U);
    out.assign(4, 0);
    EXPECT_EQ(send(5, "2001:db8::1", "ff3e::1", out).verdict, static_cast<uint32_t>(SIM_FORWARDED));
    child.record.IF_parent = nullptr;
    ASSERT_EQ(ip6mc_platform_change_IF_parent(&table, &child.record, &parent.record), 0U);
    EXPECT_EQ(send(5, "2001:db8::1", "ff3e::1", out).verdict,
              static_cast<uint32_t>(SIM_WRONG_INTF));
}

// The match of the hardware against a list that is searched from end to end, after every change.
TEST_F(SimForward, LongestMatchAgreesWithAPlainList) {
    struct known {
        ip_maddr_st source;
        ip_maddr_st group;
        uint16_t pfx_len;
    };
    const auto covers = [](const known &k, const ip_maddr_st &s, const ip_maddr_st &g) {
        const bool any = k.pfx_len != 256;
        if (!any) {
            return std::memcmp(&k.source, &s, 16) == 0 && std::memcmp(&k.group, &g, 16) == 0;
        }
        for (uint32_t bit = 0; bit < k.pfx_len; ++bit) {
            const auto mask = static_cast<uint8_t>(0x80U >> (bit % 8));
            if ((k.group.bytes[bit / 8] & mask) != (g.bytes[bit / 8] & mask)) {
                return false;
            }
        }
        return true;
    };
    std::mt19937 random(7);
    const auto few = [&](uint32_t below) { return static_cast<uint32_t>(random()) % below; };
    const auto pick_group = [&] {
        ip_maddr_st g = {};
        g.bytes[0] = 0xff;
        g.bytes[1] = static_cast<uint8_t>(few(2));
        g.bytes[15] = static_cast<uint8_t>(few(4));
        return g;
    };
    std::vector<known> list;
    for (int step = 0; step < 3000; ++step) {
        known k = {};
        k.group = pick_group();
        if (few(2) == 0) {
            k.source.bytes[15] = static_cast<uint8_t>(1 + few(3));
            k.pfx_len = 256;
        } else {
            const uint16_t lengths[] = {0, 8, 16, 127, 128};
            k.pfx_len = lengths[few(5)];
        }
        ipv4mc_route_entry_st record = {};
        record.source = k.source;
        record.group = k.group;
        record.pfx_len = k.pfx_len;
        record.table = &table;
        ipv4mc_route_entry_st *p = &record;
        const auto same = std::find_if(list.begin(), list.end(), [&](const known &x) {
            return x.pfx_len == k.pfx_len && covers(x, k.source, k.group);
        });
        const bool remove = few(3) == 0;
        ASSERT_EQ(
            ip6mc_platform_route_operation(remove ? IPV4MC_ACTION_DELETE : IPV4MC_ACTION_COMMIT,
                                           &table, &k.source, &k.group, k.pfx_len, &p, 0, 0, 1),
            0U);
        if (remove && same != list.end()) {
            list.erase(same);
        } else if (!remove && same == list.end()) {
            list.push_back(k);
        }
        ASSERT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), list.size());
        sim_packet packet = {};
        packet.tid = 7;
        packet.source.bytes[15] = static_cast<uint8_t>(1 + few(3));
        packet.group = pick_group();
        int best = -1;
        for (const known &x : list) {
            if (covers(x, packet.source, packet.group)) {
                best = std::max<int>(best, x.pfx_len);
            }
        }
        sim_forward(&packet);
        ASSERT_EQ(packet.verdict != SIM_NO_ROUTE, best >= 0);
        ASSERT_EQ(packet.pfx_len, best >= 0 ? best : 0);
    }
}

}  // namespace
