// System messages: a catalogue of records, sent to syslog(3), each under a rate limit of its own.
//
// Of one record one message goes out in each stretch of `seconds`; those in between are counted,
// and the count is told with the next message after the stretch, or by orv_msg_tick. Threads: any.
#ifndef MFWD6_SERVICES_DIAG_MESSAGES_H
#define MFWD6_SERVICES_DIAG_MESSAGES_H

#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

typedef struct orv_msg_limit {
    uint32_t seconds;  // 0: no limit
} orv_msg_limit;

// One message. Static storage: the limit is kept by the address of the record.
typedef struct orv_msg_rec {
    uint32_t severity;  // as in syslog(3), 0 to 7
    const char *format;
    const orv_msg_limit *limit;  // NULL: no limit
    const char *facility;
    const char *category;
    const char *name;
    uint32_t number;
} orv_msg_rec;

// Sends the message with the arguments of the record's format, as
// "<category>-<facility>-<severity>-<name>: <text>". `severity` is the one used. Nothing for a NULL
// record.
MFWD6_EXPORT void orv_errmsg(const orv_msg_rec *record, uint32_t severity, ...);

// Tells the counts of suppressed messages whose stretch has ended. For an event loop; cheap when
// there are none.
MFWD6_EXPORT void orv_msg_tick(void);

// How many messages of the record wait to be told as suppressed.
MFWD6_EXPORT uint64_t orv_msg_suppressed(const orv_msg_rec *record);

// The clock of the limits: nanoseconds that never go back. NULL is that of ptimer_gettime, the test
// clock while one is in place.
MFWD6_EXPORT void orv_msg_set_clock(uint64_t (*now)(void));

// Writes one line to syslog(3) with the severity, or to the sink. No rate limit. Cut at 2047
// characters.
MFWD6_EXPORT void qv_syslog(uint32_t severity, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// Takes the place of syslog(3); NULL gives it back. Called on the sender's thread with no lock
// held.
typedef void (*qv_syslog_sink_ft)(void *context, uint32_t severity, const char *line);
MFWD6_EXPORT void qv_syslog_set_sink(qv_syslog_sink_ft sink, void *context);

MFWD6_END_C

#endif
