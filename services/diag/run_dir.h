// The directory below which diagnostics keep what other processes may read: `trace/` (rings),
// `debug/` (class masks) and `fault/` (armed faults).
#ifndef MFWD6_SERVICES_DIAG_RUN_DIR_H
#define MFWD6_SERVICES_DIAG_RUN_DIR_H

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
// `$XDG_RUNTIME_DIR/mfwd6`, else `/dev/shm/mfwd6-<uid>`: the folder where the windows lie by
// default.
MFWD6_EXPORT const char *diag_run_dir(void);

// The name under which this program's files are found: the program's file name, at most 15
// characters.
MFWD6_EXPORT const char *diag_program(void);

MFWD6_END_C

#endif
