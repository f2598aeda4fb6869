// Diagnostics of the library: its message catalogue, its fault points, two printers.
//
// Traces, debug classes and the sending of messages are services (services/diag). Any thread.
#ifndef IP6MC_DIAG_H
#define IP6MC_DIAG_H

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/diag/fault.h"
#include "services/diag/messages.h"

// Fault points: places where a program can be told to make the platform half fail.
enum ipv4mc_fault_points {
    MLIB_FAULT_ROUTE_CREATE = 0,
    MLIB_FAULT_ROUTE_COMMIT = 1,
    MLIB_FAULT_INTF_CREATE = 2,
    MLIB_FAULT_INTF_COMMIT = 3,
    MLIB_FAULT_ENCAP_CREATE = 4,
    MLIB_FAULT_ENCAP_COMMIT = 5,
    MLIB_FAULT_BUCKET_CREATE = 6,
    MLIB_FAULT_BUCKET_COMMIT = 7,
    MLIB_FAULT_TABLE_CREATE = 8,
    MLIB_FAULT_TABLE_COMMIT = 9,
    MLIB_FAULT_POINTS = 10
};

// Bytes of the text of a fault point.
#define MLIB_FAULT_TEXT_SIZE 64

MFWD6_BEGIN_C

// Texts of the fault points, and the fault service's handle, NULL before mlib_fim_init.
extern MFWD6_EXPORT const char mlib_fault_points[MLIB_FAULT_POINTS][MLIB_FAULT_TEXT_SIZE];
extern MFWD6_EXPORT fim_handle mlib_fim_hdl;

// Registers the fault points under the name "mlib6". `context` is handed to the fault service. The
// result is told at debug class 6 only.
MFWD6_EXPORT void mlib_fim_init(void *context);

// Print one line at debug class 8. A route without a table shows table id 0xffffffff.
MFWD6_EXPORT void ipmc_table_print(const ipv4mc_table_st *table);
MFWD6_EXPORT void ipv4mc_route_print(const ipv4mc_route_entry_st *route);

// The catalogue of facility "IPV4_MLIB": a record and a rate limit for each message, in static
// storage.
#define IPV4_MLIB_MESSAGE(name)                                                 \
    MFWD6_EXPORT const orv_msg_rec *orv_msg_rec_ipv4_mlib_##name##_getfn(void); \
    MFWD6_EXPORT const orv_msg_limit *orv_msg_limit_ipv4_mlib_##name##_getfn(void)

IPV4_MLIB_MESSAGE(datapath_control);  // function, reason
IPV4_MLIB_MESSAGE(delete_fail);       // source, group, length, where from, table
IPV4_MLIB_MESSAGE(event_conn_mgr);    // reason
IPV4_MLIB_MESSAGE(event_mgr);         // reason
IPV4_MLIB_MESSAGE(per_prefix);        // two texts
IPV4_MLIB_MESSAGE(
    per_prefix_glacial);              // the same, with the slower limit for what repeats per route
IPV4_MLIB_MESSAGE(shmwin_err);        // what, detail, reason
IPV4_MLIB_MESSAGE(state_err);         // what, reason
IPV4_MLIB_MESSAGE(svd);               // text
IPV4_MLIB_MESSAGE(table_per_prefix);  // action, table, what follows, reason

#undef IPV4_MLIB_MESSAGE

MFWD6_END_C

#endif
