// What a bulk removal leaves behind must not outlive its table: the records would name freed memory
// for as long as interfaces and the list of changed routes know them.
#include <algorithm>

#include "ipv4/multicast/lib/ip6mc_locks.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

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

// What the routes of a table count for in its counters.
struct route_sums {
    uint32_t local_egress = 0;
    uint32_t t_bits = 0;
};

cerrno add_route(ipv4mc_route_entry_st *route, void *context) {
    auto *sums = static_cast<route_sums *>(context);
    sums->local_egress += route->intf_local_EG_cnt;
    sums->t_bits += route->t_bit != 0 ? 1U : 0U;
    return 0;
}

// Those that were made and not committed included.
route_sums sums_of(ipv4mc_table_st *table) {
    route_sums sums;
    if (ip6mc_table_is_valid(table) == 0) {
        return sums;
    }
    ip6mc_route_walk(table, 0, add_route, &sums);
    for (void *route = ip6mc_gtrie_first_detached(table->ingress_gtrie); route != nullptr;
         route = ip6mc_gtrie_next_detached(table->ingress_gtrie, route)) {
        add_route(static_cast<ipv4mc_route_entry_st *>(route), &sums);
    }
    return sums;
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

// The first signal route of the table, under the mutex.
ipv4mc_route_entry_st *first_signal(ipv4mc_table_st *table) {
    const uint8_t prefix[GTRIE_PREFIX_BYTES] = {};
    uint32_t length = 0;
    ip6mc_gtrie_get_pfx_len_adjusted(table->signal_gtrie, &length);
    return static_cast<ipv4mc_route_entry_st *>(
        ip6mc_gtrie_first_leaf(table->signal_gtrie, prefix, length, nullptr));
}

void remove_signals_held(ipv4mc_table_st *table) {
    while (const ipv4mc_route_entry_st *route = first_signal(table)) {
        const ip_maddr_st source = route->source;
        const ip_maddr_st group = route->group;
        if (ip6mc_signal_remove_route_pak(table, &source, &group, free_packets) != 0) {
            return;
        }
    }
}

}  // namespace

void ipmc_table_close_signal_gtrie(ipv4mc_table_st *table) {
    const cerrno rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("0x%x: Cannot lock shmwin_mutex to end signals: %s", table->tid,
                 cerr_strerror(rc));
    } else if (table->signal_gtrie != nullptr) {
        remove_signals_held(table);
    }
    ip6mc_gtrie_close(&table->signal_gtrie);
    if (rc == 0) {
        ip6mc_shmwin_mutex_unlock();
    }
}

// Without the routes that stay, their end would take the counts below 0, and the table would have
// local receivers for ever.
void ipmc_table_reset_route_counters(ipv4mc_table_st *table) {
    const route_sums stay = sums_of(table);
    ipv4mc_table_counters_st &counters = table->route_counters;
    const uint32_t t_before = counters.t_cnt;  // not each T bit counts
    const mfwd6::journal::group change;
    ipmc_table_zero_route_counters(table);
    mfwd6::journal::store(counters.local_eg_cnt, stay.local_egress);
    mfwd6::journal::store(counters.t_cnt, std::min(t_before, stay.t_bits));
}

void ipmc_table_remove_rest(ipv4mc_table_st *table) {
    if (ip6mc_table_is_valid(table) == 0) {
        return;
    }
    ip6mc_route_walk(table, 0, remove_route, nullptr);
    remove_signals(table);
}
