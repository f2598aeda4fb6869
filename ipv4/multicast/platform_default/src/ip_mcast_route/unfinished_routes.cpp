// Routes that a killed process had made and not committed. Nobody but that process knew of them,
// and their interfaces are held by them: the next owner ends them at its start.
#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_lists.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_room.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/in_hand.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"
#include "services/trees/avl.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

void leave_interface(ipv4mc_intf_entry_st *entry) {
    if (entry->on_idb_list == 0) {
        return;
    }
    ipv4mc_idb_st *idb = mlib::find_idb_record(entry->ifh);
    if (idb == nullptr) {
        return;
    }
    mlib::idb_routes(idb->route_list).remove_and_clear(entry);
    store(entry->on_idb_list, uint8_t{0});
    store(idb->route_count, idb->route_count - 1);
    store(idb->refcount, idb->refcount - 1);
    if (mlib::is_unheld(idb)) {
        mlib::end_idb_record(idb);
    }
}

// One change for each interface: a route may have more of them than one change can note.
void end_interface(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    const group change;
    ip6mc_route_encap_ole_unlink(entry);
    if ((entry->attributes & MRIB_INTF_REGDB) != 0 && entry->regdb_entry != nullptr) {
        mlib::drop_transport(route, entry);
    }
    leave_interface(entry);
    ipv4mc_intf_route_delete(route, entry);
}

void leave_encap(ipv4mc_route_entry_st *route) {
    ipv4mc_encap_entry_st *encap = route->encap;
    if (encap == nullptr) {
        return;
    }
    mlib::leave_list<mlib::encap_route_links>(encap->route_head, route);
    store(route->encap, nullptr);
    store(encap->route_cnt, encap->route_cnt - 1);
    store(encap->intf_local_EG_cnt, encap->intf_local_EG_cnt - route->intf_local_EG_cnt);
}

// The table's count would keep the flag of its core routes set for ever.
void leave_local_egress(ipv4mc_table_st *table, const ipv4mc_route_entry_st *route) {
    uint32_t &count = table->route_counters.local_eg_cnt;
    store(count, count - route->intf_local_EG_cnt);
}

void leave_lists(ipv4mc_route_entry_st *route) {
    mlib::leave_global_list<mlib::mdt_candidate_links>(IPMC_ROUTE_LIST_MDT_CAND, route);
    mlib::leave_global_list<mlib::mt_update_links>(IPMC_ROUTE_LIST_MT_UPD, route);
    mlib::leave_global_list<mlib::amt_update_links>(IPMC_ROUTE_LIST_AMT_UPD, route);
    mlib::leave_global_list<mlib::mofrr_update_links>(IPMC_ROUTE_LIST_MOFRR_UPD, route);
    mlib::leave_memd_list<IPV4MC_VRF_LOCAL>(route->vrf_table[IPV4MC_VRF_LOCAL], route);
    mlib::leave_memd_list<IPV4MC_VRF_REMOTE>(route->vrf_table[IPV4MC_VRF_REMOTE], route);
    ipmc_platform_err_handler_clear_route_err(route);
}

void end_route(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "0x%x: Ending (%s,%s/%d), made and not committed", table->tid,
               ROUTE_ARGS(route));
    while (route->intf_list != nullptr) {
        end_interface(route, route->intf_list);
    }
    const group change;
    leave_encap(route);
    leave_local_egress(table, route);
    leave_lists(route);
    if (route->obj_id < IPMC_OBJ_ID_NONE) {
        ipmc_object_ida_free(&route->obj_id);
    }
    ip6mc_route_oper_create_fail_cleanup(table, &route, table->ingress_gtrie);
}

}  // namespace

void mlib::end_unfinished_routes(ipv4mc_table_st *table) {
    if (table->ingress_gtrie == nullptr) {
        return;
    }
    while (auto *route = static_cast<ipv4mc_route_entry_st *>(
               ip6mc_gtrie_first_detached(table->ingress_gtrie))) {
        end_route(table, route);
    }
}

void mlib::end_all_unfinished_routes() {
    avl_tree_walk(
        ipv4mc_desc->shmwin_info->table_tid_tree,
        [](void *table, void *) {
            end_unfinished_routes(static_cast<ipv4mc_table_st *>(table));
            return cerrno{0};
        },
        nullptr);
}
