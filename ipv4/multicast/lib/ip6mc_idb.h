// Interfaces: the library's own record of one interface of the router.
//
// A record exists while something in the multicast state refers to it: a route, a boundary, a
// configuration, a bundle, an MDT, the interface manager. It is found by handle, by name, and per
// VRF table by handle, and is held by reference counts.
//
// Thread-safety. The trees are guarded by `tbl_rw_lock`; all other fields are plain words of the
// owner's operation thread.
#ifndef IP6MC_IDB_H
#define IP6MC_IDB_H

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/acl/ipv6_acl.h"
#include "services/platform_info/adjacency.h"
#include "services/radix/radix.h"
#include "services/trees/wavl.h"

#define IPV4MC_IDB_NAME_SIZE 64           // a name of 64 characters has no terminator
#define IPV4MC_IDB_BOUNDARY_NAME_SIZE 65  // with terminator
#define IPV4MC_IDB_VRF_NAME_SIZE 33       // with terminator

// Threads of the trees of interfaces, and nodes in a record.
enum ipv4mc_idb_threads {
    IPV4MC_IDB_THREAD_GLOBAL = 0,  // global, by handle
    IPV4MC_IDB_THREAD_VRF = 1,     // per table, by handle
    IPV4MC_IDB_THREAD_NAME = 2,    // global, by name
    IPV4MC_IDB_THREADS = 3
};

// Kinds of an interface. 4 is not used.
enum ipv4mc_idb_types {
    idb_type_physical = 0,
    idb_type_vlan_over_bundle = 1,
    idb_type_tunnel = 2,
    idb_type_bundle = 3,
    idb_type_svi = 5,
    idb_type_mdt = 6,
    idb_type_other = 7,  // virtual, of no kind known here
    idb_type_bvi = 8,
    idb_type_pppoe = 9,
    idb_type_pw_ether = 10,
    idb_type_pw_ether_vlan = 11,
    idb_type_always_local = 12  // written by the caller
};

// `subtype` of an MDT interface.
enum ipv4mc_idb_subtypes {
    IPV4MC_IDB_MDT_MI = 1,
    IPV4MC_IDB_MDT_LMI = 2,
    IPV4MC_IDB_MDT_TMI = 3,
    IPV4MC_IDB_MDT_IRMI = 4,
    IPV4MC_IDB_MDT_TRMI = 5
};

// Who holds a reference on an MDT interface.
enum ipv4mc_mdt_flags {
    IPV4MC_MDT_FLAG_MI = 1,
    IPV4MC_MDT_FLAG_LMI = 2,
    IPV4MC_MDT_FLAG_TMI = 3,
    IPV4MC_MDT_FLAG_IRMI = 4,
    IPV4MC_MDT_FLAG_MH = 5,
    IPV4MC_MDT_FLAG_TRMI = 6,
    IPV4MC_MDT_FLAG_SPL = 7
};

// `create_state`.
enum ipv4mc_idb_create_states {
    IPV4MC_IDB_UNKNOWN = 0,
    IPV4MC_IDB_CREATED = 1,
    IPV4MC_IDB_MARKED_DELETED = 2
};

// `cfg_flags`.
#define IPV4MC_IDB_CFG_EXPLICIT \
    UINT8_C(0x01)  // enable or disable was configured on the interface itself
#define IPV4MC_IDB_CFG_PPPOE_ENABLE UINT8_C(0x02)  // written by the caller
#define IPV4MC_IDB_CFG_STALE UINT8_C(0x04)         // not yet confirmed since the restart
// `tree_flags`.
#define IPV4MC_IDB_TREE_NAME UINT8_C(0x01)  // in the NAME thread
// `tunnel_flags`.
#define IPV4MC_IDB_TUNNEL_ACTIVE UINT8_C(0x01)
// `mc_cfg_vrf_flags`.
#define IPV4MC_IDB_VRF_ERROR UINT8_C(0x01)  // the linked table has another name
#define IPV4MC_IDB_VRF_SET UINT8_C(0x02)    // `mc_cfg_vrf` is set

