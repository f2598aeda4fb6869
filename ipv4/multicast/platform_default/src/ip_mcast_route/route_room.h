// What the files that take routes apart share.
#ifndef IP6MC_SRC_IP_MCAST_ROUTE_ROUTE_ROOM_H
#define IP6MC_SRC_IP_MCAST_ROUTE_ROUTE_ROOM_H

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"

namespace mlib {

// Which of the two ways of taking a route apart is at work.
enum class end_of_route { deleted, cleared };

// A local egress interface of the route goes: the counts of route, table and encap go down. `table`
// is the one the route is worked on in.
void lower_local_egress(ipv4mc_table_st *table, ipv4mc_route_entry_st *route);

// Behind it: tells what depends on a count that has reached 0. DELETE alone tells of the table's
// count, and programs the encap again.
void follow_local_egress(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, end_of_route how);

// Takes the entry off its transport's list, and the route off the AMT update list when that was its
// last such interface.
void drop_transport(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry);

// Gives back the reference of one kind (ipv4mc_mdt_flags) that the bit of an interface's word
// stands for, if the word has it. Told at `debug_class`.
void drop_mdt_reference(ipv4mc_table_st *table, mrib_attrib_entry_type attributes, ifhtype ifh,
                        mrib_attrib_entry_type bit, uint32_t kind, uint32_t debug_class);

// Takes the route off the MDT candidate list; false when it was not there. The flag of the route
// stays.
bool leave_mdt_candidates(ipv4mc_route_entry_st *route);

// Unbinds the GRE transport that rides on a core route, if there is one. A failure is reported.
void unbind_gre_transport(ipv4mc_route_entry_st *route, end_of_route how);

// A core route with either bit is linked to customer tables.
inline constexpr uint64_t vrf_link_bits = MRIB_ROUTE_TID_DEMAND | MRIB_ROUTE_TID_STICKY;

inline constexpr size_t problem_text_size = 512;

// Table id in messages about a route without a table.
inline constexpr uint32_t no_table = 0xDEAD;

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

// "0x%x [0x%x] - 0x%x, attr 0x%lx, p:%c n:%c d:%c h:%c, rp:%c rn:%c rd:%cr h:%c" of a route.
#define LIST_STATE_ARGS(route)                                                             \
    mlib::tid_or((route)->table, mlib::no_table), (route)->vrf_table_id[IPV4MC_VRF_LOCAL], \
        (route)->vrf_table_id[IPV4MC_VRF_REMOTE], (route)->attributes,                     \
        mlib::yes_no((route)->memd_prev[IPV4MC_VRF_LOCAL] != nullptr),                     \
        mlib::yes_no((route)->memd_next[IPV4MC_VRF_LOCAL] != nullptr),                     \
        mlib::yes_no((route)->vrf_table[IPV4MC_VRF_LOCAL] != nullptr),                     \
        mlib::heads_memd_list(route, IPV4MC_VRF_LOCAL),                                    \
        mlib::yes_no((route)->memd_prev[IPV4MC_VRF_REMOTE] != nullptr),                    \
        mlib::yes_no((route)->memd_next[IPV4MC_VRF_REMOTE] != nullptr),                    \
        mlib::yes_no((route)->vrf_table[IPV4MC_VRF_REMOTE] != nullptr),                    \
        mlib::heads_memd_list(route, IPV4MC_VRF_REMOTE)

// A broken invariant that is no reason to stop: a system message and an error report.
void tell_problem(const char *function, int line, const char *text);

}  // namespace mlib

#endif
