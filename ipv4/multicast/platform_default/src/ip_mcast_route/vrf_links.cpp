// Core routes and the customer VRFs that they feed: the links, and the DT flag that tells a core
// route to decapsulate into a VRF with local receivers.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_lists.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_room.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/journal/journal.h"
#include "services/journal/list.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;

using local_memd_list = mfwd6::journal::list<mlib::memd_links<IPV4MC_VRF_LOCAL>>;

const char *link_name(uint32_t index) {
    return index == IPV4MC_VRF_LOCAL ? "LOCAL" : "REMOTE";
}

const char *flag_text(uint64_t attributes, uint64_t bit) {
    return (attributes & bit) != 0 ? "set" : "unset";
}

void set_bit(ipv4mc_route_entry_st *route, uint64_t bit) {
    publish(route->attributes, route->attributes | bit);
}

void clear_bit(ipv4mc_route_entry_st *route, uint64_t bit) {
    publish(route->attributes, route->attributes & ~bit);
}

cerrno link_remote(ipv4mc_route_entry_st *route, uint32_t table_id, const char *text) {
    const uint64_t old = route->attributes;
    {
        const group change;
        store(route->vrf_table_id[IPV4MC_VRF_REMOTE], table_id);
        set_bit(route, MRIB_ROUTE_DT_REMOTE);
    }
    MLIB_DEBUG(IPV4_DEBUG_ROUTE,
               "Saved VRF REMOTE table (0x%x) link on core route %s(DT set now, prev %s)", table_id,
               text, flag_text(old, MRIB_ROUTE_DT_REMOTE));
    return 0;
}

// Finds or makes the table of a customer. Its table-id side keeps the list and the counts.
cerrno make_customer_table(uint32_t table_id, const char *text, ipv4mc_table_st **table) {
    const cerrno rc = ip6mc_table_operation(IPV4MC_ACTION_CREATE, table_id, 0, nullptr, table, 0);
    if (*table != nullptr && (*table)->table_type == IPV4MC_TABLE_VRF) {
        *table = (*table)->tid_table;
    }
    if ((rc == 0 || rc == EEXIST) && *table != nullptr) {
        return 0;
    }
    MLIB_DEBUG(IPV4_DEBUG_WRN, "Failed to save VRF table (0x%x) link on core route %s : %s",
               table_id, text, rc == 0 || rc == EEXIST ? "no vrf table" : cerr_strerror(rc));
    return ENOENT;
}

// The route has a LOCAL table already: success when it stands on the list of this very table.
cerrno look_at_earlier_link(ipv4mc_route_entry_st *route, ipv4mc_table_st *table) {
    const ipv4mc_table_st *earlier = route->vrf_table[IPV4MC_VRF_LOCAL];
    MLIB_ERR("LOCAL TID route %s,%s already has dep table 0x%x. new 0x%x",
             mlib::source_text(&route->source), mlib::address_text(&route->group), earlier->tid,
             table->tid);
    const bool same = earlier == table;
    if (same && local_memd_list(table->memd_route_list).contains(route)) {
        return 0;
    }
    MLIB_ERR("LOCAL TID (%s,%s) %s", mlib::source_text(&route->source),
             mlib::address_text(&route->group), same ? "Not in memd list" : "Different dep TIDs");
    return ENOENT;
}

bool wants_local_traffic(const ipv4mc_table_st *table, const ipv4mc_route_entry_st *route) {
    if (table->route_counters.local_eg_cnt != 0 || table->route_counters.t_cnt != 0) {
        return true;
    }
    return table->mdt_master_lc != 0 && (route->attributes & MRIB_ROUTE_TID_DEMAND) == 0;
}

cerrno link_local(ipv4mc_route_entry_st *route, uint32_t table_id, const char *text) {
    store(route->vrf_table_id[IPV4MC_VRF_LOCAL], table_id);
    ipv4mc_table_st *table = nullptr;
    if (make_customer_table(table_id, text, &table) != 0) {
        return ENOENT;
    }
    if (route->vrf_table[IPV4MC_VRF_LOCAL] != nullptr) {
        return look_at_earlier_link(route, table);
    }
    const uint64_t old = route->attributes;
    const bool wanted = wants_local_traffic(table, route);
    {
        const group change;
        store(route->vrf_table[IPV4MC_VRF_LOCAL], table);
        local_memd_list(table->memd_route_list).push_front(route);
        publish(route->attributes, wanted ? old | MRIB_ROUTE_DT : old & ~MRIB_ROUTE_DT);
    }
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Added (%s,%s/%d) a:0x%lx to memd list of LOCAL table 0x%x [%d]",
               ROUTE_ARGS(route), old, table->tid, static_cast<int>(IPV4MC_VRF_LOCAL));
    MLIB_DEBUG(IPV4_DEBUG_ROUTE,
               "Saved VRF LOCAL table (0x%x) link on core route %s(DT %s now, prev %s)", table_id,
               text, flag_text(route->attributes, MRIB_ROUTE_DT), flag_text(old, MRIB_ROUTE_DT));
    if (!wanted) {
        return 0;
    }
    // Finds the flag set and programs nothing: the platform hears of it with the commit of the
    // route, whose caller is making this link.
    ipmc_route_update_DT_flag(table, route, 1, 1);
    return 0;
}

