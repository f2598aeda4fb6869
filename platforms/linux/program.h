// Entries of the kernel for routes: what should stand there, and bringing it there.
#ifndef MFWD6_PLATFORMS_LINUX_PROGRAM_H
#define MFWD6_PLATFORMS_LINUX_PROGRAM_H

#include "platforms/linux/records.h"

namespace mfwd6::lnx {

// What a route says about packets to one group, in mifs.
struct legs {
    mif_set accepts;  // its own, and its parent's when it inherits
    mif_set outputs;
    mif_set negates;      // turn the route's signal round
    mif_set own_accepts;  // without those of the parent, whatever the group
    bool local_copy;
};

legs legs_of(const table &t, ipv4mc_route_entry_st &route, const ip_maddr_st &group);

// While one lives, this interface entry, which is about to leave its route, counts as gone.
class leaving_entry {
  public:
    explicit leaving_entry(const ipv4mc_intf_entry_st *entry);
    ~leaving_entry();
    leaving_entry(const leaving_entry &) = delete;
    leaving_entry &operator=(const leaving_entry &) = delete;
};

// Outputs of an entry for the route with packets from `parent`, the register interface included
// when they are to be signalled.
mif_set outputs_of(const table &t, const ipv4mc_route_entry_st &route, const legs &l,
                   uint32_t parent);
bool signals_from(const ipv4mc_route_entry_st &route, const legs &l, uint32_t parent);

// Brings the kernel's own entry of a committed route to what the record says, and what hangs on
// it: flows that were derived from it, routes that inherit from it. With `force` the kernel is told
// even when it should know. On failure the entry is as it was.
cerrno program_route(table &t, ipv4mc_route_entry_st &route, bool force);

// Takes the route's own entry out, and turns its flows to what they match then.
cerrno unprogram_route(table &t, ipv4mc_route_entry_st &route);

// Empties what the kernel has for the route; its flows end.
cerrno clear_route(table &t, ipv4mc_route_entry_st &route);

// Programs each route of the table, and each flow, anew. A mif of no_mif: all; else those that
// name it.
void reprogram_table(table &t, uint32_t mif);

// The same for all tables, when a setting has changed that all routes depend on. Before resync
// nothing is done: it comes to all of them.
void reprogram_all();

// Counts an entry that an earlier owner left as one of the table's.
void recall_entry(table &t, ipv4mc_route_entry_st &route);

// Reads what an entry has counted, 0 when it is not there.
counters counted(const table &t, const entry_key &key);

// Marks mifs that an entry named while their interface was not there.
void mark_lacking(const table &t, mif_set named);

}  // namespace mfwd6::lnx

#endif
