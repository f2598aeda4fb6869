// Records on the heap as the library would hand them to a platform, and short ways to do so.
#ifndef TESTS_PLATFORMS_SIM_SIM_FIXTURE_H
#define TESTS_PLATFORMS_SIM_SIM_FIXTURE_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"

// What the last report of an asynchronous error said (library_stand_in.cpp stands for the library).
struct async_report {
    uint64_t obj_id;
    uint32_t oor_error;
    cerrno code;
    uint32_t object_type;
    int calls;
};
extern async_report last_async;

inline ip_maddr_st address(const std::string &text) {
    ip_maddr_st out = {};
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), out.bytes), 1) << text;
    return out;
}

struct test_route {
    ipv4mc_route_entry_st record = {};

    test_route(ipv4mc_table_st &table, const std::string &source, const std::string &group,
               uint16_t pfx_len) {
        record.source = address(source);
        record.group = address(group);
        record.pfx_len = source == "::" ? pfx_len : uint16_t{IPV4MC_ROUTE_PFX_LEN_SG};
        record.table = &table;
        record.obj_id = IPMC_OBJ_ID_NONE;
    }
};

class SimTest : public testing::Test {
  protected:
    void SetUp() override {
        sim_reset();
        table.table_type = IPV4MC_TABLE_TID;
        table.tid = 7;
        last_async = {};
    }
    void TearDown() override { sim_reset(); }

    cerrno route_op(ipv4mc_action_type action, test_route &route, uint64_t old = 0,
                    int is_new = 0) {
        ipv4mc_route_entry_st *record = &route.record;
        return ip6mc_platform_route_operation(action, route.record.table, &route.record.source,
                                              &route.record.group, route.record.pfx_len, &record,
                                              old, 0, is_new);
    }

    // One ordinary interface entry; belongs to the fixture.
    ipv4mc_intf_entry_st &entry(ifhtype ifh, uint64_t attributes) {
        entries.push_back(std::make_unique<ipv4mc_intf_entry_st>());
        ipv4mc_intf_entry_st &e = *entries.back();
        e.ifh = ifh;
        e.key_ifh = ifh;
        e.attributes = attributes;
        e.obj_id = IPMC_OBJ_ID_NONE;
        return e;
    }

    cerrno intf_op(ipv4mc_action_type action, test_route &route, ipv4mc_intf_entry_st &e,
                   uint64_t old = 0, int is_new = 0) {
        ipv4mc_intf_entry_st *record = &e;
        return ip6mc_platform_intf_operation(action, route.record.table, &route.record, e.ifh,
                                             e.intf_arg, &record, nullptr, 0, old, is_new);
    }

    // The order in which the library programs a new route.
    void program(test_route &route, const std::vector<ipv4mc_intf_entry_st *> &interfaces) {
        for (ipv4mc_intf_entry_st *e : interfaces) {
            ASSERT_EQ(intf_op(IPV4MC_ACTION_CREATE, route, *e, 0, 1), 0U);
            ASSERT_EQ(intf_op(IPV4MC_ACTION_COMMIT, route, *e, 0, 1), 0U);
        }
        ASSERT_EQ(route_op(IPV4MC_ACTION_COMMIT, route, 0, 1), 0U);
    }

    cerrno find(const test_route &route, ip6mc_platform_held_st *held = nullptr) {
        return sim_find_route(route.record.table->tid, &route.record.source, &route.record.group,
                              route.record.pfx_len, held);
    }
    cerrno find(const test_route &route, ifhtype ifh, ip6mc_platform_held_st *held = nullptr) {
        return sim_find_intf(route.record.table->tid, &route.record.source, &route.record.group,
                             route.record.pfx_len, ifh, held);
    }

    ipv4mc_table_st table = {};
    std::vector<std::unique_ptr<ipv4mc_intf_entry_st>> entries;
};

// Everything of one kind that the hardware tells.
inline std::vector<ip6mc_platform_held_st> listed(ip6mc_platform_kind kind) {
    std::vector<ip6mc_platform_held_st> all;
    EXPECT_EQ(ip6mc_platform_enumerate(
                  kind,
                  [](const ip6mc_platform_held_st *held, void *context) -> cerrno {
                      static_cast<std::vector<ip6mc_platform_held_st> *>(context)->push_back(*held);
                      return 0;
                  },
                  &all),
              0U);
    return all;
}

#endif
