// The door through which a route comes into being, changes and goes, and through which it is looked
// up.
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/diag/text.h"
#include "services/events/ptimer.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

// The trie looks at no more of a key.
constexpr size_t key_bytes = (GTRIE_TABLE_KEY_BITS + 7) / 8;

struct trie_key {
    uint8_t prefix[GTRIE_PREFIX_BYTES];
    uint32_t length;  // adjusted to the trie
};

void make_prefix(const route_request &request, trie_key *key) {
    std::memset(key->prefix, 0, key_bytes);
    ip6mc_gtrie_platform_make_prefix(request.table->ingress_gtrie, key->prefix, request.source,
                                     request.group);
}

void make_key(const route_request &request, trie_key *key) {
    make_prefix(request, key);
    key->length = request.pfx_len;
    ip6mc_gtrie_platform_get_pfx_len_adjusted(request.table->ingress_gtrie, &key->length);
}

cerrno look_up(const route_request &request) {
    // A longest match on the full key: the length plays no part.
    trie_key key;
    make_prefix(request, &key);
    cerrno error = 0;
    *request.route_entry = static_cast<ipv4mc_route_entry_st *>(
        ip6mc_gtrie_platform_lookup(request.table->ingress_gtrie, key.prefix, &error));
    if (error != 0) {
        MLIB_ERR("Problems in Gtrie while looking up route  (%s,%s) %s",
                 mlib::source_text(request.source), mlib::address_text(request.group),
                 cerr_strerror(error));
        *request.route_entry = nullptr;
        return EFAULT;
    }
    if (*request.route_entry == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Success lookup cannot find (%s,%s/%d)", REQUEST_KEY);
    }
    return 0;
}

cerrno look_up_exact(const route_request &request) {
    cerrno error = 0;
    *request.route_entry = mlib::find_exact(request, &error);
    if (error != 0) {
        MLIB_ERR("Problems in Gtrie during exact route match (%s,%s) %s",
                 mlib::source_text(request.source), mlib::address_text(request.group),
                 cerr_strerror(error));
        *request.route_entry = nullptr;
        return EFAULT;
    }
    if (*request.route_entry == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_ROUTE, "Successful exact match cannot find (%s,%s/%d)", REQUEST_KEY);
    }
    return 0;
}

// A new route takes over what its VRF table has switched on for all routes.
cerrno take_table_settings(const route_request &request, ipv4mc_route_entry_st *route) {
    const ipv4mc_table_st *vrf_table = request.table->vtable;
    if (vrf_table == nullptr) {
        return 0;
    }
    if (vrf_table->acct_per_prefix != 0) {
        route->acct_per_prefix = 1;
    } else if (vrf_table->acct_fwd_only != 0) {
        route->acct_fwd_only = 1;
    }
    if (vrf_table->rate_per_route == 0 || route->rate != nullptr) {
        return 0;
    }
    route->rate = mlib::allocate_rate();
    if (route->rate == nullptr) {
        MLIB_ERR("CREATE can not allocate memory for route rate (%s,%s/%d)", REQUEST_KEY);
        return ENOMEM;
    }
    route->rate_per_route = 1;
    MLIB_DEBUG(IPV4_DEBUG_ROUTE, "CREATE allocated route rate (%s,%s/%d)", REQUEST_KEY);
    return 0;
}

cerrno fill_new_route(const route_request &request, ipv4mc_route_entry_st *route) {
    ptimer_gettime(&route->create_time);
    *request.route_entry = route;
    MLIB_DEBUG(IPV4_DEBUG_EV, "Creating route (%s,%s/%d) ", REQUEST_KEY);
    store(request.table->rate_route_count, request.table->rate_route_count + 1);
    cerrno rc = ipv4mc_init_route(0, request.source, request.group, request.pfx_len, route, 0);
    if (rc != 0) {
        MLIB_ERR("Failed to initialize ingress route (%s,%s/%d) :%s", REQUEST_KEY,
                 cerr_strerror(rc));
    } else {
        rc = take_table_settings(request, route);
    }
    if (rc != 0) {
        ip6mc_route_oper_create_fail_cleanup(request.table, request.route_entry,
                                             request.table->ingress_gtrie);
        return rc;
    }
    route->table = request.table;
    ipmc_object_ida_alloc_route(route);  // a route without an id is still a route
    MLIB_DEBUG_OBJECT_ID(route->obj_id, "Allocated for route (%s,%s/%d, v:%s)", REQUEST_KEY,
                         mlib::vrf_text(request.table));
    return 0;
}

