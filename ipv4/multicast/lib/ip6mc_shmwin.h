// The shared-memory window of the library: its header, its life, and the allocator behind every
// record.
//
// All state lies in one window named "mfwdv6", mapped at one address in every process, so records
// point at one another with plain pointers. It outlives its processes. The header is the root of
// everything; its layout is fixed by the version in its first words.
//
// Thread-safety. Open, close, reset and the pool belong to the thread that runs operations. An
// attached client's allocations and frees go straight to the window service, which is safe between
// processes.
#ifndef IP6MC_SHMWIN_H
#define IP6MC_SHMWIN_H

#include <pthread.h>

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "ipv4/multicast/lib/multicast_alloc.h"
#include "services/events/dlqueue.h"
#include "services/gtrie/gtrie.h"
#include "services/locks/rrw_lock.h"
#include "services/objid/obj_id.h"
#include "services/radix/radix.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"

#define IP6MC_SHMWIN_NAME "mfwdv6"

// Room for the name of the function that took a lock, with its terminator.
#define IPMC_LOCK_FN_SIZE 512

// The lists of routes in `route_list_heads`.
enum ipmc_route_lists {
    IPMC_ROUTE_LIST_MDT_CAND = 0,
    IPMC_ROUTE_LIST_MT_UPD = 1,
    IPMC_ROUTE_LIST_AMT_UPD = 2,
    IPMC_ROUTE_LIST_MOFRR_UPD = 3,
    IPMC_ROUTE_LISTS = 4
};

// Blocks counted elsewhere than on the owner's operation thread. A word that is restored by the
// undo of a change must have no other writer, so each journal has its own counts.
enum ipmc_shmwin_counted {
    IPMC_SHMWIN_COUNTED_UNDER_MUTEX = 0,  // by holders of the window mutex
    IPMC_SHMWIN_COUNTED_UNLOGGED =
        1,  // by threads without a journal: attached clients, at their start
    IPMC_SHMWIN_COUNTED = 2
};
typedef struct ipmc_shmwin_counts_st {
    uint32_t
        alloc_count[IPMC_SHMWIN_ALLOC_TYPES];  // differences: they may be below zero, modulo 2^32
    uint32_t free_count;
    uint32_t reserved;  // zero
} ipmc_shmwin_counts_st;
IP6MC_RECORD(ipmc_shmwin_counts_st, 152);

// Header of the window, all zero in a new one. Written by the owner.
struct ipv4mc_shmwin_hdr_st {
    uint16_t version_minor;
    uint16_t version_major;
    uint32_t fint_ifh;                          // fabric interface
    ipv4mc_idb_st *fint_idb;                    // its record, NULL when there is none
    wavl_tree table_name_tree;                  // tables: thread 0 by VRF name, thread 1 by VRF id
    shm_avl_tree *table_tid_tree;               // tables by table id
    wavl_tree idb_tree;                         // interfaces: thread 0 by handle, thread 2 by name
    ipv4mc_route_entry_st *changed_route_head;  // changed routes, oldest first
    ipv4mc_route_entry_st *changed_route_tail;
    ipv4mc_route_entry_st *route_list_heads[IPMC_ROUTE_LISTS];
    void *encap_gtrie;            // encaps by their 20-bit id
    rn_root_t *regdb_tree;        // transports by typed key
    uint32_t update_in_progress;  // what the last process was doing: see the flag functions
    uint32_t transaction_flag;
    uint32_t netio_transaction_flag;
    uint32_t mlib_corrupted;  // set to 1 when a trie fails in a way that must not be
    uint32_t intf_change_pending;
    uint32_t amt_sw_fwd;                     // written by the platform half
    char shmwin_lock_fn[IPMC_LOCK_FN_SIZE];  // who holds the window mutex
    int32_t shmwin_lock_line;
    uint32_t shmwin_lock_count;
    uint32_t shmwin_lock_pid;
    uint32_t shmwin_lock_tid;
    char pak_lock_fn[IPMC_LOCK_FN_SIZE];  // who holds the packet client mutex
    int32_t pak_lock_line;
    uint32_t pak_lock_count;
    uint32_t pak_lock_fails;
    uint32_t pak_unlock_fails;
    uint32_t pak_lock_tid;
    uint32_t pak_lock_total;
    rrw_lock_t tbl_rw_lock;  // structure of the trees of tables and interfaces
    uint32_t total_pkts_preserved;
    uint32_t alloc_count[IPMC_SHMWIN_ALLOC_TYPES];  // live blocks, by ipmc_shmwin_alloc_type, as
                                                    // the owner counts: see ipmc_shmwin_live_blocks
    uint32_t free_count;                            // blocks given back to the window service
    ipmc_shmwin_pool_bucket_st *buffer_pool;        // IPMC_SHMWIN_POOL_BUCKETS buckets
    rn_root_t *bvi_intf_db_root;                    // which VRF the entries of each BVI are in
    dlqueue_node_t *retry_queue;                    // head of the queue of ipmc_retry_msg

