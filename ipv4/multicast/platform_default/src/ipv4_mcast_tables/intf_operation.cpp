// Adds, changes, finds and removes one interface of one route, in the same two steps as a route is
// made: CREATE names the entry to the platform, COMMIT joins it to its route and its interface.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

struct intf_request {
    ipv4mc_action_type action;
    ipv4mc_table_st *table;
    ipv4mc_route_entry_st *route;
    uint32_t intf_type;
    ifhtype ifh;
    uint32_t amt_addr;
    uint16_t amt_port;
    uint32_t intf_arg;
    ipv4mc_intf_entry_st **intf_entry;
    ipv4mc_idb_st *idb;
    uintptr_t platform_arg;
    mrib_attrib_entry_type old_attributes;
    int is_new;
};

#define INTF mlib::intf_name(request.ifh)
#define ACTION mlib::action_text(request.action)

void trace_outcome(const intf_request &request, const char *what) {
    MLIB_TRACE_TEXT(IPV4_DEBUG_INTF, "%s %s (%s,%s/%d) action %s", what, INTF,
                    ROUTE_ARGS(request.route), ACTION);
}

ipv4mc_intf_entry_st *find(const intf_request &request) {
    return ip6mc_intf_route_lookup(request.route, request.intf_type, request.ifh, request.amt_addr,
                                   request.amt_port);
}

cerrno tell_platform(const intf_request &request, ipv4mc_action_type action,
                     ipv4mc_intf_entry_st **entry, int is_new) {
    return ip6mc_platform_intf_operation_wrapper(
        action, request.table, request.route, request.ifh, request.intf_arg, entry, request.idb,
        request.platform_arg, request.old_attributes, is_new);
}

cerrno with_fault_point(uint32_t point, cerrno rc) {
    return fim_armed(mlib_fim_hdl, point) ? EAGAIN : rc;
}

bool may_program(const intf_request &request, int is_new) {
    if (ipmc_platform_can_program_intf(*request.intf_entry, request.route, is_new) != 0) {
        return true;
    }
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "%s:%d - Skip HW prog intf %s [0x%x] Route (%s,%s/%d)", __func__,
               __LINE__, INTF, request.ifh, ROUTE_ARGS(request.route));
    return false;
}

cerrno look_up(const intf_request &request) {
    *request.intf_entry = find(request);
    // No trace record beside the line: this is the path of punted packets.
    MLIB_DEBUG(IPV4_DEBUG_INTF, "%s %s (%s,%s/%d) action %s",
               *request.intf_entry != nullptr ? "Found" : "NOT found", INTF,
               ROUTE_ARGS(request.route), ACTION);
    return 0;
}

// An AMT entry that moves leaves its old interface's list; it joins the new one's at its next
// COMMIT as a new entry. Its place in the tree stays, as the handle is no part of the key.
void follow_underlying_interface(const intf_request &request, ipv4mc_intf_entry_st *entry) {
    if (request.intf_type != IPV4MC_INTF_AMT) {
        return;
    }
    const group change;
    if (entry->ifh != request.ifh) {
        MLIB_ERR("AMT underlying interface is changing from 0x%x to 0x%x", entry->ifh, request.ifh);
        ipv4mc_intf_entry_st *moving = entry;
        ip6mc_idb_route_remove(request.route, &moving);
    }
    store(entry->ifh, request.ifh);
}

cerrno create_existing(const intf_request &request, ipv4mc_intf_entry_st *entry) {
    follow_underlying_interface(request, entry);
    *request.intf_entry = entry;
    if (may_program(request, 0)) {
        const cerrno rc =
            with_fault_point(MLIB_FAULT_INTF_CREATE,
                             tell_platform(request, IPV4MC_ACTION_CREATE, request.intf_entry, 0));
        if (rc != 0 && rc != IP6MC_PLATFORM_QUIET_REFUSAL) {
            MLIB_ERR("platform %s failed on existing I/F %s (%s,%s/%d): %s", ACTION, INTF,
                     ROUTE_ARGS(request.route), cerr_strerror(rc));
            const cerrno answer = ipmc_platform_err_handler_sync_intf(entry, request.route, rc);
            if (answer != 0) {
                return answer;
            }
        }
    }
    trace_outcome(request, "Existing intf");
    return EEXIST;
}

