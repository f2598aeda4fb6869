// Routes that gain or lose inherit-forward: each route below them with inherit-accept is pointed at
// its true parent, and the platform is told.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/diag/text.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::publish;

ipv4mc_route_entry_st *first_under(ipv4mc_table_st *table, const ipv4mc_route_entry_st *route,
                                   cerrno *error) {
    void *trie = table->ingress_gtrie;
    uint8_t prefix[GTRIE_PREFIX_BYTES] = {};
    uint32_t length = route->pfx_len;
    ip6mc_gtrie_platform_make_prefix(trie, prefix, &route->source, &route->group);
    ip6mc_gtrie_platform_get_pfx_len_adjusted(trie, &length);
    return static_cast<ipv4mc_route_entry_st *>(
        ip6mc_gtrie_platform_first_leaf(trie, prefix, length, error));
}

// The leaf behind this one; a leaf of another table counts as none.
cerrno take_next(ipv4mc_table_st *table, ipv4mc_route_entry_st *leaf,
                 ipv4mc_route_entry_st **next) {
    cerrno error = 0;
    *next = static_cast<ipv4mc_route_entry_st *>(
        ip6mc_gtrie_platform_next_leaf(table->ingress_gtrie, leaf, &error));
    if (error != 0) {
        MLIB_ERR("Cannot find successor for (%s,%s/%d) in 0x%x(%s): %s", ROUTE_ARGS(leaf),
                 TABLE_ARGS(table), cerr_strerror(error));
        *next = nullptr;
        return EFAULT;
    }
    if (*next != nullptr && (*next)->table != table) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d). Table does not match ", __LINE__,
                   ROUTE_ARGS(*next));
        *next = nullptr;
    }
    return 0;
}

// Written before the platform hears of it, and kept when the platform fails.
cerrno set_parent(ipv4mc_table_st *table, ipv4mc_route_entry_st *leaf,
                  ipv4mc_route_entry_st *parent) {
    ipv4mc_route_entry_st *old = leaf->IF_parent;
    publish(leaf->IF_parent, parent);
    if (parent != nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d). New IF parent is (%s,%s/%d)", __LINE__,
                   ROUTE_ARGS(leaf), ROUTE_ARGS(parent));
    } else {
        MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d). New IF parent is (%s,%s/%d)", __LINE__,
                   ROUTE_ARGS(leaf), "NULL", "NULL", 0);
    }
    return ip6mc_platform_change_IF_parent(table, leaf, old);
}

cerrno turn_to(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, ipv4mc_route_entry_st *leaf) {
    const cerrno rc = set_parent(table, leaf, route);
    if (rc != 0) {
        MLIB_ERR(
            "Error while changing IF parent for 0x%x(%s):(%s,%s/%d) passed IF_parent is "
            "(%s,%s/%d): %d %s",
            TABLE_ARGS(table), ROUTE_ARGS(leaf), ROUTE_ARGS(route), static_cast<int>(rc),
            cerr_strerror(rc));
        return EFAULT;
    }
    return 0;
}

cerrno turn_away(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                 ipv4mc_route_entry_st *leaf) {
    // The route itself is passed by: it has no IF any more.
    ipv4mc_route_entry_st *new_parent = nullptr;
    cerrno rc = ip6mc_get_parent_IF_route(table, route, &new_parent, 0);
    if (rc != 0) {
        MLIB_ERR(
            "0x%x(%s): Cannot get parent of (%s,%s/%d) %s IF flag passed IF_parent is (%s,%s/%d) "
            "Error %d %s",
            TABLE_ARGS(table), ROUTE_ARGS(leaf), "clear", ROUTE_ARGS(route), static_cast<int>(rc),
            cerr_strerror(rc));
        return EFAULT;
    }
    rc = set_parent(table, leaf, new_parent);
    if (rc != 0) {
        MLIB_ERR(
            "Error while deleting IF parentfor (%s,%s/%d) table 0x%x(%s) passed IF_parent is "
            "(%s,%s/%d): %d %s",
            ROUTE_ARGS(leaf), TABLE_ARGS(table), ROUTE_ARGS(route), static_cast<int>(rc),
            cerr_strerror(rc));
        return EFAULT;
    }
    return 0;
}

