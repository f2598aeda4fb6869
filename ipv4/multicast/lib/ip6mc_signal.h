// Signals: packets of the data plane that need the control plane's attention.
//
// A signal says that a packet of an (S,G) arrived on an interface where the control plane wants to
// hear of it. A signal route is an ipv4mc_route_entry_st in the `signal_gtrie` of its TID table,
// apart from the table's routes; the interfaces that signalled are its interface entries, and
// `preserved_pak` is the packet kept for the control plane. New signals, and probes of signals that
// are there, go on the list of changed routes.
//
// Thread-safety. `shmwin_mutex` guards all of it, in any process: the packet path of the owner and
// attached clients post and remove signals beside each other. Functions whose name ends in _mutex
// take it themselves, and so do the lookups and walks that say so; the others expect the caller to
// hold it, and to have taken it with ip6mc_shmwin_mutex_lock. A pointer to a signal route or to one
// of its interfaces is good as long as the mutex is held, or as long as nobody else removes
// signals. A process that dies with the mutex held loses the change that it was making, nothing
// else.
//
// Codes of all functions: EBADF when the library is not ready, EINVAL for NULL where a record is
// needed, what a lock or the trie said, EFAULT when the trie failed so that it cannot be trusted
// any more (the library stops then, see ip6mc_lib_init). Sources are never all zero.
#ifndef IP6MC_SIGNAL_H
#define IP6MC_SIGNAL_H

#include "ipv4/multicast/lib/ip6mc_route.h"

// Control code by which the data path is told to free a preserved packet.
#define IPV4MC_DPC_PAK_DROP UINT32_C(0x8004820d)

// Value of `free_pak` that the library knows: preserved packets are freed for good.
#define IPV4MC_FREE_PAK_ALL UINT32_C(2)

// What goes with that control code.
typedef struct ipv4mc_dpc_pak_st {
    uint32_t free_pak;  // of the caller of the removal
    uint32_t reserved;  // zero
    void *pak;          // `preserved_pak` of the route
    uint64_t unused;    // zero
} ipv4mc_dpc_pak_st;
static_assert(sizeof(ipv4mc_dpc_pak_st) == 24 && offsetof(ipv4mc_dpc_pak_st, pak) == 8,
              "read by the data path");

// What `ip6mc_signal_get_total_pkts_preserved` answers when the library is not ready, so that the
// client takes its limit as reached.
#define IPV4MC_PKTS_PRESERVED_NOT_READY UINT32_C(5000)

MFWD6_BEGIN_C

// ---- looking up and walking ---------------------------------------------------------------------

// The signal route of this key into `*route_pp`, NULL when there is none (0 all the same). With an
// `ifhandle` other than 0 also its interface into `*intf_pp`, NULL when the route has not got it;
// with 0 `*intf_pp` is left alone. `intf_pp` may be NULL. Takes the mutex.
MFWD6_EXPORT cerrno ip6mc_signal_lookup(ipv4mc_table_st *table, const ip_maddr_st *source,
                                        const ip_maddr_st *group, ifhtype ifhandle,
                                        ipv4mc_route_entry_st **route_pp,
                                        ipv4mc_intf_entry_st **intf_pp);

// The interface of a signal route into `*intf_pp`; NULL, with a report and 0, when it has not got
// it.
MFWD6_EXPORT cerrno ip6mc_signal_intf_lookup(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                             ifhtype ifhandle, ipv4mc_intf_entry_st **intf_pp);
MFWD6_EXPORT cerrno ip6mc_signal_intf_lookup_mutex(ipv4mc_table_st *table,
                                                   ipv4mc_route_entry_st *route, ifhtype ifhandle,
                                                   ipv4mc_intf_entry_st **intf_pp);

// The signal route of this key; with a source of all zero the first one of the group; with a group
// of all zero as well, the first of the table. NULL when there is none. Takes the mutex.
MFWD6_EXPORT ipv4mc_route_entry_st *ip6mc_signal_first_key(ipv4mc_table_st *table,
                                                           const ip_maddr_st *source,
                                                           const ip_maddr_st *group);

// The signal route behind `route`, or NULL at the end. Takes the mutex.
MFWD6_EXPORT ipv4mc_route_entry_st *ip6mc_signal_next(ipv4mc_table_st *table,
                                                      ipv4mc_route_entry_st *route);

// Called with the mutex held. May remove the route at hand, and may give the mutex up for a while.
typedef cerrno (*ipv4mc_signal_walk_ft)(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                        void *context);

// Calls `function` for each signal route of the table, with the mutex held. With a `yield_count`
// other than 0 the mutex and the processor are given up after so many routes; signals that others
// remove meanwhile are passed over. `ignored` is 0. A failure of `function` ends the walk and is
// the result.
MFWD6_EXPORT cerrno ip6mc_signal_walk(ipv4mc_table_st *table, uint32_t yield_count,
                                      uint32_t ignored, ipv4mc_signal_walk_ft function,
                                      void *context);

