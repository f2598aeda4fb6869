// Blocks of the shared-memory window: their types, and the guard that stands in front of each of
// them.
//
// Every block that the library allocates is typed. The type selects a counter in the window header,
// so that the live blocks of each kind can be read at any time, and it stands in the block's guard,
// so that a walk over all blocks (the checker, the diagnosis of leaks) knows what it looks at.
#ifndef MULTICAST_ALLOC_H
#define MULTICAST_ALLOC_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

// Type of a block. The numbers are part of the window's layout.
typedef uint32_t ipmc_shmwin_alloc_type;
enum ipmc_shmwin_alloc_types {
    IPMC_SHMWIN_ALLOC_IDB = 0,             // ipv4mc_idb_st
    IPMC_SHMWIN_ALLOC_VLAN_RADIX = 1,      // radix node of a bundle's tree of children
    IPMC_SHMWIN_ALLOC_BUNDLE = 2,          // head of a bundle's tree of children
    IPMC_SHMWIN_ALLOC_VLAN = 3,            // ipmc_vlan_node_st, a VLAN or PPPoE child of a bundle
    IPMC_SHMWIN_ALLOC_BUNDLE_MEMBERS = 5,  // array of ipmc_bundle_member_st
    IPMC_SHMWIN_ALLOC_INTF_CHANGE = 6,     // ipmc_intf_change_req_st
    IPMC_SHMWIN_ALLOC_INTF = 7,            // ipv4mc_intf_entry_st
    IPMC_SHMWIN_ALLOC_TABLE = 8,           // ipv4mc_table_st
    IPMC_SHMWIN_ALLOC_ROUTE = 9,           // ipv4mc_route_entry_st, and the rate record of a route
    IPMC_SHMWIN_ALLOC_AVL = 11,            // node of an AVL tree
    IPMC_SHMWIN_ALLOC_WAVL = 12,           // node of a WAVL tree
    IPMC_SHMWIN_ALLOC_ENCAP_LEAF = 18,     // ipv4mc_encap_leaf_st
    IPMC_SHMWIN_ALLOC_REGDB = 19,          // ipv4mc_regdb_entry_st, and heads of radix trees
    // Slot in which untyped blocks are counted. No block carries this type: an untyped block says
    // IPMC_SHMWIN_ALLOC_UNTYPED in its guard. The two numbers differ by design.
    IPMC_SHMWIN_ALLOC_UNTYPED_COUNT = 20,
    IPMC_SHMWIN_ALLOC_GTRIE_NODE = 21,    // node of a trie's ordered structure
    IPMC_SHMWIN_ALLOC_GTRIE_INDEX = 22,   // part of a trie's hash index
    IPMC_SHMWIN_ALLOC_GTRIE_HANDLE = 23,  // handle of a trie, and the trie itself
    IPMC_SHMWIN_ALLOC_BVI_ENTRY = 29,     // ipv4mc_bvi_entry_t
    IPMC_SHMWIN_ALLOC_BVI_IF = 30,        // ipv4mc_bvi_if_t
    IPMC_SHMWIN_ALLOC_BVI_INTF_DB = 31,   // ipv4mc_bvi_intf_db_t
    IPMC_SHMWIN_ALLOC_OBJ_ID = 32,        // record of the object-id service
    IPMC_SHMWIN_ALLOC_RETRY_MSG = 33,     // ipmc_retry_msg
    IPMC_SHMWIN_ALLOC_RETRY_QUEUE = 34,   // head of the retry queue
    IPMC_SHMWIN_ALLOC_UNTYPED = 35,       // block of ip6mc_shmwin_malloc
    IPMC_SHMWIN_ALLOC_TYPES = 36          // number of counters
};

// Values of a guard's `magic`. A block in the pool of freed blocks keeps the live value.
#define IPMC_SHMWIN_MAGIC_LIVE UINT32_C(0xaaaabbbb)
#define IPMC_SHMWIN_MAGIC_FREED UINT32_C(0xdeadbeef)

// Stands in front of the memory that the caller gets.
typedef struct ipmc_shmwin_guard_st {
    uint64_t pool_link;  // next block of the same pool bucket, 0 at the end and outside the pool
    uint64_t size;       // bytes that the caller asked for
    uint32_t type;       // ipmc_shmwin_alloc_type
    uint32_t magic;
} ipmc_shmwin_guard_st;
static_assert(sizeof(ipmc_shmwin_guard_st) == 24,
              "the guard lies at a fixed distance before a block");

// The pool of freed blocks has one bucket for each exact size below this.
#define IPMC_SHMWIN_POOL_BUCKETS 513

typedef struct ipmc_shmwin_pool_bucket_st {
    uint64_t head;         // address of the first guard, 0 when the bucket is empty
    uint32_t count;        // blocks in the bucket
    uint32_t reuse_count;  // blocks taken from it since the pool was made
} ipmc_shmwin_pool_bucket_st;
static_assert(sizeof(ipmc_shmwin_pool_bucket_st) * IPMC_SHMWIN_POOL_BUCKETS == 8208,
              "the pool is one block of 8208 bytes");

#endif
