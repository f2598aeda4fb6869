// What every entry point asks first.
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"

#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"

cerrno mlib::idb_readiness(const char *function, int line) {
    if (!mlib::library_is_ready()) {
        report_error(function, line, "Multicast library Not ready\n");
        return EBADF;
    }
    if (ipv4mc_desc->idb_state != IPV4MC_IDB_STATE_READY) {
        report_error(function, line, "IDB library NOT ready\n");
        return EBADF;
    }
    return 0;
}

cerrno mlib::idb_require(const void *pointer, const char *text, const char *function, int line) {
    if (pointer != nullptr) {
        return 0;
    }
    report_error(function, line, "%s", text);
    return EINVAL;
}
