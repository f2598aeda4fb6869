// Activation: the two sides of a table are linked, the platform hears of them, the tries are made.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/gtrie_params.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/diag/text.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;

constexpr char operation[] = "ipmc_table_activate_tid";

// The MDT handles of a TID table that follow its VRF; the eighth handle does not.
constexpr uint32_t linked_mdt_handles[] = {IPV4MC_MDT_GRE,     IPV4MC_MDT_MLDP, IPV4MC_MDT_INBAND,
                                           IPV4MC_MDT_P2MP_TE, IPV4MC_MDT_IR,   IPV4MC_MDT_G_INBAND,
                                           IPV4MC_MDT_TREE_SID};

// Whom either side was linked to before lets go.
void link_sides(ipv4mc_table_st *vrf_table, ipv4mc_table_st *tid_table, uint32_t vrf_id) {
    {
        const group change;
        if (vrf_table->tid_table != tid_table || tid_table->vtable != vrf_table) {
            ipmc_table_cut_links(vrf_table);
            ipmc_table_cut_links(tid_table);
        }
        publish(vrf_table->tid_table, tid_table);
        publish(tid_table->vtable, vrf_table);
    }
    TABLE_DEBUG(IPV4_DEBUG_EV, "Linking table %s/0x%x with table 0x%x mtu_cfg %d mtu %d",
                vrf_table->vrf_name, vrf_table->vrf_id, tid_table->tid, vrf_table->mtu_cfg,
                static_cast<int>(vrf_table->mtu));
    int with_mtu = 1;
    for (const uint32_t which : linked_mdt_handles) {
        const cerrno rc = ipmc_idb_link_mdt_idb_to_vrf(vrf_table, tid_table->mdt_handles[which],
                                                       vrf_id, with_mtu);
        if (rc != 0) {
            TABLE_ERR("Failed to link MDT idbs to VRF:0x%x %s", vrf_id, cerr_strerror(rc));
        }
        with_mtu = 0;
    }
}

// A table that was only deactivated has kept its tries, with what is in them.
cerrno make_signal_gtrie(ipv4mc_table_st *table, const char *vrf_name) {
    if (table->signal_gtrie != nullptr) {
        return 0;
    }
    ip6mc_gtrie_platform_err_init();
    ip6mc_gtrie_params_t params;
    ipv4mc_set_default_gtrie_init(&params, table, 1);
    params.gtrie_usage = IPMC_GTRIE_USAGE_SW_ONLY;
    cerrno error = 0;
    const group change;
    void *trie = ip6mc_gtrie_init(&params, &error);
    if (error != 0) {
        TABLE_ERR("Cannot init signal Gtrie for new table 0x%x(%s) error %d %s", table->tid,
                  vrf_name, static_cast<int>(error), cerr_strerror(error));
        return error;
    }
    publish(table->signal_gtrie, trie);
    return 0;
}

cerrno make_ingress_gtrie(ipv4mc_table_st *table, const char *vrf_name) {
    if (table->ingress_gtrie != nullptr) {
        return 0;
    }
    ip6mc_gtrie_params_t params;
    ipv4mc_set_default_gtrie_init(&params, table, 0);
    params.gtrie_usage = mlib::ingress_gtrie_usage();
    cerrno error = 0;
    const group change;
    void *trie = ip6mc_gtrie_platform_init(&params, &error);
    if (error != 0) {
        TABLE_ERR("Cannot init GTRIE for new %s table 0x%x(%s) error %s ",
                  params.gtrie_usage == IPMC_GTRIE_USAGE_INGRESS_EGRESS ? "dual" : "SW", table->tid,
                  vrf_name, cerr_strerror(error));
        ip6mc_gtrie_close(&table->signal_gtrie);
        return error;
    }
    publish(table->ingress_gtrie, trie);
    return 0;
}

// Stores what the VRF table lacks and tells the platform of it.
cerrno ipmc_table_activate_vrf(uint32_t vrf_id, const char *vrf_name, ipv4mc_table_st **vrf_table,
                               int is_new) {
    ipv4mc_table_st *table = *vrf_table;
    ipmc_table_take_vrf_keys(table, vrf_name, vrf_id);
    const cerrno rc = ip6mc_platform_table_operation_wrapper(IPV4MC_ACTION_ACTIVATE, 0, vrf_id,
                                                             vrf_name, vrf_table, is_new);
    if (rc != 0) {
        MLIB_ERR("Error in platform dependant call action 0x%x %s %s VRF table %s/0x%x : %d %s",
                 IPV4MC_ACTION_ACTIVATE, ipv4_mlib_action_string(IPV4MC_ACTION_ACTIVATE, nullptr),
                 is_new != 0 ? "new" : "existing", vrf_name, vrf_id, static_cast<int>(rc),
                 cerr_strerror(rc));
        ipmc_table_drop_vrf_keys(table);
        return rc;
    }
    ipmc_idb_link_vrf(vrf_id, table, 1);
    store(table->active, 1U);
    MLIB_DEBUG(IPV4_DEBUG_EV, "VRF table 0x%x/%s activated", vrf_id, vrf_name);
    return 0;
}

