#include "tests/crash/hardware.h"

#include <arpa/inet.h>

#include <cstring>
#include <functional>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "tests/crash/universe.h"

namespace crash {
namespace {

using held_thing = ip6mc_platform_held_st;

std::vector<held_thing> held_things() {
    std::vector<held_thing> all;
    ip6mc_platform_enumerate(
        IP6MC_PLATFORM_KINDS,
        [](const held_thing *held, void *context) -> cerrno {
            static_cast<std::vector<held_thing> *>(context)->push_back(*held);
            return 0;
        },
        &all);
    return all;
}

ipv4mc_route_entry_st *record_of_route(const held_thing &held) {
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(held.tid);
    ipv4mc_route_entry_st *route = nullptr;
    if (table != nullptr && table->ingress_gtrie != nullptr) {
        ip6mc_route_operation(IPV4MC_ACTION_EXACT_LOOKUP, table, &held.source, &held.group,
                              held.pfx_len, nullptr, &route, 0, 0, nullptr);
    }
    return route;
}

ipv4mc_intf_entry_st *record_of_intf(const held_thing &held) {
    ipv4mc_route_entry_st *route = record_of_route(held);
    return route == nullptr ? nullptr
                            : ip6mc_intf_route_lookup(route, held.intf_type, held.ifh,
                                                      held.amt_addr, held.amt_port);
}

bool has_record(const held_thing &held) {
    switch (held.kind) {
        case IP6MC_PLATFORM_TABLE: {
            if (held.tid != 0) {
                return ip6mc_table_lookup_by_tbl_id(held.tid) != nullptr;
            }
            ipv4mc_table_st *found = nullptr;
            ip6mc_table_operation(IPV4MC_ACTION_TABLE_LOOKUP, 0, held.vrf_id, held.vrf_name, &found,
                                  0);
            return found != nullptr;
        }
        case IP6MC_PLATFORM_ROUTE:
            return record_of_route(held) != nullptr;
        case IP6MC_PLATFORM_INTF:
            return record_of_intf(held) != nullptr;
        case IP6MC_PLATFORM_IDB: {
            ipv4mc_idb_st *idb = nullptr;
            ip6mc_idb_lookup(held.ifh, &idb);
            return idb != nullptr;
        }
        case IP6MC_PLATFORM_ENCAP: {
            ipv4mc_encap_entry_st *encap = nullptr;
            ip6mc_encapid_lookup(held.encap_id, &encap);
            return encap != nullptr;
        }
        default:
            return true;
    }
}

// Waits for its retry, or for resources: the hardware need not have it.
bool waits(const ipv4mc_route_entry_st *route) {
    return route->err != 0 || route->oor != 0;
}

void each_route(const std::function<void(ipv4mc_route_entry_st *)> &visit) {
    for (uint32_t t = 0; t < tables; ++t) {
        for (uint32_t r = 0; r < routes; ++r) {
            if (ipv4mc_route_entry_st *route = find_route(find_table(t), r); route != nullptr) {
                visit(route);
            }
        }
    }
}

uint32_t encap_of(const ipv4mc_route_entry_st *route) {
    return route->encap != nullptr ? route->encap->encap_id : 0;
}

const held_thing *find_held(const std::vector<held_thing> &all, const ipv4mc_route_entry_st *route,
                            const ipv4mc_intf_entry_st *entry) {
    for (const held_thing &held : all) {
        const bool kind =
            held.kind == (entry != nullptr ? IP6MC_PLATFORM_INTF : IP6MC_PLATFORM_ROUTE);
        if (kind && held.tid == route->table->tid && held.pfx_len == route->pfx_len &&
            std::memcmp(&held.group, &route->group, sizeof(held.group)) == 0 &&
            std::memcmp(&held.source, &route->source, sizeof(held.source)) == 0 &&
            (entry == nullptr || held.ifh == entry->ifh)) {
            return &held;
        }
    }
    return nullptr;
}

bool agrees(const held_thing *held, const ipv4mc_route_entry_st *route) {
    return held != nullptr && held->active != 0 && held->attributes == route->attributes &&
           held->encap_id == encap_of(route) && held->obj_id == route->obj_id;
}

bool agrees(const held_thing *held, const ipv4mc_intf_entry_st *entry) {
    return held != nullptr && held->active != 0 && held->attributes == entry->attributes &&
           held->obj_id == entry->obj_id;
}

std::string name_of(const ip_maddr_st &source, const ip_maddr_st &group, uint16_t length,
                    uint32_t tid) {
    char from[INET6_ADDRSTRLEN];
    char to[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &source, from, sizeof(from));
    inet_ntop(AF_INET6, &group, to, sizeof(to));
    return std::string("(") + from + "," + to + "/" + std::to_string(length) + ") of table " +
           std::to_string(tid);
}

std::string name_of_route(const ipv4mc_route_entry_st *route) {
    return name_of(route->source, route->group, route->pfx_len, route->table->tid);
}

std::string name_of(const held_thing &held) {
    return "a thing of kind " + std::to_string(held.kind) + ", " +
           name_of(held.source, held.group, held.pfx_len, held.tid) + ", interface " +
           std::to_string(held.ifh) + ", encap " + std::to_string(held.encap_id) + ", VRF " +
           std::to_string(held.vrf_id) + (held.active != 0 ? ", active" : ", not active");
}

void program(ipv4mc_route_entry_st *route) {
    int is_new = 0;
    ip6mc_route_operation(IPV4MC_ACTION_COMMIT, route->table, &route->source, &route->group,
                          route->pfx_len, nullptr, &route, route->attributes, 0, &is_new);
}

void program(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    ip6mc_intf_operation(IPV4MC_ACTION_COMMIT, route->table, route, entry->intf_type, entry->ifh,
                         entry->amt_addr, entry->amt_port, entry->intf_arg, &entry, nullptr, 0,
                         entry->attributes, 0);
}

unsigned program_differences() {
    unsigned count = 0;
    const std::vector<held_thing> all = held_things();
    each_route([&](ipv4mc_route_entry_st *route) {
        if (waits(route)) {
            return;
        }
        for (ipv4mc_intf_entry_st *entry = route->intf_list; entry != nullptr;
             entry = entry->next_intf) {
            if (!agrees(find_held(all, route, entry), entry)) {
                program(route, entry);
                ++count;
            }
        }
        if (!agrees(find_held(all, route, nullptr), route)) {
            program(route);
            ++count;
        }
    });
    return count;
}

}  // namespace

unsigned resync() {
    unsigned count = 0;
    for (const held_thing &held : held_things()) {
        if (!has_record(held)) {
            ip6mc_platform_remove_held(&held);
            ++count;
        }
    }
    return count + program_differences();
}

std::string compare_hardware() {
    const std::vector<held_thing> all = held_things();
    std::string wrong;
    for (const held_thing &held : all) {
        if (!has_record(held)) {
            wrong = "the hardware holds " + name_of(held) + ", without a record";
        }
    }
    each_route([&](ipv4mc_route_entry_st *route) {
        if (waits(route)) {
            return;
        }
        if (!agrees(find_held(all, route, nullptr), route)) {
            wrong = "route " + name_of_route(route) + " is not in the hardware as recorded";
        }
        for (ipv4mc_intf_entry_st *entry = route->intf_list; entry != nullptr;
             entry = entry->next_intf) {
            if (!agrees(find_held(all, route, entry), entry)) {
                wrong = "an interface of " + name_of_route(route) +
                        " is not in the hardware as recorded";
            }
        }
    });
    return wrong;
}

}  // namespace crash
