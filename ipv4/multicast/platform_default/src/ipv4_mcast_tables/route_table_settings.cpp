// Bringing each route of a table in line with a table-wide setting: accounting, rate.
#include <cerrno>
#include <cstdio>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/diag/messages.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::store;

constexpr size_t message_size = 256;

cerrno operate(ipv4mc_action_type action, ipv4mc_route_entry_st *route) {
    int is_new = 0;
    return ip6mc_route_operation(action, route->table, &route->source, &route->group,
                                 route->pfx_len, &route->aux_addr, &route, route->attributes,
                                 route->mofrr_attrib, &is_new);
}

// A shortage of memory repeats for each route of the table: it goes out more slowly.
void tell_operator(const char *text, cerrno rc) {
    orv_errmsg(rc == ENOMEM ? orv_msg_rec_ipv4_mlib_per_prefix_glacial_getfn()
                            : orv_msg_rec_ipv4_mlib_per_prefix_getfn(),
               5, text, cerr_strerror(rc));
}

// The byte of the route that an accounting action is about.
uint8_t &accounting_flag(ipv4mc_action_type action, ipv4mc_route_entry_st *route) {
    return action == IPV4MC_ACTION_ACCT_ENABLE || action == IPV4MC_ACTION_ACCT_DISABLE
               ? route->acct_per_prefix
               : route->acct_fwd_only;
}

bool enables(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_ACCT_ENABLE || action == IPV4MC_ACTION_ACCT_FWD_ENABLE ||
           action == IPV4MC_ACTION_RATE_ENABLE;
}

void keep_rate_flag(ipv4mc_route_entry_st *route, bool on) {
    store(route->rate_per_route, static_cast<uint8_t>(on ? 1 : 0));
    if (!on) {
        ipv4mc_interface_stats_clear(route);
    }
}

}  // namespace

extern "C" {

cerrno ipv4mc_route_accounting_fn(ipv4mc_route_entry_st *route, void *context) {
    const ipv4mc_action_type action = *static_cast<const uint32_t *>(context);
    const bool on = enables(action);
    uint8_t &flag = accounting_flag(action, route);
    const bool is_on = flag != 0;
    if (on == is_on || (!on && route->mdt_candidate != 0)) {
        return 0;
    }
    const cerrno rc = operate(action, route);
    if (rc != 0) {
        char text[message_size];
        snprintf(text, sizeof(text), "Cannot %s for (%s,%s/%d).Retrying later. ",
                 mlib::action_text(action), ROUTE_ARGS(route));
        tell_operator(text, rc);
        return rc;
    }
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Successfully %s for (%s,%s/%d).", mlib::action_text(action),
               ROUTE_ARGS(route));
    store(flag, static_cast<uint8_t>(on ? 1 : 0));
    return 0;
}

cerrno ipv4mc_route_rate_per_route_fn(ipv4mc_route_entry_st *route, void *context) {
    const ipv4mc_action_type action = *static_cast<const uint32_t *>(context);
    const bool on = enables(action);
    if (on == (route->rate_per_route != 0)) {
        return 0;
    }
    if (route->mdt_candidate != 0) {
        keep_rate_flag(route, on);
        return 0;
    }
    const cerrno rc = operate(action, route);
    if (rc != 0) {
        char text[message_size];
        snprintf(text, sizeof(text), "Cannot %s rate_per_route for (%s,%s/%d). Retrying later. ",
                 on ? "enable" : "disable", ROUTE_ARGS(route));
        tell_operator(text, rc);
    } else {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Successfully %s rate_per_route for (%s,%s/%d).",
                   on ? "enabled" : "disabled", ROUTE_ARGS(route));
    }
    // Marked as asked also after a failure: the message says that it is not so.
    keep_rate_flag(route, on);
    return rc;
}

}  // extern "C"
