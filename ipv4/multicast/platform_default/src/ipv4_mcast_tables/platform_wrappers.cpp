#include <cstdio>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "services/events/ptimer.h"

extern "C" {

timespec oper_ts_prev;
timespec oper_ts_curr;
timespec oper_ts_result;

}  // extern "C"

namespace {

constexpr time_t slow_seconds = 3;

// Makes the call between two readings of the clock: of its last tick, as seconds are judged, and a
// precise reading costs as much as a call of the model hardware.
template <class Call>
cerrno timed(const Call &call) {
    ptimer_gettime_coarse(&oper_ts_prev);
    const cerrno rc = call();
    ptimer_gettime_coarse(&oper_ts_curr);
    ptimer_diff_timespec(&oper_ts_curr, &oper_ts_prev, &oper_ts_result);
    return rc;
}

bool was_slow() {
    return oper_ts_result.tv_sec >= slow_seconds;
}

uint64_t seconds() {
    return static_cast<uint64_t>(oper_ts_result.tv_sec);
}

uint64_t first_word(const ipv4mc_idb_st *idb) {
    return idb != nullptr ? idb->ifh : 0;
}

uint32_t tid_of(const ipv4mc_table_st *table) {
    return table != nullptr ? table->tid : 0;
}
uint32_t vrf_id_of(const ipv4mc_table_st *table) {
    return table != nullptr ? table->vrf_id : 0;
}

void trace_seconds_and(mlib_trace_id id, uint64_t word) {
    _ltrace_2(ip6mc_mlib_ltrace(), id, seconds(), word);
}

void trace_route_key(const ip_maddr_st *source, const ip_maddr_st *group) {
    char text[128];
    snprintf(text, sizeof(text), "(%s,%s)", mlib::source_text(source), mlib::address_text(group));
    _lstrace(ip6mc_mlib_ltrace(), MLIB_TRACE_SLOW_ROUTE_KEY, nullptr, text);
}

}  // namespace

