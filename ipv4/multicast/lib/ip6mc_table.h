// Tables: one record in two roles, the trees that find it, and the operation on it.
//
// A multicast table exists twice: as a VRF table, known by VRF name and VRF id, which is what
// configuration names; and as a TID table, known by table id, which owns the tries and the routes.
// Either may exist without the other.
//
// Thread-safety. The trees are read under the read side of `tbl_rw_lock` and changed under its
// write side, by the functions here. Searches by table id share one key object in a process: two
// threads of it must not search at once. A pointer that a search gave stays valid until the owner's
// thread deletes the table.
#ifndef IP6MC_TABLE_H
#define IP6MC_TABLE_H

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/gtrie/gtrie.h"
#include "services/radix/radix.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"

// Room for a VRF name, with its terminator. Names are compared over IPV4MC_VRF_NAME_COMPARED
// characters: two that differ behind them are the same key.
#define IPV4MC_VRF_NAME_SIZE 33
#define IPV4MC_VRF_NAME_COMPARED 32

// Threads of `table_name_tree`, and number of nodes at the head of a table.
enum ipv4mc_table_threads {
    IPV4MC_TABLE_THREAD_NAME = 0,
    IPV4MC_TABLE_THREAD_VRF_ID = 1,
    IPV4MC_TABLE_THREADS = 2
};

enum ipv4mc_table_types { IPV4MC_TABLE_VRF = 0, IPV4MC_TABLE_TID = 1 };

// Selective VRF download: where a VRF table's interfaces are.
enum ipv4mc_svd_locations {
    IPV4MC_SVD_REMOTE = 0,
    IPV4MC_SVD_PENDING_LOCAL = 1,
    IPV4MC_SVD_LOCAL = 2
};

// Kinds of MDT interfaces, in the order of `mdt_handles`.
enum ipv4mc_mdt_kinds {
    IPV4MC_MDT_GRE = 0,
    IPV4MC_MDT_MLDP = 1,
    IPV4MC_MDT_INBAND = 2,
    IPV4MC_MDT_P2MP_TE = 3,
    IPV4MC_MDT_IR = 4,
    IPV4MC_MDT_G_INBAND = 5,
    IPV4MC_MDT_EIGHTH = 6,  // set and cleared like the others, but no walk over the kinds visits it
    IPV4MC_MDT_TREE_SID = 7,
    IPV4MC_MDT_KINDS = 8
};

#define IPV4MC_TABLE_MTU_DEFAULT UINT32_C(9000)
#define IPV4MC_TABLE_LIMIT_NONE INT32_C(-1)
#define IPV4MC_TABLE_LIMIT_STEP_DEFAULT UINT32_C(1000)

// Counters of a TID table, zeroed together when it is made or cleared.
typedef struct ipv4mc_table_counters_st {
    uint32_t local_eg_cnt;     // local egress interfaces of the table's routes
    uint32_t t_cnt;            // routes whose T bit counts
    uint32_t route_clears;     // routes ever cleared
    uint32_t bvi_eg_adds;      // BVI interfaces that became local egress
    uint32_t bvi_eg_removals;  // and that ceased to be
    uint32_t reserved;         // zero
} ipv4mc_table_counters_st;
IP6MC_RECORD(ipv4mc_table_counters_st, 24);

