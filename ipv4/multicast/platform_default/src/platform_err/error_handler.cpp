// What becomes of a failure of the platform. On routers that handle errors asynchronously a failed
// object goes on the retry queue, or is marked as waiting for resources, and the control side
// carries on; elsewhere a failure goes back to the caller unchanged.
#include "ipv4/multicast/platform_default/src/platform_err/error_handler.h"

#include <cerrno>
#include <cstdlib>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "services/events/timer.h"
#include "services/journal/journal.h"
#include "services/platform_info/platform_info.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

constexpr uint32_t routes_between_yields = 512;

// State of the process: it starts anew with each one.
uint32_t async_oor_support = 0;
uint32_t oor_mode = IPMC_OOR_NONE;
uint32_t event_history_cleared = 0;
mgd_timer_leaf_t *err_timer = nullptr;
timespec err_timer_period{};

// One period at most is pending: a further error does not push it back.
void ipmc_platform_err_handler_err_timer_start() {
    if (err_timer == nullptr || mgd_timer_leaf_running(err_timer) != 0) {
        return;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "Error periodic retry timer started");
    mgd_timer_leaf_start(err_timer, &err_timer_period);
}

// One-shot, kept going by failures.
void on_err_timer(mgd_timer_leaf_t *, void *) {
    if (ipmc_retry_msg_queue_walk() != 0) {
        ipmc_platform_err_handler_err_timer_start();
    }
}

// A router without its retry timer would lose failures silently: the process ends instead.
void make_timer(event_manager_t *evm) {
    const uint32_t handle = event_timer_attach(evm, EVENT_TIMER_ONE_SHOT, on_err_timer, nullptr);
    if (handle == EVENT_TIMER_INVALID) {
        MLIB_ERR("Timer attach failed for error timer handler Err %s",
                 cerr_strerror(static_cast<cerrno>(errno)));
        exit(1);
    }
    err_timer = event_timer_leaf_new(evm, handle, nullptr);
    if (err_timer == nullptr) {
        MLIB_ERR("Timer leaf new failed for error timer.Err %s",
                 cerr_strerror(static_cast<cerrno>(errno)));
        exit(1);
    }
    err_timer_period = {IPMC_RETRY_PERIOD_SECONDS, 0};
}

uint32_t table_id(const ipv4mc_route_entry_st *route) {
    return route->table != nullptr ? route->table->tid : 0;
}

// The name stands in the VRF side of a table.
const char *table_name(const ipv4mc_route_entry_st *route) {
    const ipv4mc_table_st *table = route->table;
    if (table != nullptr && table->vtable != nullptr) {
        table = table->vtable;
    }
    return table != nullptr ? table->vrf_name : "";
}

cerrno forget_history(ipv4mc_route_entry_st *route, void *) {
    if (route->event_history != nullptr) {
        store(route->event_history, nullptr);
    }
    return 0;
}

cerrno forget_histories(ipv4mc_table_st *table, uint32_t, void *, void *) {
    return ip6mc_route_walk(table, routes_between_yields, forget_history, nullptr);
}

}  // namespace

// The flag is set even when the queue had no memory: the object is then out of step, flagged but
// not queued, which clear_route_err tolerates.
void mlib::queue_failed_route(ipv4mc_route_entry_st *route, const char *function, int line) {
    if (route->err != 0) {
        return;
    }
    {
        const group change;
        const cerrno rc = ipmc_retry_msg_queue_insert_route(route);
        if (rc != 0) {
            report_error(function, line,
                         "%s : Failed to add route to retry queue Table 0x%x %s %s rc %s", function,
                         table_id(route), source_text(&route->source), address_text(&route->group),
                         cerr_strerror(rc));
        }
        store(route->err, 1);
    }
    mfwd_route_entry_event_add_msg(route, IPMC_EVENT_RETRY_QUEUED);
}

void mlib::start_retry_timer() {
    ipmc_platform_err_handler_err_timer_start();
}

void mlib::enter_reported_oor_mode() {
    oor_mode = IPMC_OOR_REPORTED;
}

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

