// Ids of the library's trace records without text: subsystem in the high half, event in the low
// half.
#ifndef IP6MC_SRC_DIAGNOSTICS_TRACE_IDS_H
#define IP6MC_SRC_DIAGNOSTICS_TRACE_IDS_H

#include <stdint.h>

enum mlib_trace_id : uint64_t {
    MLIB_TRACE_LIB_STATE = 0x100000001,       // old state, new state
    MLIB_TRACE_LIB_TERMINATE = 0x100000002,   // reason, state
    MLIB_TRACE_LIB_LEAVE = 0x100000003,       // reason, attach_only
    MLIB_TRACE_SHMWIN_MONITOR = 0x100010001,  // window id, event, argument
    MLIB_TRACE_PAK_LOCK_SLOW = 0x100020001,   // text
    MLIB_TRACE_SLOW_TABLE = 0x100030001,      // seconds, action, tid, vrf id, is_new
    MLIB_TRACE_SLOW_ROUTE = 0x100030002,      // seconds, action, tid, vrf id
    MLIB_TRACE_SLOW_ROUTE_KEY = 0x100030003,  // text
    MLIB_TRACE_SLOW_INTF = 0x100030004,       // seconds, action, tid, vrf id
    MLIB_TRACE_SLOW_INTF_KEY = 0x100030005,   // handle, attributes, name handle
    MLIB_TRACE_SLOW_IDB = 0x100030006,  // seconds, action, first words of both records, op_spec
    MLIB_TRACE_SLOW_ROUTE_UPDATE = 0x100030007,  // seconds, update
    MLIB_TRACE_SLOW_ENCAP = 0x100030008,         // seconds, action
    MLIB_TRACE_SLOW_ENCAP_LEAF = 0x100030009,    // seconds, action
    MLIB_TRACE_SLOW_REGDB = 0x10003000a,         // seconds, action
    MLIB_TRACE_TABLE_DEACTIVATE = 0x100040001,   // action, tid, vrf id
    MLIB_TRACE_TABLE_DELETE = 0x100040002,       // tid, vrf id
    MLIB_TRACE_LINE = 0x100050001,               // text of a debug line that is traced too
    MLIB_TRACE_ROUTE_CREATE = 0x100060001,       // size of the record, key length
    MLIB_TRACE_LOCAL_EGRESS = 0x100060002,       // tid, count of local egress before and now
    MLIB_TRACE_ENCAP_OLE_LINK = 0x100060003,     // entry, route, handle; head, tail, attributes
    MLIB_TRACE_ENCAP_OLE_UNLINK = 0x100060004,   // the same
    MLIB_TRACE_OBJ_ID_BUILT = 0x2000,
    MLIB_TRACE_OBJ_ID_OFF = 0x2001,
    MLIB_TRACE_OBJ_ID_ON = 0x2002,
    MLIB_TRACE_IDB_REFCOUNT = 0x100060001,      // handle, expected, actual, mask
    MLIB_TRACE_IDB_POST_RESTART = 0x100060002,  // interfaces marked stale, code of the walk
    MLIB_TRACE_BVI_DB_INIT = 0x100a00001,       // vrf id
    MLIB_TRACE_RETRY_QUEUE = 0x100001008,       // 0 enabled, 1 not
    MLIB_TRACE_RETRY_QUEUE_READY = 0x1000,
};

#endif
