// What a start of the library, and the table operation, call in the other rooms of the library.
#ifndef IP6MC_SRC_SETUP_H
#define IP6MC_SRC_SETUP_H

#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/lib/ip6mc_types.h"

// ip_mcast_idb_pppoe: the pending database of the process.
void ipmc_idb_pppoe_parent_db_init(void);
void ipmc_idb_pppoe_parent_db_terminate(void);

// ipv4_mcast_encap: trie of encaps and tree of transports.
cerrno ipmc_init_encap_regdb(void);

// ipv4_mcast_bvi_table: gives back the root of a table's L2 states, which are gone by then.
void ipmc_bvi_db_release(ipv4mc_table_st *table);

// ip_mcast_route: the wake-up of the reader of changed routes, in a new window.
void ipmc_changed_routes_init(ipv4mc_shmwin_hdr_st *hdr);

// ip_mcast_svd
void ipmc_svd_extract_plist(ipv4mc_table_st *table);

// ipv4_mcast_idb
typedef struct ipmc_idb_ifcount_walk_st {
    uint32_t mdt_present;
    uint32_t count;
} ipmc_idb_ifcount_walk_st;
int ipmc_idb_local_ifcount_walk_fn(void *node, void *context);
void ipmc_idb_link_vrf(rsi_vrf_id_t vrf_id, ipv4mc_table_st *table, int link);

extern "C" {
int ip6mc_idb_is_local(ifhtype ifh);
}

namespace mlib {

// Owner: takes the interface that a killed process was making or destroying out of whatever tree it
// is in, and frees it.
void end_idb_in_hand();

// Owner: ends the routes that were made and not committed, with the interfaces that had joined
// them: of a table that goes, and of all tables at a start, when their maker is dead. The platform
// is not told: routes that were never committed are nothing to it, and behind a start it is
// compared with the window.
void end_unfinished_routes(ipv4mc_table_st *table);
void end_all_unfinished_routes();

// Tells the client of the present state and the one before.
void tell_client_of_state();

// The two halves of ip6mc_mark_route_changed, for a change that holds locks until it commits: the
// route goes on the list within the change, the reader is woken behind it.
cerrno list_changed_route(ipv4mc_route_entry_st *route);
void wake_changed_route_reader();

// Gives the search key of this process back to the window, if it has one.
void drop_table_search();

// One number for the layout of all records in the window: processes whose numbers differ refuse
// each other's window.
uint64_t layout_fingerprint();

}  // namespace mlib

#endif