    // Fields that belong to single subsystems.
    ipv4mc_regdb_entry_st *idle_regdb_head;  // next hops that lost their last interface
    fib_obj_id_domain_t *obj_id_domain;      // NULL until built
    ipv4mc_idb_st *idb_in_hand;              // being made or destroyed, in no tree or only in some
    void *plat_block_list;         // blocks of the platform half, of interfaces that are gone
    uint32_t changed_route_count;  // length of the changed-route list
    uint8_t changed_route_wake;    // 1: the list has become non-empty
    uint8_t changed_route_ready;   // 1: mutex and condition have been made
    uint8_t changed_route_due;     // 1: the list has become non-empty and its reader is not woken
    uint8_t reserved;              // zero
    pthread_mutex_t changed_route_mutex;  // process-shared and robust; guards `changed_route_wake`
    pthread_cond_t changed_route_cond;    // process-shared; signalled with the first entry
    uint32_t changed_route_wakes;         // wakes so far: what ip6mc_changed_routes_wait sleeps on
    uint32_t shmwin_lock_deaths;  // deaths of holders that `shmwin_lock_count` has left behind
    uint32_t pak_lock_deaths;     // the same for `pak_lock_count`
    uint32_t reserved2;           // zero
    ipmc_shmwin_counts_st counted[IPMC_SHMWIN_COUNTED];  // of alloc_count and free_count
};
IP6MC_RECORD(ipv4mc_shmwin_hdr_st, 10304);

// Live blocks of a type that exists, and blocks given back to the window service: sums over all who
// count. Exact, whoever was killed, as long as nobody counts beside.
static inline uint32_t ipmc_shmwin_live_blocks(const ipv4mc_shmwin_hdr_st *hdr,
                                               ipmc_shmwin_alloc_type type) {
    uint32_t sum = __atomic_load_n(&hdr->alloc_count[type], __ATOMIC_RELAXED);
    for (int i = 0; i < IPMC_SHMWIN_COUNTED; ++i) {
        sum += __atomic_load_n(&hdr->counted[i].alloc_count[type], __ATOMIC_RELAXED);
    }
    return sum;
}
static inline uint32_t ipmc_shmwin_freed_blocks(const ipv4mc_shmwin_hdr_st *hdr) {
    uint32_t sum = __atomic_load_n(&hdr->free_count, __ATOMIC_RELAXED);
    for (int i = 0; i < IPMC_SHMWIN_COUNTED; ++i) {
        sum += __atomic_load_n(&hdr->counted[i].free_count, __ATOMIC_RELAXED);
    }
    return sum;
}

static_assert(offsetof(ipv4mc_shmwin_hdr_st, version_minor) == 0 &&
                  offsetof(ipv4mc_shmwin_hdr_st, version_major) == 2,
              "the version must be readable whatever the rest looks like");
