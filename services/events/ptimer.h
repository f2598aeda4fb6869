// The clock that everything timed goes by, and passive timers.
//
// The clock is CLOCK_MONOTONIC (clock_gettime(2)): one clock for all processes of a boot, so that
// times kept in a window mean the same to each of them. A process may put a test clock in its
// place, which stands still until it is moved.
//
// Thread-safety. Reading the clock is safe anywhere and costs one vDSO call. Changing it is safe
// from any thread. A passive timer belongs to the writer of the record that it lies in.
#ifndef MFWD6_SERVICES_EVENTS_PTIMER_H
#define MFWD6_SERVICES_EVENTS_PTIMER_H

#include <stdint.h>
#include <time.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

// The present time.
MFWD6_EXPORT void ptimer_gettime(struct timespec *now);

// The present time as of the kernel's last tick (CLOCK_MONOTONIC_COARSE): up to some milliseconds
// behind ptimer_gettime, at a fifth of its cost. For durations of seconds. The test clock serves
// both alike.
MFWD6_EXPORT void ptimer_gettime_coarse(struct timespec *now);

// *result = later - earlier, normalised; zero when `later` is the earlier one. *result may be
// either.
MFWD6_EXPORT void ptimer_diff_timespec(const struct timespec *later, const struct timespec *earlier,
                                       struct timespec *result);

// A passive timer: a note of the time at which something is due, looked at by whoever cares. May
// lie in shared memory; it is one word, journaled when written, so it is always whole. All zero is
// stopped.
typedef struct ptimer {
    uint64_t expires_ns;  // clock time in nanoseconds, 0 when stopped
} ptimer_t;

// Sets the timer to expire `nanoseconds` from now.
MFWD6_EXPORT void ptimer_start(ptimer_t *timer, uint64_t nanoseconds);

// Stops the timer, running or not.
MFWD6_EXPORT void ptimer_stop(ptimer_t *timer);

// 1 while started and neither stopped nor expired.
MFWD6_EXPORT int ptimer_running(const ptimer_t *timer);

// 1 when started and its time has come.
MFWD6_EXPORT int ptimer_expired(const ptimer_t *timer);

// Puts the test clock in place of the real one in this process. It starts at the present time, or
// goes on where it stood if it is in place already.
MFWD6_EXPORT void ptimer_test_clock_on(void);

// Goes back to the real clock. Timers of event managers keep the clock times at which they are due.
MFWD6_EXPORT void ptimer_test_clock_off(void);

// Moves the test clock forward and wakes the event managers of this process. EPERM when the real
// clock is in place, ERANGE past what the clock can hold.
MFWD6_EXPORT cerrno ptimer_test_clock_advance(uint64_t nanoseconds);

MFWD6_END_C

#endif
