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
    const cerrno rc = mlib::signal::begin(signal);
    if (rc != 0) {
        return rc;
    }
    if (to.route_pp == nullptr) {
        SIGNAL_ERR(signal.operation, "Null Signal route for 0x%x(%s):(%s,%s/%d) intf %s",
                   POSTING_TABLE(signal), POSTING_KEY(signal), mlib::intf_name(signal.ifhandle));
        return EINVAL;
    }
    return mlib::signal::check_source(signal);
}

void tell_that_it_exists(const posting &signal, const add_outputs &to) {
    if (to.exists_p != nullptr) {
        *to.exists_p = 1;
    }
    SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG,
                 "0x%x(%s): Signal on %s (%s,%s/%d) already exists route %p", POSTING_TABLE(signal),
                 mlib::intf_name(signal.ifhandle), POSTING_KEY(signal),
                 static_cast<void *>(signal.route));
}

cerrno add(posting &signal, const add_outputs &to) {
    *to.route_pp = nullptr;
    cerrno rc = mlib::signal::find(signal);
    if (rc != 0) {
        return rc;
    }
    if (signal.route != nullptr && to.is_new_p != nullptr) {
        *to.is_new_p = 0;
    }
    if (signal.intf != nullptr) {
        tell_that_it_exists(signal, to);
        return 0;
    }
    rc = mlib::signal::make(signal, to.is_new_p);
    if (rc == 0) {
        mlib::signal::finish(signal);
        *to.route_pp = signal.route;
    }
    return rc;
}

void report_lock_failure(const posting &signal, cerrno rc, bool unlocking) {
    if (unlocking) {
        SIGNAL_ERR(signal.operation, "Cannot Unlock shmwin_mutex 0x%x(%s): (%s,%s/%d) intf %s: %s",
                   POSTING_TABLE(signal), POSTING_KEY(signal), mlib::intf_name(signal.ifhandle),
                   cerr_strerror(rc));
    } else {
        SIGNAL_ERR(signal.operation, "Cannot lock shmwin_mutex 0x%x(%s): (%s,%s/%d) intf %s: %s",
                   POSTING_TABLE(signal), POSTING_KEY(signal), mlib::intf_name(signal.ifhandle),
                   cerr_strerror(rc));
    }
}

}  // namespace

extern "C" {

cerrno ip6mc_signal_add_mutex(ipv4mc_table_st *table, const ip_maddr_st *source,
                              const ip_maddr_st *group, ifhtype ifhandle,
                              ipv4mc_route_entry_st **route_pp, int *is_new_p, int *exists_p) {
    posting signal{__func__, table, source, group, ifhandle, false};
    const add_outputs to{route_pp, is_new_p, exists_p};
    const cerrno rc = refuse(signal, to);
    return rc != 0 ? rc
                   : mlib::signal::under_mutex(
                         signal, [&] { return add(signal, to); },
                         [&](cerrno code, bool unlocking) {
                             report_lock_failure(signal, code, unlocking);
                         });
}

cerrno ip6mc_signal_add(ipv4mc_table_st *table, const ip_maddr_st *source, const ip_maddr_st *group,
                        ifhtype ifhandle, ipv4mc_route_entry_st **route_pp) {
    posting signal{__func__, table, source, group, ifhandle, false};
    const add_outputs to{route_pp, nullptr, nullptr};
    const cerrno rc = refuse(signal, to);
    return rc != 0 ? rc : add(signal, to);
}

}  // extern "C"
