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

// For a route that is about to go: routes below that name it as their parent turn to the next one
// above, if there is one. Nobody is told.
void ipmc_forget_IF_parent(ipv4mc_table_st *table, ipv4mc_route_entry_st *route);

namespace mlib {

uint16_t route_key_length(const ip_maddr_st *source, uint16_t pfx_len);

// A rate record with its timestamp, or null.
ipv4mc_route_rate_st *allocate_rate();

// A trie refused what it must not refuse: it can no longer be trusted, and the library stops until
// a new start. Returns EFAULT.
cerrno stop_for_corruption();

// The name of an interface for messages; valid until the thread's next few.
const char *intf_name(ifhtype ifh);

// Name of the VRF of a table for messages, "-" when it has none or is null.
const char *vrf_text(const ipv4mc_table_st *table);

// The route with exactly this key, or null; the trie's code in `*error`.
ipv4mc_route_entry_st *find_exact(const route_request &request, cerrno *error);

// Gives the object id of a route back; a failure is reported.
void free_route_object_id(const route_request &request, ipv4mc_route_entry_st *route);

// Tells the platform whether packets that leave an encap are looked up here as well. A failure is
// reported.
void switch_ip_lookup(ipv4mc_encap_entry_st *encap, uint8_t value);

const char *action_text(ipv4mc_action_type action);

}  // namespace mlib

// 0x%x(%s) of a table in every message: the table-id side itself has no name.
#define TABLE_ARGS(table) (table)->tid, mlib::vrf_text(table)

// (%s,%s/%d) of a route in every message.
#define ROUTE_KEY_ARGS(route_source, route_group, length) \
    mlib::source_text(route_source), mlib::address_text(route_group), static_cast<int>(length)
#define ROUTE_ARGS(route) ROUTE_KEY_ARGS(&(route)->source, &(route)->group, (route)->pfx_len)

// The key and the action of the route_request `request`.
#define REQUEST_KEY ROUTE_KEY_ARGS(request.source, request.group, request.pfx_len)
#define REQUEST_ACTION static_cast<int>(request.action), mlib::action_text(request.action)

#endif
