// Event manager: one loop that waits for file descriptors and timers (epoll(7)).
//
// Thread-safety. A manager belongs to the thread that runs it: every call on it or on its timers is
// made on that thread, handlers included, or while no thread runs it. event_manager_stop is the
// exception: any thread and any signal handler may call it.
//
// Timers follow the clock of services/events/ptimer.h, the test clock included: a loop wakes when
// the test clock is advanced past a timer.
#ifndef MFWD6_SERVICES_EVENTS_EVENT_MANAGER_H
#define MFWD6_SERVICES_EVENTS_EVENT_MANAGER_H

#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

typedef struct event_manager event_manager_t;

// Called when `events` (EPOLLIN and its like) came up on `fd`. May watch, change and unwatch any
// fd.
typedef void (*event_fd_fn)(event_manager_t *evm, int fd, uint32_t events, void *context);

// Makes a manager; event_manager_destroy ends it. ENOMEM, or the errno of the kernel's refusal;
// *evm is NULL then.
MFWD6_EXPORT cerrno event_manager_create(event_manager_t **evm);

// Ends a manager with its watches, timer handles and timer leaves; watched descriptors stay open.
// Not from one of its handlers. NULL is allowed.
MFWD6_EXPORT void event_manager_destroy(event_manager_t *evm);

// Waits until something happened or `timeout_ms` is over (-1: no limit, 0: do not wait; always in
// real time) and calls the handlers that are due. *dispatched, if not NULL, receives their number:
// 0 after a timeout. A stop asked for before or meanwhile ends the call and is used up by
// it. EINVAL when called from a handler.
MFWD6_EXPORT cerrno event_manager_run_once(event_manager_t *evm, int timeout_ms,
                                           uint32_t *dispatched);

// Runs until stopped. A stop that was asked for before the call ends it at once. 0 after a stop,
// else the errno of the wait.
MFWD6_EXPORT cerrno event_manager_run(event_manager_t *evm);

// Makes the run under way, or the next one, return. Any thread, and async-signal-safe. The handlers
// that the loop is in the middle of are finished first.
MFWD6_EXPORT void event_manager_stop(event_manager_t *evm);

// Watches `fd` for `events` (EPOLLIN, EPOLLOUT, ...; level-triggered); a second call for the same
// fd changes its events and its handler. The fd stays the caller's: unwatch it before closing it.
// EINVAL, EBADF, EPERM (a regular file), ENOMEM.
MFWD6_EXPORT cerrno event_fd_watch(event_manager_t *evm, int fd, uint32_t events,
                                   event_fd_fn handler, void *context);

// Ends a watch; its handler is not called again, not even for an event already fetched. ENOENT.
MFWD6_EXPORT cerrno event_fd_unwatch(event_manager_t *evm, int fd);

MFWD6_END_C

#endif