bool leave_memd(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, uint32_t index) {
    return index == IPV4MC_VRF_LOCAL ? mlib::leave_memd_list<IPV4MC_VRF_LOCAL>(table, route)
                                     : mlib::leave_memd_list<IPV4MC_VRF_REMOTE>(table, route);
}

bool keeps_flag(const ipv4mc_table_st *table, const ipv4mc_route_entry_st *route, bool set) {
    const uint64_t attributes = route->attributes;
    const bool is_set = (attributes & MRIB_ROUTE_DT) != 0;
    const bool is_master = table->mdt_master_lc != 0;
    if (is_set == set) {
        return true;
    }
    if (set) {
        return (attributes & MRIB_ROUTE_TID_DEMAND) != 0 && is_master &&
               table->route_counters.local_eg_cnt == 0;
    }
    return (attributes & MRIB_ROUTE_TID_STICKY) != 0 && is_master;
}

}  // namespace

extern "C" {

cerrno ip6mc_route_link_route_to_vrf(ipv4mc_route_entry_st *route, uint32_t index,
                                     uint32_t table_id, const char *text) {
    if (mlib::has_memd_links(route, index)) {
        MLIB_ERR(
            "%s TID route (%s,%s/%d) a:0x%lx already present in memd list of 0x%x (0x%x) p:%c "
            "n:%c!!!",
            link_name(index), ROUTE_ARGS(route), route->attributes,
            mlib::tid_or(route->vrf_table[index], 0), route->vrf_table_id[index],
            mlib::yes_no(route->memd_prev[index] != nullptr),
            mlib::yes_no(route->memd_next[index] != nullptr));
        return 0;
    }
    return index == IPV4MC_VRF_REMOTE ? link_remote(route, table_id, text)
                                      : link_local(route, table_id, text);
}

void ip6mc_route_unlink_route_from_vrf(ipv4mc_route_entry_st *route, uint32_t index,
                                       const char *text) {
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Cleared %s VRF table (0x%x) link on core route %s",
               link_name(index), route->vrf_table_id[index], text);
    ipv4mc_table_st *table = route->vrf_table[index];
    const group change;
    store(route->vrf_table[index], nullptr);
    store(route->vrf_table_id[index], 0U);
    if (table != nullptr) {
        leave_memd(table, route, index);
        MLIB_DEBUG(IPV4_DEBUG_ROUTE,
                   "Removed (%s,%s/%d) a:0x%lx from memd list of vtable: 0x%x [%d] memd %c",
                   ROUTE_ARGS(route), route->attributes, table->tid, static_cast<int>(index),
                   mlib::yes_no(table->memd_route_list != nullptr));
    }
    clear_bit(route, index == IPV4MC_VRF_LOCAL ? MRIB_ROUTE_DT : MRIB_ROUTE_DT_REMOTE);
}

cerrno ip6mc_tbl_update_memd_routes(ipv4mc_table_st *table, int set) {
    if (table->tid == ipv4mc_desc->default_tid) {
        return 0;
    }
    const bool in_use = table->route_counters.local_eg_cnt != 0 || table->route_counters.t_cnt != 0;
    if (set == 0 && in_use) {
        return 0;
    }
    ipv4mc_route_entry_st *next = nullptr;
    for (ipv4mc_route_entry_st *route = table->memd_route_list; route != nullptr; route = next) {
        next = route->memd_next[IPV4MC_VRF_LOCAL];
        ipmc_route_update_DT_flag(table, route, set, 1);
    }
    return 0;
}

cerrno ipmc_route_update_DT_flag(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, int set,
                                 int program) {
    const uint64_t old = route->attributes;
    if (keeps_flag(table, route, set != 0)) {
        return 0;
    }
    if (set != 0) {
        set_bit(route, MRIB_ROUTE_DT);
    } else {
        clear_bit(route, MRIB_ROUTE_DT);
    }
    cerrno rc = 0;
    if (program != 0) {
        int is_new = 0;
        rc = ip6mc_route_operation(IPV4MC_ACTION_COMMIT, route->table, &route->source,
                                   &route->group, route->pfx_len, &route->aux_addr, &route, old,
                                   route->mofrr_attrib, &is_new);
    }
    if (rc == 0) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE,
                   "%s DT flag on 0x%x:(%s,%s) new flag:0x%lx for cust table 0x%x",
                   set != 0 ? "Set" : "UNset", mlib::tid_or(route->table, 0),
                   mlib::source_text(&route->source), mlib::address_text(&route->group),
                   route->attributes, table->tid);
        return 0;
    }
    // In both directions: a set that failed is taken back, a clear that failed stays cleared.
    clear_bit(route, MRIB_ROUTE_DT);
    MLIB_DEBUG(IPV4_DEBUG_WRN,
               "Failed to %s DT flag on 0x%x:(%s,%s) flag: 0x%lxfor cust table 0x%x : %s",
               set != 0 ? "set" : "unset", mlib::tid_or(route->table, 0),
               mlib::source_text(&route->source), mlib::address_text(&route->group),
               route->attributes, table->tid, cerr_strerror(rc));
    return 0;
}

}  // extern "C"
