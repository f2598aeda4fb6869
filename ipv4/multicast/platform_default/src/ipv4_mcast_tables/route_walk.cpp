// Ordered walks over the routes of a table. The trie may hold leaves of other tables: each step
// looks at the table of the leaf.
#include <sched.h>

#include <cerrno>
#include <initializer_list>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/packet_mutex_report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/gtrie/gtrie.h"

namespace {

struct needed {
    const void *pointer;
    const char *if_null;
};

// What each of these functions needs: the library ready, and its pointers. What is missing is
// reported under the function's name.
cerrno check(const char *if_not_ready, std::initializer_list<needed> pointers, const char *function,
             int line) {
    if (!mlib::library_is_ready()) {
        mlib::report_error(function, line, "%s", if_not_ready);
        return EBADF;
    }
    for (const needed &each : pointers) {
        if (each.pointer == nullptr) {
            mlib::report_error(function, line, "%s", each.if_null);
            return EINVAL;
        }
    }
    return 0;
}

// An (S,G) key is whole; a group has the caller's length; nothing at all means the start of the
// table.
uint32_t key_length(const ip_maddr_st *source, const ip_maddr_st *group, uint32_t length) {
    if (!mlib::is_any(source)) {
        return IPV4MC_ROUTE_PFX_LEN_SG;
    }
    return mlib::is_any(group) ? 0 : length;
}

}  // namespace

extern "C" {

ipv4mc_route_entry_st *ip6mc_route_first_key(ipv4mc_table_st *table, const ip_maddr_st *source,
                                             const ip_maddr_st *group, uint16_t length) {
    if (check("Multicast library not ready", {{table, "Null table pointer"}}, __func__, __LINE__) !=
        0) {
        return nullptr;
    }
    const uint32_t searched = key_length(source, group, length);
    uint32_t bits = searched;
    uint8_t prefix[GTRIE_PREFIX_BYTES] = {};
    ip6mc_gtrie_platform_make_prefix(table->ingress_gtrie, prefix, source, group);
    ip6mc_gtrie_platform_get_pfx_len_adjusted(table->ingress_gtrie, &bits);
    cerrno error = 0;
    auto *route = static_cast<ipv4mc_route_entry_st *>(
        ip6mc_gtrie_platform_first_leaf(table->ingress_gtrie, prefix, bits, &error));
    if (error != 0) {
        MLIB_ERR("0x%x(%s): Cannot find the first leaf for (%s,%s/%d): %s", TABLE_ARGS(table),
                 ROUTE_KEY_ARGS(source, group, searched), cerr_strerror(error));
        return nullptr;
    }
    // A leaf of another table ends the search here, other than in ip6mc_route_next.
    return route != nullptr && route->table == table ? route : nullptr;
}

ipv4mc_route_entry_st *ip6mc_route_next(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    if (check("Multicast library not ready",
              {{table, "Null table pointer"}, {route, "Null route pointer"}}, __func__,
              __LINE__) != 0) {
        return nullptr;
    }
    ipv4mc_route_entry_st *next = route;
    do {
        cerrno error = 0;
        next = static_cast<ipv4mc_route_entry_st *>(
            ip6mc_gtrie_platform_next_leaf(table->ingress_gtrie, next, &error));
        if (error != 0) {
            MLIB_ERR("Error getting successor of (%s,%s/%d) table 0x%x(%s): %s", ROUTE_ARGS(route),
                     TABLE_ARGS(table), cerr_strerror(error));
            return nullptr;
        }
    } while (next != nullptr && next->table != table);
    return next;
}

cerrno ip6mc_route_walk(ipv4mc_table_st *table, uint32_t yield_count, ipv4mc_route_walk_ft function,
                        void *context) {
    const cerrno rc = check("Multicast library Not ready\n",
                            {{table, "Null table pointer."},
                             {reinterpret_cast<const void *>(function), "Null function pointer."}},
                            __func__, __LINE__);
    if (rc != 0) {
        return rc;
    }
    uint32_t done = 0;
    ipv4mc_route_entry_st *next = nullptr;
    for (ipv4mc_route_entry_st *route =
             ip6mc_route_first_key(table, &mlib::any_address, &mlib::any_address, 0);
         route != nullptr; route = next) {
        // Before the function, which may delete the route at hand.
        next = ip6mc_route_next(table, route);
        if (yield_count != 0 && done == yield_count) {
            mlib::report_packet_mutex_held(__func__, __LINE__);
            sched_yield();
            done = 0;
        }
        if (function(route, context) != 0) {
            return ECANCELED;
        }
        ++done;
    }
    return 0;
}

}  // extern "C"
