// Brings what a platform holds and what the window says into line, for platforms that have no such
// function of their own.
#ifndef MFWD6_APPS_MFWD6D_OWNER_RESYNC_H
#define MFWD6_APPS_MFWD6D_OWNER_RESYNC_H

#include "apps/mfwd6d/owner/outcome.h"
#include "apps/mfwd6d/owner/platform.h"

namespace mfwd6::daemon {

// Lists what the platform holds, takes out what the window has no record of, and commits what is
// missing or different. Owner's operation thread, once after the start.
outcome resynchronise(const platform &p, linux_resync_counts *counts);

}  // namespace mfwd6::daemon

#endif