// Bit numbers of `stale_cfg_bitmap`.
enum ipv4mc_idb_stale_bits {
    IPV4MC_IDB_STALE_BOUNDARY = 0,
    IPV4MC_IDB_STALE_ENABLE = 1,
    IPV4MC_IDB_STALE_TTL = 2
};

// One member of a bundle.
struct ipmc_bundle_member_st {
    ifhtype ul_ifh_member;
    uint16_t member_link_id;
};
IP6MC_RECORD(ipmc_bundle_member_st, 8);

// `bundle_members` is always one block of this many, the first `bundle_member_count` in use, sorted
// by handle, the others zero.
#define IPMC_BUNDLE_MEMBERS_MAX 64

// Child of a bundle, in its `vlan_tree`. Names its child by handle.
struct ipmc_vlan_node_st {
    rt_node_t head;
    ifhtype *key;
    ifhtype ifh;
};
IP6MC_RECORD(ipmc_vlan_node_st, 72);

struct ipv4mc_idb_st {
    ifhtype ifh;  // key of the global and the VRF thread
    wavl_node node[IPV4MC_IDB_THREADS];
    ipv4mc_table_st *vtable;  // VRF table, NULL while unlinked
    rsi_vrf_id_t vrf_id;      // may be set while `vtable` is NULL: the link waits for the table
    uint32_t table_id;        // MDT: the owning table
    uint32_t type;            // one of ipv4mc_idb_types
    uint32_t subtype;         // MDT: one of ipv4mc_idb_subtypes
    adj_base_t *aib;          // adjacency, owned elsewhere
    uint32_t refcount;
    uint8_t ttl;           // threshold; not 0 keeps the record alive
    uint32_t mtu;          // MDT: local
    uint32_t remote_mtu;   // MDT: remote
    uint32_t mh_refcount;  // MDT: references by holder
    uint32_t mi_refcount;
    uint32_t lmi_refcount;
    uint32_t trmi_refcount;
    uint32_t spl_refcount;
    ipv4mc_intf_entry_st *route_list;  // entries of routes on this interface
    uint32_t route_count;
    uint32_t mcast_enabled;
    uint8_t cfg_flags;
    uint8_t tree_flags;
    uint16_t im_type;                // 0 at creation, 66 on PPPoE
    ipv6_acl_handle_t boundary_acl;  // NULL if none; good in the process that set it
    char boundary_name[IPV4MC_IDB_BOUNDARY_NAME_SIZE];  // empty if none
    uint64_t platform_boundary_ref;  // platform half; not 0 keeps the record alive
    char name[IPV4MC_IDB_NAME_SIZE];
    uint8_t tunnel_flags;
    uint32_t create_state;   // one of ipv4mc_idb_create_states
    uint8_t im_create_rcvd;  // announced by the interface manager; written by the caller
    uint8_t dpl_local;       // data plane is local
    ifhtype ul_ifh;          // tunnels: interface underneath
    uint16_t stale_cfg_bitmap;
    uint32_t bundle_member_count;           // of a child: copy of the parent's
    ipmc_bundle_member_st *bundle_members;  // NULL when empty
    ifhtype bundle_ifh;                     // parent
    rt_head_t *vlan_tree;                   // children of a bundle, NULL when none
    uint32_t vlan_count;
    char mc_cfg_vrf[IPV4MC_IDB_VRF_NAME_SIZE];  // VRF that configuration named
    uint8_t mc_cfg_vrf_flags;
    uint8_t local_iftype_counted;  // counted in `local_ifcount` of its table
};
IP6MC_RECORD(ipv4mc_idb_st, 416);
static_assert(offsetof(ipv4mc_idb_st, ifh) == 0 && offsetof(ipv4mc_idb_st, node) == 8,
              "comparisons reach the handle from a node");

