#include "platforms/linux/records.h"

#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "platforms/linux/interfaces.h"
#include "services/gtrie/gtrie.h"

namespace mfwd6::lnx {

ipv4mc_route_entry_st *exact_route(ipv4mc_table_st *record, const entry_key &key, uint32_t length) {
    if (record == nullptr || record->ingress_gtrie == nullptr) {
        return nullptr;
    }
    uint8_t prefix[GTRIE_PREFIX_BYTES] = {};
    cerrno failed =
        ip6mc_gtrie_platform_make_prefix(record->ingress_gtrie, prefix, &key.source, &key.group);
    failed = failed != 0
                 ? failed
                 : ip6mc_gtrie_platform_get_pfx_len_adjusted(record->ingress_gtrie, &length);
    if (failed != 0) {
        return nullptr;
    }
    return static_cast<ipv4mc_route_entry_st *>(
        ip6mc_gtrie_platform_lookup_exact(record->ingress_gtrie, prefix, length, &failed));
}

ipv4mc_route_entry_st *matching_route(ipv4mc_table_st *record, const entry_key &key) {
    ipv4mc_route_entry_st *route = nullptr;
    if (record == nullptr || record->ingress_gtrie == nullptr ||
        ip6mc_lookup(record, &key.source, &key.group, 0, &route, nullptr) != 0) {
        return nullptr;
    }
    return route;
}

namespace {

// Routes below `parent` for which `is_it` holds.
template <class Test>
uint64_t each_below(table &t, const ipv4mc_route_entry_st &parent, child_fn fn, Test is_it) {
    ipv4mc_table_st *record = parent.table;
    if (record == nullptr || ipv4mc_desc->state != IPV4MC_LIB_STATE_READY) {
        return 0;
    }
    uint64_t count = 0;
    const ip_maddr_st any = {};
    for (ipv4mc_route_entry_st *route =
             ip6mc_route_first_key(record, &any, &parent.group, parent.pfx_len);
         route != nullptr && in_prefix(route->group, parent.group, parent.pfx_len);
         route = ip6mc_route_next(record, route)) {
        if (route != &parent && is_it(*route)) {
            fn(t, *route);
            ++count;
        }
    }
    return count;
}

}  // namespace

uint64_t each_child(table &t, ipv4mc_route_entry_st &parent, child_fn fn) {
    return each_below(t, parent, fn, [&](const ipv4mc_route_entry_st &route) {
        return route.IF_parent == &parent;
    });
}

void each_inheriting(table &t, ipv4mc_route_entry_st &parent, child_fn fn) {
    (void)each_below(t, parent, fn, [](const ipv4mc_route_entry_st &route) {
        return (route.attributes & MRIB_ROUTE_IA) != 0;
    });
}

}  // namespace mfwd6::lnx
