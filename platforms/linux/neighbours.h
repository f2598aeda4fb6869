// The kernel's neighbour table, in which each group takes an entry on each device that it leaves
// by.
#ifndef MFWD6_PLATFORMS_LINUX_NEIGHBOURS_H
#define MFWD6_PLATFORMS_LINUX_NEIGHBOURS_H

namespace mfwd6::lnx {

// Counts groups and devices exactly, and asks the kernel for its limit. Time by the number of
// entries, when there could be more than the limit allows.
void count_neighbours();

// Does that now and then, and tells the operator when the limit is too low.
void watch_neighbours();

}  // namespace mfwd6::lnx

#endif
