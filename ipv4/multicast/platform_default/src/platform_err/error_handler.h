// What the files of the error handler share.
#ifndef IP6MC_SRC_PLATFORM_ERR_ERROR_HANDLER_H
#define IP6MC_SRC_PLATFORM_ERR_ERROR_HANDLER_H

#include "ipv4/multicast/lib/ip6mc_types.h"

// Codes of a route's event history.
enum ipmc_route_events {
    IPMC_EVENT_RETRY_QUEUED = 1,
    IPMC_EVENT_RETRY_BEGINS = 2,
    IPMC_EVENT_RETRY_DONE = 3,
    IPMC_EVENT_OOR_LEFT = 4,
    IPMC_EVENT_OOR_MARKED = 5
};

namespace mlib {

// Puts a route on the retry queue unless it stands there. Reports under `function`, which names the
// caller.
void queue_failed_route(ipv4mc_route_entry_st *route, const char *function, int line);

// Starts the retry timer unless it runs.
void start_retry_timer();

// The hardware has said that it is full. No replay runs: the process ends the mode itself.
void enter_reported_oor_mode();

}  // namespace mlib

#endif
