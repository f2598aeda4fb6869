// Emptying a table of its routes and signals.
#include <sched.h>

#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/assertion.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/packet_mutex_report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"

namespace {

void trace_start(const ipv4mc_table_st *table) {
    const bool is_tid = table->table_type == IPV4MC_TABLE_TID;
    const ipv4mc_table_st *tid_side = is_tid ? table : table->tid_table;
    const ipv4mc_table_st *vrf_side = is_tid ? table->vtable : table;
    MLIB_DEBUG(IPV4_DEBUG_EV, "Rte_del_all: type 0x%x t0x%x/v0x%x/%s", table->table_type,
               tid_side != nullptr ? tid_side->tid : 0, vrf_side != nullptr ? vrf_side->vrf_id : 0,
               vrf_side != nullptr ? vrf_side->vrf_name : "**");
}

// The key is copied: the record that it stands in is what the operation frees.
cerrno delete_route(ipv4mc_table_st *table, const ipv4mc_route_entry_st *route) {
    const ip_maddr_st source = route->source;
    const ip_maddr_st group = route->group;
    const ip_maddr_st aux_addr = route->aux_addr;
    const uint16_t pfx_len = route->pfx_len;
    int is_new = 0;
    const cerrno rc =
        ip6mc_route_operation(IPV4MC_ACTION_DELETE, table, &source, &group, pfx_len, &aux_addr,
                              nullptr, route->attributes, route->mofrr_attrib, &is_new);
    if (rc == 0 || rc == EEXIST) {
        return 0;
    }
    MLIB_ERR("Cannot delete (%s,%s/%d) from 0x%x(%s) : %s",
             ROUTE_KEY_ARGS(&source, &group, pfx_len), TABLE_ARGS(table), cerr_strerror(rc));
    return rc;
}

// The last failure is the result; none stops the walk.
cerrno delete_routes(ipv4mc_table_st *table, uint32_t yield_count, bool keep_srd,
                     uint32_t *srd_count) {
    cerrno result = 0;
    uint32_t deleted = 0;
    ipv4mc_route_entry_st *next = nullptr;
    for (ipv4mc_route_entry_st *route =
             ip6mc_route_first_key(table, &mlib::any_address, &mlib::any_address, 0);
         route != nullptr; route = next) {
        next = ip6mc_route_next(table, route);
        if (yield_count != 0 && deleted >= yield_count) {
            sched_yield();
            deleted = 0;
        }
        if (keep_srd && (route->route_flags & IPV4MC_ROUTE_FLAG_SRD) != 0) {
            ++*srd_count;
            continue;
        }
        const cerrno rc = delete_route(table, route);
        if (rc != 0) {
            result = rc;
        }
        ++deleted;
    }
    return result;
}

}  // namespace

extern "C" cerrno ip6mc_route_delete_all(ipv4mc_table_st *table, uint32_t yield_count, mfwd_cmd cmd,
                                         int keep_srd, uint32_t *srd_count) {
    if (table == nullptr) {
        MLIB_ERR("Null table");
        return EINVAL;
    }
    MLIB_ASSERT(srd_count != nullptr, "srd_count");
    *srd_count = 0;
    trace_start(table);
    ipv4mc_table_st *tid_table = table->table_type == IPV4MC_TABLE_TID ? table : table->tid_table;
    if (tid_table == nullptr || tid_table->signal_gtrie == nullptr ||
        tid_table->ingress_gtrie == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "Postpone deletion of routes");
        return 0;
    }
    const cerrno result = delete_routes(tid_table, yield_count, keep_srd != 0, srd_count);
    mlib::report_packet_mutex_held(__func__, __LINE__);
    const cerrno rc = ip6mc_signal_remove_all_routes(tid_table, yield_count, cmd);
    if (rc != 0) {
        MLIB_ERR("Cannot delete all signal routes from table 0x%x(%s) : %s", TABLE_ARGS(tid_table),
                 cerr_strerror(rc));
        return rc;
    }
    return result;
}
