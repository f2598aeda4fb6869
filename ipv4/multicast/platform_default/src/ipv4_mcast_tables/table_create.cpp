// Making the two sides of a table. What a failed creation made is taken back.
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
#include "services/journal/journal.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

constexpr char operation[] = "ipmc_table_create";

ipv4mc_table_st *allocate_vrf_table(const char *vrf_name, uint32_t tid, uint32_t vrf_id) {
    const size_t size = sizeof(ipv4mc_table_st);
    auto *table =
        static_cast<ipv4mc_table_st *>(ipv4mc_shmwin_malloc_inline(size, IPMC_SHMWIN_ALLOC_TABLE));
    if (table == nullptr) {
        TABLE_ERR("Cannot allocate %zd bytes for new table 0x%x/0x%x/%s", size, tid, vrf_id,
                  vrf_name);
        return nullptr;
    }
    table->svd_location = IPV4MC_SVD_REMOTE;
    table->table_limit = IPV4MC_TABLE_LIMIT_NONE;
    return table;
}

// Configured values stay; the others go back to their defaults at each update.
void set_vrf_defaults(ipv4mc_table_st *table) {
    store(table->table_type, static_cast<uint32_t>(IPV4MC_TABLE_VRF));
    if (table->mtu_cfg == 0) {
        store(table->mtu, IPV4MC_TABLE_MTU_DEFAULT);
    }
    if (table->mtu2_cfg == 0) {
        store(table->mtu2, IPV4MC_TABLE_MTU_DEFAULT);
    }
    store(table->table_limit_step, IPV4MC_TABLE_LIMIT_STEP_DEFAULT);
}

void take_out_of_threads(ipv4mc_table_st *table) {
    if (table->vrf_name[0] != '\0') {
        ipmc_table_rem_wavl(table, IPV4MC_TABLE_THREAD_NAME);
    }
    if (table->vrf_id != 0) {
        ipmc_table_rem_wavl(table, IPV4MC_TABLE_THREAD_VRF_ID);
    }
}

// Undoes a VRF table that was made by this call, as far as it was made.
void undo_new_vrf_table(ipv4mc_table_st **vrf_table) {
    ipv4mc_table_st *table = *vrf_table;
    const group change;
    take_out_of_threads(table);
    if (wavl_running(&table->idb_tree) != 0) {
        shm_wavl_finish(&ipmc_table_idb_fns, &table->idb_tree);
    }
    ipmc_bvi_db_release(table);
    ipv4mc_shmwin_free_inline(table, IPMC_SHMWIN_ALLOC_TABLE);
    *vrf_table = nullptr;
}

// The record and its own trees become visible together: whoever finds a table finds a whole one,
// also after this process died before it came to the platform.
bool make_vrf_table(const char *vrf_name, uint32_t tid, uint32_t vrf_id,
                    ipv4mc_table_st **vrf_table) {
    const group change;
    ipv4mc_table_st *table = allocate_vrf_table(vrf_name, tid, vrf_id);
    if (table == nullptr) {
        return false;
    }
    set_vrf_defaults(table);
    ipmc_table_take_vrf_keys(table, vrf_name, vrf_id);
    if (shm_wavl_init(&ipmc_table_idb_fns, &table->idb_tree, IPV4MC_IDB_THREADS) != 0 ||
        ip6mc_bvi_db_init(table) == 0) {
        undo_new_vrf_table(&table);
        return false;
    }
    *vrf_table = table;
    return true;
}

bool create_vrf(const char *vrf_name, uint32_t tid, uint32_t vrf_id, ipv4mc_table_st **vrf_table) {
    ipv4mc_table_st *table = nullptr;
    if (!make_vrf_table(vrf_name, tid, vrf_id, &table)) {
        return false;
    }
    ipv4mc_table_st *told = table;
    const cerrno rc = ip6mc_platform_table_operation_wrapper(IPV4MC_ACTION_CREATE, tid, vrf_id,
                                                             vrf_name, &told, 1);
    if (rc != 0) {
        TABLE_ERR("Error in platform dependant call action 0x%x %s %s VRF table %s/0x%x : %d %s",
                  IPV4MC_ACTION_CREATE, ipv4_mlib_action_string(IPV4MC_ACTION_CREATE, nullptr),
                  "new", vrf_name, vrf_id, static_cast<int>(rc), cerr_strerror(rc));
        undo_new_vrf_table(&table);
        return false;
    }
    *vrf_table = table;
    return true;
}

// A restart may have left the BVI trees of the table unattached.
bool update_vrf(const char *vrf_name, uint32_t vrf_id, ipv4mc_table_st *table) {
    {
        const group change;
        set_vrf_defaults(table);
        ipmc_table_take_vrf_keys(table, vrf_name, vrf_id);
    }
    if (ip6mc_bvi_db_init(table) != 0) {
        return true;
    }
    TABLE_ERR("Error in bvi_db_init (recovery) action 0x%x %s existing VRF table %s/0x%x",
              IPV4MC_ACTION_CREATE, ipv4_mlib_action_string(IPV4MC_ACTION_CREATE, nullptr),
              vrf_name, vrf_id);
    return false;
}

