// The keeper: the small process behind `mfwd6d run`. It holds the sockets that must outlive the
// owner and the packet path, starts both, and starts again what dies. It knows nothing of routes.
#ifndef MFWD6_APPS_MFWD6D_KEEPER_KEEPER_H
#define MFWD6_APPS_MFWD6D_KEEPER_KEEPER_H

#include "apps/mfwd6d/options.h"

namespace mfwd6::daemon {

// Runs until it is told to end. The exit code of the process.
int run_keeper(const options &o);

}  // namespace mfwd6::daemon

#endif
