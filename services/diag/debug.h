// Debug lines, switched on by class.
//
// Each program has one word of 64 classes in the file `<run dir>/debug/<program>`, shared by all
// processes of that program; another process switches classes by writing there. Where no file can
// be had, the word is the process's own. A class that is off costs one load and a branch.
//
// Threads: all functions may be called from any thread.
#ifndef MFWD6_SERVICES_DIAG_DEBUG_H
#define MFWD6_SERVICES_DIAG_DEBUG_H

#include <stdbool.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

enum ipv4_debug_class {
    IPV4_DEBUG_ERR = 0,
    IPV4_DEBUG_WRN = 1,
    IPV4_DEBUG_SVD = 2,
    IPV4_DEBUG_IDB = 3,
    IPV4_DEBUG_INTF = 4,
    IPV4_DEBUG_ROUTE = 5,
    IPV4_DEBUG_EV = 6,
    IPV4_DEBUG_SIG = 7,
    IPV4_DEBUG_STATE = 8,
    IPV4_DEBUG_ROUTE_COMMIT = 10,
    IPV4_DEBUG_DEV = 11,
    IPV4_DEBUG_BVI = 12,
    IPV4_DEBUG_BVI_IFH = 13,
    IPV4_DEBUG_OBJ_ID = 14,
    IPV4_DEBUG_CLASSES = 64
};

// Maps this program's mask and keeps the event manager for netio_dll_get_evm. 0, or why the mask is
// private (an errno value): debugging works in either case, and a caller need not look. May be
// called again.
MFWD6_EXPORT cerrno ipv4_mlib_debug_init(void *evm);

// Forgets the event manager and goes back to a private mask with all classes off. Does not change
// what other processes of the program have switched on.
MFWD6_EXPORT void ipv4_mlib_debug_terminate(void);

// True if the class is on. False for a class of 64 or more.
MFWD6_EXPORT bool ipv4_debug_event_active(uint32_t debug_class);

// The word behind ipv4_debug_event_active: bit n is class n. The pointer never changes.
extern MFWD6_EXPORT const uint64_t *const ipv4_debug_mask;

// The same question without a call.
static inline bool ipv4_debug_event_active_inline(uint32_t debug_class) {
    return debug_class < IPV4_DEBUG_CLASSES &&
           ((__atomic_load_n(ipv4_debug_mask, __ATOMIC_RELAXED) >> debug_class) & 1U) != 0;
}

// Writes one line: `header`, then the message, cut at 2047 characters. Does not ask whether the
// class is on: the caller has.
MFWD6_EXPORT void ipv4_mlib_buginf_adjust(uint32_t debug_class, const char *header,
                                          const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// The same for class 13, whose lines name interfaces.
MFWD6_EXPORT void ipv4_mlib_bvi_buginf_adjust(uint32_t debug_class, const char *header,
                                              const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Where lines go. Without a sink (NULL) they go to stderr and, as text records whose id is the
// class, to the trace ring of kind "debug". The sink is called on the writer's thread, with no lock
// held; after a change, another thread may still be in the old one. `text` is without a line end.
typedef void (*ipv4_debug_sink_ft)(void *context, uint32_t debug_class, const char *header,
                                   const char *text);
MFWD6_EXPORT void ipv4_debug_set_sink(ipv4_debug_sink_ft sink, void *context);

// Switches classes: bits of `on` are set and bits of `off` cleared, `off` first. `program` is a
// program's name as in its file, whether one runs or not; NULL is this program; "*" is every
// program, now and later. A class that is on for every program is on whatever a program's own mask
// says. errno values; EINVAL for a name with '/'.
MFWD6_EXPORT cerrno ipv4_debug_switch(const char *program, uint64_t on, uint64_t off);

// The classes in effect for `program` (as above; "*" gives those that are on for every program).
MFWD6_EXPORT cerrno ipv4_debug_get(const char *program, uint64_t *mask);

// Calls `visit` for each program that has a mask. A non-zero answer ends the walk.
MFWD6_EXPORT cerrno ipv4_debug_walk(int (*visit)(void *context, const char *program, uint64_t mask),
                                    void *context);

// The short name of a class ("ERR", "ROUTE", ...), or NULL; and back: -1 for an unknown name.
MFWD6_EXPORT const char *ipv4_debug_class_name(uint32_t debug_class);
MFWD6_EXPORT int ipv4_debug_class_of(const char *name);

MFWD6_END_C

#endif