// A refusal with 63 makes no report: no entry, and the code goes back as it is.
cerrno name_to_platform(const intf_request &request) {
    ipv4mc_intf_entry_st *entry = *request.intf_entry;
    if (!may_program(request, 1)) {
        return ipmc_platform_err_handler_async_intf_oor(entry, request.route);
    }
    const cerrno rc =
        with_fault_point(MLIB_FAULT_INTF_CREATE,
                         tell_platform(request, IPV4MC_ACTION_CREATE, request.intf_entry, 1));
    if (rc == 0 || rc == IP6MC_PLATFORM_QUIET_REFUSAL) {
        return rc;
    }
    MLIB_ERR("platform %s failed new I/F %s (%s,%s/%d): %s", ACTION, INTF,
             ROUTE_ARGS(request.route), cerr_strerror(rc));
    return ipmc_platform_err_handler_sync_intf(entry, request.route, rc);
}

cerrno create_new(const intf_request &request) {
    ipv4mc_intf_entry_st *entry = ipv4mc_create_intf(
        request.ifh, request.intf_type, request.intf_arg, request.amt_addr, request.amt_port);
    if (entry == nullptr) {
        MLIB_ERR("Cannot create interface for %s", INTF);
        return ENOMEM;
    }
    *request.intf_entry = entry;
    // Not like a route, whose failed allocation is ignored: the code is returned and the entry
    // stays with the caller.
    cerrno rc = ipmc_object_ida_alloc_intf(entry);
    if (rc != 0) {
        MLIB_ERR("Failed to assign object id for interface ifhandle: 0x%x", request.ifh);
        return rc;
    }
    MLIB_DEBUG_OBJECT_ID(entry->obj_id, "Allocating for intf 0x%x (%s,%s/%d, v:%s)", request.ifh,
                         ROUTE_ARGS(request.route), mlib::vrf_text(request.table));
    rc = name_to_platform(request);
    if (rc != 0) {
        ipv4mc_clear_intf(&entry);
        *request.intf_entry = nullptr;
        return rc;
    }
    trace_outcome(request, "New intf");
    return 0;
}

cerrno create(const intf_request &request) {
    ipv4mc_intf_entry_st *existing = find(request);
    return existing != nullptr ? create_existing(request, existing) : create_new(request);
}

cerrno commit_existing(const intf_request &request) {
    ipv4mc_intf_entry_st *entry = *request.intf_entry;
    store(entry->intf_arg, request.intf_arg);
    if (may_program(request, 0)) {
        const cerrno rc =
            with_fault_point(MLIB_FAULT_INTF_COMMIT,
                             tell_platform(request, IPV4MC_ACTION_COMMIT, request.intf_entry, 0));
        if (rc != 0) {
            MLIB_ERR("platform %s failed on existing I/F %s (%s,%s/%d): %s", ACTION, INTF,
                     ROUTE_ARGS(request.route), cerr_strerror(rc));
            const cerrno answer = ipmc_platform_err_handler_sync_intf(entry, request.route, rc);
            if (answer != 0) {
                return answer;
            }
        }
    }
    trace_outcome(request, "Existing intf");
    return 0;
}

// Into the interface's list of routes, then into the route: both or neither, whoever is killed in
// between. That is why the first route on an interface has the platform make the interface inside
// the group.
cerrno join(const intf_request &request) {
    const group change;
    ipv4mc_idb_st *idb = request.idb;
    cerrno rc = idb != nullptr ? ip6mc_idb_route_add_idb(idb, request.route, request.intf_entry)
                               : ip6mc_idb_route_add(&idb, request.route, request.intf_entry);
    if (rc != 0) {
        MLIB_ERR("Unable to add (%s,%s/%d) to IDB for new %s : %s", ROUTE_ARGS(request.route), INTF,
                 cerr_strerror(rc));
        return rc;
    }
    if (idb == nullptr) {
        MLIB_ERR("Unable to add (%s,%s/%d) to IDB for new %s : NULL IDB", ROUTE_ARGS(request.route),
                 INTF);
        return ENOENT;
    }
    rc = ipv4mc_intf_route_add(request.route, *request.intf_entry);
    if (rc != 0) {
        MLIB_ERR("Failed to add on new I/F%s to (%s,%s/%d): %s", INTF, ROUTE_ARGS(request.route),
                 cerr_strerror(rc));
        ip6mc_idb_route_remove(request.route, request.intf_entry);
    }
    return rc;
}

