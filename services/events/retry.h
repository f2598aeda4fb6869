// Retry library: calls a function again, on the event manager, until it succeeds. One per process.
//
// Thread-safety: that of the event manager that it was given, see event_manager.h.
#ifndef MFWD6_SERVICES_EVENTS_RETRY_H
#define MFWD6_SERVICES_EVENTS_RETRY_H

#include <stdint.h>

#include "services/events/event_manager.h"

MFWD6_BEGIN_C

// 0 ends the retrying of this entry; anything else asks for another try.
typedef cerrno (*retry_fn)(void *context);

// Starts the library, or gives it new figures (entries that wait keep the time at which they are
// due). The first retry comes `first_s` seconds and `first_ns` nanoseconds after the entry was
// made, each further one after `factor` times the interval before, but never more than `limit_s`
// seconds (0: no limit). After `tries` failed tries (0: no limit) an entry is dropped. EINVAL:
// NULL, a first interval of zero, first_ns of 1000000000 or more, a factor of 0; EBUSY: entries
// wait on another event manager; ENOMEM. Nothing is changed then.
MFWD6_EXPORT cerrno retry_init(event_manager_t *evm, uint32_t first_s, uint32_t first_ns,
                               uint32_t factor, uint32_t limit_s, uint32_t tries);

// Drops all entries and ends the library. The end of the event manager does the same.
MFWD6_EXPORT void retry_terminate(void);

// Adds an entry. The pair of function and context names it: EEXIST if it is there already. EINVAL
// (NULL function), ENODEV (the library was not started), ENOMEM. `fn` may add and cancel entries.
MFWD6_EXPORT cerrno retry_schedule(retry_fn fn, void *context);

// Drops an entry. ENOENT.
MFWD6_EXPORT cerrno retry_cancel(retry_fn fn, void *context);

// Number of entries that wait.
MFWD6_EXPORT uint32_t retry_pending(void);

MFWD6_END_C

#endif