// One table. In the VRF role a block of type IPMC_SHMWIN_ALLOC_TABLE, in the TID role an object of
// `table_tid_tree`.
struct ipv4mc_table_st {
    wavl_node
        node[IPV4MC_TABLE_THREADS];       // the TID role uses the first as the node of its AVL tree
    uint32_t tid;                         // 0 in a VRF table that has none
    uint32_t vrf_id;                      // 0 if unknown
    char vrf_name[IPV4MC_VRF_NAME_SIZE];  // empty if unknown
    ipv4mc_table_st *tid_table;           // of a VRF table, or NULL
    ipv4mc_table_st *vtable;              // of a TID table, or NULL
    uint32_t table_type;                  // one of ipv4mc_table_types
    uint32_t active;                      // activated towards the platform
    uint8_t mdt_master_lc;                // TID: this node is the MDT master line card
    uint8_t mdt_mldp_tr;                  // TID: transport flags
    uint8_t mdt_p2mp_tr;
    uint32_t mdt_handles[IPV4MC_MDT_KINDS];  // TID
    ifhtype mdt_bgp_ifh;                     // TID
    mdt_addr def_mdt_src;                    // TID
    mdt_addr def_mdt_grp;                    // TID
    uint32_t node_id;                        // TID: node that made the table
    ipv4mc_table_counters_st route_counters;
    uint32_t signal_route_count;  // TID: signal routes now
    uint32_t signal_route_adds;   // TID: signal routes ever added
    void *ingress_gtrie;          // TID
    void *egress_gtrie;
    void *signal_gtrie;
    ipv4mc_route_entry_st *memd_route_list;  // core routes that feed this VRF
    uint32_t child_route_count;              // TID: routes of other tables that are linked here
    wavl_tree idb_tree;                      // interfaces of the table, on thread 1
    uint32_t prev_tid;                       // VRF: the TID table that it left, to be deleted
    uint32_t local_ifcount;                  // VRF: its local interfaces
    uint32_t svd_location;                   // one of ipv4mc_svd_locations
    uint32_t mtu;
    uint32_t mtu2;
    uint8_t mtu2_cfg;        // `mtu2` was configured
    uint8_t mtu_cfg;         // `mtu` was configured
    rn_root_t *bvi_db_root;  // L2 states of the BVIs of this VRF
    int32_t table_limit;     // -1: none
    uint32_t table_limit_step;
    uint32_t acct_per_prefix;
    uint32_t acct_fwd_only;
    uint32_t rate_per_route;
    int32_t rate_route_count;    // every route leaf of the table, whatever its rate setting
    uint32_t global_enable_cfg;  // interfaces: 1 enable, 0 disable
    uint32_t global_cfg_stale;

    // Queue of interface change requests.
    ipmc_intf_change_req_st *intf_req_head;
    ipmc_intf_change_req_st *intf_req_tail;
    uint64_t intf_req_queued;         // ever
    uint64_t intf_req_done;           // ever
    uint64_t intf_req_over_limit;     // refused: queue full
    uint64_t intf_req_duplicate;      // refused: already queued
    uint64_t intf_req_no_memory;      // refused
    uint64_t intf_req_null_route;     // refused
    uint64_t intf_req_deleted_route;  // finished with a route delete
    uint64_t intf_req_committed;      // finished with a route commit
    uint64_t intf_req_intf_gone;      // the interface had left the route
    uint64_t intf_req_failed;
    uint64_t intf_req_no_route;  // the route had gone
    uint64_t intf_req_lookup_failed;
    uint64_t intf_req_skipped;  // the route was in no state to change
};
IP6MC_RECORD(ipv4mc_table_st, 544);
static_assert(offsetof(ipv4mc_table_st, node) == 0 && offsetof(ipv4mc_table_st, tid) == 48 &&
                  offsetof(ipv4mc_table_st, vrf_id) == 52 &&
                  offsetof(ipv4mc_table_st, vrf_name) == 56,
              "a record is its own tree node, and its keys lie behind the nodes");

MFWD6_BEGIN_C

// What the tree services are given: for `table_tid_tree` and for `table_name_tree`.
extern MFWD6_EXPORT const struct shm_avl_fns ipmc_db_tid_fns;
extern MFWD6_EXPORT const struct shm_wavl_fns ipmc_db_table_fns;

// Comparisons: 0 less, 1 equal, 2 greater; 1 if either pointer is NULL. The arguments are nodes of
// their own thread: that of the VRF id lies one node further into the record.
MFWD6_EXPORT int ipmc_tbl_wavl_compare_vrf_name(const void *a, const void *b);
MFWD6_EXPORT int ipmc_tbl_wavl_compare_vrf_id(const void *a, const void *b);
MFWD6_EXPORT int ipmc_tbl_avl_compare_tbl_id(const void *a, const void *b);

// From a thread 0 node to its table and back: the same address.
MFWD6_EXPORT void *ip6mc_tbl_wavl2db(void *node);
MFWD6_EXPORT void *ip6mc_tbl_db2wavl(void *table);

// The TID table of this id, or NULL (also, with a report, when the library is not ready).
MFWD6_EXPORT ipv4mc_table_st *ip6mc_table_lookup_by_tbl_id(uint32_t tid);

// TID tables in the order of their ids: the first, the next above `tid`, `tid` itself or the next
// above. NULL when there is none.
MFWD6_EXPORT ipv4mc_table_st *ip6mc_table_tid_get_first(void);
MFWD6_EXPORT ipv4mc_table_st *ip6mc_table_tid_get_next(uint32_t tid);
MFWD6_EXPORT ipv4mc_table_st *ip6mc_table_tid_get_next_eq(uint32_t tid);

