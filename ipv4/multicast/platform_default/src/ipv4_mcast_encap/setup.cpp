// The stores of encapsulation: built at the first start in a window, reconnected at each later one.
#include "ipv4/multicast/platform_default/src/setup.h"

#include <cerrno>
#include <cstddef>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"
#include "services/radix/radix.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;

constexpr int regdb_tree_mode = 2;

void *ipmc_regdb_head_alloc(size_t size) {
    return ipv4mc_shmwin_malloc_inline(size, IPMC_SHMWIN_ALLOC_REGDB);
}

void ip6mc_regdb_destructor(rn_node_t *entry) {
    ipv4mc_shmwin_free_inline(entry, IPMC_SHMWIN_ALLOC_REGDB);
}

cerrno prepare_regdb_tree(ipv4mc_shmwin_hdr_st *hdr) {
    if (hdr->regdb_tree != nullptr) {
        rn_set_fns(hdr->regdb_tree, ip6mc_regdb_destructor, regdb_tree_mode);
        return 0;
    }
    const group change;
    rn_root_t *tree = rn_tree_init_v2(
        offsetof(ipv4mc_regdb_entry_st, key), offsetof(ipv4mc_regdb_entry_st, key_bits),
        ip6mc_regdb_destructor, ipmc_regdb_head_alloc, regdb_tree_mode);
    if (tree == nullptr) {
        MLIB_ERR("Error initializing regdb tree");
        return EINVAL;
    }
    publish(hdr->regdb_tree, tree);
    return 0;
}

ip6mc_gtrie_params_t encap_gtrie_params() {
    ip6mc_gtrie_params_t params{};
    params.evm = ipv4mc_desc->evm;
    params.shared = 1;
    params.shmwin_id = ipv4mc_desc->shmwin_id;
    params.gtrie_kind = GTRIE_KIND_ENCAP;
    params.flags = 1;
    params.key_bits = IPV4MC_ENCAP_ID_BITS;
    params.node_size = GTRIE_NODE_SIZE;
    params.alloc_fn = ipv4mc_shmwin_malloc_inline;
    params.free_fn = ipv4mc_shmwin_free_inline;
    params.leaf_position = offsetof(ipv4mc_encap_entry_st, gtrie_leaf);
    return params;
}

cerrno prepare_encap_gtrie(ipv4mc_shmwin_hdr_st *hdr) {
    ip6mc_gtrie_platform_err_init();
    const ip6mc_gtrie_params_t params = encap_gtrie_params();
    if (hdr->encap_gtrie != nullptr) {
        const cerrno rc = ip6mc_gtrie_platform_re_init(hdr->encap_gtrie, &params);
        if (rc != 0) {
            MLIB_ERR("Cannot re-init encap Gtrie error %d %s", static_cast<int>(rc),
                     cerr_strerror(rc));
        }
        return rc;
    }
    cerrno rc = 0;
    const group change;
    void *trie = ip6mc_gtrie_platform_init(&params, &rc);
    if (rc != 0) {
        MLIB_ERR("Cannot init new encap Gtrie error %d %s", static_cast<int>(rc),
                 cerr_strerror(rc));
        trie = nullptr;
    }
    publish(hdr->encap_gtrie, trie);
    return rc;
}

}  // namespace

cerrno ipmc_init_encap_regdb(void) {
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    cerrno rc = ip6mc_shmwin_get_info(&hdr);
    if (rc == 0) {
        rc = prepare_regdb_tree(hdr);
    }
    return rc != 0 ? rc : prepare_encap_gtrie(hdr);
}
