// Tries of tables: their parameters, and their reconnection at the start of an owner.
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/gtrie_params.h"

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "services/gtrie/gtrie.h"
#include "services/platform_info/platform_info.h"
#include "services/trees/avl.h"

namespace {

char yes_no(const void *pointer) {
    return pointer != nullptr ? 'Y' : 'N';
}

// A table by table id has no name of its own: it is that of its VRF.
const char *vrf_name_of(const ipv4mc_table_st *table) {
    return table->vtable != nullptr ? table->vtable->vrf_name : table->vrf_name;
}

uint32_t kind_of_trie(bool is_default, bool is_signal) {
    if (is_default) {
        return is_signal ? GTRIE_KIND_DEFAULT_SIGNAL : GTRIE_KIND_DEFAULT;
    }
    return is_signal ? GTRIE_KIND_TABLE_SIGNAL : GTRIE_KIND_TABLE;
}

using reinit_fn = cerrno (*)(void *handle, const ip6mc_gtrie_params_t *params);

// A table without this trie has nothing to reconnect.
cerrno reinit_trie(void *trie, ip6mc_gtrie_params_t *params, uint32_t usage, reinit_fn reinit) {
    if (trie == nullptr) {
        return 0;
    }
    params->gtrie_usage = usage;
    return reinit(trie, params);
}

cerrno ipmc_reinit_table_fn(void *object, void *) {
    const auto *table = static_cast<const ipv4mc_table_st *>(object);
    MLIB_DEBUG(IPV4_DEBUG_DEV, "Table type-%d/tid-0x%x, i-%c, e-%c, s-%c",
               static_cast<int>(table->table_type), table->tid, yes_no(table->ingress_gtrie),
               yes_no(table->egress_gtrie), yes_no(table->signal_gtrie));

    ip6mc_gtrie_params_t params;
    ipv4mc_set_default_gtrie_init(&params, table, 0);
    cerrno rc = reinit_trie(table->ingress_gtrie, &params, mlib::ingress_gtrie_usage(),
                            ip6mc_gtrie_platform_re_init);
    if (rc != 0) {
        MLIB_ERR("Cannot re-init ingress table 0x%x(%s): %s", table->tid, vrf_name_of(table),
                 cerr_strerror(rc));
        return rc;
    }
    rc = reinit_trie(table->egress_gtrie, &params, IPMC_GTRIE_USAGE_EGRESS,
                     ip6mc_gtrie_platform_re_init);
    if (rc != 0) {
        MLIB_ERR("Cannot re-init egress table 0x%x(%s): %s", table->tid, vrf_name_of(table),
                 cerr_strerror(rc));
        return rc;
    }
    ipv4mc_set_default_gtrie_init(&params, table, 1);
    rc = reinit_trie(table->signal_gtrie, &params, IPMC_GTRIE_USAGE_SW_ONLY, ip6mc_gtrie_re_init);
    if (rc != 0) {
        MLIB_ERR("Cannot re-init signal table 0x%x(%s): %s", table->tid, vrf_name_of(table),
                 cerr_strerror(rc));
    }
    return rc;
}

}  // namespace

uint32_t mlib::ingress_gtrie_usage() {
    return ip6mc_platform_is_sw_only_gtrie() != 0 ? IPMC_GTRIE_USAGE_SW_ONLY
                                                  : IPMC_GTRIE_USAGE_INGRESS_EGRESS;
}

extern "C" {

void ipv4mc_set_default_gtrie_init(ip6mc_gtrie_params_t *params, const ipv4mc_table_st *table,
                                   int is_signal) {
    const bool is_default = table->tid == ipv4mc_desc->default_tid;
    *params = ip6mc_gtrie_params_t{};
    params->evm = ipv4mc_desc->evm;
    params->shared = 1;
    params->shmwin_id = ipv4mc_desc->shmwin_id;
    params->gtrie_kind = kind_of_trie(is_default, is_signal != 0);
    rsi_c_tbl_id_decode2(table->tid, nullptr, nullptr, &params->tid_decoded);
    params->flags = 1;
    params->key_bits = is_default ? GTRIE_KEY_BITS : GTRIE_TABLE_KEY_BITS;
    params->node_size = GTRIE_NODE_SIZE;
    params->alloc_fn = ipv4mc_shmwin_malloc_inline;
    params->free_fn = ipv4mc_shmwin_free_inline;
    MLIB_DEBUG(IPV4_DEBUG_DEV, "%s-%d: Table type-%d/tid-0x%x default-0x%x htype-0x%x,plen-%d",
               __func__, __LINE__, static_cast<int>(table->table_type), table->tid,
               ipv4mc_desc->default_tid, params->gtrie_kind, static_cast<int>(params->key_bits));
}

cerrno ip6mc_reinit_tables(void) {
    const cerrno rc =
        avl_tree_walk(ipv4mc_desc->shmwin_info->table_tid_tree, ipmc_reinit_table_fn, nullptr);
    if (rc != 0) {
        MLIB_DEBUG(IPV4_DEBUG_WRN, "ReinitAll failed : %s", cerr_strerror(rc));
    }
    return rc;
}

}  // extern "C"
