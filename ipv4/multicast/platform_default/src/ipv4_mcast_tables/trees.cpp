// The trees that find a table, by VRF name, by VRF id and by table id.
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_guards.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"

namespace {

const tree_compare_fn name_tree_compares[] = {ipmc_tbl_wavl_compare_vrf_name,
                                              ipmc_tbl_wavl_compare_vrf_id};

// Null while the window is closed in this process; the tree services refuse that.
ipv4mc_shmwin_hdr_st *header() {
    return mlib::window_is_open() ? ipv4mc_desc->shmwin_info : nullptr;
}
wavl_tree *name_tree() {
    return header() != nullptr ? &header()->table_name_tree : nullptr;
}
shm_avl_tree *tid_tree() {
    return header() != nullptr ? header()->table_tid_tree : nullptr;
}

// The key belongs to the process and is written for each search: two threads of a process must not
// search at once.
bool have_search_key() {
    if (table_search != nullptr) {
        return true;
    }
    void *object = nullptr;
    const cerrno rc = shm_avl_tree_allocate_object(&ipmc_db_tid_fns, tid_tree(),
                                                   sizeof(ipv4mc_table_st), &object);
    if (rc != 0 || object == nullptr) {
        MLIB_ERR("Cannot allocate %zd bytes for table search %s: %s", sizeof(ipv4mc_table_st),
                 object == nullptr ? "(null ptr)" : "", cerr_strerror(rc));
        return false;
    }
    table_search = static_cast<ipv4mc_table_st *>(object);
    return true;
}

ipv4mc_table_st *search_by_tid(uint32_t mode, uint32_t tid) {
    if (!mlib::library_is_ready()) {
        MLIB_ERR("Multicast library Not ready\n");
        return nullptr;
    }
    if (!have_search_key()) {
        return nullptr;
    }
    table_search->tid = tid;
    void *found = nullptr;
    cerrno rc = 0;
    {
        const mlib::tbl_read_lock guard(__LINE__);
        rc = shm_avl_tree_search(&ipmc_db_tid_fns, tid_tree(), mode, table_search, &found);
    }
    if (rc == 0) {
        return static_cast<ipv4mc_table_st *>(found);
    }
    if (rc != TREE_E_NOT_FOUND) {
        MLIB_DEBUG(IPV4_DEBUG_WRN, "Tbl lookup failed for tid:0x%x : %s", tid, cerr_strerror(rc));
    }
    return nullptr;
}

}  // namespace

extern "C" {

const shm_avl_fns ipmc_db_tid_fns = {ipmc_shmwin_avl_calloc, ipmc_shmwin_avl_free, nullptr, nullptr,
                                     ipmc_tbl_avl_compare_tbl_id};

const shm_wavl_fns ipmc_db_table_fns = {ipmc_shmwin_wavl_malloc, ipmc_shmwin_wavl_free,
                                        ip6mc_tbl_wavl2db, name_tree_compares, nullptr};

// The record is its own node.
void *ip6mc_tbl_wavl2db(void *node) {
    return node;
}
void *ip6mc_tbl_db2wavl(void *table) {
    return table;
}

ipv4mc_table_st *ip6mc_table_lookup_by_tbl_id(uint32_t tid) {
    return search_by_tid(shm_avl_exact, tid);
}
ipv4mc_table_st *ip6mc_table_tid_get_first(void) {
    return search_by_tid(shm_avl_first, 0);
}
ipv4mc_table_st *ip6mc_table_tid_get_next(uint32_t tid) {
    return search_by_tid(shm_avl_next, tid);
}
ipv4mc_table_st *ip6mc_table_tid_get_next_eq(uint32_t tid) {
    return search_by_tid(shm_avl_next_or_equal, tid);
}

int ip6mc_table_is_valid(const ipv4mc_table_st *table) {
    if (table != nullptr && table->table_type != IPV4MC_TABLE_TID) {
        table = table->tid_table;
    }
    return table != nullptr && table->signal_gtrie != nullptr && table->ingress_gtrie != nullptr
               ? 1
               : 0;
}

int ip6mc_table_is_local(uint32_t tid) {
    const ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
    if (table == nullptr) {
        return 0;
    }
    return table->child_route_count != 0 || table->mdt_master_lc != 0 ||
                   (table->vtable != nullptr && table->vtable->svd_location == IPV4MC_SVD_LOCAL)
               ? 1
               : 0;
}

cerrno ipmc_table_tid_prep_for_special_access(void) {
    return avl_tree_init_fns_shm(tid_tree(), ipmc_tbl_avl_compare_tbl_id, ipmc_shmwin_avl_calloc,
                                 ipmc_shmwin_avl_free);
}

wavl_tree *ip6mc_get_table_vid_name_db(void) {
    return name_tree();
}
const shm_wavl_fns *ip6mc_get_table_vid_name_db_fns(void) {
    return &ipmc_db_table_fns;
}
shm_avl_tree *ip6mc_get_table_tid_db(void) {
    return tid_tree();
}
const shm_avl_fns *ip6mc_get_table_tid_db_fns(void) {
    return &ipmc_db_tid_fns;
}

void *multicast_table_wrapper_for_shm_wavl_get_first(const wavl_tree *tree, uint32_t thread) {
    return shm_wavl_get_first(&ipmc_db_table_fns, tree, thread);
}

void *multicast_table_wrapper_for_shm_wavl_get_next(const wavl_tree *tree, const void *node,
                                                    uint32_t thread) {
    return shm_wavl_get_next(&ipmc_db_table_fns, tree, node, thread);
}

}  // extern "C"

