// The seam: what a platform-dependent library fulfils, and the library calls by name.
//
// A platform is one shared object that defines every function below. The library keeps the records;
// the platform makes the forwarding hardware do what they say. docs/writing-a-platform.md shows how
// one is written.
//
// Thread-safety. The owner process calls every operation on its one operation thread, so a platform
// needs no lock towards the library. An attached client calls only ip6mc_platform_lib_init,
// ip6mc_platform_lib_terminate, ip6mc_platform_get_state, the questions and the counters. The two
// callbacks into the library (`platform_callback` of the descriptor, and the one of an op_spec) may
// come on a thread of the platform's own; ipmc_platform_async_err_handler must come on the
// operation thread.
//
// Results. 0 is success; anything else is a cerrno that is passed on with its text. Two codes have
// a meaning: IP6MC_PLATFORM_QUIET_REFUSAL from the CREATE of an interface, and, by habit of the
// platforms of this tree, ENOSPC (28) for a full table of the hardware. On the way up (CREATE,
// COMMIT, ACTIVATE, an update) a failure means that nothing changed in the hardware: the library
// undoes its own change, or queues the object for a retry. On the way down (DELETE, CLEAR) a
// failure is reported and the record goes all the same: whatever the hardware kept is found by
// ip6mc_platform_enumerate. The exceptions are a single interface of a route, which then stays, and
// a table, whose removal stops there.
//
// Repetition. Every operation may be repeated: after a restart the owner commits what the window
// holds, whatever the hardware still has. CREATE of what exists and DELETE of what does not are
// successes.
//
// Changes. Some operations on the way down come while the library has a change of the window open
// (services/journal): killed before its end, the record is there again for the next owner, who
// repeats the operation. A platform takes none of the window's mutexes in them.
//
// Ownership. Records belong to the library and lie in the window. A platform reads them during a
// call and writes only the extension behind a record, whose size platform_get_mcast_params states,
// and the fields that are noted as the platform half's. It keeps no counts in them: who writes an
// attribute word (the forwarding process, or the library) also raises and lowers what the word's
// bits count. It may keep the address of a record between the CREATE and the DELETE of that record,
// and no longer.
#ifndef IP6MC_PLATFORM_H
#define IP6MC_PLATFORM_H

#include "ipv4/multicast/lib/ip6mc_types.h"

MFWD6_BEGIN_C

// An interface CREATE that the platform refuses without wanting a report: the entry is not made,
// and the caller gets this code.
#define IP6MC_PLATFORM_QUIET_REFUSAL UINT32_C(63)

// States of the platform library. The library compares with READY only.
typedef uint32_t ipv4mc_platform_state;
enum ipv4mc_platform_states {
    IPV4MC_PLATFORM_STATE_DOWN = 0,
    IPV4MC_PLATFORM_STATE_NOT_READY = 1,
    IPV4MC_PLATFORM_STATE_READY = 2
};

// Message of the platform to the library.
typedef struct ipv4mc_platform_msg_st {
    uint32_t type;  // one of ipv4mc_platform_msgs
    uint32_t new_state;
    uint32_t old_state;
} ipv4mc_platform_msg_st;
enum ipv4mc_platform_msgs {
    IPV4MC_PLATFORM_MSG_STATE = 0,  // the state changed
    IPV4MC_PLATFORM_MSG_NOTIFY =
        1  // passed on to the client as a message of type 1, without contents
};

// How the platform reaches the library: `platform_callback` of the descriptor, and `callback` of an
// op_spec. `descriptor` is the one given to ip6mc_platform_lib_init.
typedef void (*ipv4mc_platform_callback_ft)(ipv4mc_descriptor_struct *descriptor,
                                            const ipv4mc_platform_msg_st *message);

// ---- life ---------------------------------------------------------------------------------------

