// CLEAR of a route: it loses its interfaces, counters and links, and keeps its place in the trie,
// to be filled again. And the bare release of a leaf.
#include <cerrno>
#include <cstdio>
#include <optional>

#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_lists.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_room.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;
using mlib::no_table;
using mlib::tid_or;
using mlib::yes_no;

constexpr size_t route_text_size = 114;

void clear_bits(ipv4mc_route_entry_st *route, uint64_t bits) {
    publish(route->attributes, route->attributes & ~bits);
}

void drop_mdt_reference(ipv4mc_route_entry_st *route, const ipv4mc_intf_entry_st *entry,
                        uint64_t bit, uint32_t kind) {
    mlib::drop_mdt_reference(route->table, entry->attributes, entry->ifh, bit, kind,
                             IPV4_DEBUG_ROUTE);
}

void drop_egress(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    mlib::lower_local_egress(table, route);
    mlib::follow_local_egress(table, route, mlib::end_of_route::cleared);
    ip6mc_ex_eg_update_rte(route, -1);
    ipmc_ex_eg_upd_encap_rcvr_tbl(route, 1);
}

}  // namespace

extern "C" void ip6mc_intf_clear(ipv4mc_shmwin_hdr_st *shmwin_hdr, ipv4mc_table_st *table,
                                 ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry,
                                 char *) {
    if (shmwin_hdr == nullptr || table == nullptr || route == nullptr || entry == nullptr) {
        return;
    }
    if ((entry->attributes & MRIB_INTF_EG) != 0) {
        drop_egress(table, route);
    }
    ip6mc_route_encap_ole_unlink(entry);
    drop_mdt_reference(route, entry, MRIB_INTF_MI, IPV4MC_MDT_FLAG_MI);
    if ((entry->attributes & MRIB_INTF_BVI) != 0) {
        ip6mc_bvi_delete_bvi_interface(route, entry);
    }
    drop_mdt_reference(route, entry, MRIB_INTF_LMI, IPV4MC_MDT_FLAG_LMI);
    drop_mdt_reference(route, entry, MRIB_INTF_TMI, IPV4MC_MDT_FLAG_TMI);
    drop_mdt_reference(route, entry, MRIB_INTF_IRMI, IPV4MC_MDT_FLAG_IRMI);
    drop_mdt_reference(route, entry, MRIB_INTF_TRMI, IPV4MC_MDT_FLAG_TRMI);
    if ((entry->attributes & MRIB_INTF_COUNTED) != 0 && route->counted_intf_cnt != 0) {
        store(route->counted_intf_cnt, static_cast<uint8_t>(route->counted_intf_cnt - 1));
    }
    if ((entry->attributes & MRIB_INTF_REGDB) != 0) {
        mlib::drop_transport(route, entry);
    }
}

