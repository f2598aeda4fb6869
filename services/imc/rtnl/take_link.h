// Link messages on their way into a context.
#ifndef MFWD6_SERVICES_IMC_RTNL_TAKE_LINK_H
#define MFWD6_SERVICES_IMC_RTNL_TAKE_LINK_H

#include "services/imc/imc.h"

struct nlmsghdr;

namespace mfwd6::imc_rtnl {

// Adds, changes or removes the link that the message is about; other messages are passed over.
// Fails as imc_backend_put.
cerrno take_link(imc_context_t *context, const nlmsghdr *message);

}  // namespace mfwd6::imc_rtnl

#endif
