// The question that a forwarding path asks: which route, and which of its interfaces, apply to a
// packet.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::observe;

#define KEY mlib::source_text(source), mlib::address_text(group)

// The route whose interfaces count: for one that inherits, its parent, which may be null.
ipv4mc_route_entry_st *accepting_route(ipv4mc_route_entry_st *route) {
    return (observe(route->attributes) & MRIB_ROUTE_IA) != 0 ? observe(route->IF_parent) : route;
}

}  // namespace

extern "C" cerrno ip6mc_lookup(ipv4mc_table_st *table, const ip_maddr_st *source,
                               const ip_maddr_st *group, ifhtype ifh,
                               ipv4mc_route_entry_st **route_out, ipv4mc_intf_entry_st **intf_out) {
    MLIB_DEBUG(IPV4_DEBUG_EV, "Just in for (%s,%s) int %s", KEY, mlib::intf_name(ifh));
    if (table == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Null table");
        return EINVAL;
    }
    if (route_out == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Null route_entry");
        return EINVAL;
    }
    ipv4mc_route_entry_st *route = nullptr;
    cerrno rc = ip6mc_route_operation(IPV4MC_ACTION_LOOKUP, table, source, group,
                                      IPV4MC_ROUTE_PFX_LEN_SG, nullptr, &route, 0, 0, nullptr);
    if (rc != 0 && rc != EEXIST) {
        MLIB_ERR("Problems while looking up route for (%s,%s) int %s: %s", KEY,
                 mlib::intf_name(ifh), cerr_strerror(rc));
        return rc;
    }
    *route_out = route;
    if (route == nullptr) {
        if (intf_out != nullptr) {
            *intf_out = nullptr;
        }
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "NOT found (%s,%s) int %s", KEY, mlib::intf_name(ifh));
        return ENOENT;
    }
    if (intf_out == nullptr) {
        return 0;
    }
    // Its line is wanted next, and lies apart from that of the attribute word.
    __builtin_prefetch(&route->intf_tree);
    ipv4mc_route_entry_st *accepting = accepting_route(route);
    if (accepting == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE,
                   "(%s,%s) int %s matched (%s,%s/%d) with IA flag set but parent is Null", KEY,
                   mlib::intf_name(ifh), ROUTE_ARGS(route));
        return 0;
    }
    if (accepting != route) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Parent of (%s,%s) is is (%s,%s/%d)", KEY,
                   ROUTE_ARGS(accepting));
    }
    ipv4mc_intf_entry_st *entry = nullptr;
    rc = ip6mc_intf_operation(IPV4MC_ACTION_LOOKUP, table, accepting, IPV4MC_INTF_ORDINARY, ifh, 0,
                              0, 0, &entry, nullptr, 0, 0, 0);
    if (rc != 0 && rc != EEXIST) {
        MLIB_ERR("Problems while looking up int %s in (%s,%s): %d %s", mlib::intf_name(ifh), KEY,
                 static_cast<int>(rc), cerr_strerror(rc));
        return rc;
    }
    *intf_out = entry;
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Found (%s,%s) int %s matched (%s,%s/%d) int %s", KEY,
               mlib::intf_name(ifh), ROUTE_ARGS(route),
               entry != nullptr ? mlib::intf_name(entry->ifh) : "NULL");
    return 0;
}
