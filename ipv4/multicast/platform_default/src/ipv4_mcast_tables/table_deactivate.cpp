// Deactivation and deletion: what a table carries goes, in the order in which it came.
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/multicast_alloc.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/diag/text.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;

constexpr char operation[] = "ipmc_table_deactivate";

// In the order in which they are given back; the eighth handle stays out of this walk.
constexpr uint32_t deleted_mdt_handles[] = {
    IPV4MC_MDT_GRE,     IPV4MC_MDT_MLDP, IPV4MC_MDT_INBAND,  IPV4MC_MDT_G_INBAND,
    IPV4MC_MDT_P2MP_TE, IPV4MC_MDT_IR,   IPV4MC_MDT_TREE_SID};

constexpr uint32_t mdt_unlock_kind_table = 7;

char yes_no(const void *pointer) {
    return pointer != nullptr ? 'Y' : 'N';
}

const char *action_text(const table_request &request) {
    return ipv4_mlib_action_string(request.action, nullptr);
}

void move_bvi_entries(const table_request &request) {
    ipmc_idb_link_vrf(request.vrf_id, request.vrf_table, 0);
    const uint32_t to = ipv4mc_desc->default_vrf_id;
    TABLE_DEBUG(IPV4_DEBUG_BVI, "%s:TBL DEL! Moving BVI entries from vid[0x%x] to tid[0x%x]",
                operation, request.vrf_id, to);
    if (ip6mc_bvi_intf_db_walk2(request.vrf_id, to, 1) != 0) {
        TABLE_ERR(
            "ERR:%s Moving BVI entries from vid[0x%x] to tid[0x%x] failed but proceeding with "
            "table delete",
            operation, request.vrf_id, to);
    }
}

// A table whose core routes stay linked stays active when it is only deactivated.
bool keeps_core_routes(const table_request &request) {
    return request.action == IPV4MC_ACTION_DEACTIVATE && request.tid_table != nullptr &&
           request.tid_table->memd_route_list != nullptr;
}

void unlink_tid_table(const table_request &request) {
    ipv4mc_table_st *table = request.tid_table;
    TABLE_DEBUG(IPV4_DEBUG_EV, "Action %s: Unlinking TID table 0x%x (%c)", action_text(request),
                table->tid, yes_no(table->vtable));
    if (keeps_core_routes(request)) {
        TABLE_DEBUG(IPV4_DEBUG_EV,
                    "Action %s: leave tbl 0x%x (%c) as ACTIVE since memd list in non-null",
                    action_text(request), table->tid, yes_no(table->vtable));
    } else {
        store(table->active, 0U);
    }
}

// The name stays in its thread, so that a later activation finds the table by name. A table without
// a name keeps its id, as the platform could not be told which one it is; and a table whose name
// another one has keeps it unless it goes, as nobody would find it.
bool keeps_id(const table_request &request) {
    const ipv4mc_table_st *table = request.vrf_table;
    if (table->vrf_name[0] == '\0') {
        return true;
    }
    return request.action != IPV4MC_ACTION_DELETE &&
           !tree_node_linked(&table->node[IPV4MC_TABLE_THREAD_NAME]);
}

void unlink_vrf_table(const table_request &request) {
    ipv4mc_table_st *table = request.vrf_table;
    if (table->tid_table != nullptr) {
        store(table->prev_tid, table->tid_table->tid);
    }
    TABLE_DEBUG(IPV4_DEBUG_EV, "Action %s: Unlinking VID table 0x%x/%s (%c)", action_text(request),
                table->vrf_id, table->vrf_name, yes_no(table->tid_table));
    store(table->active, 0U);
    if (table->vrf_id != 0 && !keeps_id(request)) {
        ipmc_table_rem_wavl(table, IPV4MC_TABLE_THREAD_VRF_ID);
        store(table->vrf_id, 0U);
    }
}

// Both sides in one change: a process killed here leaves them linked or not.
void unlink(const table_request &request) {
    if (request.vrf_table != nullptr) {
        move_bvi_entries(request);
    }
    const bool tid_active = request.tid_table != nullptr && request.tid_table->active != 0;
    const bool vrf_active = request.vrf_table != nullptr && request.vrf_table->active != 0;
    const group change;
    if (tid_active) {
        unlink_tid_table(request);
    }
    if (vrf_active) {
        unlink_vrf_table(request);
        ipmc_table_cut_links(request.vrf_table);
    }
    if (tid_active) {
        ipmc_table_cut_links(request.tid_table);
    }
}

