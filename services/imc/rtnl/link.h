// What a link message of the kernel says (rtnetlink(7), struct ifinfomsg).
#ifndef MFWD6_SERVICES_IMC_RTNL_LINK_H
#define MFWD6_SERVICES_IMC_RTNL_LINK_H

#include <libmnl/libmnl.h>

#include <cstdint>

namespace mfwd6::imc_rtnl {

struct link {
    uint32_t index;
    uint16_t hardware;  // ARPHRD_*
    const char *name;   // in the message; NULL if it tells none
    const char *kind;   // in the message; "" for a link without one
    uint32_t below;     // index of the link below in the same namespace, or 0
};

// False when the message is not one about a link, or is cut short.
bool read_link(const nlmsghdr *message, link *out);

// The interface type of a link, as far as the link alone tells.
uint16_t type_of(const link &l);

}  // namespace mfwd6::imc_rtnl

#endif
