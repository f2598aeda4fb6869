// The simulated platform: model hardware, and what tests and benchmarks tell it.
//
// libip6mc_platform_sim.so fulfils ipv4/multicast/lib/ip6mc_platform.h. It keeps tables of its own
// of what was programmed, so that hardware and records can be compared; it has a capacity, so that
// being out of resources is real; it fails where it is told to; it is slow by the test clock; it
// logs each call in order; and it forwards packets by what it holds.
//
// Everything here is process memory, except for hardware that was given a folder
// (sim_hardware_open): that one survives its process as a forwarding chip does.
//
// Thread-safety: none. Calls come from the thread that runs the library's operations.
#ifndef MFWD6_PLATFORMS_SIM_SIM_H
#define MFWD6_PLATFORMS_SIM_SIM_H

#include "ipv4/multicast/lib/ip6mc_platform.h"

MFWD6_BEGIN_C

// Back to the state after a start of the process: platform state READY, both capacities and speed
// without limit, no faults, no log, default answers, hardware empty. Hardware in a folder is
// emptied too and stays open. The descriptor given to ip6mc_platform_lib_init stays known.
MFWD6_EXPORT void sim_reset(void);

// ---- state
// ----------------------------------------------------------------------------------------

// Changes the state of the platform library (an ipv4mc_platform_state) and tells it to the library,
// if it has started and the state is another one.
MFWD6_EXPORT void sim_set_state(uint32_t state);

// The same for the interface half, which starts READY and tells the callback that was registered
// with IPV4MC_IDB_OP_INIT.
MFWD6_EXPORT void sim_set_idb_state(uint32_t state);

// Sends the library a message of type IPV4MC_PLATFORM_MSG_NOTIFY.
MFWD6_EXPORT void sim_notify(void);

// Reports an asynchronous error of the object with this id, as hardware does: through
// ipmc_platform_async_err_handler, with the type that the hardware knows the object by (0 if it
// holds none with this id). The handler's result.
MFWD6_EXPORT cerrno sim_raise_async_error(uint64_t obj_id, uint32_t oor_error, cerrno code);

// ---- what the hardware holds --------------------------------------------------------------------

#define SIM_NO_LIMIT UINT64_MAX

// Things of one kind that fit in the hardware. What it holds beyond that stays; new things are
// refused with sim_set_full_code.
MFWD6_EXPORT void sim_set_capacity(ip6mc_platform_kind kind, uint64_t most);

// Code for a full hardware. ENOSPC (28) by default.
MFWD6_EXPORT void sim_set_full_code(cerrno code);

// Things of one kind that the hardware holds.
MFWD6_EXPORT uint64_t sim_count(ip6mc_platform_kind kind);

// One route, or one ordinary interface of it, as the hardware holds it. ENOENT, with `held`
// untouched, if it does not. `held` may be NULL.
MFWD6_EXPORT cerrno sim_find_route(uint32_t tid, const ip_maddr_st *source,
                                   const ip_maddr_st *group, uint16_t pfx_len,
                                   ip6mc_platform_held_st *held);
MFWD6_EXPORT cerrno sim_find_intf(uint32_t tid, const ip_maddr_st *source, const ip_maddr_st *group,
                                  uint16_t pfx_len, ifhtype ifh, ip6mc_platform_held_st *held);

// 1 if the hardware replicates what goes to `parent` (a bundle, a VLAN, a PPPoE session) to this
// member.
MFWD6_EXPORT int sim_has_member(ifhtype parent, ifhtype member);

// Settings of an interface of the router, 0 where nothing was told.
typedef struct sim_idb {
    ifhtype ifh;
    uint32_t type;  // of IPV4MC_IDB_OP_TYPE_SET, else of the record when it was made
    uint8_t enabled;
    uint8_t ttl;
    uint8_t has_aib;
    uint8_t has_boundary;
    uint8_t dpl_local;
    uint8_t tunnel_active;
    uint16_t members;  // of a bundle, a VLAN or a session
    uint32_t mtu;
    uint32_t remote_mtu;
    uint32_t table_id;   // MDT
    ifhtype parent_ifh;  // bundle that it was made with, or interface underneath
} sim_idb;
MFWD6_EXPORT cerrno sim_find_idb(ifhtype ifh, sim_idb *idb);