// Starts the platform half in this process. `evm` is the event manager of the process, may be NULL;
// `attach_only` is 0 in the owner. The platform keeps `descriptor` until
// ip6mc_platform_lib_terminate and reports changes of its state through
// descriptor->platform_callback. It need not be ready when this returns; while it is not, the
// library of an owner stays in its state 1.
MFWD6_EXPORT cerrno ip6mc_platform_lib_init(void *evm, int attach_only,
                                            ipv4mc_descriptor_struct *descriptor);

// Stops the platform half. `reason` 0 and 1: the state of the owner's window ends with it. 2 and
// above: the process stops and another takes over, the hardware goes on forwarding. Success when
// never started.
MFWD6_EXPORT cerrno ip6mc_platform_lib_terminate(int attach_only, uint32_t reason);

// Writes an ipv4mc_platform_state. The owner's start asks once; a later change is told by message.
MFWD6_EXPORT cerrno ip6mc_platform_get_state(uint32_t *state_p);

// Frees all that the hardware holds for this library. `arg` is 0 from the library itself, else the
// client's own word.
MFWD6_EXPORT cerrno ip6mc_platform_clear_hw_resources(uint32_t arg);

// ---- tables -------------------------------------------------------------------------------------

// One action on a table: CREATE, DELETE, CLEAR, COMMIT, ACTIVATE, DEACTIVATE, the four ACCT
// actions, MLC_SET and MLC_UNSET (this node is, or is no more, the table's master line card).
//
// A table has two sides that come and go by themselves. A call for the VRF side has `vrf_id` or
// `vrf_name` and may have `tid` 0; a call for the table-id side has `tid` and may have `vrf_id` 0
// and an empty or NULL name. `*table_pp` is the record of the side that the call is for
// (`table_type` tells which), except in an action on an existing table, where it is the one that
// the client gave. `is_new` is 1 when the record was made by the client's present call.
//
// The library relies on: no route operation comes for a table-id side before its ACTIVATE, none
// after its DEACTIVATE or DELETE.
MFWD6_EXPORT cerrno ip6mc_platform_table_operation(ipv4mc_action_type action, uint32_t tid,
                                                   rsi_vrf_id_t vrf_id, const char *vrf_name,
                                                   ipv4mc_table_st **table_pp, int is_new);

// ---- routes -------------------------------------------------------------------------------------

// One action on a route: COMMIT (program; the route is not yet to be found by lookups when it is
// new), DELETE, CLEAR (no interfaces, no counters, the route stays), the four ACCT actions, and
// CREATE in a replay after out-of-resource.
//
// `source` and `group` with `pfx_len` are the key: an all-zero source with pfx_len m is (*,G/m),
// any other source is (S,G) and exact, whatever the length says. `table` is the table-id side.
// `*route_pp` is the record; it holds the new attribute word, `old_attributes` is the one before (0
// for a new route). `mofrr_attrib` comes from the client and is 0 for a new route. `is_new` is 1
// for the first COMMIT.
//
// In a replay `*route_pp` is NULL on entry and the last three arguments are 0. The platform then
// takes the record that it knows for this key, or finds it in table->ingress_gtrie, programs its
// present attribute word, and writes it to `*route_pp`.
MFWD6_EXPORT cerrno ip6mc_platform_route_operation(
    ipv4mc_action_type action, ipv4mc_table_st *table, const ip_maddr_st *source,
    const ip_maddr_st *group, uint16_t pfx_len, ipv4mc_route_entry_st **route_pp,
    mrib_attrib_entry_type old_attributes, mrib_attrib_ti_mofrr_type mofrr_attrib, int is_new);

// Types of a route update (ipv4mc_route_update_st). Others are passed to the platform before the
// library refuses them.
typedef uint32_t ipv4mc_route_update_type;
enum ipv4mc_route_update_types {
    IPV4MC_ROUTE_UPDATE_ENCAP = 1,  // `encap_id`; 0 unlinks
    IPV4MC_ROUTE_UPDATE_T_BIT = 2,  // `t_bit`, `t_count`
    IPV4MC_ROUTE_UPDATE_3 = 3,      // platform words only, as 5, 6, 7 and 16
    IPV4MC_ROUTE_UPDATE_4 = 4,      // `upd4_value`
    IPV4MC_ROUTE_UPDATE_5 = 5,
    IPV4MC_ROUTE_UPDATE_6 = 6,
    IPV4MC_ROUTE_UPDATE_7 = 7,
    IPV4MC_ROUTE_UPDATE_RPF_ID = 8,  // `rpf_id`
    IPV4MC_ROUTE_UPDATE_16 = 16
};

