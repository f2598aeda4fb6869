// What the files that take routes apart share.
#ifndef IP6MC_SRC_IP_MCAST_ROUTE_ROUTE_ROOM_H
#define IP6MC_SRC_IP_MCAST_ROUTE_ROUTE_ROOM_H

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"

namespace mlib {

// Whether the encap is programmed again when its last local egress interface has gone.
enum class encap_programming { commit, none };

// An egress interface of the route has gone: the counts of route, table and encap go down, and what
// depends on a count that has reached 0 is told. `table` is the one the route is worked on in.
void drop_local_egress(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                       encap_programming then);

// Takes the entry off its transport's list, and the route off the AMT update list when that was its
// last such interface.
void drop_transport(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry);

// Gives back the reference of one kind (ipv4mc_mdt_flags) that the bit of an interface's word
// stands for, if the word has it. Told at `debug_class`.
void drop_mdt_reference(ipv4mc_table_st *table, mrib_attrib_entry_type attributes, ifhtype ifh,
                        mrib_attrib_entry_type bit, uint32_t kind, uint32_t debug_class);

// Unbinds the GRE transport that rides on a core route. The result of the transport's operation, 0
// when there is none.
cerrno unbind_gre_transport(ipv4mc_route_entry_st *route);

// Table id for messages: `if_none` without a table.
inline uint32_t tid_or(const ipv4mc_table_st *table, uint32_t if_none) {
    return table != nullptr ? table->tid : if_none;
}

inline char yes_no(bool yes) {
    return yes ? 'Y' : 'N';
}

// Whether the route heads the memd list of its table `index`: 'A' where there is no table to look
// at.
inline char heads_memd_list(const ipv4mc_route_entry_st *route, uint32_t index) {
    const ipv4mc_table_st *table = route->vrf_table[index];
    return table == nullptr ? 'A' : yes_no(table->memd_route_list == route);
}

// A broken invariant that is no reason to stop: a system message and an error report.
void tell_problem(const char *function, int line, const char *text);

}  // namespace mlib

#endif
