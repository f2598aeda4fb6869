// Removing signals: one interface of a route, and with the last one the route.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/signal/signal_room.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

// The part of the internal step that ends the route.
cerrno remove_route(ipv4mc_table_st *table, ipv4mc_route_entry_st **route_pp, ifhtype ifh) {
    static constexpr const char *operation = "ipv4mc_signal_remove_internal";
    ipv4mc_route_entry_st *route = *route_pp;
    cerrno rc = ipv4mc_changelist_remove_route(route);
    if (rc != 0) {
        SIGNAL_ERR(operation, "Cannot delete route from changelist 0x%x(%s):(%s,%s/%d) %s: %s",
                   SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(&route->source, &route->group),
                   mlib::intf_name(ifh), cerr_strerror(rc));
        return rc;
    }
    ip6mc_gtrie_leaf_delete_shmem(table->signal_gtrie, ipv4mc_desc->shmwin_id, route, &rc);
    if (rc != 0) {
        SIGNAL_ERR(operation, "Cannot delete route from signal table 0x%x(%s):(%s,%s/%d) %s: %s",
                   SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(&route->source, &route->group),
                   mlib::intf_name(ifh), cerr_strerror(rc));
        return mlib::stop_for_corruption();
    }
    if (table->signal_route_count > 0) {
        store(table->signal_route_count, table->signal_route_count - 1);
    } else {
        // The text of a good outcome, as an error: the count says that there was no such route.
        SIGNAL_ERR(operation, "0x%x(%s): Removed signal on %s (%s,%s/%d)", SIGNAL_TABLE_ARGS(table),
                   mlib::intf_name(ifh), SIGNAL_KEY_ARGS(&route->source, &route->group));
    }
    ip6mc_gtrie_leaf_free(table->signal_gtrie, route);
    *route_pp = nullptr;
    SIGNAL_DEBUG(operation, IPV4_DEBUG_SIG, "0x%x(%s): Removed LAST signal on %s ",
                 SIGNAL_TABLE_ARGS(table), mlib::intf_name(ifh));
    return 0;
}

// Which of a pair of pointers is missing.
const char *missing(const void *pointer_p, const void *pointer, const char *name_p,
                    const char *name) {
    return pointer_p == nullptr ? name_p : pointer == nullptr ? name : "";
}

// What of the two is missing, as two words of the message; false when nothing is.
struct missing_words {
    const char *route;
    const char *intf;
    bool any() const { return route[0] != '\0' || intf[0] != '\0'; }
};

missing_words find_missing(ipv4mc_route_entry_st **route_pp, ipv4mc_intf_entry_st **intf_pp) {
    return {
        missing(route_pp, route_pp != nullptr ? *route_pp : nullptr, "route_entry", "*route_entry"),
        missing(intf_pp, intf_pp != nullptr ? *intf_pp : nullptr, "intf_entry", "*intf_entry")};
}

cerrno check_table(const char *operation, const ipv4mc_table_st *table) {
    const cerrno rc = mlib::signal::check_ready(operation);
    return rc != 0
               ? rc
               : mlib::signal::check_key(operation, table, &mlib::any_address, &mlib::any_address);
}

cerrno check_signal(const char *operation, const ipv4mc_table_st *table, const ip_maddr_st *source,
                    const ip_maddr_st *group_address) {
    const cerrno rc = mlib::signal::check_ready(operation);
    return rc != 0 ? rc : mlib::signal::check_key(operation, table, source, group_address);
}

// Of remove_signal_route: the step, and its report.
cerrno remove_at_hand(const char *operation, ipv4mc_table_st *table,
                      ipv4mc_route_entry_st **route_pp, ipv4mc_intf_entry_st **intf_pp) {
    const ip_maddr_st source = (*route_pp)->source;
    const ip_maddr_st group_address = (*route_pp)->group;
    const ifhtype ifh = (*intf_pp)->ifh;
    const cerrno rc = ipv4mc_signal_remove_internal(table, route_pp, intf_pp);
    if (rc != 0) {
        SIGNAL_ERR(operation, "Failed removing signal on %s 0x%x(%s):(%s,%s/%d): %s ",
                   mlib::intf_name(ifh), SIGNAL_TABLE_ARGS(table),
                   SIGNAL_KEY_ARGS(&source, &group_address), cerr_strerror(rc));
    }
    return rc;
}

