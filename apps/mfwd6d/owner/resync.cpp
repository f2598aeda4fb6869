#include "apps/mfwd6d/owner/resync.h"

#include <cstring>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"

namespace mfwd6::daemon {
namespace {

// What the platform holds of one route.
struct held_route {
    ip6mc_platform_held_st route{};
    std::map<ifhtype, uint64_t> ports;  // attributes by handle
};

std::string key_of(uint32_t tid, const ip_maddr_st &source, const ip_maddr_st &group,
                   uint16_t length) {
    std::string key(sizeof(tid) + sizeof(length) + 32, '\0');
    std::memcpy(key.data(), &tid, sizeof(tid));
    std::memcpy(key.data() + 4, &length, sizeof(length));
    std::memcpy(key.data() + 6, source.bytes, 16);
    std::memcpy(key.data() + 22, group.bytes, 16);
    return key;
}

using held_routes = std::unordered_map<std::string, held_route>;

cerrno note(const ip6mc_platform_held_st *held, void *context) {
    auto &routes = *static_cast<held_routes *>(context);
    held_route &r = routes[key_of(held->tid, held->source, held->group, held->pfx_len)];
    if (held->kind == IP6MC_PLATFORM_ROUTE) {
        r.route = *held;
    } else {
        r.ports[held->ifh] = held->attributes;
    }
    return 0;
}

bool agrees(const held_route &held, const ipv4mc_route_entry_st *route) {
    if (held.route.active == 0 || held.route.attributes != route->attributes) {
        return false;
    }
    size_t count = 0;
    for (const auto *entry = route->intf_list; entry != nullptr; entry = entry->next_intf) {
        const auto at = held.ports.find(entry->ifh);
        if (at == held.ports.end() || at->second != entry->attributes) {
            return false;
        }
        ++count;
    }
    return count == held.ports.size();
}

// The route as the window has it, whatever the platform has. Straight to the platform: the window
// does not change.
cerrno program(const platform &p, const held_route *held, ipv4mc_route_entry_st *route) {
    if (held != nullptr && held->route.kind == IP6MC_PLATFORM_ROUTE) {
        const cerrno rc = p.remove_held(&held->route);
        if (rc != 0) {
            return rc;
        }
    }
    ipv4mc_table_st *table = route->table;
    for (auto *entry = route->intf_list; entry != nullptr; entry = entry->next_intf) {
        for (const ipv4mc_action_type action : {IPV4MC_ACTION_CREATE, IPV4MC_ACTION_COMMIT}) {
            ipv4mc_intf_entry_st *one = entry;
            const cerrno rc = ip6mc_platform_intf_operation_wrapper(
                action, table, route, entry->ifh, entry->intf_arg, &one, nullptr, 0, 0, 1);
            if (rc != 0) {
                return rc;
            }
        }
    }
    ipv4mc_route_entry_st *one = route;
    return ip6mc_platform_route_operation_wrapper(IPV4MC_ACTION_COMMIT, table, &route->source,
                                                  &route->group, route->pfx_len, &one, 0, 0, 1);
}

// A table that the platform does not hold is told to it; one that it holds is told again.
cerrno tell_table(ipv4mc_table_st *table) {
    const ipv4mc_table_st *vrf = table->vtable;
    const uint32_t vrf_id = vrf != nullptr ? vrf->vrf_id : 0;
    const char *const name = vrf != nullptr ? vrf->vrf_name : "";
    cerrno first = 0;
    for (ipv4mc_table_st *side : {table->vtable, table}) {
        for (const ipv4mc_action_type action : {IPV4MC_ACTION_CREATE, IPV4MC_ACTION_ACTIVATE}) {
            ipv4mc_table_st *one = side;
            const cerrno rc = side == nullptr ? 0
                                              : ip6mc_platform_table_operation_wrapper(
                                                    action, side == table ? table->tid : 0, vrf_id,
                                                    name, &one, 1);
            first = first == 0 ? rc : first;
        }
    }
    return first;
}

}  // namespace

outcome resynchronise(const platform &p, linux_resync_counts *counts) {
    *counts = {};
    held_routes held;
    cerrno first = p.enumerate(IP6MC_PLATFORM_ROUTE, note, &held);
    first = first == 0 ? p.enumerate(IP6MC_PLATFORM_INTF, note, &held) : first;
    if (first != 0) {
        return failure_of(first, "what the platform holds");
    }
    const ip_maddr_st any{};
    for (ipv4mc_table_st *table = ip6mc_table_tid_get_first(); table != nullptr;
         table = ip6mc_table_tid_get_next(table->tid)) {
        ++counts->tables;
        const cerrno told = tell_table(table);
        first = first == 0 ? told : first;
        for (ipv4mc_route_entry_st *route = ip6mc_route_first_key(table, &any, &any, 0);
             route != nullptr; route = ip6mc_route_next(table, route)) {
            const auto at =
                held.find(key_of(table->tid, route->source, route->group, route->pfx_len));
            const held_route *there = at != held.end() ? &at->second : nullptr;
            if (there != nullptr && agrees(*there, route)) {
                ++counts->kept;
            } else {
                const cerrno rc = program(p, there, route);
                ++(rc == 0 ? counts->programmed : counts->failed);
                first = first == 0 ? rc : first;
            }
            if (at != held.end()) {
                held.erase(at);
            }
        }
    }
    for (const auto &[key, stray] : held) {
        if (stray.route.kind == IP6MC_PLATFORM_ROUTE) {
            const cerrno rc = p.remove_held(&stray.route);
            ++(rc == 0 ? counts->removed : counts->failed);
            first = first == 0 ? rc : first;
        }
    }
    return first == 0 ? outcome{}
                      : failure_of(first, "the platform is not all that the window says");
}

}  // namespace mfwd6::daemon