cerrno tell_platform_of_tid(table_request &request) {
    const cerrno rc = ip6mc_platform_table_operation_wrapper(
        request.action, request.tid, request.vrf_id, request.vrf_name, &request.tid_table, 0);
    if (rc != 0) {
        TABLE_ERR("Error in platform dependant call action %d %s existing table 0x%x %d %s",
                  static_cast<int>(request.action), action_text(request), request.tid,
                  static_cast<int>(rc), cerr_strerror(rc));
    }
    return rc;
}

cerrno tell_platform_of_vrf(table_request &request) {
    const cerrno rc = ip6mc_platform_table_operation_wrapper(
        request.action, request.tid, request.vrf_id, request.vrf_name, &request.vrf_table, 0);
    if (rc != 0) {
        TABLE_ERR("Error in platform dependant call action %d %s existing table v:0x%x(%s) %d %s",
                  static_cast<int>(request.action), action_text(request), request.vrf_id,
                  request.vrf_name, static_cast<int>(rc), cerr_strerror(rc));
    }
    return rc;
}

cerrno tell_platform(table_request &request) {
    cerrno rc = 0;
    if (request.tid_table != nullptr && !keeps_core_routes(request)) {
        rc = tell_platform_of_tid(request);
    }
    if (rc == 0 && request.vrf_table != nullptr) {
        rc = tell_platform_of_vrf(request);
    }
    return rc;
}

void close_tries(const table_request &request) {
    ipv4mc_table_st *table = request.tid_table;
    if (request.action == IPV4MC_ACTION_CLEAR) {
        ipmc_table_reset_route_counters(table);
        TABLE_DEBUG(IPV4_DEBUG_EV, "Action=CLEAR, Table NOT deleted");
    } else if (request.action == IPV4MC_ACTION_DELETE) {
        mlib::end_unfinished_routes(table);
        ip6mc_gtrie_platform_close(&table->ingress_gtrie);
        ipmc_table_close_signal_gtrie(table);
        TABLE_DEBUG(IPV4_DEBUG_EV, "Action=DELETE, Table being deleted");
        _ltrace_2(ip6mc_mlib_eve_ltrace(), MLIB_TRACE_TABLE_DELETE, table->tid, request.vrf_id);
    }
}

void count_interfaces(const table_request &request) {
    ipmc_idb_ifcount_walk_st seen{};
    wavl_walk(&request.vrf_table->idb_tree, IPV4MC_IDB_THREAD_VRF, ipmc_idb_local_ifcount_walk_fn,
              &seen);
    TABLE_DEBUG(IPV4_DEBUG_DEV, "Action %s : Table %s/0x%x has %d idbs (mdt present %c)",
                action_text(request), request.vrf_table->vrf_name, request.vrf_id,
                static_cast<int>(seen.count), seen.mdt_present != 0 ? 'Y' : 'N');
}

void unlock_mdt_handles(ipv4mc_table_st *table) {
    for (const uint32_t which : deleted_mdt_handles) {
        const ifhtype handle = table->mdt_handles[which];
        if (handle == 0) {
            continue;
        }
        const cerrno rc = ip6mc_idb_mdt_unlock(table, handle, mdt_unlock_kind_table);
        if (rc != 0) {
            TABLE_ERR("0x%x: Failed to unset MDT handle. prev 0x%x, error %s", table->tid, handle,
                      cerr_strerror(rc));
        } else {
            TABLE_DEBUG(IPV4_DEBUG_IDB, "  0x%x: MDT handle cleared. prev 0x%x", table->tid,
                        handle);
        }
        store(table->mdt_handles[which], 0U);
    }
}

void free_tid_table(ipv4mc_table_st *table) {
    unlock_mdt_handles(table);
    const group change;
    ipmc_table_cut_links(table);
    ipmc_table_rem_avl(table);
    shm_avl_tree_free_object(&ipmc_db_tid_fns, ipv4mc_desc->shmwin_info->table_tid_tree, table);
}

void delete_records(table_request &request) {
    if (request.vrf_table != nullptr) {
        ipmc_table_free_vrf(request.vrf_table);
        request.vrf_table = nullptr;
    }
    if (request.tid_table != nullptr) {
        free_tid_table(request.tid_table);
        request.tid_table = nullptr;
    }
    TABLE_DEBUG(IPV4_DEBUG_EV, "Action=DELETE, Tables deleted");
}

}  // namespace

void ipmc_table_cut_links(ipv4mc_table_st *table) {
    ipv4mc_table_st *const nobody = nullptr;
    const group change;
    if (ipv4mc_table_st *tid_side = table->tid_table; tid_side != nullptr) {
        if (tid_side->vtable == table) {
            publish(tid_side->vtable, nobody);
        }
        publish(table->tid_table, nobody);
    }
    if (ipv4mc_table_st *vrf_side = table->vtable; vrf_side != nullptr) {
        if (vrf_side->tid_table == table) {
            publish(vrf_side->tid_table, nobody);
        }
        publish(table->vtable, nobody);
    }
}

