// The steps that an add and a probe have in common. The window mutex is held.
#ifndef IP6MC_SRC_SIGNAL_POSTING_H
#define IP6MC_SRC_SIGNAL_POSTING_H

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
    bool is_new = false;                     // made here
};

// Whether the source can be one of a signal; reports if not.
cerrno check_source(const posting &signal);

// Fills `route`, NULL when there is none.
cerrno find_route(posting &signal);

// The interface of `route`, which is there, or NULL.
ipv4mc_intf_entry_st *find_intf(const posting &signal);

// Makes what is missing of route and interface, publishes it and puts the route on the list of
// changed routes: all of it, or nothing. `*is_new_p`, if given, is set as soon as a route was made.
cerrno post(posting &signal, int *is_new_p);

}  // namespace mlib::signal

// (%s,%s/%d) of a posting in messages.
#define POSTING_KEY(signal) SIGNAL_KEY_ARGS((signal).source, (signal).group)

#endif
