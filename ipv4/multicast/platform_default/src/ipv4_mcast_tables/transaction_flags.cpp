// Four words of the window header that tell the next process what the last one was doing. They work
// before the library is ready: all that they need is the window.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "services/journal/journal.h"

namespace {

using header_word = uint32_t ipv4mc_shmwin_hdr_st::*;

void warn_closed(const char *function, int line) {
    if (ipv4_debug_event_active(IPV4_DEBUG_WRN)) {
        mlib::debug_line(IPV4_DEBUG_WRN, function, line, "shmwin not initialized");
    }
}

void report_closed(const char *function, int line) {
    mlib::report_error(function, line, "shmwin not initialized");
}

using closed_fn = void (*)(const char *function, int line);

cerrno set_word(header_word word, uint32_t value, closed_fn closed, const char *function,
                int line) {
    if (!mlib::window_is_open()) {
        closed(function, line);
        return EBADF;
    }
    mfwd6::journal::publish(ipv4mc_desc->shmwin_info->*word, value);
    return 0;
}

cerrno get_word(header_word word, uint32_t *value_p, closed_fn closed, const char *function,
                int line) {
    if (!mlib::window_is_open()) {
        closed(function, line);
        return EBADF;
    }
    if (value_p == nullptr) {
        mlib::report_error(function, line, "NULL flag pointer");
        return EINVAL;
    }
    *value_p = mfwd6::journal::observe(ipv4mc_desc->shmwin_info->*word);
    return 0;
}

}  // namespace

// The flags of the library warn on a closed window; the three of NetIO report it.
#define TRANSACTION_FLAG(prefix, flag, word, closed)                                       \
    extern "C" cerrno prefix##_set_##flag(void) {                                          \
        return set_word(&ipv4mc_shmwin_hdr_st::word, 1, closed, __func__, __LINE__);       \
    }                                                                                      \
    extern "C" cerrno prefix##_clear_##flag(void) {                                        \
        return set_word(&ipv4mc_shmwin_hdr_st::word, 0, closed, __func__, __LINE__);       \
    }                                                                                      \
    extern "C" cerrno prefix##_get_##flag(uint32_t *value_p) {                             \
        return get_word(&ipv4mc_shmwin_hdr_st::word, value_p, closed, __func__, __LINE__); \
    }

TRANSACTION_FLAG(ip6mc, update_in_progress_flag, update_in_progress, warn_closed)
TRANSACTION_FLAG(ip6mc, transaction_flag, transaction_flag, warn_closed)
TRANSACTION_FLAG(ip6mc, intf_change_pending_flag, intf_change_pending, warn_closed)
TRANSACTION_FLAG(ipv4mc, netio_transaction_flag, netio_transaction_flag, report_closed)