// The TID table that this VRF left behind at its last deactivation goes now that another takes its
// place.
void delete_previous_tid_table(ipv4mc_table_st *vrf_table, uint32_t tid) {
    const uint32_t previous = vrf_table->prev_tid;
    if (previous == 0) {
        return;
    }
    if (previous != tid) {
        ipv4mc_table_st *left_behind = ip6mc_table_lookup_by_tbl_id(previous);
        // One that another VRF has taken over meanwhile is that VRF's.
        if (left_behind != nullptr &&
            (left_behind->vtable == nullptr || left_behind->vtable == vrf_table)) {
            ip6mc_table_operation(IPV4MC_ACTION_DELETE, previous, 0, nullptr, &left_behind, 16);
        }
    }
    store(vrf_table->prev_tid, 0U);
}

}  // namespace

cerrno ipmc_table_activate_tid(uint32_t tid, uint32_t vrf_id, const char *vrf_name,
                               ipv4mc_table_st **vrf_table, ipv4mc_table_st **tid_table,
                               int *is_new) {
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
    if (table == nullptr) {
        ipv4mc_table_st *no_vrf = nullptr;
        int no_vrf_is_new = 0;
        if (ipmc_table_create("", tid, 0, &no_vrf, &no_vrf_is_new, &table, is_new) == 0) {
            MLIB_ERR("Tbl activate (TID) : Failed to create tbl 0x%x", tid);
            return ENOMEM;
        }
        *is_new = 1;
    }
    *tid_table = table;
    if (*vrf_table != nullptr) {
        link_sides(*vrf_table, table, vrf_id);
    } else {
        MLIB_DEBUG(IPV4_DEBUG_EV, "No link to VRF table");
    }
    if (table->active != 0) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "TID table already active !!");
        return 0;
    }
    cerrno rc = ip6mc_platform_table_operation_wrapper(IPV4MC_ACTION_ACTIVATE, tid, vrf_id,
                                                       vrf_name, tid_table, *is_new);
    if (rc != 0) {
        MLIB_ERR("Error in platform dependant call action 0x%x %s %s TID table %d(%s): %d %s",
                 IPV4MC_ACTION_ACTIVATE, ipv4_mlib_action_string(IPV4MC_ACTION_ACTIVATE, nullptr),
                 *is_new != 0 ? "new" : "existing", static_cast<int>(tid), vrf_name,
                 static_cast<int>(rc), cerr_strerror(rc));
        return rc;
    }
    rc = make_signal_gtrie(table, vrf_name);
    if (rc == 0) {
        rc = make_ingress_gtrie(table, vrf_name);
    }
    if (rc != 0) {
        return rc;
    }
    store(table->active, 1U);
    MLIB_DEBUG(IPV4_DEBUG_EV, "TID table 0x%x activated", tid);
    if (*vrf_table != nullptr && (*vrf_table)->mtu_cfg != 0) {
        ip6mc_idb_mdt_mtu_set(*vrf_table);
    }
    return 0;
}

cerrno ipmc_table_activate(uint32_t tid, uint32_t vrf_id, const char *vrf_name,
                           ipv4mc_table_st **vrf_table, int is_new) {
    ipv4mc_table_st *table = *vrf_table;
    if (table != nullptr) {
        if (table->table_type != IPV4MC_TABLE_VRF) {
            MLIB_ERR("Tbl activate : Invalid table type");
            return EINVAL;
        }
        const bool was_active = table->active != 0;
        if (!was_active) {
            const cerrno rc = ipmc_table_activate_vrf(vrf_id, vrf_name, vrf_table, is_new);
            if (rc != 0) {
                MLIB_ERR("VRF Table activation failed");
                return rc;
            }
        }
        // Also where an earlier activation was cut off before it came to this.
        delete_previous_tid_table(table, tid);
        if (was_active) {
            MLIB_DEBUG(IPV4_DEBUG_EV, "VRF table already active !!");
        }
    }
    if (tid == 0) {
        return 0;
    }
    ipv4mc_table_st *tid_table = nullptr;
    int tid_is_new = 0;
    const cerrno rc =
        ipmc_table_activate_tid(tid, vrf_id, vrf_name, vrf_table, &tid_table, &tid_is_new);
    if (rc != 0) {
        MLIB_ERR("VRF Table activation failed");
    }
    return rc;
}
