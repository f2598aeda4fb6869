// Changes of routes that the platform refuses half-way: what was done is taken back.
#include "apps/mfwd6d/owner/routes.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "apps/check/check.h"
#include "apps/mfwd6d/owner/interfaces.h"
#include "apps/mfwd6d/owner/tables.h"
#include "apps/mfwd6d/owner/window.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "platforms/sim/sim.h"
#include "tests/kit/run_dir.h"

using namespace mfwd6::daemon;

namespace {

constexpr uint64_t in = MRIB_INTF_ACCEPT;
constexpr uint64_t out = MRIB_INTF_FORWARD;

std::string name_of(int n) {
    return fmt::format("e{}", n);
}

class Routes : public testing::Test {
  protected:
    Routes() : all(&none), routes_(&all) {
        sim_reset();
        EXPECT_EQ(start_library(nullptr, nullptr).text, "");
        EXPECT_EQ(tables_.start().text, "");
        EXPECT_EQ(all.start().text, "");
        for (uint32_t n = 1; n <= 9; ++n)
            all.appeared(n, name_of(static_cast<int>(n)));
    }
    ~Routes() override {
        sim_reset();
        stop_library(false);
    }

    std::vector<route_port> ports(const std::map<int, uint64_t> &wanted) {
        std::vector<route_port> list;
        for (const auto &[n, bits] : wanted)
            list.push_back({all.find(name_of(n)), bits});
        return list;
    }
    route_id key(uint8_t last, bool any_source = false) {
        ip_maddr_st source{};
        source.bytes[0] = any_source ? 0 : 0x20;
        mfwd6::config::prefix group;
        group.address.bytes[0] = 0xff;
        group.address.bytes[1] = 0x3e;
        group.address.bytes[15] = last;
        group.length = 128;
        return make_route_id(*tables_.find("default"), source, group);
    }

    // What the window says of a route, and whether the hardware says the same.
    std::map<int, uint64_t> seen(const route_id &id, uint64_t *attributes = nullptr) {
        std::map<int, uint64_t> list;
        ipv4mc_route_entry_st *route = routes::find(id);
        ip6mc_platform_held_st held{};
        const bool is_held =
            sim_find_route(id.table->tid, &id.source, &id.group, id.length, &held) == 0;
        EXPECT_EQ(is_held, route != nullptr);
        if (route == nullptr)
            return list;
        EXPECT_EQ(held.attributes, route->attributes);
        if (attributes != nullptr)
            *attributes = route->attributes;
        for (auto *entry = route->intf_list; entry != nullptr; entry = entry->next_intf) {
            list[static_cast<int>(entry->ifh)] = entry->attributes;
            EXPECT_EQ(
                sim_find_intf(id.table->tid, &id.source, &id.group, id.length, entry->ifh, &held),
                0U);
            EXPECT_EQ(held.attributes, entry->attributes) << entry->ifh;
        }
        return list;
    }
    void expect_clean() {
        reclaim_blocks(0);
        const mfwd6::check::report report = mfwd6::check::check_window();
        for (const auto &f : report.findings)
            ADD_FAILURE() << mfwd6::check::to_string(f);
        for (const auto &f : report.leftovers)
            ADD_FAILURE() << mfwd6::check::to_string(f);
        EXPECT_TRUE(report.orphans.empty());
    }

    kit::run_dir dir;
    platform none;
    tables tables_;
    interfaces all;
    routes routes_;
};

TEST_F(Routes, AreMadeExactlySo) {
    const route_id id = key(1);
    EXPECT_EQ(routes_.make(id, 0, ports({{1, in}, {2, out}, {3, out}})).text, "");
    EXPECT_EQ(seen(id), (std::map<int, uint64_t>{{1, in}, {2, out}, {3, out}}));
    EXPECT_EQ(routes_.make(id, MRIB_ROUTE_SIGNAL, ports({{1, out}, {3, out}, {4, in}})).text, "");
    uint64_t attributes = 0;
    EXPECT_EQ(seen(id, &attributes), (std::map<int, uint64_t>{{1, out}, {3, out}, {4, in}}));
    EXPECT_EQ(attributes, MRIB_ROUTE_SIGNAL);
    expect_clean();
    EXPECT_EQ(routes_.erase(id).text, "");
    EXPECT_EQ(seen(id), (std::map<int, uint64_t>{}));
    expect_clean();
}

TEST_F(Routes, WhatAgreesIsNotTouched) {
    const route_id id = key(1);
    const auto wanted = ports({{1, in}, {2, out}});
    EXPECT_EQ(routes_.make(id, 0, wanted).text, "");
    const uint64_t routes_before = sim_calls(SIM_OP_ROUTE);
    const uint64_t intfs_before = sim_calls(SIM_OP_INTF);
    EXPECT_EQ(routes_.make(id, 0, wanted).text, "");
    EXPECT_EQ(routes_.add_ports(id, wanted).text, "");
    EXPECT_EQ(sim_calls(SIM_OP_ROUTE), routes_before);
    EXPECT_EQ(sim_calls(SIM_OP_INTF), intfs_before);
}

// The platform refuses the n-th call of a change, for each n, until the change goes through.
template <class Change, class Check>
void refuse_each_call(sim_op op, const Change &change, const Check &unchanged) {
    int refused = 0;
    for (uint64_t n = 0;; ++n) {
        sim_clear_faults();
        ASSERT_EQ(sim_arm_fault(op, SIM_ANY_ACTION, n, 1, ENOSPC), 0U);
        const uint64_t hits = sim_faults_hit();
        const outcome o = change();
        if (!o.failed()) {
            EXPECT_EQ(sim_faults_hit(), hits);
            break;
        }
        EXPECT_EQ(o.code, uint32_t{ENOSPC});
        EXPECT_NE(o.text.find("No space left on device"), std::string::npos) << o.text;
        ++refused;
        unchanged();
    }
    sim_clear_faults();
    EXPECT_GT(refused, 0);
}

TEST_F(Routes, ANewRouteThatIsRefusedLeavesNothing) {
    const route_id id = key(2);
    for (const sim_op op : {SIM_OP_INTF, SIM_OP_ROUTE}) {
        refuse_each_call(
            op,
            [&] {
                return routes_.make(id, 0, ports({{1, in}, {2, out}, {3, out}, {4, out}}));
            },
            [&] {
                EXPECT_EQ(routes::find(id), nullptr);
                EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
                EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 0U);
                expect_clean();
            });
        EXPECT_EQ(seen(id).size(), 4U);
        EXPECT_EQ(routes_.erase(id).text, "");
    }
}

