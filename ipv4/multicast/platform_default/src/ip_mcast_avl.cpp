// Comparators of the search trees: 0 less, 1 equal, 2 greater. Those of tables give 1 also where
// either side is null; that of interface entries asserts.
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "services/trees/node.h"

namespace {

template <class T>
int order(const T &a, const T &b) {
    return a < b ? tree_less : a == b ? tree_equal : tree_greater;
}

// The record whose node of `thread` stands at `node`.
template <class Record>
const Record *record_of(const void *node, size_t thread) {
    return reinterpret_cast<const Record *>(static_cast<const tree_node *>(node) - thread);
}

const ipv4mc_intf_entry_st *intf_of(const void *node) {
    return ipmc_intf_avl2intf(const_cast<void *>(node));
}

const ipv4mc_idb_st *idb_of(const void *node, size_t thread) {
    const void *first = static_cast<const tree_node *>(node) - thread;
    return reinterpret_cast<const ipv4mc_idb_st *>(static_cast<const char *>(first) -
                                                   offsetof(ipv4mc_idb_st, node));
}

}  // namespace

extern "C" {

int ipmc_tbl_avl_compare_tbl_id(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return tree_equal;
    }
    return order(record_of<ipv4mc_table_st>(a, 0)->tid, record_of<ipv4mc_table_st>(b, 0)->tid);
}

// 32 characters: a 33rd does not count.
int ipmc_tbl_wavl_compare_vrf_name(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return tree_equal;
    }
    return order(strncmp(record_of<ipv4mc_table_st>(a, 0)->vrf_name,
                         record_of<ipv4mc_table_st>(b, 0)->vrf_name, 32),
                 0);
}

int ipmc_tbl_wavl_compare_vrf_id(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return tree_equal;
    }
    return order(record_of<ipv4mc_table_st>(a, 1)->vrf_id,
                 record_of<ipv4mc_table_st>(b, 1)->vrf_id);
}

// By intf_type, key_ifh, amt_addr, amt_port. `ifh` is no part of the key: an AMT entry keeps its
// place when its underlying interface changes.
int ipmc_intf_avl_compare(const void *a, const void *b) {
    const ipv4mc_intf_entry_st *left = intf_of(a);
    const ipv4mc_intf_entry_st *right = intf_of(b);
    if (left->intf_type != right->intf_type) {
        return order(left->intf_type, right->intf_type);
    }
    if (left->key_ifh != right->key_ifh) {
        return order(left->key_ifh, right->key_ifh);
    }
    if (left->amt_addr != right->amt_addr) {
        return order(left->amt_addr, right->amt_addr);
    }
    return order(left->amt_port, right->amt_port);
}

int ipmc_idb_avl_compare_ifh_global(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return tree_equal;
    }
    return order(idb_of(a, IPV4MC_IDB_THREAD_GLOBAL)->ifh,
                 idb_of(b, IPV4MC_IDB_THREAD_GLOBAL)->ifh);
}

int ipmc_idb_avl_compare_ifh_vrf(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return tree_equal;
    }
    return order(idb_of(a, IPV4MC_IDB_THREAD_VRF)->ifh, idb_of(b, IPV4MC_IDB_THREAD_VRF)->ifh);
}

int ipmc_idb_avl_compare_ifh_name(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return tree_equal;
    }
    return order(strncmp(idb_of(a, IPV4MC_IDB_THREAD_NAME)->name,
                         idb_of(b, IPV4MC_IDB_THREAD_NAME)->name, IPV4MC_IDB_NAME_SIZE),
                 0);
}

int ipmc_idb_avl_compare_ifh_dummy(const void *, const void *) {
    return tree_equal;
}

}  // extern "C"
