// The parent from which a route with inherit-accept takes its accepting interfaces.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/gtrie/gtrie.h"

namespace {

const char *presence(const void *pointer) {
    return pointer != nullptr ? "OK" : "NULL";
}

}  // namespace

// Starts at the route itself: one with both IA and IF is its own parent.
extern "C" cerrno ip6mc_get_parent_IF_route(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                            ipv4mc_route_entry_st **parent_route,
                                            int keep_old_parent) {
    if (table == nullptr || route == nullptr || parent_route == nullptr) {
        MLIB_ERR("Null pointer table=%s route=%s parent_route=%s", presence(table), presence(route),
                 presence(parent_route));
        return EINVAL;
    }
    *parent_route = nullptr;
    if ((route->attributes & MRIB_ROUTE_IA) == 0) {
        MLIB_ERR("0x%x(%s): (%s,%s/%d) does NOT have IA flag", TABLE_ARGS(table),
                 ROUTE_ARGS(route));
    }
    const ipv4mc_route_entry_st *old_parent = route->IF_parent;
    for (ipv4mc_route_entry_st *leaf = route;;) {
        const bool is_parent = (leaf->attributes & MRIB_ROUTE_IF) != 0;
        // A route whose parent is losing IF still finds it when the caller asks for that.
        const bool was_parent = keep_old_parent != 0 && old_parent != nullptr && leaf == old_parent;
        if (is_parent || was_parent) {
            *parent_route = leaf;
            return 0;
        }
        cerrno error = 0;
        auto *above = static_cast<ipv4mc_route_entry_st *>(
            ip6mc_gtrie_platform_less_specific_of_leaf(table->ingress_gtrie, leaf, &error));
        if (error != 0) {
            MLIB_ERR(
                "0x%x(%s): Gtrie problems while getting less specific of (%s,%s/%d) original route "
                "is "
                "(%s,%s/%d): %s",
                TABLE_ARGS(table), ROUTE_ARGS(leaf), ROUTE_ARGS(route), cerr_strerror(error));
            return EFAULT;
        }
        if (above == nullptr || above->table != table) {
            return 0;
        }
        leaf = above;
    }
}
