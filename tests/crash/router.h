// The router around an owner: what its interfaces are, and who frees its packets.
#ifndef MFWD6_TESTS_CRASH_ROUTER_H
#define MFWD6_TESTS_CRASH_ROUTER_H

#include "services/imc/imc.h"

namespace crash {

// An interface manager that knows interfaces of all kinds (workload/operations.h), with a data
// path. Of this process, once in it; gives up when it cannot be had.
imc_context_t *interface_manager();

}  // namespace crash

#endif