namespace {

const char *idb_text(const ipv4mc_idb_st *idb) {
    return idb != nullptr ? idb->name : "-";
}

void count_down(uint8_t &count) {
    // Below 0 it wraps: the reports before it tell.
    store(count, static_cast<uint8_t>(count - 1));
}

void count_down_mdt_interfaces(ipv4mc_route_entry_st *route, const ipv4mc_intf_entry_st *entry,
                               ipv4mc_idb_st **idb, const char *text) {
    const uint64_t attributes = entry->attributes;
    const ifhtype ifh = entry->ifh;
    if ((attributes & MRIB_INTF_MI) != 0) {
        ip6mc_idb_lookup(ifh, idb);
        if (route->mi_cnt == 0) {
            MLIB_ERR("Decrement mi_cnt on %s, %s, int 0x%x current mi_cnt %u", text, idb_text(*idb),
                     ifh, route->mi_cnt);
        }
        count_down(route->mi_cnt);
    }
    if ((attributes & MRIB_INTF_LMI) != 0) {
        ip6mc_idb_lookup(ifh, idb);
        if (route->lmi_cnt == 0) {
            MLIB_ERR("Decrement lmi_cnt on %s, %s, int 0x%x current lmi_cnt %u", text,
                     idb_text(*idb), ifh, route->lmi_cnt);
        }
        count_down(route->lmi_cnt);
    }
    if ((attributes & MRIB_INTF_TMI) != 0) {
        ip6mc_idb_lookup(ifh, idb);
        if (route->tmi_cnt == 0) {
            MLIB_ERR("Decrement tmi_cnt on %s, %s, int 0x%x current tmi_cnt %u", text,
                     idb_text(*idb), ifh, route->tmi_cnt);
        }
        count_down(route->tmi_cnt);
    }
    if ((attributes & MRIB_INTF_TRMI) != 0) {
        ip6mc_idb_lookup(ifh, idb);
        if (route->trmi_cnt == 0) {
            MLIB_ERR("Decrement trmi_cnt on %s, %s, int 0x%x current trmi_cnt %u", text,
                     idb_text(*idb), ifh, route->trmi_cnt);
        }
        count_down(route->trmi_cnt);
    }
}

// The platform would not let the interface go: it goes all the same.
void force_out(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry, ipv4mc_idb_st *idb) {
    const ifhtype ifh = entry->ifh;
    MLIB_ERR("Failed to delete 0x%x (attr:0x%lx) from route 0x%x:%s,%s", ifh, entry->attributes,
             tid_or(route->table, no_table), mlib::source_text(&route->source),
             mlib::address_text(&route->group));
    cerrno rc = idb != nullptr ? ip6mc_idb_route_remove_idb(&idb, route, &entry)
                               : ip6mc_idb_route_remove(route, &entry);
    if (rc != 0) {
        MLIB_ERR("Unable to remove (%s,%s/%d) from IDB for existing %s : %s", ROUTE_ARGS(route),
                 mlib::intf_name(ifh), cerr_strerror(rc));
    }
    rc = ipv4mc_intf_route_delete(route, entry);
    if (rc != 0) {
        MLIB_ERR("Unable to remove  existing %s from (%s,%s/%d): %s", mlib::intf_name(ifh),
                 ROUTE_ARGS(route), cerr_strerror(rc));
    }
}

// The last receiver of a table reaches its core routes, one after the other; so does what the
// leaves of an encap count for. A change with very many of them would outgrow its log.
constexpr uint32_t most_core_routes = 512;

bool has_few_core_routes(const ipv4mc_table_st *table) {
    uint32_t count = 0;
    for (const ipv4mc_route_entry_st *core = table->memd_route_list;
         core != nullptr && count <= most_core_routes; core = core->memd_next[IPV4MC_VRF_LOCAL]) {
        ++count;
    }
    return count <= most_core_routes;
}

bool fits_one_change(const ipv4mc_table_st *table, const ipv4mc_route_entry_st *route,
                     const ipv4mc_intf_entry_st *entry) {
    if (table == nullptr || (entry->attributes & MRIB_INTF_EG) == 0) {
        return true;
    }
    const bool has_leaves = route->encap != nullptr && route->encap->encap_leaf_head != nullptr;
    return !has_leaves && (table->route_counters.local_eg_cnt != 1 || has_few_core_routes(table));
}

// The interface goes in one change with all that it counted for: whoever takes over finds both or
// neither, and may begin again. The one behind it.
ipv4mc_intf_entry_st *clear_intf(ipv4mc_shmwin_hdr_st *hdr, ipv4mc_table_st *table,
                                 ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry,
                                 char *text) {
    std::optional<group> change;
    if (fits_one_change(table, route, entry)) {
        change.emplace();
    }
    ipv4mc_idb_st *idb = nullptr;
    count_down_mdt_interfaces(route, entry, &idb, text);
    ip6mc_intf_clear(hdr, table, route, entry, text);
    const uint64_t attributes = entry->attributes;
    ipv4mc_intf_entry_st *next = ipv4mc_intf_route_get_next_intf(route, entry);
    const cerrno rc = ip6mc_intf_operation(IPV4MC_ACTION_DELETE, table, route, entry->intf_type,
                                           entry->ifh, entry->amt_addr, entry->amt_port,
                                           entry->intf_arg, &entry, idb, 0, attributes, 0);
    if (rc != 0 && entry != nullptr) {
        force_out(route, entry, idb);
    }
    return next;
}

void clear_intfs(ipv4mc_shmwin_hdr_st *hdr, ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                 char *text) {
    ipv4mc_intf_entry_st *entry = ipv4mc_intf_route_get_first_intf(route);
    while (entry != nullptr) {
        entry = clear_intf(hdr, table, route, entry, text);
    }
}

void clear_fields(ipv4mc_route_entry_st *route) {
    const group change;
    for (uint64_t &counter : route->route_counters) {
        store(counter, uint64_t{0});
    }
    store(route->encap_ole_tail, nullptr);
    publish(route->encap_ole_head, nullptr);
    store(route->clear_u32, 0U);
    store(route->clear_u16, uint16_t{0});
    store(route->clear_u8, uint8_t{0});
    for (uint64_t &word : route->acct_stats.words64) {
        store(word, uint64_t{0});
    }
    for (uint32_t &word : route->acct_stats.words32) {
        store(word, 0U);
    }
    clear_bits(route, MRIB_ROUTE_CLEAR_ATTR);
}

void give_back_mdt_handle(ipv4mc_route_entry_st *route) {
    if ((route->attributes & MRIB_ROUTE_MH) == 0) {
        return;
    }
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "0x%x: MDT handle 0x%x of (%s,%s/%d) goes",
               tid_or(route->table, no_table), route->mdt_ifh, ROUTE_ARGS(route));
    const group change;
    if (route->mdt_ifh != 0) {
        ip6mc_idb_mdt_unlock(route->vrf_table[IPV4MC_VRF_LOCAL], route->mdt_ifh,
                             IPV4MC_MDT_FLAG_MH);
    }
    clear_bits(route, MRIB_ROUTE_MH);
    store(route->mdt_ifh, 0U);
}

