// The one way in which a table is made, activated, cleared, deactivated or deleted. A table has a
// VRF side and a TID side that may come in any order: most of this works out which of the two there
// are.
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_guards.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/packet_mutex_report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/diag/messages.h"
#include "services/diag/text.h"
#include "services/journal/journal.h"
#include "services/trees/wavl.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

constexpr char operation[] = "ip6mc_table_operation";

constexpr size_t name_size = sizeof(ipv4mc_table_st::vrf_name);

constexpr uint32_t bit(uint32_t action) {
    return 1U << action;
}

constexpr uint32_t needs_table =
    bit(IPV4MC_ACTION_DELETE) | bit(IPV4MC_ACTION_CLEAR) | bit(IPV4MC_ACTION_CLEAR_ROUTES) |
    bit(IPV4MC_ACTION_ACCT_ENABLE) | bit(IPV4MC_ACTION_ACCT_DISABLE) |
    bit(IPV4MC_ACTION_ACCT_FWD_ENABLE) | bit(IPV4MC_ACTION_ACCT_FWD_DISABLE) |
    bit(IPV4MC_ACTION_RATE_ENABLE) | bit(IPV4MC_ACTION_RATE_DISABLE);
static_assert(needs_table == 0x1f8d0);

constexpr uint32_t takes_keys_from_table = bit(IPV4MC_ACTION_DELETE) | bit(IPV4MC_ACTION_CLEAR) |
                                           bit(IPV4MC_ACTION_CLEAR_ROUTES) |
                                           bit(IPV4MC_ACTION_DEACTIVATE);

constexpr uint32_t removes_routes =
    bit(IPV4MC_ACTION_DELETE) | bit(IPV4MC_ACTION_CLEAR) | bit(IPV4MC_ACTION_CLEAR_ROUTES);

constexpr uint32_t makes_what_is_missing =
    bit(IPV4MC_ACTION_CREATE) | bit(IPV4MC_ACTION_COMMIT) | bit(IPV4MC_ACTION_ACTIVATE);

bool is_one_of(ipv4mc_action_type action, uint32_t actions) {
    return action < 32 && (bit(action) & actions) != 0;
}

const char *action_text(const table_request &request) {
    return ipv4_mlib_action_string(request.action, nullptr);
}

ipv4mc_table_st *given_table(const table_request &request) {
    return request.table_pp != nullptr ? *request.table_pp : nullptr;
}

void answer(const table_request &request, ipv4mc_table_st *table) {
    if (request.table_pp != nullptr) {
        *request.table_pp = table;
    }
}

bool wants_vrf(const table_request &request) {
    return request.vrf_id != 0 || request.vrf_name[0] != '\0';
}

cerrno check(const table_request &request) {
    const size_t name_length = strnlen(request.vrf_name, name_size);
    if (request.tid == 0 && request.vrf_id == 0 && request.table_pp == nullptr &&
        (name_length == 0 || name_length >= name_size)) {
        TABLE_DEBUG(IPV4_DEBUG_EV, "Just in action %s, t:0x%x/v:0x%x/%s, table ptr %s",
                    action_text(request), request.tid, request.vrf_id, request.vrf_name, "NULL");
        TABLE_ERR("Invalid Parameters");
        return EINVAL;
    }
    if (is_one_of(request.action, needs_table) && given_table(request) == nullptr) {
        TABLE_ERR("Invalid Parameters for table %s/t:0x%x/v:0x%x oper 0x%x", request.vrf_name,
                  request.tid, request.vrf_id, request.action);
        return EINVAL;
    }
    return 0;
}

