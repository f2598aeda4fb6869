// Walks over all tables.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"

namespace {

struct table_walk_state {
    ipv4mc_table_walk_ft function;
    void *context;
    int stop_on_error;
    uint32_t count;
    cerrno result;
};

// The code that ends the walk, or 0.
cerrno visit(ipv4mc_table_st *table, table_walk_state *walk) {
    if (walk->function == nullptr) {
        return EINVAL;
    }
    const cerrno rc = walk->function(table, walk->count, walk, walk->context);
    if (rc != 0) {
        MLIB_ERR("Walk function failed while processing table num %d [%c, %p]: %s",
                 static_cast<int>(walk->count), walk->stop_on_error != 0 ? 'Y' : 'N',
                 reinterpret_cast<void *>(walk->function), cerr_strerror(rc));
        if (walk->stop_on_error != 0) {
            return rc;
        }
    }
    ++walk->count;
    return 0;
}

cerrno visit_tid(void *table, void *walk) {
    return visit(static_cast<ipv4mc_table_st *>(table), static_cast<table_walk_state *>(walk));
}

int visit_name(void *node, void *context) {
    auto *walk = static_cast<table_walk_state *>(context);
    auto *table = static_cast<ipv4mc_table_st *>(ip6mc_tbl_wavl2db(node));
    if (table == nullptr) {
        return 0;
    }
    walk->result = visit(table, walk);
    return walk->result == 0 ? 1 : 0;
}

}  // namespace

extern "C" cerrno ip6mc_table_walk(ipv4mc_table_walk_ft function, uint32_t tree, uint32_t thread,
                                   void *context, int stop_on_error) {
    if (ipv4mc_desc->state != IPV4MC_LIB_STATE_READY) {
        MLIB_ERR("Multicast library Not ready\n");
        return EBADF;
    }
    table_walk_state walk{function, context, stop_on_error, 0, 0};
    if (tree == IPV4MC_TABLE_WALK_TIDS) {
        return avl_tree_walk(ip6mc_get_table_tid_db(), visit_tid, &walk);
    }
    if (tree == IPV4MC_TABLE_WALK_NAMES) {
        wavl_walk(ip6mc_get_table_vid_name_db(), thread, visit_name, &walk);
        return walk.result;
    }
    return EINVAL;
}