// Changes one property of a committed route. The record still has the old value; the library writes
// the new one after a success.
MFWD6_EXPORT cerrno ip6mc_platform_route_update(ipv4mc_route_entry_st *route,
                                                ipv4mc_route_update_type type,
                                                const ipv4mc_route_update_st *update);

// The parent from which `child` (a route with inherit accept) takes its accepting interfaces has
// changed: child->IF_parent is the new one, may be NULL, and `old_parent` the one before, may be
// NULL.
MFWD6_EXPORT cerrno ip6mc_platform_change_IF_parent(ipv4mc_table_st *table,
                                                    ipv4mc_route_entry_st *child,
                                                    ipv4mc_route_entry_st *old_parent);

// Question: would a COMMIT of this route, whose record holds the new attribute word, change the set
// of slots that the fabric replicates it to, or its transfer id? Writes 1 or 0 to `changed_p`.
MFWD6_EXPORT cerrno ipv6_mfwd_platform_is_slotmask_xid_change(
    ipv4mc_table_st *table, ipv4mc_route_entry_st *route, const ip_maddr_st *source,
    const ip_maddr_st *group, mrib_attrib_entry_type old_attributes, int *changed_p);

// ---- interfaces of routes -----------------------------------------------------------------------

// One action on an interface of a route: CREATE (the entry is linked to nothing yet), COMMIT,
// DELETE, CLEAR, AMT_STAT_CLEAR, BVI_UPD, and CREATE and COMMIT in a replay.
//
// `ifh` is the interface; `intf_arg` is the handle of the interface underneath, 0 for none.
// `*intf_pp` is the entry with its new attribute word, `old_attributes` the word before (0 when
// `is_new`). `idb` is the record of `ifh`, `platform_arg` is the caller's word; a replay passes the
// record of the interface underneath in it. Either may be 0. `is_new` is 1 for the CREATE and the
// first COMMIT of an entry.
//
// An entry whose CREATE failed gets no other call. Before a DELETE of a route every one of its
// interfaces has had its DELETE or CLEAR.
MFWD6_EXPORT cerrno ip6mc_platform_intf_operation(ipv4mc_action_type action, ipv4mc_table_st *table,
                                                  ipv4mc_route_entry_st *route, ifhtype ifh,
                                                  uint32_t intf_arg, ipv4mc_intf_entry_st **intf_pp,
                                                  ipv4mc_idb_st *idb, uintptr_t platform_arg,
                                                  mrib_attrib_entry_type old_attributes,
                                                  int is_new);

// ---- interfaces of the router -------------------------------------------------------------------

// Actions of ip6mc_platform_idb_operation, each a bit, with what `idb_a` and `idb_b` are. `op_spec`
// is NULL where it is not named.
typedef uint32_t ipv4mc_idb_op;
#define IPV4MC_IDB_OP_AIB_UPDATE UINT32_C(0x1)         // the interface, its `aib` is set
#define IPV4MC_IDB_OP_AIB_DELETE UINT32_C(0x2)         // the interface
#define IPV4MC_IDB_OP_BOUNDARY_UPDATE UINT32_C(0x4)    // the interface, its `boundary_acl` is set
#define IPV4MC_IDB_OP_BOUNDARY_DELETE UINT32_C(0x8)    // the interface
#define IPV4MC_IDB_OP_TTL_SET UINT32_C(0x100)          // the interface, its `ttl` is set
#define IPV4MC_IDB_OP_ENABLE UINT32_C(0x200)           // the interface: multicast on
#define IPV4MC_IDB_OP_DISABLE UINT32_C(0x400)          // the interface: multicast off
#define IPV4MC_IDB_OP_INIT UINT32_C(0x800)             // none; op_spec: register its `callback`
#define IPV4MC_IDB_OP_CREATE UINT32_C(0x2000)          // a new interface, its bundle or NULL
#define IPV4MC_IDB_OP_DESTROY UINT32_C(0x4000)         // an interface about to be freed
#define IPV4MC_IDB_OP_MEMBER_ADD UINT32_C(0x8000)      // bundle, member
#define IPV4MC_IDB_OP_MEMBER_DELETE UINT32_C(0x10000)  // bundle, member
#define IPV4MC_IDB_OP_GET_STATE UINT32_C(0x20000)      // none; op_spec: write its `state`
#define IPV4MC_IDB_OP_SPEC_INIT \
    UINT32_C(0x40000)  // none or an interface; op_spec: fill with defaults
