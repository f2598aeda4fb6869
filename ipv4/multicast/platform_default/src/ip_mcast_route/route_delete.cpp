// DELETE of a route: every link of the record is undone in a fixed order, and the leaf goes back to
// the trie.
//
// Up to the deletion of the leaf the route is still found: a process that takes over in between
// deletes it again, and the links that it finds cleared are passed over. From there on to the end
// is one change: whoever dies in it leaves the route in the trie, to be deleted again.
#include <cerrno>
#include <cstdio>

#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_lists.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_room.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/diag/text.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;
using mlib::has_memd_links;
using mlib::tid_or;
using mlib::yes_no;

cerrno not_found(const route_request &request) {
    MLIB_DEBUG(IPV4_DEBUG_WRN, "Delete (%s) Failed: (%s,%s/%d) Not Found",
               mlib::vrf_text(request.table), REQUEST_KEY);
    return ENOENT;
}

cerrno find(const route_request &request, ipv4mc_route_entry_st **route) {
    if (request.route_entry != nullptr && *request.route_entry != nullptr) {
        *route = *request.route_entry;
        return 0;
    }
    cerrno error = 0;
    *route = mlib::find_exact(request, &error);
    if (error != 0) {
        MLIB_ERR("Cannot search in ingress table for (%s,%s/%d) action %d %s Error: %s ",
                 REQUEST_KEY, REQUEST_ACTION, cerr_strerror(error));
        return error;
    }
    return *route != nullptr ? 0 : not_found(request);
}

cerrno turn_children_away(const route_request &request, ipv4mc_route_entry_st *route) {
    if ((request.old_attributes & MRIB_ROUTE_IF) == 0 || (route->attributes & MRIB_ROUTE_IF) != 0) {
        return 0;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d) IF unset action %s ", __LINE__, REQUEST_KEY,
               mlib::action_text(request.action));
    const cerrno rc = ipv4mc_process_setclear_IF_flag(request.table, route, 0);
    if (rc != 0) {
        MLIB_ERR("Failed to clear IF flag for (%s,%s/%d) action %d %s Error %d %s", REQUEST_KEY,
                 REQUEST_ACTION, static_cast<int>(rc), cerr_strerror(rc));
    }
    return rc;
}

// The flag and the attribute bits that go with these lists stay: the record goes with them.
void leave_global_lists(ipv4mc_route_entry_st *route) {
    const uint32_t tid = tid_or(route->table, mlib::no_table);
    const uint32_t vrf_tid = route->vrf_table_id[IPV4MC_VRF_LOCAL];
    if (mlib::leave_mdt_candidates(route)) {
        MLIB_DEBUG(IPV4_DEBUG_DEV,
                   "0x%x [0x%x]: Removed (%s,%s/%d) a:0x%lx from mdt candidate list", tid, vrf_tid,
                   ROUTE_ARGS(route), route->attributes);
    }
    if (mlib::leave_global_list<mlib::mt_update_links>(IPMC_ROUTE_LIST_MT_UPD, route)) {
        MLIB_DEBUG(IPV4_DEBUG_DEV, "0x%x [0x%x]: Removed (%s,%s/%d) a:0x%lx from MT upd list", tid,
                   vrf_tid, ROUTE_ARGS(route), route->attributes);
    }
    if (mlib::leave_global_list<mlib::mofrr_update_links>(IPMC_ROUTE_LIST_MOFRR_UPD, route)) {
        MLIB_DEBUG(IPV4_DEBUG_DEV, "0x%x [0x%x]: Removed (%s,%s/%d) a:0x%lx from MoFRR upd list",
                   tid, vrf_tid, ROUTE_ARGS(route), route->attributes);
    }
}

void give_back_mdt_handle(const route_request &request, ipv4mc_route_entry_st *route,
                          ipv4mc_table_st *local) {
    if ((route->attributes & MRIB_ROUTE_MH) == 0 || route->mdt_ifh == 0) {
        return;
    }
    const ifhtype handle = route->mdt_ifh;
    {
        // The reference and the record's word of it: a delete that is repeated gives none back.
        const group change;
        ip6mc_idb_mdt_unlock(local, handle, IPV4MC_MDT_FLAG_MH);
        store(route->mdt_ifh, 0U);
    }
    MLIB_DEBUG(IPV4_DEBUG_DEV, "[0x%x] UnSet MDT handle on route %s,%s/%d MH : r:0x%x, t:0x%x,0x%x",
               request.table->tid, ROUTE_ARGS(route), handle, tid_or(local, 0),
               local != nullptr ? local->mdt_handles[IPV4MC_MDT_GRE] : 0);
}

