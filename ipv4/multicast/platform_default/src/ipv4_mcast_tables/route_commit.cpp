// COMMIT of a route: the hardware hears of it, and a new route becomes findable.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::publish;
using mfwd6::journal::store;

constexpr uint64_t attribute_ia = MRIB_ROUTE_IA;
constexpr uint64_t attribute_if = MRIB_ROUTE_IF;

struct transition {
    bool set;
    bool unset;
};

transition change_of(const route_request &request, uint64_t bit) {
    const bool before = (request.old_attributes & bit) != 0;
    const bool now = ((*request.route_entry)->attributes & bit) != 0;
    return {!before && now, before && !now};
}

cerrno find_parent(const route_request &request) {
    ipv4mc_route_entry_st *route = *request.route_entry;
    ipv4mc_route_entry_st *parent = nullptr;
    const cerrno rc = ip6mc_get_parent_IF_route(request.table, route, &parent, 0);
    if (rc != 0) {
        MLIB_ERR("Cannot get parent of new route (%s,%s/%d) action %d %s Error %d %s", REQUEST_KEY,
                 REQUEST_ACTION, static_cast<int>(rc), cerr_strerror(rc));
        return rc;
    }
    publish(route->IF_parent, parent);  // readers follow it
    if (parent != nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d). New IF parent is (%s,%s/%d)", __LINE__,
                   REQUEST_KEY, ROUTE_ARGS(parent));
    }
    return 0;
}

cerrno with_fault_point(cerrno rc) {
    return fim_armed(mlib_fim_hdl, MLIB_FAULT_ROUTE_COMMIT) ? EAGAIN : rc;
}

// A new route is told without the words of a change that it never had.
cerrno tell_platform(const route_request &request) {
    const bool is_new = *request.is_new != 0;
    return with_fault_point(ip6mc_platform_route_operation_wrapper(
        IPV4MC_ACTION_COMMIT, request.table, request.source, request.group, request.pfx_len,
        request.route_entry, is_new ? 0 : request.old_attributes, is_new ? 0 : request.mofrr_attrib,
        *request.is_new));
}

// 0 also when the error handler took the platform's failure over.
cerrno program(const route_request &request) {
    ipv4mc_route_entry_st *route = *request.route_entry;
    if (ipmc_platform_can_program_route(route, *request.is_new) == 0) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "%s:%d - Skip HW prog Route (%s,%s/%d)", __func__, __LINE__,
                   REQUEST_KEY);
        return 0;
    }
    const cerrno rc = tell_platform(request);
    if (rc == 0) {
        return 0;
    }
    // The two differ in their last character.
    if (*request.is_new != 0) {
        MLIB_ERR("Platform specific route operation failed (%s,%s/%d) action %d %s Error %d %s ",
                 REQUEST_KEY, REQUEST_ACTION, static_cast<int>(rc), cerr_strerror(rc));
    } else {
        MLIB_ERR("Platform specific route operation failed (%s,%s/%d) action %d %s Error %d %s",
                 REQUEST_KEY, REQUEST_ACTION, static_cast<int>(rc), cerr_strerror(rc));
    }
    return ipmc_platform_err_handler_sync_route(route, rc);
}

// From here on the route is found. An error cannot be repaired.
cerrno insert(const route_request &request) {
    cerrno error = 0;
    ip6mc_gtrie_platform_leaf_insert(request.table->ingress_gtrie, *request.route_entry, &error);
    if (error == 0) {
        return 0;
    }
    MLIB_ERR("Failed to insert (Commit) ingress route (%s,%s/%d): %s (possible corruption)",
             REQUEST_KEY, cerr_strerror(error));
    return mlib::stop_for_corruption();
}

// Setting comes behind the platform: the parent must exist before children turn to it.
cerrno turn_children_to(const route_request &request) {
    if (!change_of(request, attribute_if).set) {
        return 0;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d) IF set action %s ", __LINE__, REQUEST_KEY,
               mlib::action_text(request.action));
    const cerrno rc = ipv4mc_process_setclear_IF_flag(request.table, *request.route_entry, 1);
    if (rc != 0) {
        MLIB_ERR("Failed to set IF flag for (%s,%s/%d) action %d %s  Error %d %s", REQUEST_KEY,
                 REQUEST_ACTION, static_cast<int>(rc), cerr_strerror(rc));
    }
    return rc;
}

// Clearing comes before the platform: children move off this parent first.
cerrno turn_children_away(const route_request &request) {
    if (!change_of(request, attribute_if).unset) {
        return 0;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d) IF unset action %s ", __LINE__, REQUEST_KEY,
               mlib::action_text(request.action));
    const cerrno rc = ipv4mc_process_setclear_IF_flag(request.table, *request.route_entry, 0);
    if (rc != 0) {
        MLIB_ERR("Failed to clear IF flag for (%s,%s/%d) action %d %s  Error %d %s", REQUEST_KEY,
                 REQUEST_ACTION, static_cast<int>(rc), cerr_strerror(rc));
    }
    return rc;
}

cerrno follow_ia(const route_request &request) {
    const transition ia = change_of(request, attribute_ia);
    if (ia.unset) {
        store((*request.route_entry)->IF_parent, nullptr);
        MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d) IA unset action %s ", __LINE__,
                   REQUEST_KEY, mlib::action_text(request.action));
    }
    if (!ia.set) {
        return 0;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "[%d] Route (%s,%s/%d) IA set action %s ", __LINE__, REQUEST_KEY,
               mlib::action_text(request.action));
    return find_parent(request);
}

// What comes ahead of the platform: whom the route inherits from, and who no longer from it.
cerrno follow_flags(const route_request &request, bool is_new) {
    if (is_new) {
        const bool inherits = ((*request.route_entry)->attributes & attribute_ia) != 0;
        return inherits ? find_parent(request) : 0;
    }
    const cerrno rc = turn_children_away(request);
    return rc != 0 ? rc : follow_ia(request);
}

void tell_committed(const route_request &request, bool is_new) {
    MLIB_TRACE_TEXT(IPV4_DEBUG_ROUTE, "%s route (%s,%s/%d)", is_new ? "New" : "Existing",
                    REQUEST_KEY);
    if (is_new) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE_COMMIT, "Committed new route (%s,%s/%d)", REQUEST_KEY);
    } else {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE_COMMIT, "Committed Existing route (%s,%s/%d)", REQUEST_KEY);
    }
}

}  // namespace

cerrno ipv4mc_route_commit(const route_request &request) {
    const bool is_new = *request.is_new != 0;
    cerrno rc = follow_flags(request, is_new);
    if (rc == 0) {
        rc = program(request);
    }
    if (rc != 0 && is_new) {
        // Nobody tells a detached leaf that its parent goes.
        store((*request.route_entry)->IF_parent, nullptr);
    }
    if (rc == 0 && is_new) {
        rc = insert(request);
    }
    if (rc == 0) {
        rc = turn_children_to(request);
    }
    if (rc == 0) {
        tell_committed(request, is_new);
    }
    return rc;
}
