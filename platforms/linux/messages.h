// What the platform tells the operator: each thing once in a while, through the message catalogue.
#ifndef MFWD6_PLATFORMS_LINUX_MESSAGES_H
#define MFWD6_PLATFORMS_LINUX_MESSAGES_H

#include <cstdint>

namespace mfwd6::lnx {

void tell_interfaces_full(uint32_t tid);
void tell_neighbours_short(uint64_t wanted, uint64_t limit);
void tell_ttl_not_enforced(const char *interface_name, uint32_t ttl);
void tell_no_room(uint32_t route_bytes, uint32_t intf_bytes);

}  // namespace mfwd6::lnx

#endif
