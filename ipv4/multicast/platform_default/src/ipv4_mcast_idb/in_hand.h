// The record that is being made or destroyed, and is in no tree, or only in some: noted in the
// window, so that the next owner can end it when its process was killed meanwhile.
#ifndef IP6MC_SRC_IPV4_MCAST_IDB_IN_HAND_H
#define IP6MC_SRC_IPV4_MCAST_IDB_IN_HAND_H

#include "ipv4/multicast/lib/ip6mc_idb.h"

namespace mlib {

// Both belong to the change (the journal group) that takes the record out of, or into, the global
// tree. The second does nothing for a record that is not the one in hand.
void take_idb_in_hand(ipv4mc_idb_st *idb);
void put_idb_out_of_hand(const ipv4mc_idb_st *idb);

// Takes a record out of whatever tree it is in, and frees it. For an owner's start: the platform is
// not told.
void end_idb_record(ipv4mc_idb_st *idb);

}  // namespace mlib

#endif