void ipmc_table_add_wavl(ipv4mc_table_st *table, uint32_t thread) {
    if (table == nullptr) {
        MLIB_ERR("Tbl add wavl : Null table ptr");
        return;
    }
    void *node = ip6mc_tbl_db2wavl(table);
    if (node == nullptr) {
        MLIB_ERR("Tbl add wavl : Null wavl node");
        return;
    }
    void *inserted = nullptr;
    {
        const mlib::tbl_write_lock guard(__LINE__);
        inserted = shm_wavl_insert_thread(&ipmc_db_table_fns, name_tree(), node, thread);
    }
    if (inserted == nullptr) {
        MLIB_ERR("Tbl add wavl failed for %s/vid:0x%x, type 0x%x", table_name_text(table->vrf_name),
                 table->vrf_id, table->table_type);
        return;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "Tbl add wavl done for %s/vid:0x%x, type 0x%x",
               table_name_text(table->vrf_name), table->vrf_id, table->table_type);
}

void ipmc_table_rem_wavl(ipv4mc_table_st *table, uint32_t thread) {
    if (table == nullptr) {
        MLIB_ERR("Tbl del wavl : Null table");
        return;
    }
    void *node = ip6mc_tbl_db2wavl(table);
    if (node == nullptr) {
        MLIB_ERR("Tbl del wavl : Null wavl node");
        return;
    }
    void *removed = nullptr;
    {
        const mlib::tbl_write_lock guard(__LINE__);
        removed = shm_wavl_delete_thread(&ipmc_db_table_fns, name_tree(), node, thread);
    }
    if (removed == nullptr) {
        MLIB_ERR("Tbl del wavl failed for %s/vid:0x%x/tid:0x%x, type 0x%x",
                 table_name_text(table->vrf_name), table->vrf_id, table->tid, table->table_type);
        return;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "Tbl del wavl for %s/vid:0x%x/tid:0x%x, type 0x%x",
               table_name_text(table->vrf_name), table->vrf_id, table->tid, table->table_type);
}

void ipmc_table_add_avl(ipv4mc_table_st *table) {
    if (table == nullptr) {
        MLIB_ERR("Tbl add avl : Null table ptr");
        return;
    }
    if (tid_tree() == nullptr) {
        MLIB_ERR("Tbl add avl : No tree to add table t:0x%x", table->tid);
        return;
    }
    cerrno rc = 0;
    {
        const mlib::tbl_write_lock guard(__LINE__);
        rc = shm_avl_tree_insert(&ipmc_db_tid_fns, tid_tree(), table);
    }
    if (rc != 0) {
        MLIB_ERR("Tbl add avl failed for tid:0x%x : %s", table->tid, cerr_strerror(rc));
        return;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "Tbl add avl done for tid:0x%x", table->tid);
}

void ipmc_table_rem_avl(ipv4mc_table_st *table) {
    if (table == nullptr) {
        MLIB_ERR("Tbl del avl : Null table");
        return;
    }
    if (tid_tree() == nullptr) {
        // Says "add" although it removes: the text is what operators know.
        MLIB_ERR("Tbl rem avl : No tree to add table t:0x%x", table->tid);
        return;
    }
    cerrno rc = 0;
    {
        const mlib::tbl_write_lock guard(__LINE__);
        rc = shm_avl_tree_delete(&ipmc_db_tid_fns, tid_tree(), table);
    }
    if (rc != 0) {
        MLIB_ERR("Tbl del avl failed for %s/vid:0x%x/tid:0x%x", table_name_text(table->vrf_name),
                 table->vrf_id, table->tid);
        return;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "Tbl del avl done for %s/vid:0x%x/tid:0x%x",
               table_name_text(table->vrf_name), table->vrf_id, table->tid);
}
