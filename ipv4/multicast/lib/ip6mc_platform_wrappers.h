// The timed layer between the library and its platform: each function has the arguments and the
// result of the platform operation of the same name without `_wrapper`, and leaves a trace when the
// call took three seconds or more. Not re-entrant: meant for the owner's one operation thread. A
// second thread in a wrapper garbles the measure, never the result.
#ifndef IP6MC_PLATFORM_WRAPPERS_H
#define IP6MC_PLATFORM_WRAPPERS_H

#include <time.h>

#include "ipv4/multicast/lib/ip6mc_platform.h"

MFWD6_BEGIN_C

// Clock before the last call, behind it, and the difference.
extern MFWD6_EXPORT struct timespec oper_ts_prev;
extern MFWD6_EXPORT struct timespec oper_ts_curr;
extern MFWD6_EXPORT struct timespec oper_ts_result;

MFWD6_EXPORT cerrno ip6mc_platform_table_operation_wrapper(ipv4mc_action_type action, uint32_t tid,
                                                           rsi_vrf_id_t vrf_id,
                                                           const char *vrf_name,
                                                           ipv4mc_table_st **table_pp, int is_new);
MFWD6_EXPORT cerrno ip6mc_platform_route_operation_wrapper(
    ipv4mc_action_type action, ipv4mc_table_st *table, const ip_maddr_st *source,
    const ip_maddr_st *group, uint16_t pfx_len, ipv4mc_route_entry_st **route_pp,
    mrib_attrib_entry_type old_attributes, mrib_attrib_ti_mofrr_type mofrr_attrib, int is_new);
MFWD6_EXPORT cerrno ip6mc_platform_intf_operation_wrapper(
    ipv4mc_action_type action, ipv4mc_table_st *table, ipv4mc_route_entry_st *route, ifhtype ifh,
    uint32_t intf_arg, ipv4mc_intf_entry_st **intf_pp, ipv4mc_idb_st *idb, uintptr_t platform_arg,
    mrib_attrib_entry_type old_attributes, int is_new);
MFWD6_EXPORT cerrno ip6mc_platform_idb_operation_wrapper(ipv4mc_idb_op action, ipv4mc_idb_st *idb_a,
                                                         ipv4mc_idb_st *idb_b,
                                                         ipv4mc_idb_op_spec_st *op_spec);
MFWD6_EXPORT cerrno ip6mc_platform_route_update_wrapper(ipv4mc_route_entry_st *route,
                                                        ipv4mc_route_update_type type,
                                                        const ipv4mc_route_update_st *update);
MFWD6_EXPORT cerrno ip6mc_platform_encapid_operation_wrapper(ipv4mc_action_type action,
                                                             ipv4mc_encap_entry_st *encap);
MFWD6_EXPORT cerrno ip6mc_platform_encap_leaf_operation_wrapper(ipv4mc_action_type action,
                                                                ipv4mc_encap_leaf_st *leaf,
                                                                ipv4mc_encap_entry_st *encap,
                                                                ipv4mc_regdb_entry_st *regdb,
                                                                uint32_t tr);
MFWD6_EXPORT cerrno
ip6mc_platform_regdb_operation_wrapper(ipv4mc_action_type action, ipv4mc_regdb_entry_st *entry,
                                       const ipv4mc_regdb_core_info_st *core_info);

// Stamped like the others, but its time is not judged.
MFWD6_EXPORT cerrno ip6mc_platform_is_slotmask_xid_change(
    ipv4mc_table_st *table, ipv4mc_route_entry_st *route, const ip_maddr_st *source,
    const ip_maddr_st *group, mrib_attrib_entry_type old_attributes, int *changed_p);

// Counters of the hardware, as the platform operations of the same names tell them.
MFWD6_EXPORT cerrno ip6mc_get_hw_in_stats(ipv4mc_table_st *table, const ip_maddr_st *source,
                                          const ip_maddr_st *group, uint16_t pfx_len,
                                          ipv4mc_route_entry_st *route, uint64_t *count_p);
MFWD6_EXPORT cerrno ip6mc_get_hw_in_stats_bytes(ipv4mc_table_st *table, const ip_maddr_st *source,
                                                const ip_maddr_st *group, uint16_t pfx_len,
                                                ipv4mc_route_entry_st *route, uint64_t *count_p);
MFWD6_EXPORT cerrno ip6mc_get_hw_eg_stats(ipv4mc_table_st *table, const ip_maddr_st *source,
                                          const ip_maddr_st *group, uint16_t pfx_len,
                                          ipv4mc_route_entry_st *route, uint64_t *count_p);
MFWD6_EXPORT cerrno ip6mc_get_hw_eg_stats_bytes(ipv4mc_table_st *table, const ip_maddr_st *source,
                                                const ip_maddr_st *group, uint16_t pfx_len,
                                                ipv4mc_route_entry_st *route, uint64_t *count_p);

MFWD6_END_C

#endif
