// Ordered walks over the routes of a table. The trie may hold leaves of other tables: each step
// looks at the table of the leaf.
#include <sched.h>

#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_books.h"
#include "services/gtrie/gtrie.h"

namespace {

// An (S,G) key is whole; a group has the caller's length; nothing at all means the start of the
// table.
uint32_t key_length(const ip_maddr_st *source, const ip_maddr_st *group, uint32_t length) {
    if (!mlib::is_any(source)) {
        return GTRIE_KEY_BITS;
    }
    return mlib::is_any(group) ? 0 : length;
}

void yield_to_others() {
    const uint32_t count = ipv6_mlib_pak_client_mutex_get_count();
    if (count != 0) {
        const ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
        MLIB_ERR("[%d] Mult lock count %d (%s/%d)", __LINE__, static_cast<int>(count),
                 mlib::lock_fn(hdr->pak_lock_fn).text, mlib::lock_book(hdr->pak_lock_line));
    }
    sched_yield();
}

}  // namespace

extern "C" {

ipv4mc_route_entry_st *ip6mc_route_first_key(ipv4mc_table_st *table, const ip_maddr_st *source,
                                             const ip_maddr_st *group, uint16_t length) {
    if (ipv4mc_desc->state != IPV4MC_LIB_STATE_READY) {
        MLIB_ERR("Multicast library not ready");
        return nullptr;
    }
    if (table == nullptr) {
        MLIB_ERR("Null table pointer");
        return nullptr;
    }
    uint32_t bits = key_length(source, group, length);
    uint8_t prefix[GTRIE_PREFIX_BYTES] = {};
    ip6mc_gtrie_platform_make_prefix(table->ingress_gtrie, prefix, source, group);
    ip6mc_gtrie_platform_get_pfx_len_adjusted(table->ingress_gtrie, &bits);
    cerrno error = 0;
    auto *route = static_cast<ipv4mc_route_entry_st *>(
        ip6mc_gtrie_platform_first_leaf(table->ingress_gtrie, prefix, bits, &error));
    if (error != 0) {
        MLIB_ERR("0x%x(%s): Cannot find the first leaf for (%s,%s/%d): %s", table->tid,
                 table->vrf_name, mlib::source_text(source), mlib::address_text(group),
                 static_cast<int>(length), cerr_strerror(error));
        return nullptr;
    }
    // A leaf of another table ends the search here, other than in ip6mc_route_next.
    return route != nullptr && route->table == table ? route : nullptr;
}

ipv4mc_route_entry_st *ip6mc_route_next(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    if (ipv4mc_desc->state != IPV4MC_LIB_STATE_READY) {
        MLIB_ERR("Multicast library not ready");
        return nullptr;
    }
    if (table == nullptr) {
        MLIB_ERR("Null table pointer");
        return nullptr;
    }
    if (route == nullptr) {
        MLIB_ERR("Null route pointer");
        return nullptr;
    }
    const ipv4mc_route_entry_st *from = route;
    ipv4mc_route_entry_st *next = route;
    do {
        cerrno error = 0;
        next = static_cast<ipv4mc_route_entry_st *>(
            ip6mc_gtrie_platform_next_leaf(table->ingress_gtrie, next, &error));
        if (error != 0) {
            MLIB_ERR("Error getting successor of (%s,%s/%d) table 0x%x(%s): %s",
                     mlib::source_text(&from->source), mlib::address_text(&from->group),
                     static_cast<int>(from->pfx_len), table->tid, table->vrf_name,
                     cerr_strerror(error));
            return nullptr;
        }
    } while (next != nullptr && next->table != table);
    return next;
}

cerrno ip6mc_route_walk(ipv4mc_table_st *table, uint32_t yield_count, ipv4mc_route_walk_ft function,
                        void *context) {
    if (ipv4mc_desc->state != IPV4MC_LIB_STATE_READY) {
        MLIB_ERR("Multicast library Not ready\n");
        return EBADF;
    }
    if (table == nullptr) {
        MLIB_ERR("Null table pointer.");
        return EINVAL;
    }
    if (function == nullptr) {
        MLIB_ERR("Null function pointer.");
        return EINVAL;
    }
    uint32_t done = 0;
    ipv4mc_route_entry_st *next = nullptr;
    for (ipv4mc_route_entry_st *route =
             ip6mc_route_first_key(table, &mlib::any_address, &mlib::any_address, 0);
         route != nullptr; route = next) {
        next = ip6mc_route_next(table,
                                route);  // before the function, which may delete the route at hand
        if (yield_count != 0 && done == yield_count) {
            yield_to_others();
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
