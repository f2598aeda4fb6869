// Posting a signal.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/signal/posting.h"

namespace {

using mlib::signal::posting;

struct add_outputs {
    ipv4mc_route_entry_st **route_pp;
    int *is_new_p;  // may be null
    int *exists_p;  // may be null
};

cerrno refuse(const posting &signal, const add_outputs &to) {
    cerrno rc = mlib::signal::check_ready(signal.operation);
    rc = rc != 0
             ? rc
             : mlib::signal::check_key(signal.operation, signal.table, signal.source, signal.group);
    if (rc != 0) {
        return rc;
    }
    SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_EV, "Processing signal 0x%x(%s): (%s,%s/%d) intf=%s",
                 SIGNAL_TABLE_ARGS(signal.table), POSTING_KEY(signal),
                 mlib::intf_name(signal.ifhandle));
    if (to.route_pp == nullptr) {
        SIGNAL_ERR(signal.operation, "Null Signal route for 0x%x(%s):(%s,%s/%d) intf %s",
                   SIGNAL_TABLE_ARGS(signal.table), POSTING_KEY(signal),
                   mlib::intf_name(signal.ifhandle));
        return EINVAL;
    }
    return mlib::signal::check_source(signal);
}

cerrno add(posting &signal, const add_outputs &to) {
    *to.route_pp = nullptr;
    cerrno rc = mlib::signal::find_route(signal);
    if (rc != 0) {
        return rc;
    }
    if (signal.route != nullptr) {
        if (to.is_new_p != nullptr) {
            *to.is_new_p = 0;
        }
        if (mlib::signal::find_intf(signal) != nullptr) {
            if (to.exists_p != nullptr) {
                *to.exists_p = 1;
            }
            SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG,
                         "0x%x(%s): Signal on %s (%s,%s/%d) already exists route %p",
                         SIGNAL_TABLE_ARGS(signal.table), mlib::intf_name(signal.ifhandle),
                         POSTING_KEY(signal), static_cast<void *>(signal.route));
            return 0;
        }
    }
    rc = mlib::signal::post(signal, to.is_new_p);
    if (rc != 0) {
        return rc;
    }
    SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG, "0x%x(%s): Signaled %s (%s,%s/%d) route %p",
                 SIGNAL_TABLE_ARGS(signal.table), mlib::intf_name(signal.ifhandle),
                 POSTING_KEY(signal), static_cast<void *>(signal.route));
    *to.route_pp = signal.route;
    return 0;
}

}  // namespace

extern "C" {

cerrno ip6mc_signal_add_mutex(ipv4mc_table_st *table, const ip_maddr_st *source,
                              const ip_maddr_st *group, ifhtype ifhandle,
                              ipv4mc_route_entry_st **route_pp, int *is_new_p, int *exists_p) {
    posting signal{__func__, table, source, group, ifhandle, false};
    const add_outputs to{route_pp, is_new_p, exists_p};
    cerrno rc = refuse(signal, to);
    if (rc != 0) {
        return rc;
    }
    rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("Cannot lock shmwin_mutex 0x%x(%s): (%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), POSTING_KEY(signal), mlib::intf_name(ifhandle),
                 cerr_strerror(rc));
        return rc;
    }
    rc = add(signal, to);
    const cerrno unlocked = ip6mc_shmwin_mutex_unlock();
    if (unlocked != 0) {
        MLIB_ERR("Cannot Unlock shmwin_mutex 0x%x(%s): (%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), POSTING_KEY(signal), mlib::intf_name(ifhandle),
                 cerr_strerror(unlocked));
    }
    return rc;
}

cerrno ip6mc_signal_add(ipv4mc_table_st *table, const ip_maddr_st *source, const ip_maddr_st *group,
                        ifhtype ifhandle, ipv4mc_route_entry_st **route_pp) {
    posting signal{__func__, table, source, group, ifhandle, false};
    const add_outputs to{route_pp, nullptr, nullptr};
    const cerrno rc = refuse(signal, to);
    return rc != 0 ? rc : add(signal, to);
}

}  // extern "C"
