// Errors that the hardware reports long after the call that caused them, by object id.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/platform_err/error_handler.h"
#include "services/journal/journal.h"

namespace {

// Reports under the name of the entry point.
struct reported_object {
    uint64_t obj_id;
    uint32_t oor_error;
    const char *function;
};

cerrno fail_route(const reported_object &object) {
    ipv4mc_route_entry_st *route = nullptr;
    cerrno rc = ipmc_route_get_from_id(object.obj_id, &route);
    if (rc != 0) {
        MLIB_ERR("%s: Failed to get route for obj_id 0x%lx rc %s", object.function, object.obj_id,
                 cerr_strerror(rc));
        return rc;
    }
    rc = object.oor_error != IPMC_OOR_ERROR_PLAIN
             ? ipmc_platform_err_handler_async_route_oor(route)
             : ipmc_platform_err_handler_async_route_err(route);
    MLIB_DEBUG(IPV4_DEBUG_EV, "%s: OOR ERROR %d rc %s", object.function,
               static_cast<int>(object.oor_error), cerr_strerror(rc));
    return rc;
}

cerrno fail_intf(const reported_object &object) {
    ipv4mc_intf_entry_st *intf = nullptr;
    const cerrno rc = ip6mc_intf_get_from_id(object.obj_id, &intf);
    if (rc != 0) {
        MLIB_ERR("%s: Failed to get the route for the obj_id 0x%lx rc %s", object.function,
                 object.obj_id, cerr_strerror(rc));
        return rc;
    }
    if (object.oor_error == IPMC_OOR_ERROR_FULL) {
        return ipmc_platform_err_handler_async_intf_oor(intf, nullptr);
    }
    if (object.oor_error != IPMC_OOR_ERROR_PLAIN) {
        return 0;  // the mode changes, the interface does not
    }
    if (intf == nullptr || intf->route == nullptr) {
        MLIB_ERR("%s: Intf is Null or no route is linked, ifh: 0x%x", object.function,
                 intf != nullptr ? intf->ifh : 0);
        return EINVAL;
    }
    return ipmc_platform_err_handler_async_route_err(intf->route);
}

}  // namespace

extern "C" {

cerrno ipmc_platform_err_handler_async_obj(uint64_t obj_id, uint32_t oor_error) {
    if (ipmc_platform_get_async_oor_support() == 0) {
        return 0;
    }
    uint32_t type = 0;
    cerrno rc = ipmc_object_ida_get_type_from_id(obj_id, &type);
    if (rc != 0) {
        return rc;
    }
    const reported_object object{obj_id, oor_error, __func__};
    switch (type) {
        case IPMC_OBJ_ROUTE:
            rc = fail_route(object);
            break;
        case IPMC_OBJ_INTF:
            rc = fail_intf(object);
            break;
        default:
            rc = EINVAL;
            break;
    }
    // Also when the object has gone meanwhile: the hardware is full all the same.
    if (oor_error != IPMC_OOR_ERROR_PLAIN) {
        mlib::enter_reported_oor_mode();
    }
    return rc;
}

cerrno ipmc_platform_err_handler_async_route_err(ipv4mc_route_entry_st *route) {
    if (ipmc_platform_get_async_oor_support() == 0) {
        return 0;
    }
    if (route == nullptr) {
        return EINVAL;
    }
    mlib::queue_failed_route(route, __func__, __LINE__);
    MLIB_TRACE_TEXT(IPV4_DEBUG_EV, "%s : Route added to retry queue Table 0x%x %s %s", __func__,
                    route->table != nullptr ? route->table->tid : 0,
                    mlib::source_text(&route->source), mlib::address_text(&route->group));
    mlib::start_retry_timer();
    return 0;
}

cerrno ipmc_platform_err_handler_async_route_oor(ipv4mc_route_entry_st *route) {
    if (ipmc_platform_get_async_oor_support() == 0) {
        return 0;
    }
    if (route == nullptr) {
        return EINVAL;
    }
    if (route->oor != 0) {
        return 0;
    }
    mfwd6::journal::store(route->oor, 1);
    mfwd_route_entry_event_add_msg(route, IPMC_EVENT_OOR_MARKED);
    return 0;
}

cerrno ipmc_platform_err_handler_async_intf_oor(ipv4mc_intf_entry_st *intf,
                                                ipv4mc_route_entry_st *route) {
    if (ipmc_platform_get_async_oor_support() == 0) {
        return 0;
    }
    if (intf == nullptr || (route == nullptr && intf->route == nullptr)) {
        MLIB_ERR("%s: Intf is Null or no Route is linked, ifh: 0x%x", __func__,
                 intf != nullptr ? intf->ifh : 0);
        return EINVAL;
    }
    const cerrno rc =
        ipmc_platform_err_handler_async_route_oor(route != nullptr ? route : intf->route);
    MLIB_DEBUG(IPV4_DEBUG_EV, "%s: Route linked to ifh: 0x%x added to OOR queue", __func__,
               intf->ifh);
    return rc;
}

}  // extern "C"
