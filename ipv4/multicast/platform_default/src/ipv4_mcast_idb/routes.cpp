// The entries of routes on an interface: a list, newest first.
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"

#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;
using mlib::idb_routes;

// Interface, source, group and length of an entry, as most messages here show them.
#define ENTRY_TEXTS(entry, route)                                       \
    mlib::intf_name((entry)->ifh), mlib::source_text(&(route)->source), \
        mlib::address_text(&(route)->group), static_cast<int>((route)->pfx_len)

cerrno check_entry(const ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *const *entry_p,
                   const char *function, int line) {
    cerrno rc = mlib::idb_require(route, "Null route", function, line);
    rc = rc == 0 ? mlib::idb_require(entry_p, "Null intf_entry", function, line) : rc;
    return rc == 0 ? mlib::idb_require(*entry_p, "Null *intf_entry", function, line) : rc;
}

bool is_listed(const ipv4mc_route_entry_st *route, const ipv4mc_intf_entry_st *entry) {
    if (entry->on_idb_list == 0) {
        return false;
    }
    MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "%s is already in the linked list (%s,%s/%d)",
                    ENTRY_TEXTS(entry, route));
    return true;
}

// The list, its length and the reference change together.
void link(ipv4mc_idb_st *idb, ipv4mc_intf_entry_st *entry) {
    const group change;
    mlib::take_idb_reference(idb);
    idb_routes(idb->route_list).push_front(entry);
    store(entry->on_idb_list, uint8_t{1});
    store(idb->route_count, idb->route_count + 1);
}

// The result of giving the reference back.
cerrno unlink(ipv4mc_idb_st *idb, ipv4mc_intf_entry_st *entry) {
    const group change;
    idb_routes(idb->route_list).remove_and_clear(entry);
    store(entry->on_idb_list, uint8_t{0});
    store(idb->route_count, idb->route_count - 1);
    return mlib::drop_idb_reference(&idb);
}

const ipv4mc_bvi_entry_t *bvi_entry_of(const ipv4mc_intf_entry_st *entry) {
    return entry->bvi_if != nullptr ? entry->bvi_if->bvi_entry : nullptr;
}

// An address of the L2 state that an entry is tied to, or what is missing.
const char *bvi_text(const ipv4mc_intf_entry_st *entry, const char *address) {
    return entry->bvi_if == nullptr         ? "Null BVI if data"
           : bvi_entry_of(entry) == nullptr ? "Null BVI Entry"
                                            : address;
}

void untie_from_bvi(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    if ((entry->attributes & MRIB_INTF_BVI) == 0 ||
        ip6mc_bvi_delete_bvi_interface(route, entry) == 0) {
        return;
    }
    const ipv4mc_bvi_entry_t *bvi = bvi_entry_of(entry);
    // "__LINE__" is part of the text that operators know.
    MLIB_ERR("ERR: Line[__LINE__]Delete BVI IF 0x%x of (%s,%s) from tree of BVI-EN(%s,%s)",
             entry->ifh, mlib::source_text(&route->source), mlib::address_text(&route->group),
             bvi_text(entry, bvi != nullptr ? mlib::source_text(&bvi->source) : ""),
             bvi_text(entry, bvi != nullptr ? mlib::address_text(&bvi->group) : ""));
}

cerrno ipv4mc_idb_route_remove_internal(ipv4mc_idb_st *idb, ipv4mc_route_entry_st *route,
                                        ipv4mc_intf_entry_st *entry) {
    if (const cerrno rc = mlib::idb_require(idb, "Null idb"); rc != 0) {
        return rc;
    }
    if (idb->route_list == nullptr) {
        MLIB_ERR("Null route_list for (%s,%s/%d) %s", mlib::source_text(&route->source),
                 mlib::address_text(&route->group), static_cast<int>(route->pfx_len),
                 mlib::intf_name(entry->ifh));
        return EINVAL;
    }
    if (entry->on_idb_list == 0) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "%s is NOT the linked list(%s,%s/%d)",
                        ENTRY_TEXTS(entry, route));
        return 0;
    }
    untie_from_bvi(route, entry);
    const cerrno rc = unlink(idb, entry);
    if (rc != 0) {
        // The entry has left the list whatever happens.
        MLIB_ERR("Unable to unlock IDB for %s (%s,%s/%d): %s", ENTRY_TEXTS(entry, route),
                 cerr_strerror(rc));
        return 0;
    }
    mlib::destroy_idb_if_unheld(idb);
    return 0;
}

}  // namespace