#define IPV4MC_IDB_OP_TUNNEL_ACTIVATE UINT32_C(0x80000)     // tunnel, interface underneath
#define IPV4MC_IDB_OP_TUNNEL_DEACTIVATE UINT32_C(0x100000)  // tunnel, interface underneath or NULL
#define IPV4MC_IDB_OP_TYPE_SET UINT32_C(0x200000)           // the interface; op_spec: its `type`
#define IPV4MC_IDB_OP_AIB_ZERO UINT32_C(0x400000)           // the interface
#define IPV4MC_IDB_OP_VLAN_MEMBER_ADD UINT32_C(0x800000)    // VLAN, member of its bundle
#define IPV4MC_IDB_OP_VLAN_MEMBER_DELETE UINT32_C(0x1000000)  // VLAN, member of its bundle
#define IPV4MC_IDB_OP_DPL_ON UINT32_C(0x2000000)              // the interface: data plane is local
#define IPV4MC_IDB_OP_DPL_OFF UINT32_C(0x4000000)             // the interface: it is not any more
#define IPV4MC_IDB_OP_MTU UINT32_C(0x8000000)  // MDT interface, its `mtu` or `table_id` has changed
#define IPV4MC_IDB_OP_REMOTE_MTU \
    UINT32_C(0x10000000)  // MDT interface, its `remote_mtu` has changed
#define IPV4MC_IDB_OP_PPPOE_MEMBER_ADD UINT32_C(0x20000000)     // session, member of its bundle
#define IPV4MC_IDB_OP_PPPOE_MEMBER_DELETE UINT32_C(0x40000000)  // session, member of its bundle

// What some of these actions carry. Always prepared with IPV4MC_IDB_OP_SPEC_INIT first, which a
// platform may use to set fields of its own.
typedef struct ipv4mc_idb_op_spec_st {
    ipv4mc_platform_callback_ft
        callback;                // INIT: told of changes of the platform's interface state
    uint32_t type;               // TYPE_SET: kind of the interface
    uint32_t state;              // GET_STATE: an ipv4mc_platform_state
    uint64_t platform_words[4];  // the platform's own
} ipv4mc_idb_op_spec_st;

// One action on an interface of the router.
MFWD6_EXPORT cerrno ip6mc_platform_idb_operation(ipv4mc_idb_op action, ipv4mc_idb_st *idb_a,
                                                 ipv4mc_idb_st *idb_b,
                                                 ipv4mc_idb_op_spec_st *op_spec);

// ---- encapsulation ------------------------------------------------------------------------------

// One action on an encap id: CREATE, COMMIT, CLEAR, DELETE. A later COMMIT is a re-programming.
MFWD6_EXPORT cerrno ip6mc_platform_encapid_operation(ipv4mc_action_type action,
                                                     ipv4mc_encap_entry_st *encap);

// Types of an encap update.
enum ipv4mc_encap_update_types {
    IPV4MC_ENCAP_UPDATE_IP_LKP = 1  // `update` is one byte: look up behind the encap, 1 or 0
};

// Changes one property of an encap; a COMMIT of the encap follows.
MFWD6_EXPORT cerrno ip6mc_platform_encap_update(ipv4mc_encap_entry_st *encap, uint32_t type,
                                                const void *update);

