// Timers of an event manager. A handle names a handler; each leaf of it is one timer that calls it.
//
// Thread-safety: that of the event manager, see event_manager.h.
#ifndef MFWD6_SERVICES_EVENTS_TIMER_H
#define MFWD6_SERVICES_EVENTS_TIMER_H

#include <stdint.h>
#include <time.h>

#include "services/events/event_manager.h"

MFWD6_BEGIN_C

typedef struct mgd_timer_leaf mgd_timer_leaf_t;

// `context` is that of the handle, unless the leaf has one of its own. A one-shot leaf does not run
// any more when its handler is called; the handler may start it again, or free it.
typedef void (*event_timer_fn)(mgd_timer_leaf_t *leaf, void *context);

#define EVENT_TIMER_ONE_SHOT 1U  // a leaf fires once for each start
#define EVENT_TIMER_PERIODIC \
    2U  // a leaf starts itself again, by its period, before its handler runs

// No handle: event_timer_attach failed.
#define EVENT_TIMER_INVALID 0xFFFFFFFFU

// Adds a handler. Gives its handle, or EVENT_TIMER_INVALID with errno set: EINVAL (NULL, another
// mode), ENOMEM.
MFWD6_EXPORT uint32_t event_timer_attach(event_manager_t *evm, uint32_t mode,
                                         event_timer_fn handler, void *context);

// Makes a stopped timer of a handle. `context` replaces the handle's unless it is NULL. NULL with
// errno set: EINVAL (no such handle), ENOMEM. Ended by event_timer_leaf_free or with the manager.
MFWD6_EXPORT mgd_timer_leaf_t *event_timer_leaf_new(event_manager_t *evm, uint32_t handle,
                                                    void *context);

// Stops and frees a leaf. NULL is allowed.
MFWD6_EXPORT void event_timer_leaf_free(mgd_timer_leaf_t *leaf);

// 1 from start to stop, or to the call of a one-shot handler; else 0, also for NULL.
MFWD6_EXPORT int mgd_timer_leaf_running(const mgd_timer_leaf_t *leaf);

// Starts the timer, or starts it anew, to fire `period` from now. EINVAL: NULL, a period that is
// negative or has nanoseconds out of range, a periodic leaf with a period of zero; ENOMEM. On
// failure the leaf is as before.
MFWD6_EXPORT cerrno mgd_timer_leaf_start(mgd_timer_leaf_t *leaf, const struct timespec *period);

// Stops the timer; its handler is not called any more. No effect on a stopped one or NULL.
MFWD6_EXPORT void mgd_timer_leaf_stop(mgd_timer_leaf_t *leaf);

MFWD6_END_C

#endif