// Keeps the hardware in files in this folder, which must exist, and takes what they hold from an
// earlier process. What was held in memory is forgotten. Only one process at a time: EBUSY. Files
// of another build are refused with EINVAL. On failure the hardware is empty and in memory.
MFWD6_EXPORT cerrno sim_hardware_open(const char *folder);

// Back to memory, empty. The files stay.
MFWD6_EXPORT void sim_hardware_close(void);

// ---- forwarding ---------------------------------------------------------------------------------

enum sim_verdicts {
    SIM_NO_ROUTE = 0,    // nothing matches
    SIM_DROPPED = 1,     // the route says drop
    SIM_WRONG_INTF = 2,  // the route does not accept packets from there
    SIM_FORWARDED = 3    // to the interfaces given, which may be none
};

typedef struct sim_packet {
    // Filled by the caller.
    uint32_t tid;
    ifhtype ifh;  // where it arrives
    ip_maddr_st source;
    ip_maddr_st group;
    uint32_t bytes;
    uint32_t room;  // entries at `out`
    ifhtype *out;
    // Filled by sim_forward.
    uint32_t verdict;
    uint32_t copies;     // interfaces that a copy leaves by; beyond `room` they are counted only
    uint32_t signalled;  // 1: the control plane is to hear of the packet
    uint32_t to_node;    // 1: a copy goes to this node itself
    uint16_t pfx_len;    // of the route that matched
    uint16_t reserved;
} sim_packet;

// Sends one packet through the hardware: the longest match among committed routes of the table, the
// test of the interface that it arrived by (of the parent too, for a route that inherits), a copy
// for each forwarding interface but that one, in ascending order of handles. Counts in the route's
// counters.
MFWD6_EXPORT void sim_forward(sim_packet *packet);

// Sets the counters of a route of the hardware. ENOENT.
MFWD6_EXPORT cerrno sim_set_route_stats(uint32_t tid, const ip_maddr_st *source,
                                        const ip_maddr_st *group, uint16_t pfx_len,
                                        uint64_t in_packets, uint64_t in_bytes,
                                        uint64_t out_packets, uint64_t out_bytes);

// Sets the counters of an encap of the hardware. ENOENT.
MFWD6_EXPORT cerrno sim_set_encap_stats(uint32_t encap_id, uint64_t packets, uint64_t bytes,
                                        uint64_t dropped);

// ---- faults and delays --------------------------------------------------------------------------

// The operations of the seam.
typedef uint32_t sim_op;
enum sim_ops {
    SIM_OP_LIB_INIT = 0,
    SIM_OP_LIB_TERMINATE = 1,
    SIM_OP_GET_STATE = 2,
    SIM_OP_CLEAR_HW = 3,
    SIM_OP_TABLE = 4,
    SIM_OP_ROUTE = 5,
    SIM_OP_ROUTE_UPDATE = 6,
    SIM_OP_CHANGE_IF_PARENT = 7,
    SIM_OP_SLOTMASK = 8,
    SIM_OP_INTF = 9,
    SIM_OP_IDB = 10,
    SIM_OP_ENCAP = 11,
    SIM_OP_ENCAP_UPDATE = 12,
    SIM_OP_LEAF = 13,
    SIM_OP_REGDB = 14,
    SIM_OP_STATS = 15,  // of routes and encaps
    SIM_OP_SW_ONLY_GTRIE = 16,
    SIM_OP_VIRTUAL_LOCAL = 17,
    SIM_OP_BUNDLE_HASH = 18,
    SIM_OP_BVI_LOCAL = 19,
    SIM_OP_ENUMERATE = 20,
    SIM_OP_REMOVE_HELD = 21,
    SIM_OPS = 22
};

// Short name of an operation ("route"), "unknown" for others.
MFWD6_EXPORT const char *sim_op_name(sim_op op);

#define SIM_ANY_ACTION UINT32_MAX
#define SIM_FOR_EVER UINT64_MAX

