// What the files of this folder ask of one another.
#ifndef MFWD6_SERVICES_DIAG_INSIDE_H
#define MFWD6_SERVICES_DIAG_INSIDE_H

#include "services/diag/trace.h"

namespace mfwd6::diag {

// The next record of each kind opens a new ring under the present run dir.
void traces_leave_run_dir();

// Maps the class mask of the present run dir, if a mask was mapped.
void debug_follow_run_dir();

// The ring of debug lines.
ltrace_handle *debug_ltrace();

// The event manager given to ipv4_mlib_debug_init.
void *debug_event_manager();

}  // namespace mfwd6::diag

#endif
