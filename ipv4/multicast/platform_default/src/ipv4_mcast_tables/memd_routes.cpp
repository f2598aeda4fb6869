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

// Takes the head of the list off it, so that what remains is a list at every moment. The route
// forgets the table, which is about to go, and gives up its reference on an MDT interface: the
// handle is returned, 0 if it had none.
ifhtype take_off_head(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, uint32_t link_index) {
    ipv4mc_route_entry_st *next = route->memd_next[link_index];
    const group change;
    publish(table->memd_route_list, next);
    if (next != nullptr) {
        store(next->memd_prev[link_index], nobody);
    }
    store(route->memd_next[link_index], nobody);
    store(route->memd_prev[link_index], nobody);
    if (route->vrf_table[link_index] == table) {
        store(route->vrf_table[link_index], static_cast<ipv4mc_table_st *>(nullptr));
    }
    if ((route->attributes & MRIB_ROUTE_MH) == 0) {
        return 0;
    }
    const ifhtype handle = route->mdt_ifh;
    store(route->attributes, route->attributes & ~MRIB_ROUTE_MH);
    store(route->mdt_ifh, 0U);
    return handle;
}

}  // namespace

void ipmc_table_memd_routes_clear(ipv4mc_table_st *table, uint32_t link_index) {
    while (ipv4mc_route_entry_st *route = table->memd_route_list) {
        MLIB_DEBUG(IPV4_DEBUG_DEV,
                   "MEMD Clear: VRF table 0x%x Core route %s,%s/%d attr 0x%lx  mdt handle 0x%x",
                   table->tid, mlib::source_text(&route->source), mlib::address_text(&route->group),
                   static_cast<int>(route->pfx_len), route->attributes, route->mdt_ifh);
        const bool held = (route->attributes & MRIB_ROUTE_MH) != 0;
        const ifhtype handle = take_off_head(table, route, link_index);
        if (held) {
            ip6mc_idb_mdt_unlock(table, handle, IPV4MC_MDT_FLAG_MH);
        }
    }
}
