// Operations on failed objects that other rooms call already.
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"

extern "C" {

cerrno ipmc_platform_err_handler_err_replay_route(ipv4mc_route_entry_st *) {
    return MLIB_NOT_BUILT("ipmc_platform_err_handler_err_replay_route");
}

cerrno ipmc_platform_err_handler_err_replay_encap(ipv4mc_encap_entry_st *) {
    return MLIB_NOT_BUILT("ipmc_platform_err_handler_err_replay_encap");
}

}  // extern "C"
