// Core routes of a VRF that the MDT logic linked to its table.
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;

ipv4mc_route_entry_st *const nobody = nullptr;

void give_back_mdt_handle(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    if ((route->attributes & MRIB_ROUTE_MH) == 0) {
        return;
    }
    ip6mc_idb_mdt_unlock(table, route->mdt_ifh, IPV4MC_MDT_FLAG_MH);
    store(route->attributes, route->attributes & ~MRIB_ROUTE_MH);
    store(route->mdt_ifh, 0U);
}

}  // namespace

void ipmc_table_memd_routes_clear(ipv4mc_table_st *table, uint32_t link_index) {
    ipv4mc_route_entry_st *next = nullptr;
    for (ipv4mc_route_entry_st *route = table->memd_route_list; route != nullptr; route = next) {
        next = route->memd_next[link_index];
        MLIB_DEBUG(IPV4_DEBUG_DEV,
                   "MEMD Clear: VRF table 0x%x Core route %s,%s/%d attr 0x%lx  mdt handle 0x%x",
                   table->tid, mlib::source_text(&route->source), mlib::address_text(&route->group),
                   static_cast<int>(route->pfx_len), route->attributes, route->mdt_ifh);
        const group change;
        store(route->memd_next[link_index], nobody);
        store(route->memd_prev[link_index], nobody);
        give_back_mdt_handle(table, route);
    }
    publish(table->memd_route_list, nobody);
}
