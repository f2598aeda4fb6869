// What the files of the route and interface operations share.
#ifndef IP6MC_SRC_IPV4_MCAST_TABLES_ROUTES_H
#define IP6MC_SRC_IPV4_MCAST_TABLES_ROUTES_H

#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_types.h"

// What one call of ip6mc_route_operation works on.
struct route_request {
    ipv4mc_action_type action;
    ipv4mc_table_st *table;
    const ip_maddr_st *source;
    const ip_maddr_st *group;
    uint16_t pfx_len;
    const ip_maddr_st *aux_addr;
    ipv4mc_route_entry_st **route_entry;
    mrib_attrib_entry_type old_attributes;
    mrib_attrib_ti_mofrr_type mofrr_attrib;
    int *is_new;
};

cerrno ipv4mc_route_commit(const route_request &request);
cerrno ipv4mc_route_accounting(const route_request &request);
cerrno ipv4mc_route_rate(const route_request &request);

// The actions that take a route apart.
cerrno ipv4mc_route_delete(const route_request &request);
cerrno ipv4mc_route_clear_action(const route_request &request);

// Turns children of a route towards it (1) or away from it (0).
cerrno ipv4mc_process_setclear_IF_flag(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                       int set);

namespace mlib {

uint16_t route_key_length(const ip_maddr_st *source, uint16_t pfx_len);

// A rate record with its timestamp, or null.
ipv4mc_route_rate_st *allocate_rate();

// A trie refused what it must not refuse: it can no longer be trusted, and the library stops until
// a new start. Returns EFAULT.
cerrno stop_for_corruption();

// The name of an interface for messages; valid until the thread's next few.
const char *intf_name(ifhtype ifh);

const char *action_text(ipv4mc_action_type action);

}  // namespace mlib

// (%s,%s/%d) of a route in every message.
#define ROUTE_KEY_ARGS(route_source, route_group, length) \
    mlib::source_text(route_source), mlib::address_text(route_group), static_cast<int>(length)
#define ROUTE_ARGS(route) ROUTE_KEY_ARGS(&(route)->source, &(route)->group, (route)->pfx_len)

#endif
