// What setup.h was told, for the rest of the window service. Private to it.
#ifndef MFWD6_SERVICES_WINDOW_SETTINGS_H
#define MFWD6_SERVICES_WINDOW_SETTINGS_H

#include <cstdint>

#include "services/window/setup.h"

namespace mfwd6::window {

inline constexpr uint32_t no_group = ~uint32_t{0};

// Whether `name` can name a window: 1 to 15 characters, no '/', not hidden.
bool good_name(const char *name);

uint64_t fingerprint_of(const char *name);
uint32_t configured_group();
uint64_t wait_limit_ns();

// Opens the run dir; a descriptor, or -1 with the code in *why. `make`: create it if it is missing.
int open_run_dir(bool make, cerrno *why);

}  // namespace mfwd6::window

#endif