cerrno create(const route_request &request) {
    *request.route_entry = nullptr;
    trie_key key;
    make_key(request, &key);
    const size_t size = sizeof(ipv4mc_route_entry_st) + plat_params.route_extension_size;
    _ltrace_2(ip6mc_mlib_ltrace(), MLIB_TRACE_ROUTE_CREATE, size, key.length);
    void *leaf = nullptr;
    int created = 0;
    const group change;
    const cerrno error = ip6mc_gtrie_platform_leaf_create(request.table->ingress_gtrie, key.prefix,
                                                          key.length, &leaf, size, &created);
    *request.is_new = created;
    if (error != 0) {
        MLIB_ERR("Cannot create/lookup in ingress table for (%s,%s/%d) action %d %s Error: %s ",
                 REQUEST_KEY, static_cast<int>(request.action), mlib::action_text(request.action),
                 cerr_strerror(error));
        return EFAULT;
    }
    auto *route = static_cast<ipv4mc_route_entry_st *>(leaf);
    if (request.aux_addr != nullptr) {  // also on a route that exists
        mfwd6::journal::copy(&route->aux_addr, request.aux_addr, sizeof(route->aux_addr));
    }
    if (created == 0) {
        *request.route_entry = route;
        MLIB_TRACE_TEXT(IPV4_DEBUG_ROUTE, "Existing route");
        return EEXIST;
    }
    return fill_new_route(request, route);
}

cerrno check_route_given(const route_request &request) {
    const bool no_pointer = request.route_entry == nullptr;
    if (!no_pointer && *request.route_entry != nullptr) {
        return 0;
    }
    MLIB_ERR("Action is %s but %s %s", mlib::action_text(request.action),
             no_pointer ? "route_entry is NULL" : "", no_pointer ? "" : "*route_entry is NULL");
    return EINVAL;
}

// The flag of the CREATE, which the actions that follow it carry on.
cerrno check_is_new(const route_request &request) {
    switch (request.action) {
        case IPV4MC_ACTION_CREATE:
        case IPV4MC_ACTION_DELETE:
        case IPV4MC_ACTION_CLEAR:
        case IPV4MC_ACTION_COMMIT:
            if (request.is_new == nullptr) {
                MLIB_ERR("Action is %s but is_new is NULL", mlib::action_text(request.action));
                return EINVAL;
            }
            return 0;
        default:
            return 0;
    }
}

cerrno check_arguments(const route_request &request) {
    switch (request.action) {
        case IPV4MC_ACTION_CLEAR:
        case IPV4MC_ACTION_COMMIT:
            return check_route_given(request);
        case IPV4MC_ACTION_LOOKUP:
        case IPV4MC_ACTION_CREATE:
        case IPV4MC_ACTION_EXACT_LOOKUP:
            if (request.route_entry == nullptr) {
                MLIB_ERR("Action is %s but route_entry is NULL", mlib::action_text(request.action));
                return EINVAL;
            }
            return 0;
        default:
            return 0;
    }
}

template <class Work>
cerrno on_given_route(const route_request &request, const Work &work) {
    const cerrno rc = check_route_given(request);
    return rc != 0 ? rc : work(request);
}

cerrno act(const route_request &request) {
    switch (request.action) {
        case IPV4MC_ACTION_LOOKUP:
            return look_up(request);
        case IPV4MC_ACTION_EXACT_LOOKUP:
            return look_up_exact(request);
        case IPV4MC_ACTION_CREATE:
            return create(request);
        case IPV4MC_ACTION_COMMIT:
            return ipv4mc_route_commit(request);
        case IPV4MC_ACTION_DELETE:
            return ipv4mc_route_delete(request);
        case IPV4MC_ACTION_CLEAR:
            return ipv4mc_route_clear_action(request);
        case IPV4MC_ACTION_ACCT_ENABLE:
        case IPV4MC_ACTION_ACCT_DISABLE:
        case IPV4MC_ACTION_ACCT_FWD_ENABLE:
        case IPV4MC_ACTION_ACCT_FWD_DISABLE:
            return on_given_route(request, ipv4mc_route_accounting);
        case IPV4MC_ACTION_RATE_ENABLE:
        case IPV4MC_ACTION_RATE_DISABLE:
            return on_given_route(request, ipv4mc_route_rate);
        default:
            return 0;
    }
}

bool is_ready() {
    if (mlib::library_is_ready()) {
        return true;
    }
    MLIB_ERR("Multicast library Not ready\n");
    return false;
}

}  // namespace

