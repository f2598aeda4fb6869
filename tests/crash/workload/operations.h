// Operations of the library on the things of the small world, and what the library's caller does
// around them.
#ifndef MFWD6_TESTS_CRASH_WORKLOAD_OPERATIONS_H
#define MFWD6_TESTS_CRASH_WORKLOAD_OPERATIONS_H

#include "tests/crash/universe.h"

namespace crash {

cerrno operate(ipv4mc_action_type action, ipv4mc_table_st *table, const route_key &k,
               ipv4mc_route_entry_st **route, int *is_new, uint64_t old = 0);

// On an ordinary interface, by its number.
cerrno operate_intf(ipv4mc_action_type action, ipv4mc_route_entry_st *route, uint32_t interface,
                    ipv4mc_intf_entry_st **entry, int is_new, uint64_t old = 0);

// CREATE and COMMIT of a new entry; nothing where the route has it.
cerrno join(ipv4mc_route_entry_st *route, uint32_t interface, uint64_t word);

// Sets or clears one of `mark_bits` of a committed entry, with the counts that its caller keeps
// (EG, COUNTED), and programs it.
void set_mark(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry, uint64_t mark, bool on);

// DELETE of an entry, without its marks first: the operation on one interface leaves counts to its
// caller.
cerrno leave(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st **entry);

// An encap, where there is none of this id.
void make_encap(uint32_t id, uint8_t ip_lkp_ctl);
// The end of one that has no routes.
void end_encap(ipv4mc_encap_entry_st *encap);

constexpr uint32_t most_encaps = 4;

// Interfaces of all kinds, and a bundle, that no route of the small world has.
constexpr ifhtype first_other_ifh = 0x201;
constexpr uint32_t other_interfaces = 10;
constexpr ifhtype bundle_ifh = first_other_ifh + other_interfaces;

// Members of a bundle, made and taken away at once.
void give_members(ipv4mc_idb_st *bundle);
void take_members(ipv4mc_idb_st *bundle);

}  // namespace crash

#endif
