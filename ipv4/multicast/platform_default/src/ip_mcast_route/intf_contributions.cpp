// What one interface contributes to its route, and how it is taken back.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/assertion.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_lists.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_room.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/diag/messages.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;

void follow_encap_egress(const ipv4mc_route_entry_st *route, mlib::end_of_route how) {
    ipv4mc_encap_entry_st *encap = route->encap;
    if (encap == nullptr) {
        return;
    }
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "%s,%s/%d: Dec local EG cnt (%d) on EID 0x%x", ROUTE_ARGS(route),
               static_cast<int>(encap->intf_local_EG_cnt), encap->encap_id);
    if (encap->intf_local_EG_cnt != 0 || (encap->ip_lkp_ctl & IPV4MC_ENCAP_LKP_STAYS) != 0) {
        return;
    }
    mlib::switch_ip_lookup(encap, 0);
    if (how == mlib::end_of_route::deleted) {
        ip6mc_encap_platform_commit(encap);
    }
}

// The list is drained elsewhere: a next hop that has had interfaces meanwhile may still stand on
// it, and must not be put there twice.
bool is_idle(const ipv4mc_shmwin_hdr_st *hdr, const ipv4mc_regdb_entry_st *regdb) {
    for (const ipv4mc_regdb_entry_st *idle = hdr->idle_regdb_head; idle != nullptr;
         idle = idle->next_idle_regdb) {
        if (idle == regdb) {
            return true;
        }
    }
    return false;
}

void leave_transport_list(ipv4mc_intf_entry_st *entry) {
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    ipv4mc_regdb_entry_st *regdb = entry->regdb_entry;
    const bool was_on = mlib::leave_list<mlib::intf_links>(regdb->intf_head, entry);
    if (was_on && regdb->intf_head == nullptr && !is_idle(hdr, regdb)) {
        store(regdb->next_idle_regdb, hdr->idle_regdb_head);
        publish(hdr->idle_regdb_head, regdb);
    }
}

}  // namespace

void mlib::lower_local_egress(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    const group change;
    store(route->intf_local_EG_cnt, static_cast<uint16_t>(route->intf_local_EG_cnt - 1));
    uint32_t &of_table = table->route_counters.local_eg_cnt;
    store(of_table, of_table - 1);
    if (route->encap != nullptr) {
        store(route->encap->intf_local_EG_cnt, route->encap->intf_local_EG_cnt - 1);
    }
}

void mlib::follow_local_egress(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                               end_of_route how) {
    const uint32_t left = table->route_counters.local_eg_cnt;
    if (how == end_of_route::deleted) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "%s,%s/%d : Dec local EG cnt (%d) on Table 0x%x",
                   ROUTE_ARGS(route), static_cast<int>(left), table->tid);
    }
    if (left == 0) {
        ip6mc_tbl_update_memd_routes(table, 0);
    }
    follow_encap_egress(route, how);
}

bool mlib::leave_mdt_candidates(ipv4mc_route_entry_st *route) {
    if (!leave_global_list<mdt_candidate_links>(IPMC_ROUTE_LIST_MDT_CAND, route)) {
        return false;
    }
    if (route->mdt_candidate == 0) {
        MLIB_ERR("0x%x(%s,%s) : Removing from cand list but boolean false !!",
                 tid_or(route->table, no_table), source_text(&route->source),
                 address_text(&route->group));
    }
    return true;
}

void mlib::drop_transport(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    MLIB_ASSERT(entry->regdb_entry != nullptr, "regdb_entry");
    const group change;
    leave_transport_list(entry);
    if (route->amt_intf_cnt == 0) {
        return;
    }
    store(route->amt_intf_cnt, route->amt_intf_cnt - 1);
    if (route->amt_intf_cnt == 0 &&
        leave_global_list<amt_update_links>(IPMC_ROUTE_LIST_AMT_UPD, route)) {
        MLIB_DEBUG(IPV4_DEBUG_DEV, "0x%x [0x%x]: Removed (%s,%s/%d)  a:0x%lx from AMT upd list",
                   tid_or(route->table, 0), route->vrf_table_id[IPV4MC_VRF_LOCAL],
                   ROUTE_ARGS(route), route->attributes);
    }
}

void mlib::drop_mdt_reference(ipv4mc_table_st *table, mrib_attrib_entry_type attributes,
                              ifhtype ifh, mrib_attrib_entry_type bit, uint32_t kind,
                              uint32_t debug_class) {
    if ((attributes & bit) == 0) {
        return;
    }
    MLIB_DEBUG(debug_class, "0x%x: MDT reference of kind %d on 0x%x goes", tid_or(table, 0),
               static_cast<int>(kind), ifh);
    ip6mc_idb_mdt_unlock(table, ifh, kind);
}

void mlib::unbind_gre_transport(ipv4mc_route_entry_st *route, end_of_route how) {
    if (route->regdb_entry == nullptr) {
        return;
    }
    // A core tree is known by the last 32 bits of the route's addresses.
    ipv4mc_regdb_key_st key{};
    key.type = REGDB_TYPE_GRE;
    key.u.core.group = {MDT_ADDR_CORE_IPV4, route->group.words[3], 0};
    key.u.core.source = {MDT_ADDR_CORE_IPV4, route->source.words[3], 0};
    ipv4mc_regdb_core_info_st nobody{};
    nobody.type = IPV4MC_CORE_INFO_GRE;
    const cerrno rc =
        ip6mc_regdb_operation(IPV4MC_ACTION_COMMIT, &key, 0, &nobody, &route->regdb_entry);
    if (rc == 0) {
        return;
    }
    if (how == end_of_route::deleted) {
        MLIB_ERR("Route-Delete: Regdb-Unlink COMMIT failed (%s) for GRE: (%s, %s)",
                 cerr_strerror(rc), source_text(&route->source), address_text(&route->group));
    } else {
        MLIB_ERR("Route-Clear: Regdb-Unlink COMMIT failed (%s) for GRE: (%s, %s)",
                 cerr_strerror(rc), source_text(&route->source), address_text(&route->group));
    }
}

void mlib::tell_problem(const char *function, int line, const char *text) {
    orv_errmsg(orv_msg_rec_ipv4_mlib_state_err_getfn(), 3, text, "!problem!");
    report_error(function, line, "%s", text);
}
