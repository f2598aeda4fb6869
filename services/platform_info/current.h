// Inside of the platform information: the values that stand now.
#ifndef MFWD6_SERVICES_PLATFORM_INFO_CURRENT_H
#define MFWD6_SERVICES_PLATFORM_INFO_CURRENT_H

#include "services/platform_info/platform_info.h"

namespace mfwd6::platform_info {

extern constinit platform_info_t current;

}  // namespace mfwd6::platform_info

#endif
