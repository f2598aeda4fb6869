// The packet client mutex, and the marker for code that must not be cancelled while it waits for a
// mutex.
#ifndef MFWD6_SERVICES_LOCKS_PAK_CLIENT_H
#define MFWD6_SERVICES_LOCKS_PAK_CLIENT_H

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

// One mutex for all processes of a window, recursive and robust: when its holder dies, that process
// is recovered and the next waiter takes it. Waits without limit. Before a window is bound, and
// after it is closed, the mutex is the process's own. 0; EBADF (9) when the window is closed in
// this process (the child of a fork).
MFWD6_EXPORT cerrno pak_client_mutex_lock(void);

// Gives up one hold. 0; EPERM (1) when the calling thread holds none.
MFWD6_EXPORT cerrno pak_client_mutex_unlock(void);

// How often the mutex was left behind by a holder that died.
MFWD6_EXPORT uint32_t pak_client_mutex_deaths(void);

// Bracket a wait for a mutex, and what is done under it, on a thread that could be cancelled:
// between them pthread_cancel(3) stays pending. They nest; the state before the first is put back
// by the last. An unset without a set does nothing.
MFWD6_EXPORT void ptd_set_mutex_block(void);
MFWD6_EXPORT void ptd_unset_mutex_block(void);

MFWD6_END_C

#ifdef __cplusplus
#include "services/locks/robust_mutex.h"

namespace mfwd6::locks {

// The window service calls it with the mutex in its superblock when a window is opened (after
// `peers::env_add`), and with null before it is closed (before `peers::env_remove`).
MFWD6_EXPORT void pak_client_mutex_bind(robust_mutex *m);

}  // namespace mfwd6::locks
#endif

#endif