void unlink_from_vrfs(ipv4mc_route_entry_st *route, const char *text) {
    if ((route->attributes & mlib::vrf_link_bits) == 0) {
        return;
    }
    ip6mc_route_unlink_route_from_vrf(route, IPV4MC_VRF_LOCAL, text);
    ip6mc_route_unlink_route_from_vrf(route, IPV4MC_VRF_REMOTE, text);
    clear_bits(route, mlib::vrf_link_bits | MRIB_ROUTE_DT | MRIB_ROUTE_DT_REMOTE);
}

// The flag and the bits go with the lists, other than in DELETE: this route lives on.
void leave_candidates(ipv4mc_route_entry_st *route) {
    const group change;
    if (mlib::leave_mdt_candidates(route)) {
        MLIB_DEBUG(IPV4_DEBUG_DEV, "0x%x: Removed (%s,%s/%d) a:0x%lx from mdt candidate list",
                   tid_or(route->table, no_table), ROUTE_ARGS(route), route->attributes);
    }
    store(route->mdt_candidate, uint8_t{0});
}

void leave_update_lists(ipv4mc_route_entry_st *route) {
    const group change;
    mlib::leave_global_list<mlib::mt_update_links>(IPMC_ROUTE_LIST_MT_UPD, route);
    clear_bits(route, MRIB_ROUTE_MT);
    const bool was_queued =
        mlib::leave_global_list<mlib::mofrr_update_links>(IPMC_ROUTE_LIST_MOFRR_UPD, route);
    clear_bits(route, MRIB_ROUTE_MOFRR_UPD);
    if (was_queued) {
        MLIB_DEBUG(IPV4_DEBUG_DEV,
                   "0x%x: route: %lx Removed (%s,%s/%d) a:0x%lx from MoFRR upd list",
                   tid_or(route->table, no_table), reinterpret_cast<unsigned long>(route),
                   ROUTE_ARGS(route), route->attributes);
    }
}

void clear_properties(ipv4mc_route_entry_st *route, const char *text) {
    if ((route->attributes & MRIB_ROUTE_ENCAP) != 0 || route->encap != nullptr) {
        const ipv4mc_route_update_st upd{};
        const cerrno rc = ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_ENCAP, &upd);
        if (rc != 0) {
            MLIB_ERR("Failed to clear encapid on route %s - %s", text, cerr_strerror(rc));
        }
        clear_bits(route, MRIB_ROUTE_ENCAP);
    }
    if ((route->attributes & MRIB_ROUTE_RPF_ID) != 0) {
        const ipv4mc_route_update_st upd{};
        const cerrno rc = ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_RPF_ID, &upd);
        if (rc != 0) {
            MLIB_ERR("Failed to clear rpf id on route %s - %s", text, cerr_strerror(rc));
        }
        clear_bits(route, MRIB_ROUTE_RPF_ID);
    }
    if (route->t_bit != 0) {
        const ipv4mc_route_update_st upd{};
        const cerrno rc = ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_T_BIT, &upd);
        if (rc != 0) {
            MLIB_ERR("Failed to clear T-bit on route %s - %s", text, cerr_strerror(rc));
        }
    }
}