// The route forgets the table with the list: it stays when the platform keeps one of its
// interfaces, and the table, which knows its routes by the list only, may go meanwhile.
template <size_t Index>
bool leave_vrf(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    const group change;
    const bool was_on_list = mlib::leave_memd_list<Index>(table, route);
    store(route->vrf_table[Index], static_cast<ipv4mc_table_st *>(nullptr));
    return was_on_list;
}

void leave_memd_lists(const route_request &request, ipv4mc_route_entry_st *route,
                      ipv4mc_table_st *local, ipv4mc_table_st *remote) {
    if (((request.old_attributes | route->attributes) & mlib::vrf_link_bits) == 0) {
        return;
    }
    if (leave_vrf<IPV4MC_VRF_REMOTE>(remote, route)) {
        MLIB_DEBUG(IPV4_DEBUG_DEV,
                   "[0x%x] Removed (%s,%s/%d) a:0x%lx from memd list of table 0x%x [%d]",
                   request.table->tid, ROUTE_ARGS(route), route->attributes, tid_or(remote, 0),
                   static_cast<int>(IPV4MC_VRF_REMOTE));
    }
    if (leave_vrf<IPV4MC_VRF_LOCAL>(local, route)) {
        MLIB_DEBUG(IPV4_DEBUG_DEV, "[0x%x] Removed (%s,%s/%d) a:0x%lx from memdlist of table 0x%x",
                   request.table->tid, ROUTE_ARGS(route), route->attributes, tid_or(local, 0));
    }
}

// Only routes of the default table are core routes. One with a reference in another table keeps it.
void leave_core(const route_request &request, ipv4mc_route_entry_st *route) {
    if (request.table->tid != ipv4mc_desc->default_tid) {
        return;
    }
    ipv4mc_table_st *local = route->vrf_table[IPV4MC_VRF_LOCAL];
    ipv4mc_table_st *remote = route->vrf_table[IPV4MC_VRF_REMOTE];
    give_back_mdt_handle(request, route, local);
    leave_memd_lists(request, route, local, remote);
}

void tell_list_state(const ipv4mc_route_entry_st *route) {
    MLIB_DEBUG(IPV4_DEBUG_DEV,
               "0x%x [0x%x] - 0x%x, attr 0x%lx, p:%c n:%c d:%c h:%c, rp:%c rn:%c rd:%cr h:%c",
               LIST_STATE_ARGS(route));
}

void drop_mdt_references(ipv4mc_table_st *table, uint64_t attributes, ifhtype ifh) {
    struct holder {
        uint64_t bit;
        uint32_t kind;
    };
    static constexpr holder in_order[] = {{MRIB_INTF_MI, IPV4MC_MDT_FLAG_MI},
                                          {MRIB_INTF_LMI, IPV4MC_MDT_FLAG_LMI},
                                          {MRIB_INTF_IRMI, IPV4MC_MDT_FLAG_IRMI},
                                          {MRIB_INTF_TMI, IPV4MC_MDT_FLAG_TMI},
                                          {MRIB_INTF_TRMI, IPV4MC_MDT_FLAG_TRMI}};
    for (const holder &each : in_order) {
        mlib::drop_mdt_reference(table, attributes, ifh, each.bit, each.kind, IPV4_DEBUG_DEV);
    }
}

// Ends one interface; `*next` is the one behind it. A failure leaves this one.
cerrno end_intf(const route_request &request, ipv4mc_route_entry_st *route,
                ipv4mc_intf_entry_st *entry, ipv4mc_intf_entry_st **next) {
    const uint64_t attributes = entry->attributes;
    const ifhtype ifh = entry->ifh;
    drop_mdt_references(request.table, attributes, ifh);
    if ((attributes & MRIB_INTF_REGDB) != 0) {
        mlib::drop_transport(route, entry);
    }
    if ((attributes & MRIB_INTF_BVI) != 0) {
        const cerrno rc = ip6mc_bvi_delete_bvi_interface(route, entry);
        if (rc != 0) {
            MLIB_ERR("Failed to delete BVI IF ifh[0x%x] from (%s,%s/%d) action %d %s Error %d %s",
                     ifh, REQUEST_KEY, REQUEST_ACTION, static_cast<int>(rc), cerr_strerror(rc));
            return rc;
        }
    }
    ipv4mc_idb_st *idb = nullptr;
    ip6mc_idb_lookup(ifh, &idb);
    *next = entry->next_intf;
    const cerrno rc = ip6mc_intf_operation(IPV4MC_ACTION_DELETE, request.table, route,
                                           entry->intf_type, ifh, entry->amt_addr, entry->amt_port,
                                           entry->intf_arg, &entry, idb, 0, attributes, 0);
    if (rc != 0 && rc != EEXIST) {
        MLIB_ERR("Failed to deleted I/f 0x%x from (%s,%s/%d) action %d %s Error %d %s", ifh,
                 REQUEST_KEY, REQUEST_ACTION, static_cast<int>(rc), cerr_strerror(rc));
        return rc;
    }
    if ((attributes & MRIB_INTF_EG) != 0) {
        mlib::lower_local_egress(request.table, route);
    }
    return 0;
}