// The entry is freed: the caller must not be left with it.
void unjoin(const intf_request &request) {
    const group change;
    ip6mc_idb_route_remove(request.route, request.intf_entry);
    const cerrno rc = ipv4mc_intf_route_delete(request.route, *request.intf_entry);
    if (rc != 0) {
        MLIB_ERR("Unable to remove  existing %s from (%s,%s/%d): %s", INTF,
                 ROUTE_ARGS(request.route), cerr_strerror(rc));
        return;
    }
    *request.intf_entry = nullptr;
}

cerrno commit_new(const intf_request &request) {
    cerrno rc = join(request);
    if (rc != 0) {
        return rc;
    }
    if (may_program(request, 1)) {
        rc = with_fault_point(MLIB_FAULT_INTF_COMMIT,
                              tell_platform(request, IPV4MC_ACTION_COMMIT, request.intf_entry, 1));
        if (rc != 0) {
            MLIB_ERR("platform %s failed on new I/F %s (%s,%s/%d): %s", ACTION, INTF,
                     ROUTE_ARGS(request.route), cerr_strerror(rc));
            rc = ipmc_platform_err_handler_sync_intf(*request.intf_entry, request.route, rc);
        }
        if (rc != 0) {
            unjoin(request);
            return rc;
        }
    }
    trace_outcome(request, "New intf");
    return 0;
}

cerrno commit(const intf_request &request) {
    return request.is_new != 0 ? commit_new(request) : commit_existing(request);
}

cerrno leave_idb(const intf_request &request, ipv4mc_intf_entry_st **entry) {
    ipv4mc_idb_st *idb = request.idb;
    return idb != nullptr ? ip6mc_idb_route_remove_idb(&idb, request.route, entry)
                          : ip6mc_idb_route_remove(request.route, entry);
}

cerrno remove(const intf_request &request) {
    if (request.is_new != 0) {
        MLIB_DEBUG(IPV4_DEBUG_WRN,
                   "Cannot delete NON-EXISTING interface  %s (%s,%s/%d) action %d %s", INTF,
                   ROUTE_ARGS(request.route), static_cast<int>(request.action), ACTION);
        return ENOENT;
    }
    const bool given = request.intf_entry != nullptr && *request.intf_entry != nullptr;
    ipv4mc_intf_entry_st *entry = given ? *request.intf_entry : find(request);
    if (entry == nullptr) {
        MLIB_ERR("Interface %s does not exist in (%s,%s/%d) even though it is NOT new action %d %s",
                 INTF, ROUTE_ARGS(request.route), static_cast<int>(request.action), ACTION);
        return ENOENT;
    }
    cerrno rc = tell_platform(request, IPV4MC_ACTION_DELETE, &entry, 0);
    if (rc != 0) {
        MLIB_ERR("platform %s failed on existing I/F %s  (%s,%s/%d): %s", ACTION, INTF,
                 ROUTE_ARGS(request.route), cerr_strerror(rc));
        return rc;
    }
    const group change;
    rc = leave_idb(request, &entry);
    if (rc != 0) {
        MLIB_ERR("Unable to remove (%s,%s/%d) from IDB for existing %s : %s",
                 ROUTE_ARGS(request.route), INTF, cerr_strerror(rc));
    }
    rc = ipv4mc_intf_route_delete(request.route, entry);
    if (rc != 0) {
        MLIB_ERR("Unable to remove  existing %s from (%s,%s/%d): %s", INTF,
                 ROUTE_ARGS(request.route), cerr_strerror(rc));
    }
    if (request.intf_entry != nullptr) {
        *request.intf_entry = nullptr;
    }
    return rc;
}

