// An interface's place in its route, list and tree, and its end.
#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_guards.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/diag/text.h"
#include "services/journal/journal.h"
#include "services/trees/avl.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;

ipv4mc_intf_entry_st *const nobody = nullptr;

struct amt_text {
    char text[16];
};

amt_text text_of_amt(const ipv4mc_intf_entry_st *entry) {
    amt_text result{};
    inet_ntoa_r(in_addr{entry->amt_addr}, result.text, sizeof(result.text));
    return result;
}

void set_flag(ipv4mc_intf_entry_st *entry, uint8_t flag) {
    store(entry->intf_flags, static_cast<uint8_t>(entry->intf_flags | flag));
}

void clear_flag(ipv4mc_intf_entry_st *entry, uint8_t flag) {
    store(entry->intf_flags, static_cast<uint8_t>(entry->intf_flags & ~flag));
}

bool add_to_tree(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    const mlib::tbl_write_lock guard(__LINE__);
    if (avl_insert(&route->intf_tree, &entry->avl_node, ipmc_intf_avl_compare) == nullptr) {
        return false;
    }
    set_flag(entry, IPV4MC_INTF_FLAG_IN_TREE);
    return true;
}

bool remove_from_tree(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    const mlib::tbl_write_lock guard(__LINE__);
    const bool was_there = avl_delete(&route->intf_tree, &entry->avl_node) != nullptr;
    clear_flag(entry, IPV4MC_INTF_FLAG_IN_TREE);
    return was_there;
}

void add_to_list(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    ipv4mc_intf_entry_st *first = route->intf_list;
    store(entry->next_intf, first);
    store(entry->route, route);
    publish(route->intf_list, entry);
    if (first != nullptr) {
        store(first->prev_intf, entry);
    }
}

// The removed entry keeps its own links: a reader that stands on it finds the way on.
void remove_from_list(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    if (entry->prev_intf == nullptr) {
        publish(route->intf_list, entry->next_intf);
    } else {
        publish(entry->prev_intf->next_intf, entry->next_intf);
    }
    if (entry->next_intf != nullptr) {
        store(entry->next_intf->prev_intf, entry->prev_intf);
    }
}

// Ties of a BVI interface to its L2 state.
void drop_bvi_tie(ipv4mc_intf_entry_st *entry) {
    if ((entry->attributes & MRIB_INTF_BVI) == 0 || entry->bvi_if == nullptr) {
        return;
    }
    const ipv4mc_bvi_if_t *tie = entry->bvi_if;
    const ipv4mc_bvi_entry_t *state = tie->bvi_entry;
    if (ip6mc_bvi_delete_bvi_interface(tie->route, entry) != 0) {
        MLIB_ERR(
            "ERR: Line[__LINE__]Delete BVI IF 0x%x of (%s,%s) from tree of BVI-EN(%s,%s)",
            entry->ifh,
            tie->route != nullptr ? mlib::source_text(&tie->route->source) : "Null BVI if data",
            tie->route != nullptr ? mlib::address_text(&tie->route->group) : "Null BVI if data",
            state != nullptr ? mlib::source_text(&state->source) : "Null BVI Entry",
            state != nullptr ? mlib::address_text(&state->group) : "Null BVI Entry");
    }
}

void drop_object_id(ipv4mc_intf_entry_st *entry) {
    if (entry->obj_id == IPMC_OBJ_ID_NONE) {
        return;
    }
    MLIB_DEBUG_OBJECT_ID(entry->obj_id, "Freeing for intf 0x%x", entry->ifh);
    const uint64_t id = entry->obj_id;
    const cerrno rc = ipmc_object_ida_free(&entry->obj_id);
    if (rc != 0) {
        MLIB_ERR("Object_id free failed for 0x%x, 0x%lx rc = %s", entry->ifh, id,
                 cerr_strerror(rc));
    }
}

