// What becomes of a failure of the platform. Routers without asynchronous error handling hand a
// failure back to the caller unchanged; the handling itself is still to come.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "services/journal/journal.h"
#include "services/platform_info/platform_info.h"

namespace {

uint32_t async_oor_support = 0;
uint32_t oor_mode = IPMC_OOR_NONE;

}  // namespace

extern "C" {

uint32_t ipmc_platform_async_err_oor_handling_supported(void) {
    const uint32_t type = platform_get_router_type();
    const bool supported =
        type == PLATFORM_ROUTER_TYPE_ASYNC_A || type == PLATFORM_ROUTER_TYPE_ASYNC_B;
    _ltrace_2(ip6mc_mlib_retry_queue_ltrace(), MLIB_TRACE_RETRY_QUEUE, supported ? 2 : 3, 0);
    return supported ? 1 : 0;
}

uint32_t ipmc_platform_get_async_oor_support(void) {
    return async_oor_support;
}

uint32_t ipmc_platform_err_handler_get_oor_mode(void) {
    return oor_mode;
}

uint8_t ipmc_platform_route_get_err(const ipv4mc_route_entry_st *route) {
    return route != nullptr ? route->err : 0;
}

cerrno ipmc_platform_err_handler_init(void *) {
    oor_mode = IPMC_OOR_NONE;
    async_oor_support = 0;
    if (ipmc_platform_async_err_oor_handling_supported() == 0) {
        return 0;
    }
    return MLIB_NOT_BUILT("ipmc_platform_err_handler_init");
}

int ipmc_platform_can_program_route(const ipv4mc_route_entry_st *route, int is_new) {
    if (is_new != 0 && async_oor_support != 0 && oor_mode != IPMC_OOR_NONE) {
        return 0;
    }
    return route->oor == 0 ? 1 : 0;
}

int ipmc_platform_can_program_intf(const ipv4mc_intf_entry_st *, const ipv4mc_route_entry_st *route,
                                   int is_new) {
    return ipmc_platform_can_program_route(route, is_new);
}

cerrno ipmc_platform_err_handler_sync_route(ipv4mc_route_entry_st *, cerrno rc) {
    return async_oor_support == 0 ? rc : MLIB_NOT_BUILT("ipmc_platform_err_handler_sync_route");
}

cerrno ipmc_platform_err_handler_sync_intf(ipv4mc_intf_entry_st *, ipv4mc_route_entry_st *,
                                           cerrno rc) {
    return async_oor_support == 0 ? rc : MLIB_NOT_BUILT("ipmc_platform_err_handler_sync_intf");
}

cerrno ipmc_platform_err_handler_sync_encap(ipv4mc_encap_entry_st *, cerrno rc) {
    return async_oor_support == 0 ? rc : MLIB_NOT_BUILT("ipmc_platform_err_handler_sync_encap");
}

void ipmc_platform_err_handler_clear_route_err(ipv4mc_route_entry_st *route) {
    if (route == nullptr || route->err == 0) {
        return;
    }
    if (MLIB_NOT_BUILT("ipmc_retry_msg_queue_rem_route") != 0) {
        MLIB_ERR("%s: Table %s Route (%s,%s) is not in retry queue.", __func__,
                 route->table->vrf_name, mlib::source_text(&route->source),
                 mlib::address_text(&route->group));
    }
    mfwd6::journal::store(route->err, uint8_t{0});
    MLIB_DEBUG(IPV4_DEBUG_EV, "%s: Table %s Route (%s,%s) has been removed from retry queue.",
               __func__, route->table->vrf_name, mlib::source_text(&route->source),
               mlib::address_text(&route->group));
}

cerrno ipmc_platform_err_handler_async_intf_oor(ipv4mc_intf_entry_st *, ipv4mc_route_entry_st *) {
    return async_oor_support == 0 ? 0 : MLIB_NOT_BUILT("ipmc_platform_err_handler_async_intf_oor");
}

}  // extern "C"