// A change of an interface on a route that waits in its table.
struct ipmc_intf_change_req_st {
    uint32_t action;  // ipv4mc_action_type
    ipv4mc_table_st *table;
    ip_maddr_st source;
    ip_maddr_st group;
    uint16_t pfx_len;
    ifhtype ifh;
    uint32_t extra;  // passed on
    uint64_t attributes;
    ipmc_intf_change_req_st *prev;
    ipmc_intf_change_req_st *next;
};
IP6MC_RECORD(ipmc_intf_change_req_st, 88);

// Requests that a table holds at most.
#define IPMC_INTF_CHANGE_REQ_MAX UINT64_C(1000)

// Walk function of interfaces; may destroy the interface at hand. Non-zero is a failure.
typedef cerrno (*ipv4mc_idb_walk_ft)(ipv4mc_idb_st *idb, void *context);

// Walk function of the routes of an interface; may take the entry at hand off the interface.
// Non-zero is a failure.
typedef cerrno (*ipv4mc_idb_route_walk_ft)(ipv4mc_idb_st *idb, ipv4mc_route_entry_st *route,
                                           ipv4mc_intf_entry_st *entry, void *context);

MFWD6_BEGIN_C

// ---- start, stop, states ------------------------------------------------------------------------
//
// Unless told otherwise every function below answers 9 with a report while the library or its
// interface half is not ready (state 2), and 22 with a report for a NULL argument.

// Starts the interface half; the library must be ready. The tree of interfaces is made, or kept as
// an earlier process left it. With `manage_interfaces` 0 it is ready at once; otherwise it follows
// the state of the platform, and `evm` must be given. A `callback` is told the state at the end,
// and each change that the platform causes. `bundle_mdt_check_fn` is what a change of a bundle's
// members does with each of its routes; NULL is allowed.
//
// 0, also when it has started already; 9, 22; the code of the tree or of the platform: the state is
// 0 then, and the tree is finished. After a failure of the platform's state query the half counts
// as started, so that a second call does nothing: call ip6mc_idb_terminate first. Owner's operation
// thread.
MFWD6_EXPORT cerrno ip6mc_idb_init(void *evm, void *unused, int manage_interfaces,
                                   ipv4mc_idb_callback_ft callback, void *callback_context,
                                   ipv4mc_idb_route_walk_ft bundle_mdt_check_fn, void *idb_param);

// Nothing needs to be done again after a restart. Always 0.
MFWD6_EXPORT cerrno ip6mc_idb_reinit(void);

// Stops the interface half. The tree ends with `destroy_tree` not 0 and `flag` 0, the records stay
// either way. Always 0. Further arguments are accepted and not looked at.
MFWD6_EXPORT cerrno ip6mc_idb_terminate(int destroy_tree, int flag, ...);

// Sets the state (ipv4mc_idb_states) and keeps the one before. With state 2 in a process that has
// an event manager, all interfaces are walked once: those that the interface manager had announced
// are marked stale.
MFWD6_EXPORT void ipv4mc_idb_update_state(uint32_t state);

// Writes the state *before* the present one to `*state_p`, and that of the platform's interface
// half to `*platform_state_p` unless that is NULL. Needs no state. 22; the platform's code.
MFWD6_EXPORT cerrno ip6mc_idb_get_state(uint32_t *state_p, uint32_t *platform_state_p);

// The platform's messages about its interface half arrive here.
MFWD6_EXPORT void ipv4mc_local_platform_idb_callback_func(ipv4mc_descriptor_struct *descriptor,
                                                          const ipv4mc_platform_msg_st *message);

// The client's function of ip6mc_idb_init. Of the process.
extern MFWD6_EXPORT ipv4mc_idb_route_walk_ft ip_mfwd_check_bundle_data_mdt_f;

// ---- trees --------------------------------------------------------------------------------------

// What the tree service is given: for the tree of the window header (threads 0 and 2), and for
// those of tables (thread 1).
extern MFWD6_EXPORT const struct shm_wavl_fns ipmc_idb_fns;
extern MFWD6_EXPORT const struct shm_wavl_fns ipmc_table_idb_fns;

