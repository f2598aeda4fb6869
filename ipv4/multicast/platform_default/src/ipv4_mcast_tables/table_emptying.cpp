// What a bulk removal leaves behind must not outlive its table: the records would name freed memory
// for as long as interfaces and the list of changed routes know them.
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"

namespace {

constexpr mfwd_cmd free_packets = IPV4MC_FREE_PAK_ALL;

cerrno operate(ipv4mc_action_type action, ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    const ip_maddr_st source = route->source;
    const ip_maddr_st group = route->group;
    int is_new = 0;
    return ip6mc_route_operation(action, table, &source, &group, route->pfx_len, nullptr, &route,
                                 route->attributes, route->mofrr_attrib, &is_new);
}

// A route stays when the platform keeps one of its interfaces. A CLEAR takes the interface out all
// the same.
cerrno remove_route(ipv4mc_route_entry_st *route, void *) {
    ipv4mc_table_st *table = route->table;
    const cerrno rc = operate(IPV4MC_ACTION_CLEAR, table, route);
    return rc != 0 ? rc : operate(IPV4MC_ACTION_DELETE, table, route);
}

cerrno count_interfaces(ipv4mc_table_st *, ipv4mc_route_entry_st *route, void *context) {
    for (const ipv4mc_intf_entry_st *entry = route->intf_list; entry != nullptr;
         entry = entry->next_intf) {
        ++*static_cast<uint64_t *>(context);
    }
    return 0;
}

uint64_t signal_interfaces(ipv4mc_table_st *table) {
    uint64_t count = 0;
    ip6mc_signal_walk(table, 0, 0, count_interfaces, &count);
    return count;
}

// Each pass takes one interface off each signal route, and the route with its last.
void remove_signals(ipv4mc_table_st *table) {
    uint64_t left = signal_interfaces(table);
    uint64_t before = left + 1;
    while (left != 0 && left < before) {
        before = left;
        ip6mc_signal_remove_all_routes(table, 0, free_packets);
        left = signal_interfaces(table);
    }
}

}  // namespace

void ipmc_table_remove_rest(ipv4mc_table_st *table) {
    if (ip6mc_table_is_valid(table) == 0) {
        return;
    }
    ip6mc_route_walk(table, 0, remove_route, nullptr);
    remove_signals(table);
}
