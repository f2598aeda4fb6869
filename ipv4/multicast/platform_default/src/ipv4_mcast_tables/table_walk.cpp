// Operations that go over all tables.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "services/diag/text.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"

namespace {

struct table_walk {
    ipv4mc_table_walk_ft fn;
    void *context;
    bool stop_on_error;
    uint32_t count;
    cerrno result;  // of the function that ended the walk
};

bool is_ready() {
    if (mlib::library_is_ready()) {
        return true;
    }
    MLIB_ERR("Multicast library Not ready\n");
    return false;
}

// Not 0 ends the walk.
cerrno ipmc_table_walk_fn(ipv4mc_table_st *table, table_walk *walk) {
    if (walk->fn == nullptr) {
        return EINVAL;
    }
    const cerrno rc = walk->fn(table, walk->count, walk, walk->context);
    if (rc != 0) {
        MLIB_ERR("Walk function failed while processing table num %d [%c, %p]: %s",
                 static_cast<int>(walk->count), walk->stop_on_error ? 'Y' : 'N',
                 reinterpret_cast<void *>(walk->fn), cerr_strerror(rc));
        if (walk->stop_on_error) {
            return rc;
        }
    }
    ++walk->count;
    return 0;
}

cerrno visit_tid_table(void *object, void *context) {
    return ipmc_table_walk_fn(static_cast<ipv4mc_table_st *>(object),
                              static_cast<table_walk *>(context));
}

int visit_vrf_table(void *node, void *context) {
    auto *walk = static_cast<table_walk *>(context);
    auto *table = static_cast<ipv4mc_table_st *>(ip6mc_tbl_wavl2db(node));
    if (table == nullptr) {
        return 0;
    }
    walk->result = ipmc_table_walk_fn(table, walk);
    return walk->result == 0 ? 1 : 0;
}

cerrno ipmc_table_clear_all_fn(void *object, void *context) {
    auto *table = static_cast<ipv4mc_table_st *>(object);
    if (table->table_type != IPV4MC_TABLE_TID) {
        return EINVAL;
    }
    const uint32_t tid = table->tid;
    const uint32_t arg = *static_cast<const uint32_t *>(context);
    const cerrno rc = ip6mc_table_operation(IPV4MC_ACTION_CLEAR, 0, 0, nullptr, &table, arg);
    if (rc != 0) {
        MLIB_ERR("Cannot clear table 0x%x(%s): %s", tid, table != nullptr ? table->vrf_name : "",
                 cerr_strerror(rc));
    }
    return rc;
}

// Begins again at the first table each time: a table that cannot be deleted keeps this going for
// ever, which the caller has to know.
void delete_vrf_tables(uint32_t arg) {
    MLIB_DEBUG(IPV4_DEBUG_EV, "Tbl delete all: Walk VID list");
    wavl_tree *tree = ip6mc_get_table_vid_name_db();
    while (void *node =
               multicast_table_wrapper_for_shm_wavl_get_first(tree, IPV4MC_TABLE_THREAD_NAME)) {
        auto *table = static_cast<ipv4mc_table_st *>(ip6mc_tbl_wavl2db(node));
        const uint32_t vrf_id = table->vrf_id;
        char name[IPV4MC_VRF_NAME_SIZE];
        sstrncpy(name, table->vrf_name, sizeof(name));
        const cerrno rc = ip6mc_table_operation(IPV4MC_ACTION_DELETE, 0, vrf_id, name, &table, arg);
        if (rc != 0) {
            MLIB_ERR("Cannot delete table VID 0x%x : %s", vrf_id, cerr_strerror(rc));
            continue;
        }
        MLIB_DEBUG(IPV4_DEBUG_EV, "Deleted table VID 0x%x", vrf_id);
    }
}

cerrno delete_tid_tables(uint32_t arg) {
    MLIB_DEBUG(IPV4_DEBUG_EV, "Tbl delete all: Walk TID list");
    ipv4mc_table_st *table = ip6mc_table_tid_get_first();
    while (table != nullptr) {
        const uint32_t tid = table->tid;
        ipv4mc_table_st *scratch = table;
        const cerrno rc =
            ip6mc_table_operation(IPV4MC_ACTION_DELETE, tid, 0, nullptr, &scratch, arg);
        if (rc != 0) {
            MLIB_ERR("Cannot delete table TID 0x%x : %s", tid, cerr_strerror(rc));
            return rc;
        }
        MLIB_DEBUG(IPV4_DEBUG_EV, "Deleted table TID 0x%x", tid);
        // Found by the id: a deletion may take other tables along.
        table = ip6mc_table_tid_get_next(tid);
    }
    return 0;
}

}  // namespace

extern "C" {

cerrno ip6mc_table_walk(ipv4mc_table_walk_ft fn, uint32_t tree, uint32_t thread, void *context,
                        int stop_on_error) {
    if (!is_ready()) {
        return EBADF;
    }
    table_walk walk{fn, context, stop_on_error != 0, 0, 0};
    switch (tree) {
        case IPV4MC_TABLE_WALK_TIDS: {
            const shm_avl_tree *tids = ip6mc_get_table_tid_db();
            return tids == nullptr ? EINVAL : avl_tree_walk(tids, visit_tid_table, &walk);
        }
        case IPV4MC_TABLE_WALK_NAMES:
            wavl_walk(ip6mc_get_table_vid_name_db(), thread, visit_vrf_table, &walk);
            return walk.result;
        default:
            return EINVAL;
    }
}

cerrno ip6mc_table_delete_all(uint32_t arg) {
    if (!is_ready()) {
        return EBADF;
    }
    delete_vrf_tables(arg);
    return delete_tid_tables(arg);
}

cerrno ip6mc_table_clear_all(uint32_t arg) {
    if (!is_ready()) {
        return EBADF;
    }
    const cerrno rc = avl_tree_walk(ip6mc_get_table_tid_db(), ipmc_table_clear_all_fn, &arg);
    if (rc != 0) {
        MLIB_DEBUG(IPV4_DEBUG_WRN, "ClearAll failed : %s", cerr_strerror(rc));
        return rc;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "ClearAll succeeded !!");
    return 0;
}

}  // extern "C"