// What the caller left out is taken from the table that it gave.
void take_keys_from_table(table_request &request) {
    ipv4mc_table_st *table = given_table(request);
    if (table == nullptr || !is_one_of(request.action, takes_keys_from_table)) {
        return;
    }
    const bool is_tid = table->table_type != IPV4MC_TABLE_VRF;
    ipv4mc_table_st *tid_side = is_tid ? table : table->tid_table;
    ipv4mc_table_st *vrf_side = is_tid ? table->vtable : table;
    if (is_tid) {
        request.tid_table = table;
    } else {
        request.vrf_table = table;
        if (request.vrf_name[0] == '\0') {
            sstrncpy(request.name_of_table, table->vrf_name, name_size);
            request.vrf_name = request.name_of_table;
        }
    }
    if (request.tid == 0 && tid_side != nullptr) {
        request.tid = tid_side->tid;
    }
    if (request.vrf_id == 0 && vrf_side != nullptr) {
        request.vrf_id = vrf_side->vrf_id;
    }
}

void set_accounting(ipv4mc_table_st *table, ipv4mc_action_type action) {
    const group change;
    switch (action) {
        case IPV4MC_ACTION_ACCT_ENABLE:
            store(table->acct_per_prefix, 1U);
            store(table->acct_fwd_only, 0U);
            break;
        case IPV4MC_ACTION_ACCT_DISABLE:
            store(table->acct_per_prefix, 0U);
            break;
        case IPV4MC_ACTION_ACCT_FWD_ENABLE:
            store(table->acct_fwd_only, 1U);
            store(table->acct_per_prefix, 0U);
            break;
        default:
            store(table->acct_fwd_only, 0U);
            break;
    }
}

void walk_routes(const table_request &request, ipv4mc_route_walk_ft function, const char *what) {
    ipv4mc_table_st *table = given_table(request);
    if (table->tid_table == nullptr) {
        return;
    }
    uint32_t action = request.action;
    const cerrno rc = ip6mc_route_walk(table->tid_table, request.arg, function, &action);
    if (rc != 0) {
        orv_errmsg(orv_msg_rec_ipv4_mlib_table_per_prefix_getfn(), 5, what, table->vrf_name,
                   "Retrying later:", cerr_strerror(rc));
    }
}

cerrno switch_accounting(const table_request &request) {
    TABLE_DEBUG(IPV4_DEBUG_EV, "Just in action %s, t:0x%x/v:0x%x/%s, table ptr %s ",
                action_text(request), request.tid, request.vrf_id, request.vrf_name, "valid");
    walk_routes(request, ipv4mc_route_accounting_fn, action_text(request));
    const cerrno rc = ip6mc_platform_table_operation_wrapper(
        request.action, request.tid, request.vrf_id, request.vrf_name, request.table_pp, 0);
    // The setting stands whatever the routes and the platform said: the client repeats the action.
    ipv4mc_table_st *table = given_table(request);
    set_accounting(table, request.action);
    if (rc != 0) {
        TABLE_ERR("Error in platform dependant call action %d %s existing table %s %d %s",
                  static_cast<int>(request.action), action_text(request), table->vrf_name,
                  static_cast<int>(rc), cerr_strerror(rc));
    }
    return rc;
}

// Nothing of this goes to the platform library, and the walk's failure is not the caller's.
cerrno switch_rate(const table_request &request) {
    const bool on = request.action == IPV4MC_ACTION_RATE_ENABLE;
    store(given_table(request)->rate_per_route, on ? 1U : 0U);
    TABLE_DEBUG(IPV4_DEBUG_DEV, "%s : Set rate per route to %s", operation, on ? "TRUE" : "FALSE");
    walk_routes(request, ipv4mc_route_rate_per_route_fn, on ? "enable" : "disable");
    return 0;
}

ipv4mc_table_st *search_name_tree(const ipv4mc_table_st &key, uint32_t thread) {
    const mlib::tbl_read_lock guard(__LINE__);
    return static_cast<ipv4mc_table_st *>(shm_wavl_search(
        &ipmc_db_table_fns, &ipv4mc_desc->shmwin_info->table_name_tree, &key, thread));
}

