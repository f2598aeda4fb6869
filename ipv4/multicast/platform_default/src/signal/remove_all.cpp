// Removing a whole signal route, as far as it goes.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/signal/signal_room.h"

namespace {

// What one call works on.
struct removal {
    const char *operation;
    ipv4mc_table_st *table;
    const ip_maddr_st *source;
    const ip_maddr_st *group;
};

#define REMOVAL_ARGS(call) \
    SIGNAL_TABLE_ARGS((call).table), SIGNAL_KEY_ARGS((call).source, (call).group)

cerrno begin(const removal &call) {
    cerrno rc = mlib::signal::check_ready(call.operation);
    rc =
        rc != 0 ? rc : mlib::signal::check_key(call.operation, call.table, call.source, call.group);
    if (rc == 0) {
        SIGNAL_DEBUG(call.operation, IPV4_DEBUG_EV, "0x%x(%s): Just in (%s,%s/%d) ",
                     REMOVAL_ARGS(call));
    }
    return rc;
}

void tell_not_found(const removal &call) {
    SIGNAL_DEBUG(call.operation, IPV4_DEBUG_SIG, "0x%x(%s): No signal found on (%s,%s/%d)",
                 REMOVAL_ARGS(call));
}

cerrno remove_all(const removal &call) {
    cerrno rc = 0;
    ipv4mc_route_entry_st *route = mlib::signal::find(call.table, call.source, call.group, &rc);
    if (rc != 0) {
        SIGNAL_ERR(call.operation,
                   "0x%x(%s): Cannot search in signal table for (%s,%s/%d) Error %s",
                   REMOVAL_ARGS(call), cerr_strerror(rc));
        return EFAULT;
    }
    if (route == nullptr) {
        tell_not_found(call);
        return 0;
    }
    rc = mlib::signal::remove_interfaces(call.table, route, [&](ifhtype ifh, cerrno failed) {
        SIGNAL_ERR(call.operation,
                   "0x%x(%s): Cannot remove signal (%s,%s/%d) %s Error %d %s. Continuing...",
                   REMOVAL_ARGS(call), mlib::intf_name(ifh), static_cast<int>(failed),
                   cerr_strerror(failed));
    });
    // Said also when interfaces are left.
    SIGNAL_DEBUG(call.operation, IPV4_DEBUG_SIG, "0x%x(%s): Removed all signals on (%s,%s/%d)",
                 REMOVAL_ARGS(call));
    return rc;
}

cerrno remove_route_pak(const removal &call, mfwd_cmd free_pak) {
    cerrno rc = 0;
    ipv4mc_route_entry_st *route = mlib::signal::find(call.table, call.source, call.group, &rc);
    if (rc != 0) {
        SIGNAL_ERR(call.operation, "0x%x(%s): Cannot search in signal table for (%s,%s/%d): %s",
                   REMOVAL_ARGS(call), cerr_strerror(rc));
        return EFAULT;
    }
    if (route == nullptr) {
        tell_not_found(call);
        return 0;
    }
    rc = ipv4mc_signal_remove_route_pak_internal(call.table, route, free_pak);
    if (rc != 0) {
        SIGNAL_DEBUG(call.operation, IPV4_DEBUG_SIG,
                     "0x%x(%s): Error deleting signal route (%s,%s/%d): %s", REMOVAL_ARGS(call),
                     cerr_strerror(rc));
    }
    return rc;
}

void unlock(const removal &call) {
    const cerrno rc = ip6mc_shmwin_mutex_unlock();
    if (rc != 0) {
        SIGNAL_ERR(call.operation, "0x%x(%s): Cannot Unlock shmwin_mutex (%s,%s/%d): %s",
                   REMOVAL_ARGS(call), cerr_strerror(rc));
    }
}

}  // namespace

extern "C" {

cerrno ip6mc_signal_remove_all_mutex(ipv4mc_table_st *table, const ip_maddr_st *source,
                                     const ip_maddr_st *group) {
    const removal call{__func__, table, source, group};
    cerrno rc = begin(call);
    if (rc != 0) {
        return rc;
    }
    rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Cannot lock shmwin_mutex (%s,%s/%d) %s", REMOVAL_ARGS(call),
                 cerr_strerror(rc));
        return rc;
    }
    rc = remove_all(call);
    unlock(call);
    return rc;
}

cerrno ip6mc_signal_remove_all(ipv4mc_table_st *table, const ip_maddr_st *source,
                               const ip_maddr_st *group) {
    const removal call{__func__, table, source, group};
    const cerrno rc = begin(call);
    return rc != 0 ? rc : remove_all(call);
}

cerrno ip6mc_signal_remove_route_pak_mutex(ipv4mc_table_st *table, const ip_maddr_st *source,
                                           const ip_maddr_st *group, mfwd_cmd free_pak) {
    const removal call{__func__, table, source, group};
    cerrno rc = begin(call);
    if (rc != 0) {
        return rc;
    }
    rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Cannot lock shmwin_mutex for (%s,%s/%d): %s", REMOVAL_ARGS(call),
                 cerr_strerror(rc));
        return rc;
    }
    rc = remove_route_pak(call, free_pak);
    unlock(call);
    return rc;
}

cerrno ip6mc_signal_remove_route_pak(ipv4mc_table_st *table, const ip_maddr_st *source,
                                     const ip_maddr_st *group, mfwd_cmd free_pak) {
    const removal call{__func__, table, source, group};
    const cerrno rc = begin(call);
    return rc != 0 ? rc : remove_route_pak(call, free_pak);
}

}  // extern "C"
