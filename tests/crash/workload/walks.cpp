// Walks that give up the processor on their way, and what may be done in them.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "tests/crash/workload/step.h"

namespace crash {
namespace {

// What a walk saw, and which of it goes: every n-th, none with 0.
struct seen {
    uint32_t count = 0;
    uint32_t every = 0;

    bool goes() { return ++count, every != 0 && count % every == 0; }
};

cerrno delete_some(ipv4mc_route_entry_st *route, void *context) {
    if (static_cast<seen *>(context)->goes()) {
        const route_key k{route->source, route->group, route->pfx_len};
        int is_new = 0;
        operate(IPV4MC_ACTION_DELETE, route->table, k, &route, &is_new, route->attributes);
    }
    return 0;
}

cerrno see_route(ipv4mc_idb_st *, ipv4mc_route_entry_st *, ipv4mc_intf_entry_st *, void *context) {
    ++static_cast<seen *>(context)->count;
    return 0;
}

// Holds each interface for a moment, and walks its routes.
cerrno see_interface(ipv4mc_idb_st *idb, void *context) {
    auto *all = static_cast<seen *>(context);
    ++all->count;
    seen of_interface;
    ip6mc_idb_route_walk(idb, see_route, 1, &of_interface, 1);
    if (of_interface.count != idb->route_count) {
        give_up("a walk over the routes of an interface saw " + std::to_string(of_interface.count) +
                " of " + std::to_string(idb->route_count));
    }
    ipv4mc_idb_st *held = idb;
    ip6mc_idb_lock_idb(&held);
    return ipv4mc_idb_save_unlock(&held, 1);
}

cerrno see_table(ipv4mc_table_st *, uint32_t count, void *, void *context) {
    static_cast<seen *>(context)->count = count + 1;
    return 0;
}

cerrno remove_some(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, void *context) {
    if (static_cast<seen *>(context)->goes()) {
        const ip_maddr_st source = route->source;
        const ip_maddr_st group = route->group;
        ip6mc_signal_remove_all(table, &source, &group);
    }
    return 0;
}

// TID tables one after the other, by both of the ways to the next.
void step_over_tables() {
    for (ipv4mc_table_st *at = ip6mc_table_tid_get_first(); at != nullptr;
         at = ip6mc_table_tid_get_next(at->tid)) {
        if (ip6mc_table_tid_get_next_eq(at->tid) != at) {
            give_up("a table is not the next to itself");
        }
    }
}

}  // namespace

void step::walk() {
    ipv4mc_table_st *of = table();
    if (of == nullptr) {
        return add_route();
    }
    const uint32_t kind = number(6);
    if (kind == 0) {
        return walk_and_delete();
    }
    if (kind == 1 && number(4) == 0) {
        change(operation::clear_all, 0, [&] { ip6mc_table_clear_all(4); });
        return;
    }
    change(operation::other, 0, [&] {
        seen all;
        switch (kind) {
            case 1:
            case 2:
                ip6mc_idb_walk(nullptr, see_interface, &all, 1, 0);
                break;
            case 3:
                ip6mc_table_walk(see_table, IPV4MC_TABLE_WALK_TIDS, 0, &all, 1);
                ip6mc_table_walk(see_table, IPV4MC_TABLE_WALK_NAMES, number(IPV4MC_TABLE_THREADS),
                                 &all, 1);
                step_over_tables();
                break;
            default:
                all.every = 1 + number(4);
                ip6mc_signal_walk(of, 1 + number(2), 0, remove_some, &all);
        }
    });
}

void step::walk_and_delete() {
    change(operation::delete_all, 0, [&] {
        seen all;
        all.every = 2 + number(8);
        ip6mc_route_walk(table(), 1 + number(4), delete_some, &all);
    });
}

}  // namespace crash