// Comparisons of two nodes of their own thread: 0 less, 1 equal, 2 greater; 1 if either is NULL. By
// name over 64 characters. `dummy` finds all equal, for the threads that a tree does not use.
MFWD6_EXPORT int ipmc_idb_avl_compare_ifh_global(const void *a, const void *b);
MFWD6_EXPORT int ipmc_idb_avl_compare_ifh_vrf(const void *a, const void *b);
MFWD6_EXPORT int ipmc_idb_avl_compare_ifh_name(const void *a, const void *b);
MFWD6_EXPORT int ipmc_idb_avl_compare_ifh_dummy(const void *a, const void *b);

// From a thread 0 node to its interface and back. NULL stays NULL on the way to the interface.
MFWD6_EXPORT void *ipmc_idb_wavl2idb(void *node);
MFWD6_EXPORT void *ipmc_idb_idb2wavl(void *idb);

// Finds an interface by handle: 0 with the record, or with NULL when there is none. 22 without a
// report for handle 0 or a NULL `idb_p`; `*idb_p` is not written on failure. Any process.
MFWD6_EXPORT cerrno ip6mc_idb_lookup(ifhtype ifh, ipv4mc_idb_st **idb_p);

// The same by name, of which 64 characters count; among the interfaces that are in the NAME thread.
// 22 for an empty name.
MFWD6_EXPORT cerrno ip6mc_idb_lookup_by_name(const char *name, ipv4mc_idb_st **idb_p);

// The same by handle among the interfaces of one VRF table. `*idb_p` is NULL unless found. A table
// that is not there is reported, with result 0; a failure of its lookup is the result.
MFWD6_EXPORT cerrno ip6mc_idb_lookup_vrf(const char *vrf_name, ifhtype ifh, ipv4mc_idb_st **idb_p);

// Put an interface into the NAME thread under its present name, and take it out. The first leaves
// `tree_flags` alone. A failure of the tree is reported, the result is 0 all the same.
MFWD6_EXPORT cerrno ip6mc_idb_insert_in_name_tree(ipv4mc_idb_st *idb);
MFWD6_EXPORT cerrno ip6mc_idb_delete_from_name_tree(ipv4mc_idb_st *idb);

// ---- small questions and settings ---------------------------------------------------------------

// Sets the name, of which 64 characters are kept. An interface in the NAME thread stays where it
// was there: take it out before.
MFWD6_EXPORT cerrno ip6mc_idb_set_name(ipv4mc_idb_st *idb, const char *name);

// A text for messages, never NULL, valid until the next call in the process. Needs no state.
MFWD6_EXPORT const char *ip6mc_idb_display_name(const ipv4mc_idb_st *idb);

// 1 for the two types of interface managers that are SVIs, else 0.
MFWD6_EXPORT int ip6mc_iftype_is_svi(uint32_t im_type);

// Writes one of ipv4mc_idb_types.
MFWD6_EXPORT cerrno ip6mc_idb_get_type(const ipv4mc_idb_st *idb, uint32_t *type_p);

// Tells the platform that the interface is of this kind. The record keeps its own. The platform's
// code.
MFWD6_EXPORT cerrno ip6mc_idb_set_type(ipv4mc_idb_st *idb, uint32_t unused, uint32_t type);

// Type of an interface at the interface manager; 0 when it cannot be had. Needs no state.
MFWD6_EXPORT uint16_t ipv4mc_ifh_get_im_intf_type(ifhtype ifh);

// Walk function of the tree service: a debug line. Returns 1.
MFWD6_EXPORT int ipmc_idb_print_fn(void *node, void *context);

// Compares the reference count with the holders that are known: 1 if it fits, else 0 with a
// warning. 0 for NULL. Nothing is repaired. Needs no state.
MFWD6_EXPORT int ip6mc_idb_refcount_sanity_fn(ipv4mc_idb_st *idb);

// The same for each interface of a VRF table. Returns 1.
MFWD6_EXPORT int ip6mc_idb_refcount_sanity_walk(ipv4mc_table_st *table);

