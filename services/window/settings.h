// What setup.h was told, for the rest of the window service. Private to it.
#ifndef MFWD6_SERVICES_WINDOW_SETTINGS_H
#define MFWD6_SERVICES_WINDOW_SETTINGS_H

#include <cstddef>
#include <cstdint>

#include "services/window/setup.h"

namespace mfwd6::window {

inline constexpr uint32_t no_group = ~uint32_t{0};

// Whether `name` can name a window: 1 to 15 characters, no '/', not hidden.
bool good_name(const char *name);

uint64_t fingerprint_of(const char *name);
uint32_t configured_group();
uint64_t wait_limit_ns();

inline constexpr size_t path_bytes = 201;

// Where a window's file is to be made, or else looked for: writes folder `number`, counted from 0;
// false past the last. Only who attaches and was told no folder looks in more than one.
bool run_dir_to_try(uint32_t number, bool make, char (&path)[path_bytes]);

// Opens such a folder; a descriptor, or -1 with the code in *why. `make`: create it if it is
// missing.
int open_dir(const char *path, bool make, cerrno *why);

}  // namespace mfwd6::window

#endif
