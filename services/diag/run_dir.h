// The directory below which diagnostics keep what other processes may read: `trace/` (rings),
// `debug/` (class masks) and `fault/` (armed faults).
#ifndef MFWD6_SERVICES_DIAG_RUN_DIR_H
#define MFWD6_SERVICES_DIAG_RUN_DIR_H

#include <stddef.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

// Sets the directory; it is made when first needed. Meant to be called once, before the first
// trace: rings that are open already are left as they are (mapped until exit), and new ones begin
// under the new directory. The class mask follows at once; faults registered before stay where they
// are. EINVAL for an empty path or one of 200 characters or more. Not beside another call of
// itself.
MFWD6_EXPORT cerrno diag_set_run_dir(const char *path);

// The directory in use: the one set, else `/run/mfwd6` if this user may use it, else
// `$XDG_RUNTIME_DIR/mfwd6`, else `/dev/shm/mfwd6-<uid>`. "May use" means: it is there or can be
// made, belongs to this user or root, is writable for this user and not for everybody. Chosen at
// the first call and kept. The windows lie in it too.
MFWD6_EXPORT const char *diag_run_dir(void);

// Where the directory may be if none was set, best first. Writes place `number` (from 0 to
// DIAG_RUN_DIRS - 1) to `path`; 0 when this user has none of that number, or `size` is too small.
// For whoever looks for what another process left; whoever makes something uses diag_run_dir.
#define DIAG_RUN_DIRS 3U
MFWD6_EXPORT int diag_default_run_dir(unsigned number, char *path, size_t size);

// The name under which this program's files are found: the program's file name, at most 15
// characters.
MFWD6_EXPORT const char *diag_program(void);

MFWD6_END_C

#endif