// Packets that were ever preserved; no lock. Nothing in the library counts down: who holds the
// limit compares differences.
MFWD6_EXPORT uint32_t ip6mc_signal_get_total_pkts_preserved(void);
MFWD6_EXPORT cerrno ip6mc_signal_incr_total_pkts_preserved(void);

// ---- posting ------------------------------------------------------------------------------------

// Posts a signal: makes the route where it is not there, adds the interface where the route has not
// got it, and puts the route on the list of changed routes. A signal that is there is left as it
// is: 0. `*route_pp` gets the route for a new signal, else NULL. `*is_new_p` 1 for a new route, 0
// for one that was there; `*exists_p` 1 when the interface was there, else left alone; both may be
// NULL. EINVAL also for a source of all zero, ENOMEM. A failure leaves nothing behind.
MFWD6_EXPORT cerrno ip6mc_signal_add_mutex(ipv4mc_table_st *table, const ip_maddr_st *source,
                                           const ip_maddr_st *group, ifhtype ifhandle,
                                           ipv4mc_route_entry_st **route_pp, int *is_new_p,
                                           int *exists_p);
MFWD6_EXPORT cerrno ip6mc_signal_add(ipv4mc_table_st *table, const ip_maddr_st *source,
                                     const ip_maddr_st *group, ifhtype ifhandle,
                                     ipv4mc_route_entry_st **route_pp);

// A probe: is the RPF interface alive? Posts the signal if it is not there, with attribute SP on
// its interface, and puts the route on the list of changed routes in any case. A route without SP
// gets it. Takes the mutex. The group comes before the source, the other way round than everywhere
// else.
MFWD6_EXPORT cerrno ip6mc_signal_rpf_alive(ipv4mc_table_st *table, const ip_maddr_st *group,
                                           ifhtype ifhandle, const ip_maddr_st *source);

// ---- removing: each with the mutex and without
// ---------------------------------------------------

// Removes the interface `*intf_pp` from the route `*route_pp`, and the route with its last one.
// Both pointers are set to NULL for what went away.
MFWD6_EXPORT cerrno ip6mc_signal_remove_signal_route_mutex(ipv4mc_table_st *table,
                                                           ipv4mc_route_entry_st **route_pp,
                                                           ipv4mc_intf_entry_st **intf_pp);
MFWD6_EXPORT cerrno ip6mc_signal_remove_signal_route(ipv4mc_table_st *table,
                                                     ipv4mc_route_entry_st **route_pp,
                                                     ipv4mc_intf_entry_st **intf_pp);

// The same by key. 0 when there is no such signal.
MFWD6_EXPORT cerrno ip6mc_signal_remove_mutex(ipv4mc_table_st *table, const ip_maddr_st *source,
                                              const ip_maddr_st *group, ifhtype ifhandle);
MFWD6_EXPORT cerrno ip6mc_signal_remove(ipv4mc_table_st *table, const ip_maddr_st *source,
                                        const ip_maddr_st *group, ifhtype ifhandle);

// Takes the interfaces off a signal route, newest first, until one is gone: of a route with two,
// one stays. Clients live with that and call until the route is gone. EFAULT for a failed search.
MFWD6_EXPORT cerrno ip6mc_signal_remove_all_mutex(ipv4mc_table_st *table, const ip_maddr_st *source,
                                                  const ip_maddr_st *group);
MFWD6_EXPORT cerrno ip6mc_signal_remove_all(ipv4mc_table_st *table, const ip_maddr_st *source,
                                            const ip_maddr_st *group);

// The same, and before it, with a `free_pak` other than 0, the data path is told to free the packet
// that the route preserved (IPV4MC_DPC_PAK_DROP, with `free_pak`). The mutex is given up around
// that call, also by the form that expects the caller to hold it. Without a connection to the
// interface manager the packet stays.
MFWD6_EXPORT cerrno ip6mc_signal_remove_route_pak_mutex(ipv4mc_table_st *table,
                                                        const ip_maddr_st *source,
                                                        const ip_maddr_st *group,
                                                        mfwd_cmd free_pak);
MFWD6_EXPORT cerrno ip6mc_signal_remove_route_pak(ipv4mc_table_st *table, const ip_maddr_st *source,
                                                  const ip_maddr_st *group, mfwd_cmd free_pak);

// The same for each signal route of the table. Takes the mutex; gives it up after each
// `yield_count` routes.
MFWD6_EXPORT cerrno ip6mc_signal_remove_all_routes(ipv4mc_table_st *table, uint32_t yield_count,
                                                   mfwd_cmd free_pak);

MFWD6_END_C

#endif
