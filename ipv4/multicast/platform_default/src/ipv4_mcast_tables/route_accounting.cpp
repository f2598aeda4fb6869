// Accounting and rate of a route. The flags themselves are kept by the caller.
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/events/ptimer.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;

// Why an action has nothing to do, or null.
const char *reason_to_skip(ipv4mc_action_type action, const ipv4mc_route_entry_st *route) {
    const bool candidate = route->mdt_candidate != 0;
    const bool fwd_only = route->acct_fwd_only != 0;
    switch (action) {
        case IPV4MC_ACTION_ACCT_ENABLE:
            return route->acct_per_prefix != 0 ? "Accounting per prefix enabled. Skip" : nullptr;
        case IPV4MC_ACTION_ACCT_DISABLE:
            return candidate || route->acct_per_prefix == 0 ? "No reason to come here. Skip"
                                                            : nullptr;
        case IPV4MC_ACTION_ACCT_FWD_ENABLE:
            return fwd_only ? "Accounting per prefix fwd-only enabled. Skip" : nullptr;
        default:
            // Not like the disabling above: this one goes ahead for a candidate without
            // forward-only.
            return candidate == fwd_only ? "fwd-only: No reason to come here. Skip" : nullptr;
    }
}

bool enables(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_ACCT_ENABLE || action == IPV4MC_ACTION_ACCT_FWD_ENABLE;
}

void prepare_counters(ipv4mc_action_type action, ipv4mc_route_entry_st *route) {
    if (enables(action)) {
        route->acct_stats = ipv4mc_route_acct_st{};
    } else if (route->rate != nullptr) {
        std::memset(route->rate, 0, sizeof(*route->rate));
        ptimer_gettime(&route->rate->stamp);
    }
}

cerrno enable_rate(const route_request &request) {
    ipv4mc_route_entry_st *route = *request.route_entry;
    if (route->mdt_candidate != 0) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Data MDT enabled route. Skip");
        return 0;
    }
    if (route->rate_per_route != 0) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Rate per route enabled. Skip");
        return 0;
    }
    if (route->rate != nullptr) {
        return 0;
    }
    const group change;
    ipv4mc_route_rate_st *rate = mlib::allocate_rate();
    if (rate == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "ENABLE can not allocate memory for route rate (%s,%s/%d)",
                   REQUEST_KEY);
        return ENOMEM;
    }
    publish(route->rate, rate);
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "ENABLE Done allocating and init route rate struct (%s,%s/%d)",
               REQUEST_KEY);
    return 0;
}

cerrno disable_rate(const route_request &request) {
    ipv4mc_route_entry_st *route = *request.route_entry;
    if (route->mdt_candidate == 0 && route->rate_per_route == 0) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "No reason to come here. Skip");
        return 0;
    }
    ipv4mc_route_rate_st *rate = route->rate;
    if (rate != nullptr) {
        const group change;
        publish(route->rate, nullptr);
        ipv4mc_shmwin_free_inline(rate, IPMC_SHMWIN_ALLOC_ROUTE);
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Disable Freed mem for rate struct for (%s,%s/%d)",
                   REQUEST_KEY);
    }
    return 0;
}

}  // namespace

cerrno ipv4mc_route_accounting(const route_request &request) {
    ipv4mc_route_entry_st *route = *request.route_entry;
    const char *reason = reason_to_skip(request.action, route);
    if (reason != nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "%s", reason);
        return 0;
    }
    prepare_counters(request.action, route);
    const cerrno rc = ip6mc_platform_route_operation_wrapper(
        request.action, request.table, request.source, request.group, request.pfx_len,
        request.route_entry, request.old_attributes, request.mofrr_attrib,
        request.is_new != nullptr ? *request.is_new : 0);
    if (rc != 0) {
        MLIB_ERR("Failed action %d %s for (%s,%s/%d) Error: %s", static_cast<int>(request.action),
                 mlib::action_text(request.action), REQUEST_KEY, cerr_strerror(rc));
    }
    return rc;
}

cerrno ipv4mc_route_rate(const route_request &request) {
    const cerrno rc =
        request.action == IPV4MC_ACTION_RATE_ENABLE ? enable_rate(request) : disable_rate(request);
    if (rc == 0) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_ROUTE, "Rate action %s done (%s,%s/%d)",
                        mlib::action_text(request.action), REQUEST_KEY);
    }
    return rc;
}
