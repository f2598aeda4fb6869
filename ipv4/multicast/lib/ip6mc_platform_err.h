// Failures of the platform: the queue of what is to be tried again, and the modes of being out of
// resources.
#ifndef IP6MC_PLATFORM_ERR_H
#define IP6MC_PLATFORM_ERR_H

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/events/dlqueue.h"

// `oor_mode`. Any other value counts as out of resources too.
enum ipmc_oor_modes { IPMC_OOR_NONE = 0, IPMC_OOR_SET = 1, IPMC_OOR_REPORTED = 2 };

// `oor_error` of an asynchronous report.
enum ipmc_oor_errors { IPMC_OOR_ERROR_PLAIN = 0, IPMC_OOR_ERROR_FULL = 1 };

// Period of the retry timer.
#define IPMC_RETRY_PERIOD_SECONDS 60

// `type` of an ipmc_retry_msg.
enum ipmc_retry_msg_types { IPMC_RETRY_ROUTE = 0, IPMC_RETRY_ENCAP = 1 };

// One object that waits for its retry, a block of type IPMC_SHMWIN_ALLOC_RETRY_MSG.
struct ipmc_retry_msg {
    dlqueue_node_t node;  // its data points to this record
    uint32_t type;        // one of ipmc_retry_msg_types
    void *object;         // ipv4mc_route_entry_st or ipv4mc_encap_entry_st
};
IP6MC_RECORD(ipmc_retry_msg, 40);

MFWD6_BEGIN_C

// Finds or makes the retry queue in the window, on router types that have one.
MFWD6_EXPORT void ipmc_queue_init(void);

MFWD6_END_C

#endif
