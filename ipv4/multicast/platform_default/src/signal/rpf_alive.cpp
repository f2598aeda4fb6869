// Probes of the RPF interface.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "ipv4/multicast/platform_default/src/signal/posting.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;
using mlib::signal::posting;

// The one text serves the failures of the unlock too.
void report_lock_failure(const posting &signal, cerrno rc) {
    SIGNAL_ERR(signal.operation,
               "Cannot lock shmwin_mutex in signal_rpf_alive 0x%x(%s): (%s,%s/%d) Intf %s: %s",
               POSTING_TABLE(signal), POSTING_KEY(signal), mlib::intf_name(signal.ifhandle),
               cerr_strerror(rc));
}

// The route's word has the bit of the interface's, whatever that bit says on other routes.
bool has_signal_present(const ipv4mc_route_entry_st *route) {
    return (route->attributes & MRIB_INTF_SP) != 0;
}

void post_flag(const posting &signal) {
    SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG,
                 "0x%x(%s): Signal route exits without SP, Posting SP flag on %s (%s,%s/%d), route "
                 "%p",
                 POSTING_TABLE(signal), mlib::intf_name(signal.ifhandle), POSTING_KEY(signal),
                 static_cast<void *>(signal.route));
    store(signal.route->attributes, signal.route->attributes | MRIB_INTF_SP);
    store(signal.intf->attributes, signal.intf->attributes | MRIB_INTF_SP);
}

cerrno probe_existing(posting &signal) {
    SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG, "Signal route exists 0x%x(%s): (%s,%s/%d)",
                 POSTING_TABLE(signal), POSTING_KEY(signal));
    const group change;
    if (signal.intf != nullptr) {
        SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG,
                     "Signal route exists 0x%x(%s): (%s,%s/%d) with probed interface %s(%s)",
                     POSTING_TABLE(signal), POSTING_KEY(signal), mlib::intf_name(signal.ifhandle),
                     (signal.intf->attributes & MRIB_INTF_SP) != 0 ? "SP" : "no SP");
        mlib::list_changed_route(signal.route);
    } else {
        const cerrno rc = mlib::signal::make(signal, nullptr);
        if (rc != 0) {
            return rc;
        }
    }
    if (!has_signal_present(signal.route)) {
        post_flag(signal);
    }
    return 0;
}

cerrno probe(posting &signal) {
    cerrno rc = mlib::signal::find(signal);
    if (rc != 0) {
        return rc;
    }
    rc = signal.route != nullptr ? probe_existing(signal) : mlib::signal::make(signal, nullptr);
    if (rc == 0) {
        mlib::signal::finish(signal);
    }
    return rc;
}

}  // namespace

extern "C" cerrno ip6mc_signal_rpf_alive(ipv4mc_table_st *table, const ip_maddr_st *group_address,
                                         ifhtype ifhandle, const ip_maddr_st *source) {
    posting signal{__func__, table, source, group_address, ifhandle, true};
    cerrno rc = mlib::signal::begin(signal);
    rc = rc != 0 ? rc : mlib::signal::check_source(signal);
    return rc != 0 ? rc
                   : mlib::signal::under_mutex(
                         signal, [&] { return probe(signal); },
                         [&](cerrno code, bool) { report_lock_failure(signal, code); });
}
