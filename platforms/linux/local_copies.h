// Copies for this node itself: the kernel hands packets of a group to the node's sockets when the
// node is a member of the group on the interface that they come in by. The table's socket holds
// these memberships, so they outlive the owner where the socket does.
#ifndef MFWD6_PLATFORMS_LINUX_LOCAL_COPIES_H
#define MFWD6_PLATFORMS_LINUX_LOCAL_COPIES_H

#include "platforms/linux/tables.h"

namespace mfwd6::lnx {

// Makes the holder, whose word `*mif_plus_1` is, a holder of the membership on `mif`, or of none
// with no_mif. Several holders share a membership; the last one ends it.
void set_local_copy(const table &t, const ip_maddr_st &group, uint8_t *mif_plus_1, uint32_t mif);

// Counts a holder of an earlier run.
void recall_local_copy(const table &t, const ip_maddr_st &group, uint8_t mif_plus_1);

// Takes up the memberships on a mif again whose link has gone and come back.
void renew_local_copies(const table &t, uint32_t mif);

// Forgets those of a table that ends; and all.
void forget_local_copies_of(const table &t);
void forget_local_copies();

}  // namespace mfwd6::lnx

#endif
