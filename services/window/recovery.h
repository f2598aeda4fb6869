// What a dead process left, and the throwing away of everything. Private to the window service.
#ifndef MFWD6_SERVICES_WINDOW_RECOVERY_H
#define MFWD6_SERVICES_WINDOW_RECOVERY_H

#include "services/window/window_table.h"

namespace mfwd6::window {

// Fills the parts of `w` by which its dead are recovered; `w` is mapped.
void prepare_recovery(open_window &w);

// Tells the journal how blocks are freed and what may be undone. Once per process.
void install_block_hooks();

// The logs are as `journal::format` made them, whoever wrote to them since.
bool logs_plausible(const open_window &w);

// Brings to rest whatever any dead process holds. False: something cannot be undone.
bool recover_all_dead(open_window &w);

// Empties header, heap and logs; the state is `resetting` on entry and on return. May be killed and
// repeated.
void wipe(open_window &w);

// As `wipe`, for a reset that was cut short: nothing of before is run back.
void forget_logs_of_dead(open_window &w);

void set_state(open_window &w, life state);

}  // namespace mfwd6::window

#endif
