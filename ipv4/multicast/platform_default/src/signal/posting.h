// The steps that an add and a probe have in common. The window mutex is held where nothing else is
// said.
#ifndef IP6MC_SRC_SIGNAL_POSTING_H
#define IP6MC_SRC_SIGNAL_POSTING_H

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/signal/signal_room.h"

namespace mlib::signal {

// A signal on its way into the table.
struct posting {
    const char *operation;  // the entry point
    ipv4mc_table_st *table;
    const ip_maddr_st *source;
    const ip_maddr_st *group;
    ifhtype ifhandle;
    bool probe;                              // of ip6mc_signal_rpf_alive
    ipv4mc_route_entry_st *route = nullptr;  // found or made
    ipv4mc_intf_entry_st *intf = nullptr;    // of the route: found or made
    bool is_new = false;                     // the route was made here
    bool posted = false;                     // the interface was made here
};

// Whether the library can take the signal; reports if not. Without the mutex.
cerrno begin(const posting &signal);

// Whether the source can be one of a signal; reports if not. Without the mutex.
cerrno check_source(const posting &signal);

// Fills `route` and `intf`, NULL for what there is not.
cerrno find(posting &signal);

// Makes what is missing of route and interface, publishes it and puts the route on the list of
// changed routes: all of it, or nothing. `*is_new_p`, if given, is set as soon as a route was made.
// `finish` must follow when the change has been committed.
cerrno make(posting &signal, int *is_new_p);

// Wakes the reader of changed routes if that is due, and says what was posted. No change is open:
// the reader's mutex is not to be asked for with `tbl_rw_lock` held.
void finish(const posting &signal);

// Runs `work` under the mutex, which is not held yet. `report(code, unlocking)` tells of a failure
// to lock, which is the result then, or to unlock, which is not.
template <class Work, class Report>
cerrno under_mutex(const posting &signal, Work work, Report report) {
    cerrno rc = ip6mc_shmwin_mutex_lock(signal.operation, __LINE__);
    if (rc != 0) {
        report(rc, false);
        return rc;
    }
    rc = work();
    const cerrno unlocked = ip6mc_shmwin_mutex_unlock();
    if (unlocked != 0) {
        report(unlocked, true);
    }
    return rc;
}

}  // namespace mlib::signal

// 0x%x(%s) and (%s,%s/%d) of a posting in messages.
#define POSTING_TABLE(signal) SIGNAL_TABLE_ARGS((signal).table)
#define POSTING_KEY(signal) SIGNAL_KEY_ARGS((signal).source, (signal).group)

#endif