void tell_list_state(const ipv4mc_route_entry_st *route) {
    MLIB_DEBUG(IPV4_DEBUG_DEV,
               "0x%x [0x%x] - 0x%x, attr 0x%lx, p:%c n:%c d:%c h:%c, rp:%c rn:%c rd:%cr h:%c ep:%c "
               "en:%c",
               LIST_STATE_ARGS(route), yes_no(route->prev_encap != nullptr),
               yes_no(route->next_encap != nullptr));
}

void tell_platform(const route_request &request, ipv4mc_route_entry_st *route) {
    const cerrno rc = ip6mc_platform_route_operation_wrapper(
        IPV4MC_ACTION_CLEAR, request.table, request.source, request.group, request.pfx_len, &route,
        request.old_attributes, request.mofrr_attrib, *request.is_new);
    if (rc != 0) {
        MLIB_ERR("Failed to clear route  (%s,%s/%d) action %d %s Error %d %s", REQUEST_KEY,
                 REQUEST_ACTION, static_cast<int>(rc), cerr_strerror(rc));
    }
}

// The LOCAL list only, other than in DELETE: a REMOTE link may outlive a clear.
void check_memd(const route_request &request, const ipv4mc_route_entry_st *route) {
    if (!mlib::has_memd_links(route, IPV4MC_VRF_LOCAL)) {
        return;
    }
    char text[mlib::problem_text_size];
    snprintf(text, sizeof(text),
             "Action 0x%x (%s,%s/%d) a:0x%lx in memd of 0x%x (p:%c,n:%c) 0x%x/0x%x!!!",
             request.action, ROUTE_ARGS(route), route->attributes,
             tid_or(route->vrf_table[IPV4MC_VRF_LOCAL], 0),
             yes_no(route->memd_prev[IPV4MC_VRF_LOCAL] != nullptr),
             yes_no(route->memd_next[IPV4MC_VRF_LOCAL] != nullptr),
             route->vrf_table_id[IPV4MC_VRF_LOCAL], route->vrf_table_id[IPV4MC_VRF_REMOTE]);
    mlib::tell_problem(__func__, __LINE__, text);
}

}  // namespace

extern "C" {

void ip6mc_route_clear(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, char *text) {
    if (table != nullptr) {
        store(table->route_counters.route_clears, table->route_counters.route_clears + 1);
    }
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    if (ip6mc_shmwin_get_info(&hdr) != 0) {
        return;
    }
    clear_intfs(hdr, table, route, text);
    clear_fields(route);
    give_back_mdt_handle(route);
    unlink_from_vrfs(route, text);
    mlib::unbind_gre_transport(route, mlib::end_of_route::cleared);
    leave_candidates(route);
    leave_update_lists(route);
    clear_properties(route, text);
}

cerrno ip6mc_route_free(ipv4mc_route_entry_st *route) {
    if (route == nullptr) {
        MLIB_ERR("Null route_entry");
        return EINVAL;
    }
    const group change;
    if (route->rate != nullptr) {
        ipv4mc_route_rate_st *rate = route->rate;
        publish(route->rate, nullptr);
        ipv4mc_shmwin_free_inline(rate, IPMC_SHMWIN_ALLOC_ROUTE);
    }
    const cerrno rc = ip6mc_gtrie_platform_leaf_free(route->table->ingress_gtrie, route);
    if (rc != 0) {
        MLIB_ERR("Cannot free route %p from shared memory : %s", static_cast<void *>(route),
                 cerr_strerror(rc));
    }
    return rc;
}

}  // extern "C"

cerrno ipv4mc_route_clear_action(const route_request &request) {
    ipv4mc_route_entry_st *route = *request.route_entry;
    char text[route_text_size];
    snprintf(text, sizeof(text), "0x%x:(%s, %s/%d)", request.table->tid,
             mlib::source_text(&route->source), mlib::address_text(&route->group),
             static_cast<int>(route->group_mask_len));
    tell_list_state(route);
    ip6mc_route_clear(request.table, route, text);
    tell_platform(request, route);
    check_memd(request, route);
    mlib::free_route_object_id(request, route);
    ipmc_platform_err_handler_clear_route_err(route);
    // The field keeps its value: what it names is gone.
    mfwd_route_event_history_destroy(route->event_history);
    MLIB_TRACE_TEXT(IPV4_DEBUG_ROUTE, "%s (%s,%s/%d)", "Success", ROUTE_ARGS(route));
    return 0;
}
