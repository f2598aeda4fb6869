// A small ring of timestamped events about a route's trouble with the platform. The ring lies in
// the memory of the process, the route in the window: after a restart the pointer in the route is
// stale.
#include <sys/time.h>

#include <cstdio>
#include <ctime>

#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "services/cbuf/cbuf.h"
#include "services/journal/journal.h"

namespace {

constexpr uint32_t ring_elements = 10;

// Milliseconds of a time of day. A number that reaches 1000 carries into the second.
unsigned milliseconds(timeval *now) {
    auto ms = static_cast<unsigned>(static_cast<double>(now->tv_usec) / 1000.0);
    if (ms >= 1000) {
        ms -= 1000;
        ++now->tv_sec;
    }
    return ms;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void print_time(char (&text)[IPV4MC_ROUTE_EVENT_TIME_SIZE]) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const unsigned ms = milliseconds(&now);
    tm parts{};
    if (localtime_r(&now.tv_sec, &parts) == nullptr) {
        return;
    }
    char format[64];
    if (strftime(format, sizeof(format), "%b %d %Y %H:%M:%S.%%03u", &parts) != 0) {
        snprintf(text, sizeof(text), format, ms);
    }
}
#pragma GCC diagnostic pop

}  // namespace

extern "C" {

cbuf *mfwd_route_event_history_create(uint32_t count, uint32_t element_size) {
    cbuf *history = cbuf_create(count, element_size);
    if (history == nullptr) {
        MLIB_ERR("Cannot create Event History for buffer size: %d and element size: %d\n",
                 static_cast<int>(count), static_cast<int>(element_size));
    }
    return history;
}

// Works on a copy of the handle: the caller's field keeps its value.
void mfwd_route_event_history_destroy(cbuf *handle) {
    if (handle != nullptr) {
        cbuf_destroy(handle);
    }
}

void mfwd_route_event_history_append(cbuf *handle, const ipv4mc_route_event_st *element) {
    cbuf_append(handle, element);
}

void mfwd_route_entry_event_add_msg(ipv4mc_route_entry_st *route, uint32_t code) {
    if (route->event_history == nullptr) {
        cbuf *history =
            mfwd_route_event_history_create(ring_elements, sizeof(ipv4mc_route_event_st));
        if (history == nullptr) {
            MLIB_ERR("Cannot create buffer context for mfib route\n");
            return;
        }
        mfwd6::journal::store(route->event_history, history);
    }
    ipv4mc_route_event_st element{};
    element.event_code = code;
    print_time(element.time);
    mfwd_route_event_history_append(route->event_history, &element);
}

}  // extern "C"