extern "C" {

cerrno ip6mc_platform_table_operation_wrapper(ipv4mc_action_type action, uint32_t tid,
                                              rsi_vrf_id_t vrf_id, const char *vrf_name,
                                              ipv4mc_table_st **table_pp, int is_new) {
    const cerrno rc = timed([&] {
        return ip6mc_platform_table_operation(action, tid, vrf_id, vrf_name, table_pp, is_new);
    });
    if (was_slow()) {
        _ltrace_5(ip6mc_mlib_ltrace(), MLIB_TRACE_SLOW_TABLE, seconds(), action, tid, vrf_id,
                  static_cast<uint64_t>(is_new));
    }
    return rc;
}

cerrno ip6mc_platform_route_operation_wrapper(ipv4mc_action_type action, ipv4mc_table_st *table,
                                              const ip_maddr_st *source, const ip_maddr_st *group,
                                              uint16_t pfx_len, ipv4mc_route_entry_st **route_pp,
                                              mrib_attrib_entry_type old_attributes,
                                              mrib_attrib_ti_mofrr_type mofrr_attrib, int is_new) {
    const cerrno rc = timed([&] {
        return ip6mc_platform_route_operation(action, table, source, group, pfx_len, route_pp,
                                              old_attributes, mofrr_attrib, is_new);
    });
    if (was_slow()) {
        _ltrace_5(ip6mc_mlib_ltrace(), MLIB_TRACE_SLOW_ROUTE, seconds(), action, tid_of(table),
                  vrf_id_of(table), 0);
        trace_route_key(source, group);
    }
    return rc;
}

cerrno ip6mc_platform_intf_operation_wrapper(ipv4mc_action_type action, ipv4mc_table_st *table,
                                             ipv4mc_route_entry_st *route, ifhtype ifh,
                                             uint32_t intf_arg, ipv4mc_intf_entry_st **intf_pp,
                                             ipv4mc_idb_st *idb, uintptr_t platform_arg,
                                             mrib_attrib_entry_type old_attributes, int is_new) {
    const cerrno rc = timed([&] {
        return ip6mc_platform_intf_operation(action, table, route, ifh, intf_arg, intf_pp, idb,
                                             platform_arg, old_attributes, is_new);
    });
    if (was_slow()) {
        _ltrace_5(ip6mc_mlib_ltrace(), MLIB_TRACE_SLOW_INTF, seconds(), action, tid_of(table),
                  vrf_id_of(table), 0);
        _ltrace_3(ip6mc_mlib_ltrace(), MLIB_TRACE_SLOW_INTF_KEY, ifh, old_attributes,
                  first_word(idb));
    }
    return rc;
}

cerrno ip6mc_platform_idb_operation_wrapper(ipv4mc_idb_op action, ipv4mc_idb_st *idb_a,
                                            ipv4mc_idb_st *idb_b, ipv4mc_idb_op_spec_st *op_spec) {
    const cerrno rc =
        timed([&] { return ip6mc_platform_idb_operation(action, idb_a, idb_b, op_spec); });
    if (was_slow()) {
        _ltrace_5(ip6mc_mlib_ltrace(), MLIB_TRACE_SLOW_IDB, seconds(), action, first_word(idb_a),
                  first_word(idb_b), reinterpret_cast<uint64_t>(op_spec));
    }
    return rc;
}

cerrno ip6mc_platform_route_update_wrapper(ipv4mc_route_entry_st *route,
                                           ipv4mc_route_update_type type,
                                           const ipv4mc_route_update_st *update) {
    const cerrno rc = timed([&] { return ip6mc_platform_route_update(route, type, update); });
    if (was_slow()) {
        trace_seconds_and(MLIB_TRACE_SLOW_ROUTE_UPDATE, type);
    }
    return rc;
}

cerrno ip6mc_platform_encapid_operation_wrapper(ipv4mc_action_type action,
                                                ipv4mc_encap_entry_st *encap) {
    const cerrno rc = timed([&] { return ip6mc_platform_encapid_operation(action, encap); });
    if (was_slow()) {
        trace_seconds_and(MLIB_TRACE_SLOW_ENCAP, action);
    }
    return rc;
}

cerrno ip6mc_platform_encap_leaf_operation_wrapper(ipv4mc_action_type action,
                                                   ipv4mc_encap_leaf_st *leaf,
                                                   ipv4mc_encap_entry_st *encap,
                                                   ipv4mc_regdb_entry_st *regdb, uint32_t tr) {
    const cerrno rc =
        timed([&] { return ip6mc_platform_encap_leaf_operation(action, leaf, encap, regdb, tr); });
    if (was_slow()) {
        trace_seconds_and(MLIB_TRACE_SLOW_ENCAP_LEAF, action);
    }
    return rc;
}

cerrno ip6mc_platform_regdb_operation_wrapper(ipv4mc_action_type action,
                                              ipv4mc_regdb_entry_st *entry,
                                              const ipv4mc_regdb_core_info_st *core_info) {
    const cerrno rc =
        timed([&] { return ip6mc_platform_regdb_operation(action, entry, core_info); });
    if (was_slow()) {
        trace_seconds_and(MLIB_TRACE_SLOW_REGDB, action);
    }
    return rc;
}

cerrno ip6mc_platform_is_slotmask_xid_change(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                             const ip_maddr_st *source, const ip_maddr_st *group,
                                             mrib_attrib_entry_type old_attributes,
                                             int *changed_p) {
    return timed([&] {
        return ipv6_mfwd_platform_is_slotmask_xid_change(table, route, source, group,
                                                         old_attributes, changed_p);
    });
}

cerrno ip6mc_get_hw_in_stats(ipv4mc_table_st *table, const ip_maddr_st *source,
                             const ip_maddr_st *group, uint16_t pfx_len,
                             ipv4mc_route_entry_st *route, uint64_t *count_p) {
    return ip6mc_platform_get_hw_in_stats(table, source, group, pfx_len, route, count_p);
}

cerrno ip6mc_get_hw_in_stats_bytes(ipv4mc_table_st *table, const ip_maddr_st *source,
                                   const ip_maddr_st *group, uint16_t pfx_len,
                                   ipv4mc_route_entry_st *route, uint64_t *count_p) {
    return ip6mc_platform_get_hw_in_stats_bytes(table, source, group, pfx_len, route, count_p);
}

cerrno ip6mc_get_hw_eg_stats(ipv4mc_table_st *table, const ip_maddr_st *source,
                             const ip_maddr_st *group, uint16_t pfx_len,
                             ipv4mc_route_entry_st *route, uint64_t *count_p) {
    return ip6mc_platform_get_hw_eg_stats(table, source, group, pfx_len, route, count_p);
}

cerrno ip6mc_get_hw_eg_stats_bytes(ipv4mc_table_st *table, const ip_maddr_st *source,
                                   const ip_maddr_st *group, uint16_t pfx_len,
                                   ipv4mc_route_entry_st *route, uint64_t *count_p) {
    return ip6mc_platform_get_hw_eg_stats_bytes(table, source, group, pfx_len, route, count_p);
}

}  // extern "C"
