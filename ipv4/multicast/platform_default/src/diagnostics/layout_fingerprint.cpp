// A number that changes when the layout of any record in the window does. Sizes and the places of
// the fields that follow padding or foreign types are mixed in; the order of fields is held by the
// headers.
#include <cstddef>

#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_shmwin.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/setup.h"

namespace {

constexpr uint64_t mix(uint64_t seed, uint64_t value) {
    // FNV-1a over the bytes of `value`.
    for (int i = 0; i < 8; ++i) {
        seed = (seed ^ ((value >> (8 * i)) & 0xff)) * 0x100000001b3;
    }
    return seed;
}

template <class... Values>
constexpr uint64_t fingerprint(Values... values) {
    uint64_t result = 0xcbf29ce484222325;
    ((result = mix(result, static_cast<uint64_t>(values))), ...);
    return result;
}

constexpr uint64_t layout = fingerprint(
    sizeof(ipv4mc_shmwin_hdr_st), offsetof(ipv4mc_shmwin_hdr_st, idb_tree),
    offsetof(ipv4mc_shmwin_hdr_st, shmwin_lock_fn), offsetof(ipv4mc_shmwin_hdr_st, tbl_rw_lock),
    offsetof(ipv4mc_shmwin_hdr_st, alloc_count), offsetof(ipv4mc_shmwin_hdr_st, retry_queue),
    offsetof(ipv4mc_shmwin_hdr_st, changed_route_mutex), offsetof(ipv4mc_shmwin_hdr_st, counted),
    sizeof(ipmc_shmwin_guard_st), sizeof(ipmc_shmwin_pool_bucket_st), sizeof(ipv4mc_table_st),
    offsetof(ipv4mc_table_st, mdt_handles), offsetof(ipv4mc_table_st, ingress_gtrie),
    offsetof(ipv4mc_table_st, idb_tree), offsetof(ipv4mc_table_st, intf_req_head),
    sizeof(ipv4mc_route_entry_st), offsetof(ipv4mc_route_entry_st, table),
    offsetof(ipv4mc_route_entry_st, intf_list), offsetof(ipv4mc_route_entry_st, attributes),
    offsetof(ipv4mc_route_entry_st, regdb_entry), sizeof(ipv4mc_intf_entry_st),
    sizeof(ipv4mc_idb_st), offsetof(ipv4mc_idb_st, node), offsetof(ipv4mc_idb_st, vtable),
    sizeof(ipv4mc_encap_entry_st), sizeof(ipv4mc_encap_leaf_st), sizeof(ipv4mc_regdb_entry_st),
    sizeof(ipv4mc_bvi_entry_t), sizeof(ipv4mc_bvi_if_t), sizeof(ipv4mc_bvi_intf_db_t));

}  // namespace

uint64_t mlib::layout_fingerprint() {
    return layout;
}