// The interface, and what stands behind a search by key that both forms of the removal share.
cerrno remove_found(const char *operation, ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                    ifhtype ifhandle) {
    const ip_maddr_st source = route->source;
    const ip_maddr_st group_address = route->group;
    ipv4mc_intf_entry_st *intf =
        ip6mc_intf_route_lookup(route, IPV4MC_INTF_ORDINARY, ifhandle, 0, 0);
    if (intf == nullptr) {
        SIGNAL_DEBUG(operation, IPV4_DEBUG_SIG, "0x%x(%s): No Signal found on %s (%s,%s/%d)",
                     SIGNAL_TABLE_ARGS(table), mlib::intf_name(ifhandle),
                     SIGNAL_KEY_ARGS(&source, &group_address));
        return 0;
    }
    const cerrno rc = ipv4mc_signal_remove_internal(table, &route, &intf);
    if (rc != 0) {
        SIGNAL_ERR(operation, "0x%x(%s): Failed removing signal on %s (%s,%s/%d): %s ",
                   SIGNAL_TABLE_ARGS(table), mlib::intf_name(ifhandle),
                   SIGNAL_KEY_ARGS(&source, &group_address), cerr_strerror(rc));
    }
    return rc;
}

// Under the mutex of the caller who takes it; its texts differ from those of the other form.
cerrno remove_by_key_locked(const char *operation, ipv4mc_table_st *table,
                            const ip_maddr_st *source, const ip_maddr_st *group_address,
                            ifhtype ifhandle) {
    if (mlib::is_any(source)) {
        SIGNAL_ERR(operation, "0x%x(%s): S is Zero but pfx_len is %d greater than %d, group=%s %s",
                   SIGNAL_TABLE_ARGS(table), IPV4MC_ROUTE_PFX_LEN_SG, IPV4MC_ROUTE_PFX_LEN_STAR_G,
                   mlib::address_text(group_address), mlib::intf_name(ifhandle));
        return EINVAL;
    }
    cerrno rc = 0;
    ipv4mc_route_entry_st *route = mlib::signal::find(table, source, group_address, &rc);
    if (rc != 0) {
        SIGNAL_ERR(operation, "Cannot search in signal table for 0x%x(%s):(%s,%s/%d) %s: %s",
                   SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group_address),
                   mlib::intf_name(ifhandle), cerr_strerror(rc));
        return rc;
    }
    if (route == nullptr) {
        SIGNAL_DEBUG(operation, IPV4_DEBUG_SIG, "No signal found on route 0x%x(%s): (%s,%s/%d)",
                     SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group_address));
        return 0;
    }
    return remove_found(operation, table, route, ifhandle);
}

}  // namespace

cerrno ipv4mc_signal_remove_internal(ipv4mc_table_st *table, ipv4mc_route_entry_st **route_pp,
                                     ipv4mc_intf_entry_st **intf_pp) {
    ipv4mc_route_entry_st *route = *route_pp;
    ipv4mc_intf_entry_st *intf = *intf_pp;
    const ifhtype ifh = intf->ifh;  // the entry is gone when it is printed
    MLIB_DEBUG(IPV4_DEBUG_EV, "0x%x(%s): Just in (%s,%s/%d) intf=%s", SIGNAL_TABLE_ARGS(table),
               SIGNAL_KEY_ARGS(&route->source, &route->group), mlib::intf_name(ifh));
    const bool has_neighbour = intf->next_intf != nullptr || intf->prev_intf != nullptr;
    const group change;
    const cerrno rc = ipv4mc_intf_route_delete(route, intf);
    if (rc == 0) {
        *intf_pp = nullptr;
    } else {
        // The rest is done all the same: a route whose last interface cannot be taken off goes with
        // it.
        MLIB_ERR("Unable to remove existing %s from 0x%x(%s):(%s,%s/%d) - %s", mlib::intf_name(ifh),
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(&route->source, &route->group),
                 cerr_strerror(rc));
    }
    if (has_neighbour) {
        MLIB_DEBUG(IPV4_DEBUG_SIG, "0x%x(%s): Removed signal on %s (%s,%s/%d)",
                   SIGNAL_TABLE_ARGS(table), mlib::intf_name(ifh),
                   SIGNAL_KEY_ARGS(&route->source, &route->group));
        return 0;
    }
    return remove_route(table, route_pp, ifh);
}