TEST_F(Routes, AChangeThatIsRefusedIsTakenBack) {
    const route_id id = key(3);
    const std::map<int, uint64_t> before = {{1, in}, {2, out}, {3, out}, {5, out}};
    for (const sim_op op : {SIM_OP_INTF, SIM_OP_ROUTE}) {
        ASSERT_EQ(routes_.make(id, 0, ports(before)).text, "");
        refuse_each_call(
            op,
            [&] {
                return routes_.make(id, MRIB_ROUTE_SIGNAL,
                                    ports({{1, in | out}, {2, out}, {4, out}, {6, out}}));
            },
            [&] {
                uint64_t attributes = 1;
                EXPECT_EQ(seen(id, &attributes), before);
                EXPECT_EQ(attributes, 0U);
                expect_clean();
            });
        EXPECT_EQ(seen(id), (std::map<int, uint64_t>{{1, in | out}, {2, out}, {4, out}, {6, out}}));
        EXPECT_EQ(routes_.erase(id).text, "");
    }
}

TEST_F(Routes, OutputsThatAreRefusedAreTakenBack) {
    const route_id id = key(4);
    const std::map<int, uint64_t> before = {{1, in}, {2, out}, {3, in | out}};
    ASSERT_EQ(routes_.make(id, 0, ports(before)).text, "");
    const auto unchanged = [&] {
        EXPECT_EQ(seen(id), before);
        expect_clean();
    };
    refuse_each_call(
        SIM_OP_INTF,
        [&] {
            return routes_.add_ports(id, ports({{1, out}, {4, out}, {5, out}}));
        },
        unchanged);
    ASSERT_EQ(routes_.make(id, 0, ports(before)).text, "");
    refuse_each_call(
        SIM_OP_INTF,
        [&] {
            return routes_.remove_ports(id, ports({{2, out}, {3, out}}));
        },
        unchanged);
    EXPECT_EQ(seen(id), (std::map<int, uint64_t>{{1, in}, {3, in}}));
}

TEST_F(Routes, ChildrenFollowTheirParent) {
    const route_id parent = key(0, true);
    route_id range = parent;
    range.length = 64;
    const route_id child = key(7);
    ASSERT_EQ(routes_.make(range, route_attributes(range, 0), ports({{1, in}})).text, "");
    ASSERT_EQ(routes_
                  .make(child, route_attributes(child, mfwd6::config::line_inherit_accept),
                        ports({{2, out}}))
                  .text,
              "");
    EXPECT_EQ(routes::find(child)->IF_parent, routes::find(range));
    EXPECT_EQ(routes_.erase(range).text, "");
    EXPECT_EQ(routes::find(child)->IF_parent, nullptr);
    expect_clean();
}

TEST_F(Routes, MovesKeepEachRoute) {
    const route_id id = key(5);
    interface &late = all.find_or_await("late");
    auto wanted = ports({{1, in}, {2, out}});
    wanted.push_back({&late, out});
    ASSERT_EQ(routes_.make(id, 0, wanted).text, "");
    EXPECT_GE(late.ifh, absent_handles);
    all.appeared(77, "late");
    EXPECT_TRUE(all.move_routes(UINT32_MAX));
    EXPECT_EQ(late.ifh, 77U);
    EXPECT_EQ(seen(id), (std::map<int, uint64_t>{{1, in}, {2, out}, {77, out}}));
    expect_clean();
    // It goes and comes again under another index: the handle stays.
    all.disappeared(77);
    all.appeared(78, "late");
    EXPECT_EQ(late.ifh, 77U);
    EXPECT_EQ(late.index, 78U);
}

// Refused while they move, routes stay where they were, and an owner that starts anew finds them.
TEST_F(Routes, AnOwnerInTheMiddleOfAMoveIsFollowedByTheNext) {
    interface &late = all.find_or_await("late");
    for (uint8_t n = 1; n <= 20; ++n) {
        auto wanted = ports({{1, in}});
        wanted.push_back({&late, out});
        ASSERT_EQ(routes_.make(key(n), 0, wanted).text, "");
    }
    sim_arm_fault(SIM_OP_INTF, SIM_ANY_ACTION, 30, SIM_FOR_EVER, EIO);
    all.appeared(77, "late");
    all.move_routes(UINT32_MAX);
    sim_clear_faults();
    interfaces next(&none);
    ASSERT_EQ(next.start().text, "");
    next.appeared(77, "late");
    while (!next.move_routes(3)) {
    }
    for (uint8_t n = 1; n <= 20; ++n)
        EXPECT_EQ(seen(key(n)), (std::map<int, uint64_t>{{1, in}, {77, out}})) << int{n};
    expect_clean();
}

}  // namespace