// Lets the next `after` calls of the operation (with this action, or SIM_ANY_ACTION) go, and
// refuses the `times` calls behind them with `code`, without touching the hardware. Faults on the
// same operation count side by side; the first that is due wins. ENOSPC when 64 are armed, EINVAL
// for an unknown operation or code 0. SIM_OP_SW_ONLY_GTRIE and SIM_OP_BUNDLE_HASH have no failure:
// EINVAL.
MFWD6_EXPORT cerrno sim_arm_fault(sim_op op, uint32_t action, uint64_t after, uint64_t times,
                                  cerrno code);
MFWD6_EXPORT void sim_clear_faults(void);

// Calls refused by armed faults since the reset.
MFWD6_EXPORT uint64_t sim_faults_hit(void);

// Makes each call of an operation take this long: the test clock is advanced by it. Nothing
// happens while the real clock is in place. EINVAL for an unknown operation.
MFWD6_EXPORT cerrno sim_set_delay(sim_op op, uint64_t nanoseconds);

// ---- call log -----------------------------------------------------------------------------------

// One call of the seam, with those of its arguments that it has.
typedef struct sim_call {
    uint64_t sequence;  // counts all calls while the log is on, from 0
    sim_op op;
    uint32_t action;  // ipv4mc_action_type, ipv4mc_idb_op, type of an update, reason
    cerrno result;
    int32_t is_new;
    uint32_t tid;
    rsi_vrf_id_t vrf_id;
    ip_maddr_st source;
    ip_maddr_st group;
    uint16_t pfx_len;
    uint8_t replay;  // 1: a route or interface call without a record
    uint8_t reserved;
    ifhtype ifh;        // the interface; first of two
    ifhtype other_ifh;  // the one underneath, the second, the bundle
    uint32_t value;     // encap id of an encap or leaf call or of a route update; mofrr_attrib of a
                        // route call
    uint64_t attributes;      // new attribute word
    uint64_t old_attributes;  // as given
    uint64_t argument;        // platform_arg; `tr` of a leaf call
    const void *record;       // the record that the call is about, never followed by the log
} sim_call;

// Switches the log on, empty, with room for `most` calls, of which the latest are kept; 0 switches
// it off and forgets it. ENOMEM: off.
MFWD6_EXPORT cerrno sim_log_on(uint64_t most);

// Calls in the log, and the n-th oldest of them, NULL beyond. Valid until the next call of the
// seam.
MFWD6_EXPORT uint64_t sim_log_count(void);
MFWD6_EXPORT const sim_call *sim_log_at(uint64_t n);

// Forgets the calls, stays on.
MFWD6_EXPORT void sim_log_clear(void);

// Calls of one operation since the reset, with any action; counted whether the log is on or not.
MFWD6_EXPORT uint64_t sim_calls(sim_op op);

// ---- answers ------------------------------------------------------------------------------------

// ip6mc_platform_is_sw_only_gtrie; 1 by default.
MFWD6_EXPORT void sim_answer_sw_only_gtrie(int answer);

// ip6mc_platform_is_virtual_interface_local for one handle; 0 by default. At most 256: ENOSPC.
MFWD6_EXPORT cerrno sim_answer_virtual_local(ifhtype ifh, int answer);

// ipv6_mfwd_platform_is_bvi_local. By default the first byte of the data tells: not zero is local,
// and no data is not local.
enum sim_bvi_answers {
    SIM_BVI_BY_DATA = 0,
    SIM_BVI_LOCAL = 1,
    SIM_BVI_NOT_LOCAL = 2,
    SIM_BVI_LEAVE_ALONE = 3  // success, with the output untouched
};
MFWD6_EXPORT void sim_answer_bvi_local(uint32_t answer);

// ip6mc_platform_bundle_sg_hash: with `answered` 1 it names this member; 0 by default.
MFWD6_EXPORT void sim_answer_bundle_hash(int answered, ifhtype member, uint16_t link_id);

// ipv6_mfwd_platform_is_slotmask_xid_change; 0 by default.
MFWD6_EXPORT void sim_answer_slotmask_change(int changed);

MFWD6_END_C

#endif
