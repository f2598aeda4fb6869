// All locks of the system, in one include.
#ifndef MFWD6_SERVICES_LOCKS_LOCKS_H
#define MFWD6_SERVICES_LOCKS_LOCKS_H

#include "services/locks/pak_client.h"
#include "services/locks/rrw_lock.h"
#ifdef __cplusplus
#include "services/locks/robust_mutex.h"
#endif

#endif
