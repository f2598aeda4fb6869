// Entries for single flows: derived from the route that a flow matches, or held without outputs for
// a flow that none matches. They stand in the ledger, with the key of their route, before they
// stand in the kernel.
#ifndef MFWD6_PLATFORMS_LINUX_FLOWS_H
#define MFWD6_PLATFORMS_LINUX_FLOWS_H

#include "platforms/linux/records.h"

namespace mfwd6::lnx {

// True for a link-local source, whose packets never leave their link. The kernel does not look.
bool never_routed(const ip_maddr_st &source);

// Makes the entry of a flow that comes in by `parent`, derived from `route`, or held with nullptr.
// ENOSPC, the kernel's code.
cerrno make_flow(table &t, const entry_key &key, uint32_t parent, ipv4mc_route_entry_st *route);

// Works the flows of a route out anew, from `route_then`, or with nullptr from what they match now.
void turn_flows_of(table &t, ipv4mc_route_entry_st &route, ipv4mc_route_entry_st *route_then,
                   bool force);

// Takes the flows of a route out; what goes on is reported again.
void end_flows_of(table &t, ipv4mc_route_entry_st &route);

// Gives flows to a new route that were derived from less specific ones, or held.
void adopt_flows(table &t, ipv4mc_route_entry_st &route);

// Looks again whether a route takes the flows that are held.
void turn_held_flows(table &t);

// The kernel's entry of this (S,G) is the route's own from here on.
void give_flow_to_route(table &t, ipv4mc_route_entry_st &route);

// Works one flow out anew from what it matches. True when the kernel had to be told.
bool turn_flow(table &t, uint32_t slot, bool force);

// A flow that comes in by another interface now. False when its route does not accept from there.
bool move_flow(table &t, uint32_t slot, uint32_t arrival);

// Takes the entry out of the kernel and the ledger.
void end_flow(table &t, uint32_t slot);

// Packets and bytes that flows counted for the route.
counters counted_by_flows(int fd, uint32_t kernel_table, ipv4mc_route_entry_st &route);

}  // namespace mfwd6::lnx

#endif