// The interface goes in one change with all that it counted for. What others hear of it comes
// behind: the core routes of a table are too many for one change.
cerrno remove_intf(const route_request &request, ipv4mc_route_entry_st *route,
                   ipv4mc_intf_entry_st *entry, ipv4mc_intf_entry_st **next) {
    const bool was_local_egress = (entry->attributes & MRIB_INTF_EG) != 0;
    cerrno rc = 0;
    {
        const group change;
        rc = end_intf(request, route, entry, next);
    }
    if (rc == 0 && was_local_egress) {
        mlib::follow_local_egress(request.table, route, mlib::end_of_route::deleted);
    }
    return rc;
}

cerrno remove_intfs(const route_request &request, ipv4mc_route_entry_st *route) {
    ipv4mc_intf_entry_st *next = nullptr;
    for (ipv4mc_intf_entry_st *entry = route->intf_list; entry != nullptr; entry = next) {
        const cerrno rc = remove_intf(request, route, entry, &next);
        if (rc != 0) {
            return rc;
        }
    }
    return 0;
}

void tell_memd(const route_request &request, const ipv4mc_route_entry_st *route) {
    const ipv4mc_table_st *local = route->vrf_table[IPV4MC_VRF_LOCAL];
    const ipv4mc_table_st *remote = route->vrf_table[IPV4MC_VRF_REMOTE];
    char text[mlib::problem_text_size];
    snprintf(text, sizeof(text),
             "Action 0x%x (%s,%s/%d) a:0x%lx in memd of [local: 0x%x (p:%c,n:%c)] [remote: 0x%x "
             "(p:%c,n:%c)] 0x%x/0x%x!!!",
             request.action, ROUTE_ARGS(route), route->attributes, tid_or(local, 0),
             yes_no(route->memd_prev[IPV4MC_VRF_LOCAL] != nullptr),
             yes_no(route->memd_next[IPV4MC_VRF_LOCAL] != nullptr), tid_or(remote, 0),
             yes_no(route->memd_prev[IPV4MC_VRF_REMOTE] != nullptr),
             yes_no(route->memd_next[IPV4MC_VRF_REMOTE] != nullptr),
             route->vrf_table_id[IPV4MC_VRF_LOCAL], route->vrf_table_id[IPV4MC_VRF_REMOTE]);
    mlib::tell_problem(__func__, __LINE__, text);
}

// A broken invariant, and no reason to stop. The route is about to go, so the lists let it go too;
// one that stands there alone has no links that would tell.
void check_memd(const route_request &request, ipv4mc_route_entry_st *route) {
    if (has_memd_links(route, IPV4MC_VRF_LOCAL) || has_memd_links(route, IPV4MC_VRF_REMOTE)) {
        tell_memd(request, route);
    }
    leave_vrf<IPV4MC_VRF_REMOTE>(route->vrf_table[IPV4MC_VRF_REMOTE], route);
    leave_vrf<IPV4MC_VRF_LOCAL>(route->vrf_table[IPV4MC_VRF_LOCAL], route);
}

// Before the platform on purpose: from here on the route is not found any more.
cerrno hide(const route_request &request, ipv4mc_route_entry_st *route) {
    cerrno error = 0;
    ip6mc_gtrie_platform_leaf_delete(request.table->ingress_gtrie, route, &error);
    if (error == 0) {
        return 0;
    }
    MLIB_ERR("Failed to delete ingress route for (%s,%s/%d) action %d %s: %s (possible corruption)",
             REQUEST_KEY, REQUEST_ACTION, cerr_strerror(error));
    return mlib::stop_for_corruption();
}