cerrno process_leaf(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                    ipv4mc_route_entry_st *leaf, int set) {
    if ((leaf->attributes & MRIB_ROUTE_IA) == 0) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d) IA not set", __LINE__, ROUTE_ARGS(leaf));
        return 0;
    }
    cerrno result = 0;
    ipv4mc_route_entry_st *parent = nullptr;
    const cerrno rc = ip6mc_get_parent_IF_route(table, leaf, &parent, set == 0 ? 1 : 0);
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Cannot get parent of (%s,%s/%d) %s IF flagError %d %s",
                 TABLE_ARGS(table), ROUTE_ARGS(leaf), set != 0 ? "set" : "clear",
                 static_cast<int>(rc), cerr_strerror(rc));
        result = EFAULT;  // and on, with what was found
    }
    if (parent != route) {
        return result;
    }
    cerrno turned = 0;
    if (set != 0 && leaf->IF_parent != route) {
        turned = turn_to(table, route, leaf);
    } else if (set == 0 && leaf->IF_parent == route) {
        turned = turn_away(table, route, leaf);
    }
    return turned != 0 ? turned : result;
}

// Everything that a route covers has its group bits in front; a route with a source covers itself
// alone.
bool covers(const ipv4mc_route_entry_st *route, const ipv4mc_route_entry_st *leaf) {
    return route->pfx_len <= IPV4MC_ROUTE_PFX_LEN_STAR_G && leaf->pfx_len >= route->pfx_len &&
           inet6_compare_masked(&route->group, &leaf->group, route->pfx_len) == 0;
}

// Where a leaf inherits from once `gone` is no more.
ipv4mc_route_entry_st *parent_without(ipv4mc_table_st *table, ipv4mc_route_entry_st *leaf,
                                      const ipv4mc_route_entry_st *gone) {
    cerrno error = 0;
    while (leaf != nullptr && leaf->table == table) {
        if (leaf != gone && (leaf->attributes & MRIB_ROUTE_IF) != 0) {
            return leaf;
        }
        leaf = static_cast<ipv4mc_route_entry_st *>(
            ip6mc_gtrie_platform_less_specific_of_leaf(table->ingress_gtrie, leaf, &error));
    }
    return nullptr;
}

}  // namespace

// Runs through all following leaves of the table, also behind the end of the route's prefix.
extern "C" cerrno ipv4mc_process_setclear_IF_flag(ipv4mc_table_st *table,
                                                  ipv4mc_route_entry_st *route, int set) {
    cerrno error = 0;
    ipv4mc_route_entry_st *first = first_under(table, route, &error);
    if (first == nullptr || error != 0) {
        MLIB_ERR("Cannot find first route for 0x%x(%s) Gtrie error %s", TABLE_ARGS(table),
                 cerr_strerror(error));
        return EFAULT;
    }
    ipv4mc_route_entry_st *next = nullptr;
    if (take_next(table, first, &next) != 0) {
        return EFAULT;
    }
    // A (*,G) route may be its own child; a shorter or a longer one is passed by.
    ipv4mc_route_entry_st *leaf = route->pfx_len == IPV4MC_ROUTE_PFX_LEN_STAR_G ? first : next;
    cerrno result = 0;
    for (; leaf != nullptr; leaf = next) {
        if (take_next(table, leaf, &next) != 0) {
            return EFAULT;
        }
        if (process_leaf(table, route, leaf, set) != 0) {
            result = EFAULT;
        }
    }
    return result;
}

// A parent that goes while it still has IF, or lost it in a process that died before it turned its
// children away, leaves children that name it. They must not keep its address: whoever follows it
// later, a reader or a commit, would read freed memory. They inherit from the next one above.
void ipmc_forget_IF_parent(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    cerrno error = 0;
    void *trie = table->ingress_gtrie;
    auto *leaf =
        static_cast<ipv4mc_route_entry_st *>(ip6mc_gtrie_platform_next_leaf(trie, route, &error));
    while (leaf != nullptr && leaf->table == table && covers(route, leaf)) {
        if (leaf->IF_parent == route) {
            publish(leaf->IF_parent, parent_without(table, leaf, route));
        }
        leaf = static_cast<ipv4mc_route_entry_st *>(
            ip6mc_gtrie_platform_next_leaf(trie, leaf, &error));
    }
}
