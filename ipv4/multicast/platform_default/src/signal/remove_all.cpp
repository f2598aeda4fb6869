// Bulk removal of signals.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"

extern "C" cerrno ip6mc_signal_remove_all_routes(ipv4mc_table_st *table, uint32_t,
                                                 mfwd_cmd free_pak) {
    if (table->signal_route_count != 0) {
        return MLIB_NOT_BUILT("ip6mc_signal_remove_all_routes");
    }
    MLIB_DEBUG(IPV4_DEBUG_SIG, "0x%x(%s): Successfuly deleted all signals %s", table->tid,
               table->vrf_name, free_pak == 2 ? "and preserved packets" : "");
    return 0;
}