// ---- references ---------------------------------------------------------------------------------
//
// An interface comes with its first use and goes with its last. Counts are plain words: all callers
// are on the owner's operation thread. `bundle_pp`, which may be NULL, is for a member that is
// first met through its bundle: `*bundle_pp` goes to the platform with the new record.

// Makes the record of an interface, without a reference, and links it to its VRF unless `vrf` is 0.
// NULL with `*rc_p` on failure; also when the link failed, which frees the record. NULL at once for
// a NULL `rc_p`. `is_mdt` makes it an MDT interface whatever the handle says.
MFWD6_EXPORT ipv4mc_idb_st *ipv4mc_idb_alloc(ifhtype ifh, rsi_vrf_id_t vrf,
                                             ipv4mc_idb_st **bundle_pp, cerrno *rc_p, int is_mdt);

// Finds the record, or makes it with `create` not 0; takes no reference. A record that is in
// another VRF than a non-zero `vrf` moves there, which is reported. 2 when it is not there; 12; the
// code of the platform. `*idb_p` may be NULL with 0, when the link to the VRF failed.
MFWD6_EXPORT cerrno ip6mc_idb_find_or_create(ifhtype ifh, rsi_vrf_id_t vrf, ipv4mc_idb_st **idb_p,
                                             ipv4mc_idb_st **bundle_pp, int create);

// Find or create, and take one reference: by handle, by handle and VRF, by handle and name. The
// last takes none when the interface manager has announced the interface before; it puts a new
// record into the NAME thread, and refuses with 22 when name and handle do not belong together.
MFWD6_EXPORT cerrno ip6mc_idb_lock(ifhtype ifh, ipv4mc_idb_st **idb_p, ipv4mc_idb_st **bundle_pp);
MFWD6_EXPORT cerrno ip6mc_idb_lock_v2(ifhtype ifh, rsi_vrf_id_t vrf, ipv4mc_idb_st **idb_p,
                                      ipv4mc_idb_st **bundle_pp);
MFWD6_EXPORT cerrno ip6mc_idb_lock_v3(ifhtype ifh, const char *name, ipv4mc_idb_st **idb_p,
                                      ipv4mc_idb_st **bundle_pp);

// One more reference on `*idb_p`.
MFWD6_EXPORT cerrno ip6mc_idb_lock_idb(ipv4mc_idb_st **idb_p);

// Give one reference back; the record goes with the last, unless its TTL, its adjacency or the
// platform's boundary reference keep it. On success `*idb_p` is NULL; with `save` not 0 it stays
// where the record stays. 22, with nothing changed, for a record without references.
MFWD6_EXPORT cerrno ip6mc_idb_unlock(ipv4mc_idb_st **idb_p);
MFWD6_EXPORT cerrno ipv4mc_idb_save_unlock(ipv4mc_idb_st **idb_p, int save);

// Destroys all interfaces, whoever holds them, giving up the processor after each `yield_count` (0:
// never). The last failure, or 0. What pointed at them is not told.
MFWD6_EXPORT cerrno ip6mc_idb_delete_all(uint32_t yield_count);

// ---- routes of an interface ---------------------------------------------------------------------
//
// The entries of an interface, newest first. Each holds one reference on it.

// Put an entry on the list of its interface, which `*idb_p` receives in the first form. Twice is
// a success that does nothing. Need no state of their own. `idb` must not be NULL in the second
// form.
MFWD6_EXPORT cerrno ip6mc_idb_route_add(ipv4mc_idb_st **idb_p, ipv4mc_route_entry_st *route,
                                        ipv4mc_intf_entry_st **entry_p);
MFWD6_EXPORT cerrno ip6mc_idb_route_add_idb(ipv4mc_idb_st *idb, ipv4mc_route_entry_st *route,
                                            ipv4mc_intf_entry_st **entry_p);

// Take an entry off the list of its interface, with its tie to an L2 state if it has one. May
// destroy the interface; the caller's pointer to it is left alone. An entry that is on no list is a
// success; an interface that is not there is reported, with result 0 in the first form.
MFWD6_EXPORT cerrno ip6mc_idb_route_remove(ipv4mc_route_entry_st *route,
                                           ipv4mc_intf_entry_st **entry_p);