// For an entry that never was committed: it is in no list and no tree of its route.
cerrno clear(const intf_request &request) {
    cerrno rc = tell_platform(request, IPV4MC_ACTION_CLEAR, request.intf_entry, request.is_new);
    if (rc != 0) {
        MLIB_ERR("Platform CLEAR operation failed on %s (%s,%s/%d): %s", INTF,
                 ROUTE_ARGS(request.route), cerr_strerror(rc));
        return rc;
    }
    const group change;
    if ((*request.intf_entry)->on_idb_list != 0) {
        rc = leave_idb(request, request.intf_entry);
        if (rc != 0) {
            MLIB_ERR("Cannot remove %s from IDB route list (%s,%s/%d): %s", INTF,
                     ROUTE_ARGS(request.route), cerr_strerror(rc));
        }
    }
    rc = ipv4mc_clear_intf(request.intf_entry);
    trace_outcome(request, rc != 0 ? "Failed" : "Cleared");
    return rc;
}

cerrno clear_amt_statistics(const intf_request &request) {
    const cerrno rc =
        tell_platform(request, IPV4MC_ACTION_AMT_STAT_CLEAR, request.intf_entry, request.is_new);
    if (rc != 0) {
        MLIB_ERR("Platform AMT STAT CLEAR operation failed on %s (%s,%s/%d): %s", INTF,
                 ROUTE_ARGS(request.route), cerr_strerror(rc));
        return rc;
    }
    trace_outcome(request, "AMT statistics cleared");
    return 0;
}

cerrno check_arguments(const intf_request &request) {
    const bool no_pointer = request.intf_entry == nullptr;
    switch (request.action) {
        case IPV4MC_ACTION_CLEAR:
        case IPV4MC_ACTION_COMMIT:
        case IPV4MC_ACTION_AMT_STAT_CLEAR:
            if (no_pointer || *request.intf_entry == nullptr) {
                MLIB_ERR("Action is %s but %s %s for (%s,%s/%d) %s", ACTION,
                         no_pointer ? "intf_entry is NULL" : "",
                         no_pointer ? "" : "*intf_entry is NULL", ROUTE_ARGS(request.route), INTF);
                return EINVAL;
            }
            return 0;
        case IPV4MC_ACTION_LOOKUP:
        case IPV4MC_ACTION_CREATE:
        case IPV4MC_ACTION_EXACT_LOOKUP:
            if (no_pointer) {
                MLIB_ERR("Action is %s but intf_entry is NULL for (%s,%s/%d) %s", ACTION,
                         ROUTE_ARGS(request.route), INTF);
                return EINVAL;
            }
            return 0;
        default:
            return 0;
    }
}

cerrno act(const intf_request &request) {
    switch (request.action) {
        case IPV4MC_ACTION_LOOKUP:
        case IPV4MC_ACTION_EXACT_LOOKUP:
            return look_up(request);
        case IPV4MC_ACTION_CREATE:
            return create(request);
        case IPV4MC_ACTION_DELETE:
            return remove(request);
        case IPV4MC_ACTION_CLEAR:
            return clear(request);
        case IPV4MC_ACTION_COMMIT:
            return commit(request);
        case IPV4MC_ACTION_AMT_STAT_CLEAR:
            return clear_amt_statistics(request);
        default:
            return 0;
    }
}

}  // namespace

extern "C" cerrno ip6mc_intf_operation(ipv4mc_action_type action, ipv4mc_table_st *table,
                                       ipv4mc_route_entry_st *route, uint32_t intf_type,
                                       ifhtype ifh, uint32_t amt_addr, uint16_t amt_port,
                                       uint32_t intf_arg, ipv4mc_intf_entry_st **intf_entry,
                                       ipv4mc_idb_st *idb, uintptr_t platform_arg,
                                       mrib_attrib_entry_type old_attributes, int is_new) {
    if (!mlib::library_is_ready()) {
        MLIB_ERR("Multicast library Not ready\n");
        return EBADF;
    }
    if (route == nullptr) {
        MLIB_ERR("Null route");
        return EINVAL;
    }
    const intf_request request{action,       table,          route,    intf_type,  ifh,
                               amt_addr,     amt_port,       intf_arg, intf_entry, idb,
                               platform_arg, old_attributes, is_new};
    const cerrno rc = check_arguments(request);
    if (rc != 0) {
        return rc;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "Processing Route (%s,%s/%d) intf=%s [0x%x] action=%s",
               ROUTE_ARGS(route), INTF, ifh, ACTION);
    return act(request);
}
