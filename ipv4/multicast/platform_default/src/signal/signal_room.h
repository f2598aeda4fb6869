// What the files of the signal room share.
#ifndef IP6MC_SRC_SIGNAL_SIGNAL_ROOM_H
#define IP6MC_SRC_SIGNAL_SIGNAL_ROOM_H

#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"

// Takes one interface off a signal route, and with the last one the route itself. The mutex is
// held; neither pointer is NULL. Both are set to NULL for what went away.
cerrno ipv4mc_signal_remove_internal(ipv4mc_table_st *table, ipv4mc_route_entry_st **route_pp,
                                     ipv4mc_intf_entry_st **intf_pp);

// Has the preserved packet freed if asked to, then removes interfaces as ip6mc_signal_remove_all.
// The mutex is held, and given up for the call to the data path.
cerrno ipv4mc_signal_remove_route_pak_internal(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                               mfwd_cmd free_pak);

namespace mlib::signal {

// Key of a signal route in its trie. An all-zero source or group takes part like any other.
struct trie_key {
    uint8_t prefix[GTRIE_PREFIX_BYTES];
    uint32_t length;  // adjusted to the trie
};
void make_key(const ipv4mc_table_st *table, const ip_maddr_st *source, const ip_maddr_st *group,
              uint32_t length, trie_key *key);

// The signal route of this key, or NULL; `*error` is what the trie said. The mutex is held.
ipv4mc_route_entry_st *find(const ipv4mc_table_st *table, const ip_maddr_st *source,
                            const ip_maddr_st *group, cerrno *error);

// EBADF, EINVAL with a report in the name of `operation`, or 0.
cerrno check_ready(const char *operation);
cerrno check_key(const char *operation, const ipv4mc_table_st *table, const ip_maddr_st *source,
                 const ip_maddr_st *group);

// Removes interfaces of a route until one is gone, and calls `report` for each that could not be
// removed. 0, or the code of the last failure.
template <class Report>
cerrno remove_interfaces(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, Report report) {
    cerrno result = 0;
    ipv4mc_intf_entry_st *intf = ipv4mc_intf_route_get_first_intf(route);
    while (intf != nullptr && route != nullptr) {
        const ifhtype ifh = intf->ifh;
        const cerrno rc = ipv4mc_signal_remove_internal(table, &route, &intf);
        if (rc != 0) {
            report(ifh, rc);
            result = rc;
        }
        // A removal that succeeds leaves no variable to go on from, so the loop ends with the first
        // interface that went, and a route with two keeps the second. Clients are built on that: it
        // stays so.
        intf = ipv4mc_intf_route_get_next_intf(route, intf);
    }
    return result;
}

}  // namespace mlib::signal

// 0x%x(%s) and (%s,%s/%d) of every message. A signal's key always has the full length.
#define SIGNAL_TABLE_ARGS(table) (table)->tid, (table)->vrf_name
#define SIGNAL_KEY_ARGS(source, group) ROUTE_KEY_ARGS(source, group, IPV4MC_ROUTE_PFX_LEN_SG)

// Reports and lines of steps that several entry points share bear the entry's name.
#define SIGNAL_ERR(operation, ...) mlib::report_error(operation, __LINE__, __VA_ARGS__)
#define SIGNAL_DEBUG(operation, debug_class, ...)                            \
    do {                                                                     \
        if (ipv4_debug_event_active_inline(debug_class)) {                   \
            mlib::debug_line(debug_class, operation, __LINE__, __VA_ARGS__); \
        }                                                                    \
    } while (false)

#endif
