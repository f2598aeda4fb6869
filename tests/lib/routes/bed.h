// A started library with a table in which routes are made, and short names for what tests do there.
#ifndef MFWD6_TESTS_LIB_ROUTES_BED_H
#define MFWD6_TESTS_LIB_ROUTES_BED_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/diag/errors.h"
#include "services/diag/fault.h"
#include "services/platform_info/platform_info.h"
#include "services/trees/avl.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"

namespace bed {

inline ip_maddr_st address(const char *text) {
    ip_maddr_st result{};
    inet_pton(AF_INET6, text, &result);
    return result;
}

inline ip_maddr_st numbered(const char *base, uint32_t number) {
    ip_maddr_st result = address(base);
    const uint32_t low = htonl(number);
    std::memcpy(reinterpret_cast<char *>(&result) + 12, &low, sizeof(low));
    return result;
}

struct key {
    ip_maddr_st source;
    ip_maddr_st group;
    uint16_t length;
};

inline key sg(uint32_t number) {
    return {address("2001:db8::1"), numbered("ff3e::", number), 256};
}
inline key star_g(const char *group, uint16_t length = 128) { return {{}, address(group), length}; }

inline ipv4mc_table_st *make_table(uint32_t tid, uint32_t vrf_id, const char *name) {
    ipv4mc_table_st *table = nullptr;
    const cerrno rc = ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, vrf_id, name, &table, 0);
    EXPECT_EQ(rc, 0U) << cerr_strerror(rc);
    return table != nullptr ? table->tid_table : nullptr;
}

inline void start_interfaces() {
    const cerrno rc = ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(rc, 0U) << cerr_strerror(rc);
}

inline cerrno operate(ipv4mc_action_type action, ipv4mc_table_st *table, const key &k, ipv4mc_route_entry_st **route,
                      int *is_new, mrib_attrib_entry_type old = 0, const ip_maddr_st *aux = nullptr) {
    return ip6mc_route_operation(action, table, &k.source, &k.group, k.length, aux, route, old, 0, is_new);
}

// CREATE; the detached leaf.
inline ipv4mc_route_entry_st *create(ipv4mc_table_st *table, const key &k) {
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = -1;
    EXPECT_EQ(operate(IPV4MC_ACTION_CREATE, table, k, &route, &is_new), 0U);
    EXPECT_EQ(is_new, 1);
    return route;
}

inline cerrno commit(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, int is_new,
                     mrib_attrib_entry_type old = 0) {
    return operate(IPV4MC_ACTION_COMMIT, table, {route->source, route->group, route->pfx_len}, &route, &is_new, old);
}

inline ipv4mc_route_entry_st *add(ipv4mc_table_st *table, const key &k, mrib_attrib_entry_type attributes = 0) {
    ipv4mc_route_entry_st *route = create(table, k);
    if (route != nullptr) {
        route->attributes = attributes;
        EXPECT_EQ(commit(table, route, 1), 0U);
    }
    return route;
}

inline ipv4mc_route_entry_st *find(ipv4mc_table_st *table, const key &k,
                                   ipv4mc_action_type action = IPV4MC_ACTION_EXACT_LOOKUP) {
    ipv4mc_route_entry_st *route = nullptr;
    EXPECT_EQ(operate(action, table, k, &route, nullptr), 0U);
    return route;
}

struct intf_key {
    uint32_t type = IPV4MC_INTF_ORDINARY;
    ifhtype ifh = 0;
    uint32_t amt_addr = 0;
    uint16_t amt_port = 0;
};

inline cerrno intf_operate(ipv4mc_action_type action, ipv4mc_route_entry_st *route, const intf_key &k,
                           ipv4mc_intf_entry_st **entry, int is_new, mrib_attrib_entry_type old = 0,
                           uint32_t intf_arg = 0, ipv4mc_idb_st *idb = nullptr) {
    return ip6mc_intf_operation(action, route != nullptr ? route->table : nullptr, route, k.type, k.ifh, k.amt_addr,
                                k.amt_port, intf_arg, entry, idb, 0, old, is_new);
}