// What the platform half hung on the entry is kept for it in the window.
void hand_over_plat_block(ipv4mc_shmwin_hdr_st *hdr, ipv4mc_intf_entry_st *entry) {
    ipmc_plat_block_st *block = entry->plat_block;
    if (block == nullptr) {
        return;
    }
    store(block->next, static_cast<ipmc_plat_block_st *>(hdr->plat_block_list));
    publish(hdr->plat_block_list, block);
    store(entry->plat_block, static_cast<ipmc_plat_block_st *>(nullptr));
}

bool has_mask(const ipv4mc_intf_entry_st *entry, mrib_attrib_entry_type mask) {
    return (entry->attributes & mask) != 0;
}

ipv4mc_intf_entry_st *first_with(ipv4mc_intf_entry_st *entry, mrib_attrib_entry_type mask) {
    while (entry != nullptr && !has_mask(entry, mask)) {
        entry = mfwd6::journal::observe(entry->next_intf);
    }
    return entry;
}

bool is_ready() {
    if (mlib::library_is_ready()) {
        return true;
    }
    MLIB_ERR("Multicast library not ready");
    return false;
}

}  // namespace

extern "C" {

// One key record of the process, filled outside any lock.
ipv4mc_intf_entry_st *ip6mc_intf_route_lookup(ipv4mc_route_entry_st *route, uint32_t intf_type,
                                              ifhtype ifh, uint32_t amt_addr, uint16_t amt_port) {
    if (!mlib::window_is_open()) {
        return nullptr;
    }
    static thread_local ipv4mc_intf_entry_st key;
    key.intf_type = intf_type;
    key.key_ifh = intf_type == IPV4MC_INTF_ORDINARY ? ifh : 0;
    key.amt_addr = amt_addr;
    key.amt_port = amt_port;
    const mlib::tbl_read_lock guard(__LINE__);
    avl_node *node = avl_search(&route->intf_tree, &key.avl_node, ipmc_intf_avl_compare);
    return node == nullptr ? nullptr : ipmc_intf_avl2intf(node);
}

ipv4mc_intf_entry_st *ip6mc_get_first_intf(ipv4mc_route_entry_st *route,
                                           mrib_attrib_entry_type mask) {
    if (!is_ready() || route == nullptr) {
        return nullptr;
    }
    return first_with(mfwd6::journal::observe(route->intf_list), mask);
}

ipv4mc_intf_entry_st *ip6mc_get_next_intf(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry,
                                          mrib_attrib_entry_type mask) {
    if (!is_ready() || route == nullptr || entry == nullptr) {
        return nullptr;
    }
    return first_with(mfwd6::journal::observe(entry->next_intf), mask);
}

ipv4mc_intf_entry_st *ipv4mc_intf_route_get_first_intf(ipv4mc_route_entry_st *route) {
    return route == nullptr ? nullptr : mfwd6::journal::observe(route->intf_list);
}

ipv4mc_intf_entry_st *ipv4mc_intf_route_get_next_intf(ipv4mc_route_entry_st *,
                                                      ipv4mc_intf_entry_st *entry) {
    return entry == nullptr ? nullptr : mfwd6::journal::observe(entry->next_intf);
}

void ipv4mc_interface_stats_clear(ipv4mc_route_entry_st *route) {
    for (ipv4mc_intf_entry_st *entry = ip6mc_get_first_intf(route, MRIB_INTF_ANY); entry != nullptr;
         entry = ip6mc_get_next_intf(route, entry, MRIB_INTF_ANY)) {
        ipv4mc_intf_stats_st &stats = entry->intf_stats;
        const bool counted = stats.counted[0] != 0 || stats.counted[1] != 0;
        if (ip6mc_idb_is_local(entry->ifh) == 0 || !has_mask(entry, MRIB_INTF_EG) || !counted) {
            continue;
        }
        std::memset(stats.counted, 0, sizeof(stats.counted));
        std::memset(stats.words_a, 0, sizeof(stats.words_a));
        std::memset(stats.block_a, 0, sizeof(stats.block_a));
        std::memset(stats.words_b, 0, sizeof(stats.words_b));
        std::memset(stats.block_b, 0, sizeof(stats.block_b));
    }
}

cerrno ipv4mc_intf_route_add(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    if (route == nullptr || entry == nullptr) {
        MLIB_ERR("NUll %s%s", entry == nullptr ? "intf " : "", route == nullptr ? "route" : "");
        return EINVAL;
    }
    const bool is_head = route->intf_list == entry;
    if (entry->prev_intf != nullptr || entry->next_intf != nullptr || is_head) {
        MLIB_ERR("Cannot add %s to (%s,%s/%d): %s%s%s", mlib::intf_name(entry->ifh),
                 ROUTE_ARGS(route), entry->prev_intf != nullptr ? "NON-NULL prev_intf " : "",
                 entry->next_intf != nullptr ? "NON-NULL NEXT_intf " : "",
                 is_head ? "I/F is 1st linked list " : "");
        return EINVAL;
    }
    const group change;
    if (!add_to_tree(route, entry)) {
        MLIB_ERR("Cannot add intf [%s/%s/%u] to intf_tree. (%s,%s/%d): handles [0x%x/0x%x]",
                 mlib::intf_name(entry->ifh), text_of_amt(entry).text, entry->amt_port,
                 ROUTE_ARGS(route), entry->key_ifh, entry->ifh);
        return EINVAL;
    }
    add_to_list(route, entry);
    return 0;
}

cerrno ipv4mc_intf_route_delete(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    if (route == nullptr || entry == nullptr) {
        MLIB_ERR("NULL %s%s", entry == nullptr ? "intf " : "", route == nullptr ? "route" : "");
        return EINVAL;
    }
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    const cerrno rc = ip6mc_shmwin_get_info(&hdr);
    if (rc != 0) {
        return rc;
    }
    const bool is_head = route->intf_list == entry;
    if (entry->prev_intf == nullptr && !is_head) {
        // Says cannot, and goes on: the entry must go all the same.
        MLIB_ERR("Cannot delete %s from (%s,%s/%d): prev_intf NULL but intf is not 1st I/F in list",
                 mlib::intf_name(entry->ifh), ROUTE_ARGS(route));
    }
    if (entry->prev_intf != nullptr && entry->next_intf != nullptr && is_head) {
        MLIB_ERR(
            "Cannot delete %s from (%s,%s/%d): next_intf and prev_intf NON-NULL but intf is 1st in "
            "list",
            mlib::intf_name(entry->ifh), ROUTE_ARGS(route));
        return EINVAL;
    }
    const group change;
    if (!remove_from_tree(route, entry)) {
        MLIB_ERR("Cannot delete intf [%s/%s/%u] from intf_tree. (%s,%s/%d): handles [0x%x/0x%x]",
                 mlib::intf_name(entry->ifh), text_of_amt(entry).text, entry->amt_port,
                 ROUTE_ARGS(route), entry->key_ifh, entry->ifh);
    }
    remove_from_list(route, entry);
    return ipv4mc_clear_intf(&entry);
}

cerrno ipv4mc_clear_intf(ipv4mc_intf_entry_st **entry_p) {
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    const cerrno rc = ip6mc_shmwin_get_info(&hdr);
    if (rc != 0) {
        return rc;
    }
    if (entry_p == nullptr) {
        MLIB_ERR("NULL intf");
        return EINVAL;
    }
    ipv4mc_intf_entry_st *entry = *entry_p;
    if (entry == nullptr) {
        MLIB_ERR("NULL *intf");
        return EINVAL;
    }
    const group change;
    drop_bvi_tie(entry);
    if (entry->route != nullptr) {
        // Whoever walks the outputs of the route must not meet a freed entry.
        ip6mc_route_encap_ole_unlink(entry);
    }
    store(entry->prev_intf, nobody);
    store(entry->next_intf, nobody);
    store(entry->route, static_cast<ipv4mc_route_entry_st *>(nullptr));
    store(entry->idb_prev, nobody);
    store(entry->idb_next, nobody);
    hand_over_plat_block(hdr, entry);
    drop_object_id(entry);
    ipv4mc_shmwin_free_inline(entry, IPMC_SHMWIN_ALLOC_INTF);
    *entry_p = nullptr;
    return 0;
}

}  // extern "C"