extern "C" {

cerrno ip6mc_signal_remove_signal_route_mutex(ipv4mc_table_st *table,
                                              ipv4mc_route_entry_st **route_pp,
                                              ipv4mc_intf_entry_st **intf_pp) {
    cerrno rc = check_table(__func__, table);
    if (rc != 0) {
        return rc;
    }
    const missing_words null = find_missing(route_pp, intf_pp);
    if (null.any()) {
        MLIB_ERR("0x%x(%s) : NULL %s%s", SIGNAL_TABLE_ARGS(table), null.route, null.intf);
        return EINVAL;
    }
    const ip_maddr_st source = (*route_pp)->source;
    const ip_maddr_st group_address = (*route_pp)->group;
    const ifhtype ifh = (*intf_pp)->ifh;
    rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("Cannot lock shmwin_mutex 0x%x(%s):(%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(&source, &group_address),
                 mlib::intf_name(ifh), cerr_strerror(rc));
        return rc;
    }
    rc = remove_at_hand(__func__, table, route_pp, intf_pp);
    const cerrno unlocked = ip6mc_shmwin_mutex_unlock();
    if (unlocked != 0) {
        MLIB_ERR("Cannot Unlock shmwin_mutex 0x%x(%s):(%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(&source, &group_address),
                 mlib::intf_name(ifh), cerr_strerror(unlocked));
    }
    return rc;
}

cerrno ip6mc_signal_remove_signal_route(ipv4mc_table_st *table, ipv4mc_route_entry_st **route_pp,
                                        ipv4mc_intf_entry_st **intf_pp) {
    const cerrno rc = check_table(__func__, table);
    if (rc != 0) {
        return rc;
    }
    const missing_words null = find_missing(route_pp, intf_pp);
    if (null.any()) {
        MLIB_ERR("0x%x(%s): NULL %s%s", SIGNAL_TABLE_ARGS(table), null.route, null.intf);
        return EINVAL;
    }
    return remove_at_hand(__func__, table, route_pp, intf_pp);
}

cerrno ip6mc_signal_remove_mutex(ipv4mc_table_st *table, const ip_maddr_st *source,
                                 const ip_maddr_st *group_address, ifhtype ifhandle) {
    cerrno rc = check_signal(__func__, table, source, group_address);
    if (rc != 0) {
        return rc;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "0x%x(%s): Just in (%s,%s/%d) intf=%s", SIGNAL_TABLE_ARGS(table),
               SIGNAL_KEY_ARGS(source, group_address), mlib::intf_name(ifhandle));
    rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Cannot lock shmwin_mutex (%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group_address),
                 mlib::intf_name(ifhandle), cerr_strerror(rc));
        return rc;
    }
    rc = remove_by_key_locked(__func__, table, source, group_address, ifhandle);
    const cerrno unlocked = ip6mc_shmwin_mutex_unlock();
    if (unlocked != 0) {
        MLIB_ERR("0x%x(%s): Cannot Unlock shmwin_mutex (%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group_address),
                 mlib::intf_name(ifhandle), cerr_strerror(unlocked));
    }
    return rc;
}

// The texts are not quite those of the form above, blanks included.
cerrno ip6mc_signal_remove(ipv4mc_table_st *table, const ip_maddr_st *source,
                           const ip_maddr_st *group_address, ifhtype ifhandle) {
    cerrno rc = check_signal(__func__, table, source, group_address);
    if (rc != 0) {
        return rc;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "0x%x(%s): Just in (%s,%s/%d) intf=%s", SIGNAL_TABLE_ARGS(table),
               SIGNAL_KEY_ARGS(source, group_address), mlib::intf_name(ifhandle));
    if (mlib::is_any(source)) {
        MLIB_ERR("0x%x(%s): S is Zero but pfx_len is %d greater than %d,  group=%s %s",
                 SIGNAL_TABLE_ARGS(table), IPV4MC_ROUTE_PFX_LEN_SG, IPV4MC_ROUTE_PFX_LEN_STAR_G,
                 mlib::address_text(group_address), mlib::intf_name(ifhandle));
        return EINVAL;
    }
    ipv4mc_route_entry_st *route = mlib::signal::find(table, source, group_address, &rc);
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Cannot search in signal table for (%s,%s/%d) %s: %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group_address),
                 mlib::intf_name(ifhandle), cerr_strerror(rc));
        return rc;
    }
    if (route == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_SIG, "0x%x(%s): No signal found on route (%s,%s/%d)",
                   SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group_address));
        return 0;
    }
    return remove_found(__func__, table, route, ifhandle);
}

}  // extern "C"
