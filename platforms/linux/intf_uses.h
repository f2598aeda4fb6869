// Uses of mifs by interface entries of routes.
#ifndef MFWD6_PLATFORMS_LINUX_INTF_USES_H
#define MFWD6_PLATFORMS_LINUX_INTF_USES_H

#include "platforms/linux/records.h"

namespace mfwd6::lnx {

// Makes the entry's use of a mif what its attribute word says. With `must_exist` a first use needs
// a link: ENODEV. ENOSPC, EBUSY; nothing is changed then.
cerrno settle_use(table &t, ipv4mc_intf_entry_st &entry, bool must_exist);

// Ends the entry's use.
void end_use(table &t, ipv4mc_intf_entry_st &entry);

}  // namespace mfwd6::lnx

#endif