cerrno ipmc_platform_err_handler_init(void *evm) {
    oor_mode = IPMC_OOR_NONE;
    event_history_cleared = 0;
    async_oor_support = ipmc_platform_async_err_oor_handling_supported();
    if (async_oor_support == 0) {
        return 0;
    }
    ipmc_object_ida_init_domain();  // an object without an id still works
    make_timer(static_cast<event_manager_t *>(evm));
    ipmc_platform_err_handler_err_timer_start();  // for what an earlier process left on the queue
    ipmc_platform_err_handler_event_history_clear_all();
    return 0;
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

cerrno ipmc_platform_err_handler_sync_route(ipv4mc_route_entry_st *route, cerrno rc) {
    if (async_oor_support == 0) {
        return rc;
    }
    if (route == nullptr) {
        MLIB_ERR("%s: route is NULL", __func__);
        return EINVAL;
    }
    mlib::queue_failed_route(route, __func__, __LINE__);
    ipmc_platform_err_handler_err_timer_start();
    return 0;
}

cerrno ipmc_platform_err_handler_sync_intf(ipv4mc_intf_entry_st *intf, ipv4mc_route_entry_st *route,
                                           cerrno rc) {
    if (async_oor_support == 0) {
        return rc;
    }
    if (intf != nullptr && route != nullptr) {
        return ipmc_platform_err_handler_sync_route(route, rc);
    }
    MLIB_ERR("%s: Intf is %s or route is %s, ifh: 0x%x", __func__, intf == nullptr ? "NULL" : "Ok",
             route == nullptr ? "NULL" : "Ok", intf != nullptr ? intf->ifh : 0);
    return EINVAL;
}

cerrno ipmc_platform_err_handler_sync_encap(ipv4mc_encap_entry_st *encap, cerrno rc) {
    if (async_oor_support == 0) {
        return rc;
    }
    if (encap == nullptr) {
        MLIB_ERR("%s: Encap is Null", __func__);
        return EINVAL;
    }
    if (encap->retry_queued == 0) {
        const group change;
        const cerrno failed = ipmc_retry_msg_queue_insert_encap(encap);
        if (failed != 0) {
            MLIB_ERR("%s : Failed to add encap %d to retry queue %s", __func__,
                     static_cast<int>(encap->encap_id), cerr_strerror(failed));
        }
        store(encap->retry_queued, 1);
    }
    ipmc_platform_err_handler_err_timer_start();
    return 0;
}

void ipmc_platform_err_handler_clear_route_err(ipv4mc_route_entry_st *route) {
    if (route == nullptr || route->err == 0) {
        return;
    }
    const group change;
    if (ipmc_retry_msg_queue_rem_route(route) != 0) {
        MLIB_ERR("%s: Table %s Route (%s,%s) is not in retry queue.", __func__, table_name(route),
                 mlib::source_text(&route->source), mlib::address_text(&route->group));
    }
    store(route->err, 0);
    MLIB_DEBUG(IPV4_DEBUG_EV, "%s: Table %s Route (%s,%s) has been removed from retry queue.",
               __func__, table_name(route), mlib::source_text(&route->source),
               mlib::address_text(&route->group));
}

void ipmc_platform_err_handler_clear_encap_err(ipv4mc_encap_entry_st *encap) {
    if (encap->retry_queued == 0) {
        return;
    }
    const group change;
    const cerrno rc = ipmc_retry_msg_queue_rem_encap(encap);
    if (rc != 0) {
        MLIB_ERR("Failed to remove encap %d from retry queue %s", static_cast<int>(encap->encap_id),
                 cerr_strerror(rc));
    }
    store(encap->retry_queued, 0);
}

void ipmc_platform_err_handler_event_history_clear_all(void) {
    if (event_history_cleared != 0) {
        return;
    }
    const cerrno rc = ip6mc_table_walk(forget_histories, IPV4MC_TABLE_WALK_TIDS, 0, nullptr, 0);
    if (rc != 0) {
        MLIB_ERR("Unsuccessful table walk to clear routes event history %s", cerr_strerror(rc));
        return;
    }
    event_history_cleared = 1;
}

}  // extern "C"