// By id where there is one, else by name. A deactivated table has lost its id and kept its name, so
// an id that nobody has finds the table of that name that waits for one.
ipv4mc_table_st *find_vrf_table(const table_request &request) {
    ipv4mc_table_st key{};
    key.vrf_id = request.vrf_id;
    sstrncpy(key.vrf_name, request.vrf_name, name_size);
    ipv4mc_table_st *table = nullptr;
    if (request.vrf_id != 0) {
        table = search_name_tree(key, IPV4MC_TABLE_THREAD_VRF_ID);
    }
    if (table == nullptr && request.vrf_name[0] != '\0') {
        table = search_name_tree(key, IPV4MC_TABLE_THREAD_NAME);
        if (table != nullptr && request.vrf_id != 0 && table->vrf_id != 0) {
            table = nullptr;
        }
    }
    return table;
}

void find_tables(table_request &request) {
    if (request.tid_table == nullptr && request.tid != 0) {
        request.tid_table = ip6mc_table_lookup_by_tbl_id(request.tid);
    }
    if (request.vrf_table == nullptr && wants_vrf(request)) {
        request.vrf_table = find_vrf_table(request);
    }
    // Found by its name: its id is what interfaces and BVI entries know it by.
    if (request.vrf_id == 0 && request.vrf_table != nullptr) {
        request.vrf_id = request.vrf_table->vrf_id;
    }
    TABLE_DEBUG(IPV4_DEBUG_EV, "Action %s Table t:0x%x %s, Table v:0x%x/%s %s",
                action_text(request), request.tid,
                request.tid_table != nullptr ? "present" : "absent", request.vrf_id,
                request.vrf_name, request.vrf_table != nullptr ? "present" : "absent");
}

bool something_is_missing(const table_request &request) {
    bool missing = false;
    if (request.vrf_table == nullptr && wants_vrf(request)) {
        TABLE_DEBUG(IPV4_DEBUG_EV, "Table v:0x%x/%s does not exist and action=0x%x", request.vrf_id,
                    request.vrf_name, request.action);
        answer(request, nullptr);
        missing = true;
    }
    if (request.tid_table == nullptr && request.tid != 0) {
        TABLE_DEBUG(IPV4_DEBUG_EV, "Table t:0x%x does not exist and action=0x%x", request.tid,
                    request.action);
        missing = true;
    }
    return missing;
}

void report_platform(const table_request &request, bool is_new, cerrno rc) {
    TABLE_ERR("Error in platform dependant call action 0x%x %s %s VRF table 0x%x/%s : %d %s",
              request.action, action_text(request), is_new ? "new" : "existing", request.vrf_id,
              request.vrf_name, static_cast<int>(rc), cerr_strerror(rc));
}

// A VRF table that waits for its table id.
cerrno finish_vrf_alone(table_request &request, int vrf_is_new) {
    answer(request, request.vrf_table);
    TABLE_DEBUG(IPV4_DEBUG_EV, "IFRS VRF table %s. No more table processing",
                request.vrf_table->vrf_name);
    if (request.action == IPV4MC_ACTION_CREATE) {
        return 0;
    }
    const cerrno rc = ip6mc_platform_table_operation_wrapper(
        request.action, 0, request.vrf_id, request.vrf_name, &request.vrf_table, vrf_is_new);
    if (rc != 0) {
        report_platform(request, vrf_is_new != 0, rc);
    }
    return rc;
}

// A TID table made because its routes came first.
cerrno finish_orphan(table_request &request, int tid_is_new) {
    answer(request, request.tid_table);
    TABLE_DEBUG(IPV4_DEBUG_EV, "Orphan TID table %s. Just activate TID table",
                tid_is_new != 0 ? "new" : "existing");
    ipv4mc_table_st *no_vrf = nullptr;
    cerrno rc =
        ipmc_table_activate_tid(request.tid, 0, "", &no_vrf, &request.tid_table, &tid_is_new);
    if (rc != 0) {
        TABLE_ERR("VRF Table activation failed");
        return rc;
    }
    if (request.action == IPV4MC_ACTION_CREATE) {
        return 0;
    }
    rc = ip6mc_platform_table_operation_wrapper(request.action, request.tid, 0, "",
                                                &request.tid_table, tid_is_new);
    if (rc != 0) {
        report_platform(request, tid_is_new != 0, rc);
    }
    return rc;
}

