#include "ipv4/multicast/platform_default/src/diagnostics/report.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ipv4/multicast/platform_default/src/diagnostics/assertion.h"

namespace mlib {
namespace {

constexpr uint64_t error_trace_id = 0x200600060009;
constexpr char error_prefix[] = "ERR: ipv4_mlib_buginf_err: ";

// Indexed by class; class 9 does not exist.
constexpr const char *headers[] = {
    "ML-ERR: %s %d: ",
    "ML-WRN: %s %d: ",
    "ML-SVD: %s %d: ",
    "ML-IDB: %s %d: ",
    "ML-INTF: %s %d: ",
    "ML-ROUTE: %s %d: ",
    "ML-EV: %s %d: ",
    "ML-SIG: %s %d: ",
    "ML-STATE: %s %d: ",
    nullptr,
    "ML-DEBUG-ROUTE-COMMIT: %s %d: ",
    "ML-DEV: %s %d: ",
    "ML-BVI: %s %d: ",
    "ML-BVI-IFH: %s %d: ",
    "ML-OBJ-ID: %s %d obj_id: 0x%lx - ",
};

struct header_text {
    char text[128];
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
header_text make_header(uint32_t debug_class, const char *function, int line, uint64_t object_id) {
    header_text header{};
    snprintf(header.text, sizeof(header.text), headers[debug_class], function, line, object_id);
    return header;
}
#pragma GCC diagnostic pop

void emit(uint32_t debug_class, const char *function, int line, const char *message,
          uint64_t object_id = 0) {
    const header_text header = make_header(debug_class, function, line, object_id);
    if (debug_class == IPV4_DEBUG_BVI_IFH) {
        ipv4_mlib_bvi_buginf_adjust(debug_class, header.text, "%s", message);
    } else {
        ipv4_mlib_buginf_adjust(debug_class, header.text, "%s", message);
    }
}

}  // namespace

void report_error(const char *function, int line, const char *format, ...) {
    traceback_record traceback{};
    traceback_v2(&traceback, 5);

    char text[2048];
    std::memcpy(text, error_prefix, sizeof(error_prefix) - 1);
    char *message = text + sizeof(error_prefix) - 1;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof(text) - (sizeof(error_prefix) - 1), format, arguments);
    va_end(arguments);

    _lstrace(ip6mc_mlib_err_ltrace(), error_trace_id, &traceback, text);
    if (ipv4_debug_event_active(IPV4_DEBUG_ERR)) {
        emit(IPV4_DEBUG_ERR, function, line, message);
    }
}

void debug_line(uint32_t debug_class, const char *function, int line, const char *format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    emit(debug_class, function, line, text);
}

void debug_object_id_line(uint64_t id, const char *function, int line, const char *format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    emit(IPV4_DEBUG_OBJ_ID, function, line, text, id);
}

void assertion_failed(const char *text, const char *file, int line, const char *function) {
    report_error(function, line, "Assertion `%s' failed", text);
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, text);
    abort();
}

}  // namespace mlib
