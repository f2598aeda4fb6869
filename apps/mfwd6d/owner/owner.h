// The owner process: it has the window, programs the platform, takes commands and answers flows,
// all on one thread.
#ifndef MFWD6_APPS_MFWD6D_OWNER_OWNER_H
#define MFWD6_APPS_MFWD6D_OWNER_OWNER_H

#include "apps/mfwd6d/options.h"

namespace mfwd6::daemon {

// Runs the owner in a process that the keeper has started. The exit code of the process.
int run_owner(const options &o);

}  // namespace mfwd6::daemon

#endif
