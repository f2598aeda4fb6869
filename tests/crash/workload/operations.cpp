#include "tests/crash/workload/operations.h"

#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "services/journal/journal.h"

namespace crash {
namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;

void count_egress(ipv4mc_route_entry_st *route, int by) {
    const auto change = static_cast<uint32_t>(by);
    store(route->intf_local_EG_cnt, static_cast<uint16_t>(route->intf_local_EG_cnt + by));
    uint32_t &of_table = route->table->route_counters.local_eg_cnt;
    store(of_table, of_table + change);
    if (route->encap != nullptr) {
        store(route->encap->intf_local_EG_cnt, route->encap->intf_local_EG_cnt + change);
    }
}

// The core routes of a table hear of its first local receiver, and of the end of its last.
void follow_egress(ipv4mc_table_st *table, bool on) {
    if (table->route_counters.local_eg_cnt == (on ? 1U : 0U)) {
        ip6mc_tbl_update_memd_routes(table, on ? 1 : 0);
    }
}

}  // namespace

cerrno operate(ipv4mc_action_type action, ipv4mc_table_st *table, const route_key &k,
               ipv4mc_route_entry_st **route, int *is_new, uint64_t old) {
    return ip6mc_route_operation(action, table, &k.source, &k.group, k.length, nullptr, route, old,
                                 0, is_new);
}

cerrno operate_intf(ipv4mc_action_type action, ipv4mc_route_entry_st *route, uint32_t interface,
                    ipv4mc_intf_entry_st **entry, int is_new, uint64_t old) {
    return ip6mc_intf_operation(action, route->table, route, IPV4MC_INTF_ORDINARY,
                                ifh_of(interface), 0, 0, 0, entry, nullptr, 0, old, is_new);
}

cerrno join(ipv4mc_route_entry_st *route, uint32_t interface, uint64_t word) {
    ipv4mc_intf_entry_st *entry = nullptr;
    cerrno rc = operate_intf(IPV4MC_ACTION_CREATE, route, interface, &entry, 1);
    if (rc != 0 || entry == nullptr) {
        if (rc != EEXIST && entry != nullptr) {
            ipv4mc_clear_intf(&entry);
        }
        return rc;
    }
    entry->attributes = word;
    rc = operate_intf(IPV4MC_ACTION_COMMIT, route, interface, &entry, 1);
    if (rc != 0 && entry != nullptr) {
        operate_intf(IPV4MC_ACTION_CLEAR, route, interface, &entry, 1);
    }
    return rc;
}

void set_mark(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry, uint64_t mark, bool on) {
    const uint64_t old = entry->attributes;
    if (((old & mark) != 0) == on) {
        return;
    }
    {
        const group change;
        publish(entry->attributes, on ? old | mark : old & ~mark);
        if (mark == MRIB_INTF_EG) {
            count_egress(route, on ? 1 : -1);
        } else if (mark == MRIB_INTF_COUNTED) {
            store(route->counted_intf_cnt,
                  static_cast<uint8_t>(route->counted_intf_cnt + (on ? 1 : -1)));
        }
    }
    if (mark == MRIB_INTF_EG) {
        follow_egress(route->table, on);
    }
    operate_intf(IPV4MC_ACTION_COMMIT, route, entry->key_ifh - ifh_of(0), &entry, 0, old);
}

cerrno leave(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st **entry) {
    for (const uint64_t mark : mark_bits) {
        set_mark(route, *entry, mark, false);
    }
    return operate_intf(IPV4MC_ACTION_DELETE, route, (*entry)->key_ifh - ifh_of(0), entry, 0,
                        (*entry)->attributes);
}

void make_encap(uint32_t id, uint8_t ip_lkp_ctl) {
    const group change;
    uint8_t key[GTRIE_PREFIX_BYTES] = {static_cast<uint8_t>(id >> 12),
                                       static_cast<uint8_t>(id >> 4),
                                       static_cast<uint8_t>(id << 4)};
    void *leaf = nullptr;
    int created = 0;
    void *trie = ipv4mc_desc->shmwin_info->encap_gtrie;
    if (ip6mc_gtrie_platform_leaf_create(
            trie, key, IPV4MC_ENCAP_ID_BITS, &leaf,
            sizeof(ipv4mc_encap_entry_st) + plat_params.encap_extension_size, &created) != 0 ||
        created == 0) {
        return;
    }
    auto *encap = static_cast<ipv4mc_encap_entry_st *>(leaf);
    encap->encap_id = id;
    encap->ip_lkp_ctl = ip_lkp_ctl;
    if (ip6mc_gtrie_platform_leaf_insert(trie, leaf, nullptr) != 0) {
        ip6mc_gtrie_platform_leaf_free(trie, leaf);
    }
}

void end_encap(ipv4mc_encap_entry_st *encap) {
    void *trie = ipv4mc_desc->shmwin_info->encap_gtrie;
    ip6mc_platform_encapid_operation_wrapper(IPV4MC_ACTION_DELETE, encap);
    const group change;
    ipmc_platform_err_handler_clear_encap_err(encap);
    ip6mc_gtrie_platform_leaf_delete(trie, encap, nullptr);
    ip6mc_gtrie_platform_leaf_free(trie, encap);
}

void give_members(ipv4mc_idb_st *bundle) {
    const group change;
    auto *members = static_cast<ipmc_bundle_member_st *>(ipv4mc_shmwin_malloc_inline(
        sizeof(ipmc_bundle_member_st) * IPMC_BUNDLE_MEMBERS_MAX, IPMC_SHMWIN_ALLOC_BUNDLE_MEMBERS));
    if (members == nullptr) {
        return;
    }
    members[0] = {ifh_of(0), 1};
    members[1] = {ifh_of(1), 2};
    publish(bundle->bundle_members, members);
    store(bundle->bundle_member_count, 2U);
}

void take_members(ipv4mc_idb_st *bundle) {
    const group change;
    ipmc_bundle_member_st *members = bundle->bundle_members;
    store(bundle->bundle_member_count, 0U);
    publish(bundle->bundle_members, nullptr);
    ipv4mc_shmwin_free_inline(members, IPMC_SHMWIN_ALLOC_BUNDLE_MEMBERS);
}

}  // namespace crash
