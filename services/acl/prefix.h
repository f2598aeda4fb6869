// Prefixes inside the access list service.
#ifndef MFWD6_SERVICES_ACL_PREFIX_H
#define MFWD6_SERVICES_ACL_PREFIX_H

#include "services/acl/ipv6_acl.h"

namespace mfwd6::acl {

// True if no bit behind the prefix is set and the length is one of an address.
bool is_prefix(const uint8_t (&address)[16], uint32_t length);

}  // namespace mfwd6::acl

#endif