bool create_or_update_vrf(const char *vrf_name, uint32_t tid, uint32_t vrf_id,
                          ipv4mc_table_st **vrf_table, int *vrf_is_new) {
    if (*vrf_table != nullptr) {
        if (!update_vrf(vrf_name, vrf_id, *vrf_table)) {
            return false;
        }
    } else {
        if (!create_vrf(vrf_name, tid, vrf_id, vrf_table)) {
            return false;
        }
        *vrf_is_new = 1;
    }
    TABLE_DEBUG(IPV4_DEBUG_EV, "Table %s/v:0x%x %s !!", (*vrf_table)->vrf_name,
                (*vrf_table)->vrf_id, *vrf_is_new != 0 ? "created" : "updated");
    return true;
}

ipv4mc_table_st *make_tid_record(uint32_t tid) {
    void *object = nullptr;
    const cerrno rc =
        shm_avl_tree_allocate_object(&ipmc_db_tid_fns, ipv4mc_desc->shmwin_info->table_tid_tree,
                                     sizeof(ipv4mc_table_st), &object);
    if (rc != 0 || object == nullptr) {
        TABLE_ERR("Cannot allocate %zd bytes for table <tid> 0x%x : %s", sizeof(ipv4mc_table_st),
                  tid, cerr_strerror(rc));
        return nullptr;
    }
    auto *table = static_cast<ipv4mc_table_st *>(object);
    table->table_type = IPV4MC_TABLE_TID;
    table->tid = tid;
    platform_get_my_nodeid(&table->node_id);
    return table;
}

ipv4mc_table_st *make_tid_table(uint32_t tid) {
    const group change;
    ipv4mc_table_st *table = make_tid_record(tid);
    if (table != nullptr) {
        ipmc_table_add_avl(table);
    }
    return table;
}

void undo_new_tid_table(ipv4mc_table_st *table) {
    const group change;
    ipmc_table_rem_avl(table);
    shm_avl_tree_free_object(&ipmc_db_tid_fns, ipv4mc_desc->shmwin_info->table_tid_tree, table);
}

cerrno tell_platform_of_new_tid(ipv4mc_table_st *table, uint32_t vrf_id, const char *vrf_name) {
    ipmc_table_zero_route_counters(table);
    const uint32_t tid = table->tid;
    const cerrno rc = ip6mc_platform_table_operation_wrapper(IPV4MC_ACTION_CREATE, tid, vrf_id,
                                                             vrf_name, &table, 1);
    if (rc != 0) {
        TABLE_ERR("Error in platform dependant call action 0x%x %s %s TID table 0x%x : %d %s",
                  IPV4MC_ACTION_CREATE, ipv4_mlib_action_string(IPV4MC_ACTION_CREATE, nullptr),
                  "new", tid, static_cast<int>(rc), cerr_strerror(rc));
    }
    return rc;
}

}  // namespace

void ipmc_table_zero_route_counters(ipv4mc_table_st *table) {
    const group change;
    auto *words = reinterpret_cast<uint32_t *>(&table->route_counters);
    for (size_t i = 0; i < sizeof(table->route_counters) / sizeof(*words); ++i) {
        store(words[i], 0U);
    }
}

// A table stands in a thread only when it has that key, so the key and the insertion are one
// change.
void ipmc_table_take_vrf_keys(ipv4mc_table_st *table, const char *vrf_name, uint32_t vrf_id) {
    const group change;
    if (vrf_name[0] != '\0' && table->vrf_name[0] == '\0') {
        mfwd6::journal::save(table->vrf_name[0]);
        sstrncpy(table->vrf_name, vrf_name, sizeof(table->vrf_name));
        ipmc_table_add_wavl(table, IPV4MC_TABLE_THREAD_NAME);
    }
    if (vrf_id != 0 && table->vrf_id == 0) {
        store(table->vrf_id, vrf_id);
        ipmc_table_add_wavl(table, IPV4MC_TABLE_THREAD_VRF_ID);
    }
}

int ipmc_table_create(const char *vrf_name, uint32_t tid, uint32_t vrf_id,
                      ipv4mc_table_st **vrf_table, int *vrf_is_new, ipv4mc_table_st **tid_table,
                      int *tid_is_new) {
    *vrf_is_new = 0;
    *tid_is_new = 0;
    if (vrf_id != 0 || vrf_name[0] != '\0') {
        if (!create_or_update_vrf(vrf_name, tid, vrf_id, vrf_table, vrf_is_new)) {
            return 0;
        }
    }
    if (tid == 0 || *tid_table != nullptr) {
        return 1;
    }
    ipv4mc_table_st *table = make_tid_table(tid);
    if (table != nullptr) {
        *tid_is_new = 1;
        if (tell_platform_of_new_tid(table, vrf_id, vrf_name) == 0) {
            *tid_table = table;
            TABLE_DEBUG(IPV4_DEBUG_EV, "Table tid 0x%x created !!", tid);
            return 1;
        }
    }
    if (*vrf_is_new != 0) {
        undo_new_vrf_table(vrf_table);
    }
    if (table != nullptr) {
        undo_new_tid_table(table);
    }
    return 0;
}