extern "C" {

cerrno ipv4mc_route_operation_helper(ipv4mc_action_type action, ipv4mc_table_st *table,
                                     const ip_maddr_st *source, const ip_maddr_st *group,
                                     uint16_t pfx_len, const ip_maddr_st *aux_addr,
                                     ipv4mc_route_entry_st **route_entry,
                                     mrib_attrib_entry_type old_attributes,
                                     mrib_attrib_ti_mofrr_type mofrr_attrib, int *is_new) {
    if (!is_ready()) {
        return EBADF;
    }
    if (table == nullptr || source == nullptr || group == nullptr) {
        MLIB_ERR("NULL %s%s%s", table == nullptr ? "table " : "",
                 source == nullptr ? "source " : "", group == nullptr ? "group" : "");
        return EINVAL;
    }
    const route_request request{action,
                                table,
                                source,
                                group,
                                mlib::route_key_length(source, pfx_len),
                                aux_addr,
                                route_entry,
                                old_attributes,
                                mofrr_attrib,
                                is_new};
    cerrno rc = check_arguments(request);
    rc = rc == 0 ? check_is_new(request) : rc;
    if (rc != 0) {
        return rc;
    }
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    rc = ip6mc_shmwin_get_info(&hdr);
    if (rc != 0) {
        MLIB_ERR("Action is %s but shmwin_info is NULL: %s", mlib::action_text(action),
                 cerr_strerror(rc));
        return rc;
    }
    return act(request);
}

cerrno ip6mc_route_operation(ipv4mc_action_type action, ipv4mc_table_st *table,
                             const ip_maddr_st *source, const ip_maddr_st *group, uint16_t pfx_len,
                             const ip_maddr_st *aux_addr, ipv4mc_route_entry_st **route_entry,
                             mrib_attrib_entry_type old_attributes,
                             mrib_attrib_ti_mofrr_type mofrr_attrib, int *is_new) {
    const uint32_t tid = table != nullptr ? table->tid : 0;
    MLIB_DEBUG(IPV4_DEBUG_EV, "Rte: Just in for 0x%x:(%s,%s/%d) action %s", tid,
               ROUTE_KEY_ARGS(source, group, pfx_len), mlib::action_text(action));
    if (!is_ready()) {
        return EBADF;
    }
    if (action == IPV4MC_ACTION_NOT_ENTERED) {
        return 0;
    }
    const cerrno rc =
        ipv4mc_route_operation_helper(action, table, source, group, pfx_len, aux_addr, route_entry,
                                      old_attributes, mofrr_attrib, is_new);
    // EEXIST is an answer: CREATE on a route that exists, with the route in hand.
    if (rc != 0 && rc != EEXIST) {
        MLIB_ERR("Rte-V2: route operation failed for 0x%x (%s, %s) action 0x%x - %s", tid,
                 mlib::source_text(source), mlib::address_text(group), action, cerr_strerror(rc));
    }
    return rc;
}

void ip6mc_route_oper_create_fail_cleanup(ipv4mc_table_st *table,
                                          ipv4mc_route_entry_st **route_entry, void *gtrie) {
    const bool has_route = route_entry != nullptr && *route_entry != nullptr;
    if (table == nullptr || !has_route || gtrie == nullptr) {
        MLIB_ERR(
            "ipv4mc_route_oper_create_fail_cleanup INVAL PARAMS t:%c, r_e:%c, r:%c, gtrie_hndl:%c",
            table != nullptr ? 'y' : 'n', route_entry != nullptr ? 'y' : 'n', has_route ? 'y' : 'n',
            gtrie != nullptr ? 'y' : 'n');
        return;
    }
    const group change;
    ipv4mc_route_entry_st *route = *route_entry;
    if (route->rate != nullptr) {
        ipv4mc_shmwin_free_inline(route->rate, IPMC_SHMWIN_ALLOC_ROUTE);
        route->rate = nullptr;
        route->rate_per_route = 0;
    }
    const cerrno rc = ip6mc_gtrie_platform_leaf_free(gtrie, route);
    if (rc != 0) {
        MLIB_ERR("ipv4mc_route_oper_create_fail_cleanup: Cannot free gtrie leaf Error: %s ",
                 cerr_strerror(rc));
    }
    *route_entry = nullptr;
    store(table->rate_route_count, table->rate_route_count - 1);
}

}  // extern "C"

const char *mlib::vrf_text(const ipv4mc_table_st *table) {
    if (table != nullptr && table->table_type == IPV4MC_TABLE_TID) {
        table = table->vtable;
    }
    return table != nullptr ? table->vrf_name : "-";
}

ipv4mc_route_entry_st *mlib::find_exact(const route_request &request, cerrno *error) {
    trie_key key;
    make_key(request, &key);
    return static_cast<ipv4mc_route_entry_st *>(ip6mc_gtrie_platform_lookup_exact(
        request.table->ingress_gtrie, key.prefix, key.length, error));
}

cerrno mlib::stop_for_corruption() {
    store(ipv4mc_desc->shmwin_info->mlib_corrupted, 1U);
    ipv4mc_desc->lib_init = 0;
    ipv4mc_update_state(IPV4MC_LIB_STATE_DOWN);
    return EFAULT;
}

const char *mlib::action_text(ipv4mc_action_type action) {
    return ipv4_mlib_action_string(action, nullptr);
}
