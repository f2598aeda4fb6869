// The catalogue of system messages. Each message has a record and a limit of its own.
#include "services/diag/messages.h"

#include "ipv4/multicast/lib/ip6mc_diag.h"

namespace {

constexpr char facility[] = "IPV4_MLIB";
constexpr char category[] = "ROUTING";

}  // namespace

#define CATALOGUE_MESSAGE(name, NAME, format, severity, seconds, number)               \
    static constexpr orv_msg_limit limit_##name{seconds};                              \
    extern "C" const orv_msg_limit *orv_msg_limit_ipv4_mlib_##name##_getfn(void) {     \
        return &limit_##name;                                                          \
    }                                                                                  \
    extern "C" const orv_msg_rec *orv_msg_rec_ipv4_mlib_##name##_getfn(void) {         \
        static constexpr orv_msg_rec record{severity, format, &limit_##name, facility, \
                                            category, NAME,   number};                 \
        return &record;                                                                \
    }

CATALOGUE_MESSAGE(datapath_control, "DATAPATH_CONTROL",
                  "im_caps_datapath_control error in function %s : %s", 3, 60, 0x6c9000d)
CATALOGUE_MESSAGE(delete_fail, "DELETE_FAIL", "Delete Failed for (%s %s/%d) from %s table %s\n", 3,
                  60, 0x6c9000e)
CATALOGUE_MESSAGE(event_conn_mgr, "EVENT_CONN_MGR", "Cannot open event connection manager: %s", 3,
                  60, 0x6c9000f)
CATALOGUE_MESSAGE(event_mgr, "EVENT_MGR", "Cannot create event manager: %s", 3, 60, 0x6c90010)
CATALOGUE_MESSAGE(per_prefix, "PER_PREFIX", "%s %s", 5, 60, 0x6c90011)
// A shortage of memory repeats for each route, hence the slower limit.
CATALOGUE_MESSAGE(per_prefix_glacial, "PER_PREFIX_GLACIAL", "%s %s", 5, 300, 0x6c90012)
CATALOGUE_MESSAGE(shmwin_err, "SHMWIN_ERR", "%s %s: %s", 3, 60, 0x6c90013)
CATALOGUE_MESSAGE(state_err, "STATE_ERR", "%s %s", 3, 60, 0x6c90014)
CATALOGUE_MESSAGE(svd, "SVD", "%s", 5, 60, 0x6c90015)
CATALOGUE_MESSAGE(table_per_prefix, "TABLE_PER_PREFIX",
                  "Cannot %s per prefix accounting for table %s. %s %s", 5, 60, 0x6c90016)