static_assert(offsetof(ipv4mc_shmwin_hdr_st, fint_idb) == 8 &&
                  offsetof(ipv4mc_shmwin_hdr_st, table_name_tree) == 16 &&
                  offsetof(ipv4mc_shmwin_hdr_st, table_tid_tree) == 112 &&
                  offsetof(ipv4mc_shmwin_hdr_st, idb_tree) == 120,
              "roots that every process of this version follows");

MFWD6_BEGIN_C

// Opens the window and sets up what is missing in it: trees, and for the owner pool, lock and
// queues. `attach_only` is 0 for the owner. A window that is open already is kept; then, with both
// arguments 0, the pool is emptied. The code of the step that failed; the window may be open then.
MFWD6_EXPORT cerrno ip6mc_shmwin_open(int attach_only, int keep_buffer_pool);

// Closes the window in this process. 0 when it is closed already.
MFWD6_EXPORT cerrno ip6mc_shmwin_close(void);

// Throws the contents of the window away, zeroes the header and takes the library to state 0. The
// next open builds the trees again. `notify` sends the client a message. 9 when closed, else what
// the window service said.
MFWD6_EXPORT cerrno ip6mc_shmwin_reset(int notify);

// Writes 1 to `*flag_p` while the window is open in this process. 22 for NULL.
MFWD6_EXPORT cerrno ip6mc_shmwin_is_init(int32_t *flag_p);

// Handle of the window in the window service. 9 when closed, 22 for NULL.
MFWD6_EXPORT cerrno ip6mc_shmwin_get_id(uint32_t *id_p);

// The header. 9 when closed, 22 for NULL.
MFWD6_EXPORT cerrno ip6mc_shmwin_get_info(ipv4mc_shmwin_hdr_st **hdr_p);

// Switches the pool of freed blocks on (non-zero) or off; returns the new setting, 1 or 0. What the
// pool holds when it is switched off stays there.
MFWD6_EXPORT int ip6mc_shmwin_buffer_status(int enable);

// A zeroed block of `size` bytes and the given type, NULL when the window is closed or full
// (reported). Belongs to the caller until ipv4mc_shmwin_free_inline with the same type.
MFWD6_EXPORT void *ipv4mc_shmwin_malloc_inline(size_t size, ipmc_shmwin_alloc_type type);

// Gives back a typed block: to the pool, to the client's free hook, or to the window service. 9
// when the window is closed, 22 for NULL or a type that does not exist. A block whose guard does
// not say "live" is memory gone wrong: the process stops.
MFWD6_EXPORT cerrno ipv4mc_shmwin_free_inline(void *pointer, ipmc_shmwin_alloc_type type);

// The same without a type. The free reports a block that was freed before and goes on.
MFWD6_EXPORT void *ip6mc_shmwin_malloc(size_t size);
MFWD6_EXPORT cerrno ip6mc_shmwin_free(void *pointer);

// Gives part of the pool back to the window service: of each bucket half of its blocks is kept, at
// most 8192, 2048 or 1024 by size. For a client that sees the window run short.
MFWD6_EXPORT void ip6mc_shmwin_memory_releaser(void);

// Ends a block that the client's free hook received, guard and all. 9 when the window is closed.
MFWD6_EXPORT cerrno ip6mc_shmwin_free_final(void *block);

// Allocators in the form that the tree services call them, with the types of tree nodes.
MFWD6_EXPORT void *ipmc_shmwin_avl_calloc(size_t count, size_t size);
MFWD6_EXPORT cerrno ipmc_shmwin_avl_free(void *memory);
MFWD6_EXPORT void *ipmc_shmwin_wavl_malloc(size_t size);
MFWD6_EXPORT cerrno ipmc_shmwin_wavl_free(void *memory);

// Monitor of the window mutex: tells the client with a message of type 2; when the client fails or
// there is none, ends a holder that is stuck (event 1). Called by the window service on a waiting
// thread.
MFWD6_EXPORT cerrno ipv4mc_shmwin_callback_fn(uint32_t id, uint32_t event, void *argument);

MFWD6_END_C

#endif
