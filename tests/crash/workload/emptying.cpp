// The end of an episode: everything goes, what an owner's death left included.
#include <vector>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "tests/crash/workload/operations.h"
#include "tests/crash/workload/workload.h"

namespace crash {

void make_tables() {
    for (uint32_t t = 0; t < tables; ++t) {
        ipv4mc_table_st *found = find_table(t);
        if (found != nullptr && found->active != 0) {
            continue;
        }
        in_flight &now = shared().known.now;
        now.table = t;
        now.what = operation::create_table;
        ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid_of(t), vrf_id_of(t), name_of(t), &found,
                              8);
        shared().known.there[t] = found != nullptr;
        now = in_flight{};
    }
}

namespace {

// Entries on interfaces whose route no trie knows: a route that was made and not committed.
void end_unpublished() {
    for (uint32_t i = 0; i < interfaces; ++i) {
        ipv4mc_idb_st *idb = nullptr;
        ip6mc_idb_lookup(ifh_of(i), &idb);
        ipv4mc_intf_entry_st *next = nullptr;
        for (ipv4mc_intf_entry_st *entry = idb != nullptr ? idb->route_list : nullptr;
             entry != nullptr; entry = next) {
            next = entry->idb_next;
            ipv4mc_route_entry_st *route = entry->route;
            cerrno rc = 0;
            ipv4mc_route_entry_st *known = nullptr;
            rc = ip6mc_route_operation(IPV4MC_ACTION_EXACT_LOOKUP, route->table, &route->source,
                                       &route->group, route->pfx_len, nullptr, &known, 0, 0,
                                       nullptr);
            if (rc != 0 || known == route) {
                continue;
            }
            if (ip6mc_intf_operation(IPV4MC_ACTION_DELETE, route->table, route,
                                     IPV4MC_INTF_ORDINARY, entry->key_ifh, 0, 0, 0, &entry, nullptr,
                                     0, entry->attributes, 0) != 0) {
                give_up("an interface of a route that was never committed cannot be deleted");
            }
        }
    }
}

void end_signals() {
    for (uint32_t t = 0; t < tables; ++t) {
        ipv4mc_table_st *table = find_table(t);
        if (table == nullptr || table->signal_gtrie == nullptr) {
            continue;
        }
        const ip_maddr_st any{};
        uint32_t left = 1000;
        for (ipv4mc_route_entry_st *route = ip6mc_signal_first_key(table, &any, &any);
             route != nullptr && --left > 0; route = ip6mc_signal_first_key(table, &any, &any)) {
            const ip_maddr_st source = route->source;
            const ip_maddr_st group = route->group;
            ip6mc_signal_remove_all_mutex(table, &source, &group);
        }
        if (left == 0 || table->signal_route_count != 0) {
            give_up("signals that cannot be removed");
        }
    }
}

cerrno collect(ipv4mc_idb_st *idb, void *context) {
    static_cast<std::vector<ifhtype> *>(context)->push_back(idb->ifh);
    return 0;
}

// Who locked a record has died with the owner: all references left are those of the dead.
void end_interfaces() {
    std::vector<ifhtype> all;
    ip6mc_idb_walk(nullptr, collect, &all, 0, 0);
    for (const ifhtype ifh : all) {
        ipv4mc_idb_st *idb = nullptr;
        if (ip6mc_idb_lock(ifh, &idb, nullptr) != 0) {
            give_up("an interface that cannot be locked");
        }
        if (idb->bundle_members != nullptr) {
            take_members(idb);
        }
        if (idb->route_count != 0) {
            give_up("an interface that has routes when there are none");
        }
        while (idb != nullptr) {
            if (ip6mc_idb_unlock(&idb) != 0) {
                give_up("an interface that cannot be unlocked");
            }
            if (idb == nullptr) {
                ip6mc_idb_lookup(ifh, &idb);
            }
        }
    }
}

void end_encaps() {
    for (uint32_t id = 1; id <= most_encaps; ++id) {
        ipv4mc_encap_entry_st *encap = nullptr;
        ip6mc_encapid_lookup(id, &encap);
        if (encap == nullptr) {
            continue;
        }
        if (encap->route_cnt != 0 || encap->route_head != nullptr) {
            give_up("an encap that has routes when there are none");
        }
        end_encap(encap);
    }
}

}  // namespace

void empty_window() {
    end_unpublished();
    end_signals();
    for (uint32_t t = tables; t-- > 0;) {
        ipv4mc_table_st *found = find_table(t);
        if (found != nullptr && found->vtable != nullptr) {
            found = found->vtable;
        }
        if (found == nullptr) {
            ip6mc_table_operation(IPV4MC_ACTION_TABLE_LOOKUP, 0, vrf_id_of(t), name_of(t), &found,
                                  0);
        }
        if (found == nullptr) {
            continue;
        }
        // A death may have left one side only, which is deleted by what it has.
        const bool vrf = found->table_type == IPV4MC_TABLE_VRF;
        const uint32_t tid = vrf && found->tid_table == nullptr ? 0 : tid_of(t);
        ip6mc_table_operation(IPV4MC_ACTION_DELETE, tid, vrf ? vrf_id_of(t) : 0,
                              vrf ? name_of(t) : nullptr, &found, 8);
    }
    if (ip6mc_table_delete_all(8) != 0 || ip6mc_table_tid_get_first() != nullptr) {
        give_up("tables that cannot be deleted");
    }
    end_interfaces();
    end_encaps();
    shared().known = world{};
}

}  // namespace crash
