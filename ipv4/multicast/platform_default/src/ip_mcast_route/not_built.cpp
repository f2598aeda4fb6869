// Entry points of routes that other rooms call already.
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"

extern "C" {

cerrno ip6mc_route_operation(ipv4mc_action_type, ipv4mc_table_st *, const ip_maddr_st *,
                             const ip_maddr_st *, uint16_t, const ip_maddr_st *,
                             ipv4mc_route_entry_st **, mrib_attrib_entry_type,
                             mrib_attrib_ti_mofrr_type, int *) {
    return MLIB_NOT_BUILT("ip6mc_route_operation");
}

cerrno ipv4mc_route_accounting_fn(ipv4mc_route_entry_st *, void *) {
    return MLIB_NOT_BUILT("ipv4mc_route_accounting_fn");
}

cerrno ipv4mc_route_rate_per_route_fn(ipv4mc_route_entry_st *, void *) {
    return MLIB_NOT_BUILT("ipv4mc_route_rate_per_route_fn");
}

}  // extern "C"
