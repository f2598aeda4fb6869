// The lists through routes and their interfaces, and how a record leaves one.
#ifndef IP6MC_SRC_IP_MCAST_ROUTE_ROUTE_LISTS_H
#define IP6MC_SRC_IP_MCAST_ROUTE_ROUTE_LISTS_H

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "services/journal/list.h"

namespace mlib {

template <ipv4mc_route_entry_st *ipv4mc_route_entry_st::*Next,
          ipv4mc_route_entry_st *ipv4mc_route_entry_st::*Prev>
using route_links = mfwd6::journal::member_links<ipv4mc_route_entry_st, Next, Prev>;

using mdt_candidate_links =
    route_links<&ipv4mc_route_entry_st::mdt_cand_next, &ipv4mc_route_entry_st::mdt_cand_prev>;
using mt_update_links =
    route_links<&ipv4mc_route_entry_st::mt_upd_next, &ipv4mc_route_entry_st::mt_upd_prev>;
using amt_update_links =
    route_links<&ipv4mc_route_entry_st::amt_upd_next, &ipv4mc_route_entry_st::amt_upd_prev>;
using mofrr_update_links =
    route_links<&ipv4mc_route_entry_st::mofrr_upd_next, &ipv4mc_route_entry_st::mofrr_upd_prev>;
using encap_route_links =
    route_links<&ipv4mc_route_entry_st::next_encap, &ipv4mc_route_entry_st::prev_encap>;

using changed_route_links =
    route_links<&ipv4mc_route_entry_st::change_next, &ipv4mc_route_entry_st::change_prev>;
using changed_routes = mfwd6::journal::list<changed_route_links>;

// Of an interface entry: encap outputs of its route, or interfaces of its transport.
using intf_links =
    mfwd6::journal::member_links<ipv4mc_intf_entry_st, &ipv4mc_intf_entry_st::list_next,
                                 &ipv4mc_intf_entry_st::list_prev>;

// The memd list of `vrf_table[Index]`.
template <size_t Index>
using memd_links = mfwd6::journal::indexed_links<ipv4mc_route_entry_st, IPV4MC_VRF_LINKS,
                                                 &ipv4mc_route_entry_st::memd_next,
                                                 &ipv4mc_route_entry_st::memd_prev, Index>;

// Works from the links in the record, so that a removal that was begun before a restart may be
// begun again: a record that is on no list is left alone, and the head moves only when it names the
// record. False when the record had no neighbour and was not the head.
template <class Links>
bool leave_list(typename Links::record *&head, typename Links::record *record) {
    using mfwd6::journal::publish;
    using mfwd6::journal::store;
    typename Links::record *before = Links::prev(record);
    typename Links::record *after = Links::next(record);
    if (head != record && before == nullptr && after == nullptr) {
        return false;
    }
    const mfwd6::journal::group change;
    if (head == record) {
        publish(head, after);
    }
    if (before != nullptr) {
        publish(Links::next(before), after);
    }
    if (after != nullptr) {
        store(Links::prev(after), before);
    }
    store(Links::prev(record), nullptr);
    publish(Links::next(record), nullptr);
    return true;
}

// The same for a global list of routes.
template <class Links>
bool leave_global_list(ipmc_route_lists which, ipv4mc_route_entry_st *route) {
    return leave_list<Links>(ipv4mc_desc->shmwin_info->route_list_heads[which], route);
}

// The same for the memd list of a table, which may be null: then the neighbours close up.
template <size_t Index>
bool leave_memd_list(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    ipv4mc_route_entry_st *no_head = nullptr;
    return leave_list<memd_links<Index>>(table != nullptr ? table->memd_route_list : no_head,
                                         route);
}

// True while the route stands on the list of `vrf_table[index]`, as far as its links tell.
inline bool has_memd_links(const ipv4mc_route_entry_st *route, uint32_t index) {
    return route->memd_next[index] != nullptr || route->memd_prev[index] != nullptr;
}

}  // namespace mlib

#endif
