// Signals: packets of the data plane that need the control plane's attention.
//
// A signal route is an ipv4mc_route_entry_st in its table's `signal_gtrie`; `preserved_pak` is the
// packet kept for the control plane. The window mutex guards all of it: functions whose name ends
// in _mutex take it themselves, the others expect the caller to hold it.
#ifndef IP6MC_SIGNAL_H
#define IP6MC_SIGNAL_H

#include "ipv4/multicast/lib/ip6mc_route.h"

// Control code by which the data path is told to drop a preserved packet.
#define IPV4MC_DPC_PAK_DROP UINT32_C(0x8004820d)

MFWD6_BEGIN_C

// Removes every signal route of the table. Not built yet for a table that has some.
MFWD6_EXPORT cerrno ip6mc_signal_remove_all_routes(ipv4mc_table_st *table, uint32_t yield_count,
                                                   mfwd_cmd free_pak);

MFWD6_END_C

#endif