// One action on a leaf, the use of a transport by an encap: CREATE (the leaf is linked to nothing
// yet, `encap` and `regdb` say what it will join), COMMIT with a new transport flag `tr`, CLEAR and
// DELETE.
MFWD6_EXPORT cerrno ip6mc_platform_encap_leaf_operation(ipv4mc_action_type action,
                                                        ipv4mc_encap_leaf_st *leaf,
                                                        ipv4mc_encap_entry_st *encap,
                                                        ipv4mc_regdb_entry_st *regdb, uint32_t tr);

// One action on a transport: CREATE (the entry has no key yet), COMMIT, CLEAR and DELETE.
// `core_info` may be NULL except for COMMIT.
MFWD6_EXPORT cerrno ip6mc_platform_regdb_operation(ipv4mc_action_type action,
                                                   ipv4mc_regdb_entry_st *entry,
                                                   const ipv4mc_regdb_core_info_st *core_info);

// ---- counters -----------------------------------------------------------------------------------

// Packets (and bytes) of a route as counted by the hardware where they come in, since the route was
// programmed or cleared. ENOENT (2) when the hardware does not hold the route; `*count_p` is then
// 0.
MFWD6_EXPORT cerrno ip6mc_platform_get_hw_in_stats(ipv4mc_table_st *table,
                                                   const ip_maddr_st *source,
                                                   const ip_maddr_st *group, uint16_t pfx_len,
                                                   ipv4mc_route_entry_st *route, uint64_t *count_p);
MFWD6_EXPORT cerrno ip6mc_platform_get_hw_in_stats_bytes(ipv4mc_table_st *table,
                                                         const ip_maddr_st *source,
                                                         const ip_maddr_st *group, uint16_t pfx_len,
                                                         ipv4mc_route_entry_st *route,
                                                         uint64_t *count_p);

// The same where they go out. `route` may be NULL, then the key tells.
MFWD6_EXPORT cerrno ip6mc_platform_get_hw_eg_stats(ipv4mc_table_st *table,
                                                   const ip_maddr_st *source,
                                                   const ip_maddr_st *group, uint16_t pfx_len,
                                                   ipv4mc_route_entry_st *route, uint64_t *count_p);
MFWD6_EXPORT cerrno ip6mc_platform_get_hw_eg_stats_bytes(ipv4mc_table_st *table,
                                                         const ip_maddr_st *source,
                                                         const ip_maddr_st *group, uint16_t pfx_len,
                                                         ipv4mc_route_entry_st *route,
                                                         uint64_t *count_p);

// Packets and bytes that came in through an encap: through one leaf, or all of it with `leaf` NULL.
// `encap` may be NULL, then the id tells. `dropped_p` may be NULL.
MFWD6_EXPORT cerrno ip6mc_platform_encap_get_hw_in_stats(uint32_t encap_id,
                                                         ipv4mc_encap_entry_st *encap,
                                                         ipv4mc_encap_leaf_st *leaf,
                                                         uint64_t *packets_p, uint64_t *bytes_p,
                                                         uint64_t *dropped_p);

// ---- questions ----------------------------------------------------------------------------------

// 1 when the route tries exist in software only, 0 when the hardware has its own. Does not change
// while the platform runs.
MFWD6_EXPORT int ip6mc_platform_is_sw_only_gtrie(void);

// Writes 1 to `is_local_p` when traffic of a virtual interface touches this node now, else 0.
MFWD6_EXPORT cerrno ip6mc_platform_is_virtual_interface_local(ifhtype ifh, uint8_t *is_local_p);

// Chance for the platform to name the member of a bundle that carries (source, group): non-zero
// when it has, and then both outputs are written. 0 leaves the choice to the library's own hash and
// the outputs as they are. The answer must be the same in every process.
MFWD6_EXPORT int ip6mc_platform_bundle_sg_hash(ifhtype bundle, const ip_maddr_st *source,
                                               const ip_maddr_st *group, ifhtype *member_p,
                                               uint16_t *link_id_p);

