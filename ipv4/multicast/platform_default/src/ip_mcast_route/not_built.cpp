// Operations on routes that other rooms call already.
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"

extern "C" {

cerrno ipv4mc_route_accounting_fn(ipv4mc_route_entry_st *, void *) {
    return MLIB_NOT_BUILT("ipv4mc_route_accounting_fn");
}

cerrno ipv4mc_route_rate_per_route_fn(ipv4mc_route_entry_st *, void *) {
    return MLIB_NOT_BUILT("ipv4mc_route_rate_per_route_fn");
}

}  // extern "C"

cerrno ipv4mc_route_delete(const route_request &) {
    return MLIB_NOT_BUILT("ip6mc_route_operation DELETE");
}

cerrno ipv4mc_route_clear_action(const route_request &) {
    return MLIB_NOT_BUILT("ip6mc_route_operation CLEAR");
}

cerrno ipv4mc_process_setclear_IF_flag(ipv4mc_table_st *, ipv4mc_route_entry_st *, int) {
    return MLIB_NOT_BUILT("ipv4mc_process_setclear_IF_flag");
}