// 1 when the TID table (of a VRF table: the one that it is linked to) exists and has both its
// signal trie and its ingress trie, else 0.
MFWD6_EXPORT int ip6mc_table_is_valid(const ipv4mc_table_st *table);

// 1 when routes of other tables are linked to the TID table, this node is its MDT master line card,
// or its VRF table is local here; else 0.
MFWD6_EXPORT int ip6mc_table_is_local(uint32_t tid);

// For a process that reaches the TID tree by the tree service itself: names its functions there.
MFWD6_EXPORT cerrno ipmc_table_tid_prep_for_special_access(void);

// The trees and their functions, for walks by others. NULL trees without a window.
MFWD6_EXPORT wavl_tree *ip6mc_get_table_vid_name_db(void);
MFWD6_EXPORT const struct shm_wavl_fns *ip6mc_get_table_vid_name_db_fns(void);
MFWD6_EXPORT shm_avl_tree *ip6mc_get_table_tid_db(void);
MFWD6_EXPORT const struct shm_avl_fns *ip6mc_get_table_tid_db_fns(void);

// Steps through one thread of `table_name_tree` (or a copy of its head).
MFWD6_EXPORT void *multicast_table_wrapper_for_shm_wavl_get_first(const wavl_tree *tree,
                                                                  uint32_t thread);
MFWD6_EXPORT void *multicast_table_wrapper_for_shm_wavl_get_next(const wavl_tree *tree,
                                                                 const void *node, uint32_t thread);

// Walk function of tables: `count` tables were seen before this one, `walk_state` is the walk's
// own.
typedef cerrno (*ipv4mc_table_walk_ft)(ipv4mc_table_st *table, uint32_t count, void *walk_state,
                                       void *context);

// The trees that ip6mc_table_walk walks.
enum ipv4mc_table_walk_trees { IPV4MC_TABLE_WALK_NAMES = 0, IPV4MC_TABLE_WALK_TIDS = 1 };

// Calls `function` for each table of `tree`; `thread` counts for IPV4MC_TABLE_WALK_NAMES. A failure
// is reported; with `stop_on_error` it ends the walk and is its result, else the walk goes on.
// EBADF, EINVAL (no such tree). The function may delete the table at hand.
MFWD6_EXPORT cerrno ip6mc_table_walk(ipv4mc_table_walk_ft function, uint32_t tree, uint32_t thread,
                                     void *context, int stop_on_error);

// Creates, activates, clears, deactivates, deletes or looks up a table, and switches accounting and
// rate for all its routes. At least one of `tid`, `vrf_id`, a non-empty `vrf_name` of under 33
// characters, or `table_pp` is given. `*table_pp` may hold the table on entry (DELETE, CLEAR,
// CLEAR_ROUTES, accounting and rate require it) and receives the VRF table, or the TID table if
// there is none; NULL after a DELETE, and when nothing was found. `arg` is the number of routes
// between two yields of the walks.
//
// 9 when the library is not ready, 22 for bad arguments, 2 when there is nothing to act on, 12, or
// the code of the platform or a trie. Owner's operation thread.
MFWD6_EXPORT cerrno ip6mc_table_operation(ipv4mc_action_type action, uint32_t tid,
                                          rsi_vrf_id_t vrf_id, const char *vrf_name,
                                          ipv4mc_table_st **table_pp, uint32_t arg);

// Deletes every table, VRF tables first. `arg` is that of ip6mc_table_operation. Goes on for ever
// with a VRF table that cannot be deleted; ends with the code of the first TID table that cannot.
MFWD6_EXPORT cerrno ip6mc_table_delete_all(uint32_t arg);

// Clears the routes of every TID table; stops at the first that fails, with its code.
MFWD6_EXPORT cerrno ip6mc_table_clear_all(uint32_t arg);

// Brings the core routes on `memd_route_list` in line: DT set (1) or clear (0). Nothing for the
// default table, nor to clear while the table has local egress interfaces or T bits. Always 0.
MFWD6_EXPORT cerrno ip6mc_tbl_update_memd_routes(ipv4mc_table_st *table, int set);

// Selective download: the interfaces of a VRF table have come (1) or gone (0). Not built yet.
MFWD6_EXPORT void ip6mc_svd_update_tbl_location(ipv4mc_table_st *table, int local);

MFWD6_END_C

#endif