// Reads the data that came with an L2 state: writes 1 to `is_local_p` when receivers behind the BVI
// are on this node, 0 when not. Non-zero when it cannot be told. An answer of 0 that leaves
// `is_local_p` alone counts as local.
MFWD6_EXPORT cerrno ipv6_mfwd_platform_is_bvi_local(const uint8_t *plfm_data, uint8_t plfm_data_len,
                                                    int *is_local_p);

// ---- what the hardware holds --------------------------------------------------------------------

// Kinds of things that a platform holds.
typedef uint32_t ip6mc_platform_kind;
enum ip6mc_platform_kinds {
    IP6MC_PLATFORM_TABLE = 0,
    IP6MC_PLATFORM_ROUTE = 1,
    IP6MC_PLATFORM_INTF = 2,  // an interface of a route
    IP6MC_PLATFORM_IDB = 3,
    IP6MC_PLATFORM_ENCAP = 4,
    IP6MC_PLATFORM_LEAF = 5,
    IP6MC_PLATFORM_REGDB = 6,
    IP6MC_PLATFORM_KINDS = 7
};

// Bytes of the longest key of a transport.
#define IP6MC_PLATFORM_REGDB_KEY_BYTES 28

// One thing that the hardware holds. Fields that a kind does not name are 0.
typedef struct ip6mc_platform_held_st {
    ip6mc_platform_kind kind;
    uint32_t tid;         // TABLE (0: a VRF side), ROUTE, INTF
    rsi_vrf_id_t vrf_id;  // TABLE, VRF side
    char vrf_name[33];    // TABLE, VRF side
    uint8_t active;    // TABLE: activated; INTF, ROUTE, ENCAP, LEAF, REGDB: committed; IDB: enabled
    uint16_t pfx_len;  // ROUTE, INTF
    ip_maddr_st source;   // ROUTE, INTF
    ip_maddr_st group;    // ROUTE, INTF
    uint64_t attributes;  // ROUTE, INTF: the attribute word as programmed
    uint64_t obj_id;      // ROUTE, INTF
    ifhtype ifh;          // INTF, IDB
    ifhtype parent_ifh;   // INTF: the interface underneath; IDB: the bundle or the one underneath
    uint32_t intf_type;   // INTF: first word of its key; IDB: kind
    uint32_t amt_addr;    // INTF
    uint16_t amt_port;    // INTF
    uint16_t regdb_key_bits;  // LEAF, REGDB
    uint32_t encap_id;        // ENCAP, LEAF, ROUTE (the encap that it was linked to)
    uint32_t value;           // ENCAP: IP_LKP; LEAF: `tr`; IDB: TTL
    uint8_t regdb_key[IP6MC_PLATFORM_REGDB_KEY_BYTES];  // LEAF, REGDB
} ip6mc_platform_held_st;

// Called for each thing held; non-zero ends the walk. Must not call an operation of the platform.
typedef cerrno (*ip6mc_platform_held_ft)(const ip6mc_platform_held_st *held, void *context);

// Lists what the hardware really holds, of one kind, or of all kinds with IP6MC_PLATFORM_KINDS:
// tables before routes before interfaces, in no order within a kind. After a restart the owner
// compares this with the window, and removes or programs the difference. Works as soon as
// ip6mc_platform_lib_init has succeeded. The first non-zero answer of `fn` is returned, else 0; 22
// for a NULL `fn` or an unknown kind.
MFWD6_EXPORT cerrno ip6mc_platform_enumerate(ip6mc_platform_kind kind, ip6mc_platform_held_ft fn,
                                             void *context);

// Takes one thing out of the hardware of which the window has no record, as it came out of
// ip6mc_platform_enumerate. What hangs on it (interfaces of a route, routes of a table) goes with
// it. Success when it is not there.
MFWD6_EXPORT cerrno ip6mc_platform_remove_held(const ip6mc_platform_held_st *held);

MFWD6_END_C

#endif