namespace {

bool is_found_by_name(const ipv4mc_table_st *table) {
    return tree_node_linked(&table->node[IPV4MC_TABLE_THREAD_NAME]);
}

// Of tables with one name the first is found by it. When that one goes, the next takes its place:
// it would be found by name no more, and outlive the deletion of all tables.
void pass_name_on(const ipv4mc_table_st *from) {
    const wavl_tree *tree = ip6mc_get_table_vid_name_db();
    constexpr uint32_t by_id = IPV4MC_TABLE_THREAD_VRF_ID;
    void *at = multicast_table_wrapper_for_shm_wavl_get_first(tree, by_id);
    for (; at != nullptr; at = multicast_table_wrapper_for_shm_wavl_get_next(tree, at, by_id)) {
        auto *table = static_cast<ipv4mc_table_st *>(at);
        if (table != from && !is_found_by_name(table) &&
            strncmp(table->vrf_name, from->vrf_name, IPV4MC_VRF_NAME_COMPARED) == 0) {
            ipmc_table_add_wavl(table, IPV4MC_TABLE_THREAD_NAME);
            return;
        }
    }
}

}  // namespace

void ipmc_table_drop_vrf_keys(ipv4mc_table_st *table) {
    const group change;
    if (table->vrf_name[0] != '\0') {
        const bool was_found = is_found_by_name(table);
        ipmc_table_rem_wavl(table, IPV4MC_TABLE_THREAD_NAME);
        if (was_found) {
            pass_name_on(table);
        }
        store(table->vrf_name[0], '\0');
    }
    if (table->vrf_id != 0) {
        ipmc_table_rem_wavl(table, IPV4MC_TABLE_THREAD_VRF_ID);
        store(table->vrf_id, 0U);
    }
}

void ipmc_table_free_vrf(ipv4mc_table_st *vrf_table) {
    if (vrf_table->svd_location == IPV4MC_SVD_PENDING_LOCAL) {
        ipmc_svd_extract_plist(vrf_table);
    }
    if (wavl_count(&vrf_table->idb_tree, IPV4MC_IDB_THREAD_VRF) != 0) {
        ipmc_idb_link_vrf(vrf_table->vrf_id, vrf_table, 0);
    }
    const group change;
    ipmc_table_cut_links(vrf_table);
    ipmc_table_drop_vrf_keys(vrf_table);
    shm_wavl_finish(&ipmc_table_idb_fns, &vrf_table->idb_tree);
    ipmc_bvi_db_release(vrf_table);
    ipv4mc_shmwin_free_inline(vrf_table, IPMC_SHMWIN_ALLOC_TABLE);
}

cerrno ipmc_table_deactivate(table_request &request) {
    if (request.vrf_table == nullptr && request.tid_table == nullptr) {
        TABLE_DEBUG(IPV4_DEBUG_WRN, "Tbl deactivate: Null %s",
                    request.tid != 0 ? "table tid" : "table vid");
        return EINVAL;
    }
    _ltrace_3(ip6mc_mlib_eve_ltrace(), MLIB_TRACE_TABLE_DEACTIVATE, request.action, request.tid,
              request.vrf_id);
    if (request.vrf_table != nullptr) {
        ip6mc_idb_refcount_sanity_walk(request.vrf_table);
    }
    TABLE_DEBUG(IPV4_DEBUG_EV, "Action %s : Table %s/0x%x (%c) 0x%xx (%c)", action_text(request),
                request.vrf_name, request.vrf_id, yes_no(request.vrf_table), request.tid,
                yes_no(request.tid_table));
    if (request.action != IPV4MC_ACTION_CLEAR) {
        unlink(request);
    }
    const cerrno rc = tell_platform(request);
    if (rc != 0) {
        TABLE_ERR("table action %s for 0x%x(%s) failed : %s", action_text(request), request.tid,
                  request.vrf_name, cerr_strerror(rc));
        return rc;
    }
    if (request.tid_table != nullptr) {
        close_tries(request);
    }
    if (request.action != IPV4MC_ACTION_CLEAR && request.vrf_table != nullptr) {
        count_interfaces(request);
    }
    if (request.action == IPV4MC_ACTION_DELETE) {
        delete_records(request);
    }
    TABLE_DEBUG(IPV4_DEBUG_EV, "Success table action %s for 0x%x(%s)", action_text(request),
                request.tid, request.vrf_name);
    if (request.table_pp != nullptr) {
        *request.table_pp = request.vrf_table != nullptr ? request.vrf_table : request.tid_table;
    }
    return 0;
}