MFWD6_EXPORT cerrno ip6mc_idb_route_remove_idb(ipv4mc_idb_st **idb_p, ipv4mc_route_entry_st *route,
                                               ipv4mc_intf_entry_st **entry_p);

// Calls `function` for each interface in the order of handles, of all or of one VRF table. The
// processor is given up after each `yield_count` records, 0 never. A failure of `function` is
// reported; with `stop_on_error` it ends the walk and is the result, otherwise it is forgotten.
//
// The second form begins behind `start_ifh` (0: with the first), 2 when that is not there; it ends
// with the last result of `function` after `count` records (0: no limit).
MFWD6_EXPORT cerrno ip6mc_idb_walk(ipv4mc_table_st *table, ipv4mc_idb_walk_ft function,
                                   void *context, uint32_t yield_count, int stop_on_error);
MFWD6_EXPORT cerrno ip6mc_idb_walk_with_count(ipv4mc_table_st *table, ifhtype start_ifh,
                                              uint32_t count, ipv4mc_idb_walk_ft function,
                                              void *context, uint32_t yield_count,
                                              int stop_on_error);

// The same for the routes of an interface, newest first. With `resume` the walk begins behind the
// first entry whose route has this source and group: 2 when there is none. Takes no lock.
MFWD6_EXPORT cerrno ip6mc_idb_route_walk(ipv4mc_idb_st *idb, ipv4mc_idb_route_walk_ft function,
                                         uint32_t yield_count, void *context, int stop_on_error);
MFWD6_EXPORT cerrno ip6mc_idb_route_walk_with_count(const ip_maddr_st *start_source,
                                                    const ip_maddr_st *start_group, int resume,
                                                    uint32_t count, ipv4mc_idb_st *idb,
                                                    ipv4mc_idb_route_walk_ft function,
                                                    uint32_t yield_count, void *context,
                                                    int stop_on_error);

// ---- interfaces and VRF tables. Not built yet. --------------------------------------------------

// Puts an interface into the tree of its VRF table, which is looked up when `table` is NULL; waits
// for a table that is not there. A failure frees the record: `*idb_p` is NULL then.
MFWD6_EXPORT void ipmc_idb_link_tbl(ipv4mc_idb_st **idb_p, rsi_vrf_id_t vrf_id,
                                    ipv4mc_table_st *table);

// Takes an interface out of the tree of its VRF table. The interface, or NULL when that ended it.
MFWD6_EXPORT ipv4mc_idb_st *ipmc_idb_unlink_tbl(ipv4mc_idb_st *idb, uint32_t *out);

// 1 for the handle of the fabric interface, else 0. Needs no state.
MFWD6_EXPORT int ip6mc_idb_is_fint_ifh(ifhtype ifh);

// ---- bundles. Not built yet. --------------------------------------------------------------------

// Sets the functions of a bundle's tree of children again, which died with the last process. 0 when
// it has none.
MFWD6_EXPORT cerrno ipmc_bundle_vlantree_reinit(ipv4mc_idb_st *idb);

// ---- data path
// -----------------------------------------------------------------------------------

// Sends a control code with `length` bytes at `data` to the data path, on the calling thread and
// through the interface manager; `ifh` 0 is no interface in particular. What the receiver answers,
// or EINVAL when the process has no interface manager.
MFWD6_EXPORT cerrno ipv4mc_intf_dpc(ifhtype ifh, uint32_t code, uint32_t length, void *data,
                                    uint64_t extra_1, uint64_t extra_2);

// ---- MDT interfaces of a table. Not built yet. --------------------------------------------------

MFWD6_EXPORT cerrno ip6mc_idb_mdt_unlock(ipv4mc_table_st *table, ifhtype ifh, uint32_t flag);
MFWD6_EXPORT cerrno ip6mc_idb_mdt_mtu_set(ipv4mc_table_st *table);

MFWD6_END_C

#endif