extern "C" {

cerrno ip6mc_idb_route_add(ipv4mc_idb_st **idb_p, ipv4mc_route_entry_st *route,
                           ipv4mc_intf_entry_st **entry_p) {
    cerrno rc = mlib::idb_require(idb_p, "Null idb_p");
    rc = rc == 0 ? check_entry(route, entry_p, __func__, __LINE__) : rc;
    if (rc != 0) {
        return rc;
    }
    ipv4mc_intf_entry_st *entry = *entry_p;
    if (is_listed(route, entry)) {
        return 0;
    }
    ipv4mc_idb_st *idb = nullptr;
    rc = mlib::find_idb_to_lock(entry->ifh, 0, &idb, nullptr);
    if (rc != 0) {
        MLIB_ERR("Unable to lock IDB for %s (%s,%s/%d): %s", ENTRY_TEXTS(entry, route),
                 cerr_strerror(rc));
        return rc;
    }
    if (idb == nullptr) {
        MLIB_ERR("NULL IDB after locking for %s (%s,%s/%d)", ENTRY_TEXTS(entry, route));
        return ENOENT;
    }
    link(idb, entry);
    *idb_p = idb;
    ip6mc_idb_refcount_sanity_fn(idb);
    return 0;
}

cerrno ip6mc_idb_route_add_idb(ipv4mc_idb_st *idb, ipv4mc_route_entry_st *route,
                               ipv4mc_intf_entry_st **entry_p) {
    cerrno rc = mlib::idb_require(idb, "Null idb");
    rc = rc == 0 ? check_entry(route, entry_p, __func__, __LINE__) : rc;
    if (rc != 0) {
        return rc;
    }
    ipv4mc_intf_entry_st *entry = *entry_p;
    if (is_listed(route, entry)) {
        return 0;
    }
    rc = mlib::idb_readiness();
    if (rc != 0) {
        MLIB_ERR("Unable to lock IDB for %s (%s,%s/%d): %s", ENTRY_TEXTS(entry, route),
                 cerr_strerror(rc));
        return rc;
    }
    link(idb, entry);
    return 0;
}

cerrno ip6mc_idb_route_remove(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st **entry_p) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? check_entry(route, entry_p, __func__, __LINE__) : rc;
    if (rc != 0) {
        return rc;
    }
    ipv4mc_intf_entry_st *entry = *entry_p;
    ipv4mc_idb_st *idb = nullptr;
    rc = ip6mc_idb_lookup(entry->ifh, &idb);
    if (rc != 0 || idb == nullptr) {
        MLIB_ERR("Failed IDB lookup for %s (%s,%s/%d): %s", ENTRY_TEXTS(entry, route),
                 rc != 0 ? cerr_strerror(rc) : "IDB not found");
        return rc;
    }
    return ipv4mc_idb_route_remove_internal(idb, route, entry);
}

cerrno ip6mc_idb_route_remove_idb(ipv4mc_idb_st **idb_p, ipv4mc_route_entry_st *route,
                                  ipv4mc_intf_entry_st **entry_p) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? mlib::idb_require(idb_p, "Null idb_p") : rc;
    rc = rc == 0 ? check_entry(route, entry_p, __func__, __LINE__) : rc;
    return rc == 0 ? ipv4mc_idb_route_remove_internal(*idb_p, route, *entry_p) : rc;
}

}  // extern "C"
