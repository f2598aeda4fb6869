// The stores of BVI states: built when a window or a table is new, reconnected after a restart.
#include "ipv4/multicast/platform_default/src/setup.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>

#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "services/journal/journal.h"
#include "services/radix/radix.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;

constexpr int intf_db_mode = 1;  // one byte of key length
constexpr int bvi_db_mode = 2;

void *alloc_intf_db_root(size_t size) {
    return ipv4mc_shmwin_malloc_inline(size, IPMC_SHMWIN_ALLOC_BVI_INTF_DB);
}
void *alloc_bvi_db_root(size_t size) {
    return ipv4mc_shmwin_malloc_inline(size, IPMC_SHMWIN_ALLOC_BVI_ENTRY);
}

void free_intf_db_record(rn_node_t *record) {
    ipv4mc_shmwin_free_inline(record, IPMC_SHMWIN_ALLOC_BVI_INTF_DB);
}

// Taking an entry out of a table's tree and destroying it are two steps.
void keep_record(rn_node_t *) {}

void ipmc_bvi_if_destructor(rn_node_t *) {
    MLIB_NOT_BUILT("ipmc_bvi_if_destructor");
}

int ipmc_bvi_if_set_destructor(rn_node_t *record, va_list) {
    const auto *entry = reinterpret_cast<const ipv4mc_bvi_entry_t *>(record);
    return rn_set_fns(entry->if_tree, ipmc_bvi_if_destructor, bvi_db_mode);
}

int ip6mc_bvi_update_table(rn_node_t *, va_list) {
    return static_cast<int>(MLIB_NOT_BUILT("ip6mc_bvi_update_table"));
}

}  // namespace

extern "C" {

uint64_t ipmc_bvi_stat[IPMC_BVI_STATS];

int ip6mc_bvi_intf_db_init(void) {
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    if (hdr->bvi_intf_db_root != nullptr) {
        rn_set_fns(hdr->bvi_intf_db_root, free_intf_db_record, intf_db_mode);
        return 1;
    }
    const group change;
    rn_root_t *root = rn_tree_init_v2(offsetof(ipv4mc_bvi_intf_db_t, ifh),
                                      offsetof(ipv4mc_bvi_intf_db_t, key_bits), free_intf_db_record,
                                      alloc_intf_db_root, intf_db_mode);
    if (root == nullptr) {
        MLIB_ERR("%s:initializaing the BVI Intf DB tree root", __func__);
        return 0;
    }
    publish(hdr->bvi_intf_db_root, root);
    return 1;
}

int ip6mc_bvi_db_init(ipv4mc_table_st *table) {
    _ltrace_2(ip6mc_mlib_eve_ltrace(), MLIB_TRACE_BVI_DB_INIT, table->vrf_id, 0);
    if (table->bvi_db_root != nullptr) {
        rn_set_fns(table->bvi_db_root, keep_record, bvi_db_mode);
        if (rn_walktree(table->bvi_db_root, ipmc_bvi_if_set_destructor) != 0) {
            MLIB_ERR("ERR didn't walk all BVI entries in v:0x%x tree during BVI DB init",
                     table->vrf_id);
            return 0;
        }
        return 1;
    }
    const group change;
    rn_root_t *root =
        rn_tree_init_v2(offsetof(ipv4mc_bvi_entry_t, key), offsetof(ipv4mc_bvi_entry_t, key_bits),
                        keep_record, alloc_bvi_db_root, bvi_db_mode);
    if (root == nullptr) {
        return 0;
    }
    publish(table->bvi_db_root, root);
    return 1;
}

cerrno ip6mc_bvi_delete_bvi_interface(ipv4mc_route_entry_st *, ipv4mc_intf_entry_st *intf) {
    if (intf->bvi_if == nullptr || intf->bvi_if->bvi_entry == nullptr) {
        return 0;
    }
    return MLIB_NOT_BUILT("ip6mc_bvi_delete_bvi_interface");
}

cerrno ip6mc_bvi_intf_db_walk2(uint32_t from_vid, uint32_t to_vid, int set_moved) {
    rn_root_t *root = ipv4mc_desc->shmwin_info->bvi_intf_db_root;
    if (rn_walktree(root, ip6mc_bvi_update_table, from_vid, to_vid, set_moved) != 0) {
        MLIB_ERR("ERR Didn't Walk all BVI-VRF mapping tree Radix tree walk failed");
        return EINVAL;
    }
    return 0;
}

}  // extern "C"

void ipmc_bvi_db_release(ipv4mc_table_st *table) {
    rn_root_t *root = table->bvi_db_root;
    if (root == nullptr || rn_count(root) != 0) {
        return;
    }
    const group change;
    publish(table->bvi_db_root, static_cast<rn_root_t *>(nullptr));
    ipv4mc_shmwin_free_inline(root, IPMC_SHMWIN_ALLOC_BVI_ENTRY);
}
