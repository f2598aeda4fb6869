// The one way in which the library tells of failures, and its debug lines and trace records.
#ifndef IP6MC_SRC_DIAGNOSTICS_REPORT_H
#define IP6MC_SRC_DIAGNOSTICS_REPORT_H

#include <errno.h>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/platform_default/src/diagnostics/trace_ids.h"
#include "services/diag/debug.h"
#include "services/diag/errors.h"
#include "services/diag/trace.h"

namespace mlib {

// A failure: a traceback and the text into the error trace, always; the debug line of class 0 when
// on.
__attribute__((format(printf, 3, 4))) void report_error(const char *function, int line,
                                                        const char *format, ...);

// A line of `debug_class`, which the caller has found active.
__attribute__((format(printf, 4, 5))) void debug_line(uint32_t debug_class, const char *function,
                                                      int line, const char *format, ...);

// A line of class 14, whose header names the object id.
__attribute__((format(printf, 4, 5))) void debug_object_id_line(uint64_t id, const char *function,
                                                                int line, const char *format, ...);

}  // namespace mlib

#define MLIB_ERR(...) mlib::report_error(__func__, __LINE__, __VA_ARGS__)

// The body of an operation whose subsystem is still to come; its result.
#define MLIB_NOT_BUILT(name) (MLIB_ERR(name ": not built yet"), static_cast<cerrno>(ENOSYS))

// Arguments are evaluated only when the class is on.
#define MLIB_DEBUG(debug_class, ...)                                        \
    do {                                                                    \
        if (ipv4_debug_event_active_inline(debug_class)) {                  \
            mlib::debug_line(debug_class, __func__, __LINE__, __VA_ARGS__); \
        }                                                                   \
    } while (false)

// A debug line that leaves a trace record beside it, whether the class is on or not.
#define MLIB_TRACE_TEXT(debug_class, ...)                                       \
    do {                                                                        \
        _ltrace_2(ip6mc_mlib_ltrace(), MLIB_TRACE_LINE, debug_class, __LINE__); \
        MLIB_DEBUG(debug_class, __VA_ARGS__);                                   \
    } while (false)

#define MLIB_DEBUG_OBJECT_ID(id, ...)                                        \
    do {                                                                     \
        if (ipv4_debug_event_active_inline(IPV4_DEBUG_OBJ_ID)) {             \
            mlib::debug_object_id_line(id, __func__, __LINE__, __VA_ARGS__); \
        }                                                                    \
    } while (false)

#endif