void tell_platform(const route_request &request, ipv4mc_route_entry_st *route) {
    ipv4mc_route_entry_st *local = route;
    const cerrno rc = ip6mc_platform_route_operation_wrapper(
        IPV4MC_ACTION_DELETE, request.table, request.source, request.group, request.pfx_len, &local,
        request.old_attributes, request.mofrr_attrib, *request.is_new);
    if (rc != 0) {
        MLIB_ERR("Failed to delete ingress route for (%s,%s/%d) action %d %s Error: %s",
                 REQUEST_KEY, REQUEST_ACTION, cerr_strerror(rc));
    }
    ipv4_mlib_buginf_route_action_("Route ", request.action, route, request.old_attributes);
}

void leave_extranet(const route_request &request, const ipv4mc_route_entry_st *route) {
    const uint32_t tid = route->extranet_table_id;
    if (tid == 0 || tid == request.table->tid) {
        return;
    }
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
    if (table == nullptr) {
        return;
    }
    const uint32_t before = table->child_route_count;
    store(table->child_route_count, before - 1);
    if (before != 1) {
        return;
    }
    if (table->vtable != nullptr) {
        ip6mc_svd_update_tbl_location(table->vtable, 0);
    } else {
        MLIB_ERR(
            "SVD 2: Table 0x%x extranet count went to zero. Unable to check SVD state since main "
            "table ptr is NULL",
            tid);
    }
}

void free_rate(const route_request &request, ipv4mc_route_entry_st *route) {
    if (route->rate == nullptr) {
        return;
    }
    ipv4mc_route_rate_st *rate = route->rate;
    const group change;
    publish(route->rate, nullptr);
    store(route->rate_per_route, uint8_t{0});
    ipv4mc_shmwin_free_inline(rate, IPMC_SHMWIN_ALLOC_ROUTE);
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "DELETE Freed mem for rate struct for (%s,%s/%d)", REQUEST_KEY);
}

void free_leaf(const route_request &request, ipv4mc_route_entry_st *route) {
    ipv4mc_table_st *table = request.table;
    const group change;
    ip6mc_gtrie_platform_leaf_free(table->ingress_gtrie, route);
    store(table->rate_route_count, table->rate_route_count - 1);
}

cerrno take_apart(const route_request &request, ipv4mc_route_entry_st *route) {
    mlib::unbind_gre_transport(route, mlib::end_of_route::deleted);
    leave_global_lists(route);
    leave_core(request, route);
    tell_list_state(route);
    const cerrno rc = remove_intfs(request, route);
    if (rc != 0) {
        return rc;
    }
    if (route->encap != nullptr) {
        ipmc_unlink_route_from_encap(route, route->encap);
    }
    check_memd(request, route);
    ipmc_forget_IF_parent(request.table, route);
    return 0;
}

cerrno end(const route_request &request, ipv4mc_route_entry_st *route) {
    const group change;
    const cerrno rc = hide(request, route);
    if (rc != 0) {
        return rc;
    }
    tell_platform(request, route);
    leave_extranet(request, route);
    free_rate(request, route);
    mlib::free_route_object_id(request, route);
    ipmc_platform_err_handler_clear_route_err(route);
    mfwd_route_event_history_destroy(route->event_history);
    free_leaf(request, route);
    return 0;
}

}  // namespace

void mlib::free_route_object_id(const route_request &request, ipv4mc_route_entry_st *route) {
    MLIB_DEBUG_OBJECT_ID(route->obj_id, "Freeing for Route (%s,%s/%d, v:%s)", REQUEST_KEY,
                         vrf_text(request.table));
    // A route without an id has none to lose: where there are no ids, or after a CLEAR.
    const bool has_id = route->obj_id < IPMC_OBJ_ID_NONE;
    if (ipmc_object_ida_free(&route->obj_id) != 0 && has_id) {
        MLIB_ERR("Failed to free Object_ID for Route (%s,%s/%d, v:%s)", REQUEST_KEY,
                 vrf_text(request.table));
    }
}

cerrno ipv4mc_route_delete(const route_request &request) {
    if (*request.is_new != 0) {
        return not_found(request);  // a leaf that was never published is not deleted this way
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "Deleting route for (%s,%s/%d) ", REQUEST_KEY);
    ipv4mc_route_entry_st *route = nullptr;
    cerrno rc = find(request, &route);
    if (rc == 0) {
        rc = turn_children_away(request, route);
    }
    if (rc == 0) {
        rc = take_apart(request, route);
    }
    return rc == 0 ? end(request, route) : rc;
}