cerrno finish_both(table_request &request, int vrf_is_new) {
    answer(request, request.vrf_table);
    const cerrno rc = ipmc_table_activate(request.tid, request.vrf_id, request.vrf_name,
                                          &request.vrf_table, vrf_is_new);
    if (rc == 0) {
        TABLE_DEBUG(IPV4_DEBUG_EV, "Success table action %s for 0x%x(%s)", action_text(request),
                    request.tid, request.vrf_name);
        return 0;
    }
    TABLE_ERR("table action %s for 0x%x(%s) failed : %s", action_text(request), request.tid,
              request.vrf_name, cerr_strerror(rc));
    // A VRF table that lost its keys can be found by nobody any more.
    if (request.vrf_table->vrf_id == 0 && request.vrf_table->vrf_name[0] == '\0') {
        ipmc_table_free_vrf(request.vrf_table);
        answer(request, nullptr);
    }
    return rc;
}

cerrno operate_on_missing(table_request &request) {
    if (!is_one_of(request.action, makes_what_is_missing)) {
        TABLE_DEBUG(IPV4_DEBUG_EV, "Table action 0x%x but cannot find 0x%x/v:0x%x/%s",
                    request.action, request.tid, request.vrf_id, request.vrf_name);
        if (request.vrf_table == nullptr && request.tid_table == nullptr) {
            answer(request, nullptr);
        }
        return ENOENT;
    }
    int vrf_is_new = 0;
    int tid_is_new = 0;
    if (ipmc_table_create(request.vrf_name, request.tid, request.vrf_id, &request.vrf_table,
                          &vrf_is_new, &request.tid_table, &tid_is_new) == 0) {
        return ENOMEM;
    }
    if (request.tid == 0) {
        return finish_vrf_alone(request, vrf_is_new);
    }
    if (request.vrf_table == nullptr) {
        return finish_orphan(request, tid_is_new);
    }
    return finish_both(request, vrf_is_new);
}

// A list of one route has no neighbours: there the route's own pointer tells.
bool is_linked_by(const ipv4mc_route_entry_st *route, const ipv4mc_table_st *table,
                  uint32_t link_index) {
    return route->memd_next[link_index] != nullptr || route->vrf_table[link_index] == table;
}

// The core routes that the MDT logic linked to this table stay; only their links to it go.
void drop_core_routes(const table_request &request) {
    ipv4mc_table_st *table = request.tid_table;
    if (request.action != IPV4MC_ACTION_DELETE || table->memd_route_list == nullptr) {
        return;
    }
    if (is_linked_by(table->memd_route_list, table, 0)) {
        ipmc_table_memd_routes_clear(table, 0);
    } else if (is_linked_by(table->memd_route_list, table, 1)) {
        ipmc_table_memd_routes_clear(table, 1);
    }
}

// Deletes the routes of the table; true when the action is done with that.
bool remove_routes(table_request &request) {
    if (request.tid_table == nullptr) {
        TABLE_DEBUG(IPV4_DEBUG_EV, "No link to TID table. No routes to clear");
        return false;
    }
    mlib::report_packet_mutex_depth(operation, __LINE__);
    uint32_t stopped = 0;
    const cerrno rc =
        ip6mc_route_delete_all(request.tid_table, request.arg, 2,
                               request.action == IPV4MC_ACTION_CLEAR_ROUTES ? 1 : 0, &stopped);
    if (request.action == IPV4MC_ACTION_DELETE) {
        ipmc_table_remove_rest(request.tid_table);
    }
    drop_core_routes(request);
    if (rc != 0) {
        TABLE_ERR("Cannot delete all routes & signals from Table t:0x%x : %s", request.tid,
                  cerr_strerror(rc));
    } else {
        TABLE_DEBUG(IPV4_DEBUG_EV, "Table t:0x%x exists, action=%s. All routes deleted",
                    request.tid, action_text(request));
    }
    return request.action == IPV4MC_ACTION_CLEAR_ROUTES && stopped != 0;
}

