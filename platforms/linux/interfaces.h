// What programs said about interfaces: table, boundary, threshold. Process memory of the owner; the
// program says it again after a restart.
#ifndef MFWD6_PLATFORMS_LINUX_INTERFACES_H
#define MFWD6_PLATFORMS_LINUX_INTERFACES_H

#include "platforms/linux/kernel.h"
#include "platforms/linux/ledger.h"
#include "platforms/linux/linux.h"
#include "services/acl/ipv6_acl.h"

namespace mfwd6::lnx {

struct interface {
    uint32_t ifh;
    uint32_t set_tid;      // linux_set_interface_table
    uint32_t enabled_tid;  // table it was enabled in
    uint32_t taken_tid;    // table in which it holds a mif for that, 0: none
    uint8_t ttl;
    linux_prefix *prefixes;  // of its boundary
    uint32_t prefix_count;
    ipv6_acl_handle_t boundary_acl;
    char name[link_name_bytes];
};

// The interface of a handle; nullptr when nothing was said about it, or, to make it, when there is
// no memory.
interface *find_interface(uint32_t ifh);
interface *make_interface(uint32_t ifh);
void forget_interface(uint32_t ifh);
void forget_interfaces();

// All of them, `n` from 0; nullptr at the end.
interface *interface_at(uint32_t n);

// True when any interface has a boundary: without one nobody need ask.
bool boundaries_set();

// EINVAL, ENOMEM: nothing changed.
cerrno set_prefixes(interface &i, const linux_prefix *prefixes, uint32_t count);
void set_boundary_acl(interface &i, ipv6_acl_handle_t acl);

// True when packets of the group neither come in nor go out here.
bool inside_boundary(uint32_t ifh, const ip_maddr_st &group);

// Writes the prefixes of all interfaces into the ledger, for other processes; and what they ask.
void publish_boundaries();
bool inside_published_boundary(uint32_t ifh, const ip_maddr_st &group);

// True when `address` is in the prefix.
bool in_prefix(const ip_maddr_st &address, const ip_maddr_st &prefix, uint32_t length);

}  // namespace mfwd6::lnx

#endif
