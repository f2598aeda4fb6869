// Probes of the RPF interface.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/signal/posting.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;
using mlib::signal::posting;

cerrno refuse(const posting &signal) {
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
    return mlib::signal::check_source(signal);
}

// The one text serves the failures of the unlock too.
void report_lock_failure(const posting &signal, cerrno rc) {
    SIGNAL_ERR(signal.operation,
               "Cannot lock shmwin_mutex in signal_rpf_alive 0x%x(%s): (%s,%s/%d) Intf %s: %s",
               SIGNAL_TABLE_ARGS(signal.table), POSTING_KEY(signal),
               mlib::intf_name(signal.ifhandle), cerr_strerror(rc));
}

// The route's word has the bit of the interface's, whatever that bit says on other routes.
bool has_signal_present(const ipv4mc_route_entry_st *route) {
    return (route->attributes & MRIB_INTF_SP) != 0;
}

void post_flag(const posting &signal, ipv4mc_intf_entry_st *intf) {
    SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG,
                 "0x%x(%s): Signal route exits without SP, Posting SP flag on %s (%s,%s/%d), route "
                 "%p",
                 SIGNAL_TABLE_ARGS(signal.table), mlib::intf_name(signal.ifhandle),
                 POSTING_KEY(signal), static_cast<void *>(signal.route));
    store(signal.route->attributes, signal.route->attributes | MRIB_INTF_SP);
    store(intf->attributes, intf->attributes | MRIB_INTF_SP);
}

cerrno probe_existing(posting &signal) {
    SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG, "Signal route exists 0x%x(%s): (%s,%s/%d)",
                 SIGNAL_TABLE_ARGS(signal.table), POSTING_KEY(signal));
    const group change;
    ipv4mc_intf_entry_st *intf = mlib::signal::find_intf(signal);
    if (intf != nullptr) {
        SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG,
                     "Signal route exists 0x%x(%s): (%s,%s/%d) with probed interface %s(%s)",
                     SIGNAL_TABLE_ARGS(signal.table), POSTING_KEY(signal),
                     mlib::intf_name(signal.ifhandle),
                     (intf->attributes & MRIB_INTF_SP) != 0 ? "SP" : "no SP");
        ip6mc_mark_route_changed(signal.route);
    } else {
        const cerrno rc = mlib::signal::post(signal, nullptr);
        if (rc != 0) {
            return rc;
        }
        intf = mlib::signal::find_intf(signal);
    }
    if (!has_signal_present(signal.route)) {
        post_flag(signal, intf);
    }
    return 0;
}

cerrno probe(posting &signal) {
    cerrno rc = mlib::signal::find_route(signal);
    if (rc != 0) {
        return rc;
    }
    const bool is_there = signal.route != nullptr;
    const bool has_intf = is_there && mlib::signal::find_intf(signal) != nullptr;
    rc = is_there ? probe_existing(signal) : mlib::signal::post(signal, nullptr);
    if (rc == 0 && !has_intf) {
        SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG, "0x%x(%s): Signaled %s (%s,%s/%d) route %p",
                     SIGNAL_TABLE_ARGS(signal.table), mlib::intf_name(signal.ifhandle),
                     POSTING_KEY(signal), static_cast<void *>(signal.route));
    }
    return rc;
}

}  // namespace

extern "C" cerrno ip6mc_signal_rpf_alive(ipv4mc_table_st *table, const ip_maddr_st *group_address,
                                         ifhtype ifhandle, const ip_maddr_st *source) {
    posting signal{__func__, table, source, group_address, ifhandle, true};
    cerrno rc = refuse(signal);
    if (rc != 0) {
        return rc;
    }
    rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        report_lock_failure(signal, rc);
        return rc;
    }
    rc = probe(signal);
    const cerrno unlocked = ip6mc_shmwin_mutex_unlock();
    if (unlocked != 0) {
        report_lock_failure(signal, unlocked);
    }
    return rc;
}