// CREATE and COMMIT of a new entry.
inline ipv4mc_intf_entry_st *join(ipv4mc_route_entry_st *route, const intf_key &k,
                                  mrib_attrib_entry_type attributes = 0) {
    ipv4mc_intf_entry_st *entry = nullptr;
    EXPECT_EQ(intf_operate(IPV4MC_ACTION_CREATE, route, k, &entry, 1), 0U);
    if (entry != nullptr) {
        entry->attributes = attributes;
        EXPECT_EQ(intf_operate(IPV4MC_ACTION_COMMIT, route, k, &entry, 1), 0U);
    }
    return entry;
}

// Lists both ways, tree, counts and references of one route's interfaces; empty when all is well.
inline std::string check_interfaces(ipv4mc_route_entry_st *route) {
    uint64_t listed = 0;
    const ipv4mc_intf_entry_st *before = nullptr;
    for (ipv4mc_intf_entry_st *entry = route->intf_list; entry != nullptr; entry = entry->next_intf) {
        if (entry->prev_intf != before) return "prev_intf";
        if (entry->route != route) return "route of an entry";
        if ((entry->intf_flags & IPV4MC_INTF_FLAG_IN_TREE) == 0) return "flag of the tree";
        if (ip6mc_intf_route_lookup(route, entry->intf_type, entry->ifh, entry->amt_addr, entry->amt_port) != entry) {
            return "an entry of the list is not found in the tree";
        }
        before = entry;
        ++listed;
    }
    uint64_t in_tree = 0;
    if (avl_verify(&route->intf_tree, ipmc_intf_avl_compare, &in_tree) != 0) return "tree";
    return listed == in_tree ? "" : "list and tree have different lengths";
}

// The list of an interface both ways, each entry on its route's list, and the count.
inline std::string check_idb(ipv4mc_idb_st *idb) {
    uint32_t listed = 0;
    const ipv4mc_intf_entry_st *before = nullptr;
    for (ipv4mc_intf_entry_st *entry = idb->route_list; entry != nullptr; entry = entry->idb_next) {
        if (entry->idb_prev != before) return "idb_prev";
        if (entry->on_idb_list != 1) return "on_idb_list";
        if (entry->ifh != idb->ifh) return "handle of an entry";
        if (entry->route == nullptr) return "an entry without route on an interface";
        if (ip6mc_intf_route_lookup(entry->route, entry->intf_type, entry->ifh, entry->amt_addr, entry->amt_port) !=
            entry) {
            return "an entry of the interface is not on its route";
        }
        before = entry;
        ++listed;
    }
    if (listed != idb->route_count) return "route_count";
    if (ip6mc_idb_refcount_sanity_fn(idb) != 1) return "refcount";
    return "";
}

inline ipv4mc_idb_st *idb_of(ifhtype ifh) {
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_lookup(ifh, &idb), 0U);
    return idb;
}

// Calls of the seam, "op/action/is_new/result", in order.
inline std::vector<std::string> platform_calls() {
    std::vector<std::string> calls;
    for (uint64_t n = 0; n < sim_log_count(); ++n) {
        const sim_call *call = sim_log_at(n);
        calls.push_back(std::string(sim_op_name(call->op)) + " " + std::to_string(call->action) + " new " +
                        std::to_string(call->is_new) + " -> " + std::to_string(call->result));
    }
    sim_log_clear();
    return calls;
}

struct library {
    explicit library(uint32_t router_type = 0) {
        platform_info_t info{};
        platform_info_defaults(&info);
        info.router_type = router_type;
        platform_info_set(&info);
        sim_reset();
        started = std::make_unique<kit::library>();
        mlib_fim_init(nullptr);
        start_interfaces();
    }
    ~library() {
        fim_disarm_all(mlib_fim_hdl);
        sim_reset();
        ip6mc_idb_terminate(0, 0);
    }
    kit::run_dir dir;
    std::unique_ptr<kit::library> started;
};

class Test : public testing::Test {
  protected:
    Test() : table(make_table(0xe0000005, 0x60000006, "red")) { sim_log_on(4096); }

    void forget() {
        heard.clear();
        sim_log_clear();
    }
    std::vector<std::string> errors() { return heard.errors(); }
    using texts = std::vector<std::string>;

    library lib;
    ipv4mc_table_st *table;
    kit::listener heard;
};

}  // namespace bed

#endif