cerrno clear_or_delete(table_request &request) {
    if (remove_routes(request)) {
        return 0;
    }
    if (request.action == IPV4MC_ACTION_CLEAR_ROUTES) {
        request.action = IPV4MC_ACTION_CLEAR;
    }
    return ipmc_table_deactivate(request);
}

cerrno activate_existing(table_request &request) {
    const cerrno rc =
        ipmc_table_activate(request.tid, request.vrf_id, request.vrf_name, &request.vrf_table, 0);
    if (rc == 0) {
        answer(request, request.vrf_table != nullptr ? request.vrf_table : request.tid_table);
        return 0;
    }
    if (request.vrf_table != nullptr) {
        TABLE_DEBUG(IPV4_DEBUG_EV, "table action %s for 0x%x(%s) REMOVE from VRF_NAME TREE",
                    action_text(request), request.tid, request.vrf_name);
        TABLE_DEBUG(IPV4_DEBUG_EV, "table action %s for 0x%x(%s) REMOVE from VRF_ID TREE",
                    action_text(request), request.tid, request.vrf_name);
        ipmc_table_free_vrf(request.vrf_table);
        answer(request, nullptr);
    }
    TABLE_ERR("table action %s for 0x%x(%s) failed : %s", action_text(request), request.tid,
              request.vrf_name, cerr_strerror(rc));
    return rc;
}

cerrno answer_existing(table_request &request) {
    TABLE_DEBUG(IPV4_DEBUG_EV, "Table 0x%x/v:0x%x/%s exists and action=%s", request.tid,
                request.vrf_id, request.vrf_name, action_text(request));
    ipv4mc_table_st *table = request.vrf_table != nullptr ? request.vrf_table : request.tid_table;
    answer(request, table);
    if (request.action != IPV4MC_ACTION_COMMIT) {
        return 0;
    }
    const cerrno rc = ip6mc_platform_table_operation_wrapper(
        request.action, request.tid, request.vrf_id, request.vrf_name, &table, 0);
    if (rc != 0) {
        TABLE_ERR("Error in platform dependant call action %d %s new table 0x%x(%s): %d %s",
                  static_cast<int>(request.action), action_text(request), request.tid,
                  request.vrf_name, static_cast<int>(rc), cerr_strerror(rc));
    }
    return rc;
}

cerrno operate_on_existing(table_request &request) {
    if (is_one_of(request.action, removes_routes)) {
        return clear_or_delete(request);
    }
    if (request.action == IPV4MC_ACTION_ACTIVATE) {
        return activate_existing(request);
    }
    if (request.action == IPV4MC_ACTION_DEACTIVATE) {
        return ipmc_table_deactivate(request);
    }
    return answer_existing(request);
}

}  // namespace

extern "C" cerrno ip6mc_table_operation(ipv4mc_action_type action, uint32_t tid,
                                        rsi_vrf_id_t vrf_id, const char *vrf_name,
                                        ipv4mc_table_st **table_pp, uint32_t arg) {
    if (!mlib::library_is_ready()) {
        TABLE_ERR("Multicast library Not ready\n");
        return EBADF;
    }
    table_request request{};
    request.action = action;
    request.tid = tid;
    request.vrf_id = vrf_id;
    request.vrf_name = vrf_name != nullptr ? vrf_name : "";
    request.table_pp = table_pp;
    request.arg = arg;
    const cerrno rc = check(request);
    if (rc != 0) {
        return rc;
    }
    if (action >= IPV4MC_ACTION_ACCT_ENABLE && action <= IPV4MC_ACTION_ACCT_FWD_DISABLE) {
        return switch_accounting(request);
    }
    if (action == IPV4MC_ACTION_RATE_ENABLE || action == IPV4MC_ACTION_RATE_DISABLE) {
        return switch_rate(request);
    }
    take_keys_from_table(request);
    find_tables(request);
    return something_is_missing(request) ? operate_on_missing(request)
                                         : operate_on_existing(request);
}
