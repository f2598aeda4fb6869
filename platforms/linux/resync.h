// The kernel against the window.
#ifndef MFWD6_PLATFORMS_LINUX_RESYNC_H
#define MFWD6_PLATFORMS_LINUX_RESYNC_H

#include "platforms/linux/linux.h"

namespace mfwd6::lnx {

cerrno resync(linux_resync_counts *counts);

// Goes on with the search for strays that resync left for later. Bounded work.
void search_strays();

}  // namespace mfwd6::lnx

#endif
