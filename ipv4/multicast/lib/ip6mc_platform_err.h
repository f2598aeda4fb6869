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

// Adds an object at the back of the retry queue. On router types without one 0, and nothing is
// done; EINVAL without a queue or without memory. Owner's operation thread, as all that follows.
MFWD6_EXPORT cerrno ipmc_retry_msg_queue_insert_route(ipv4mc_route_entry_st *route);
MFWD6_EXPORT cerrno ipmc_retry_msg_queue_insert_encap(ipv4mc_encap_entry_st *encap);

// Finds an object on the queue and takes it off. EINVAL when it is not there.
MFWD6_EXPORT cerrno ipmc_retry_msg_queue_rem_route(ipv4mc_route_entry_st *route);
MFWD6_EXPORT cerrno ipmc_retry_msg_queue_rem_encap(ipv4mc_encap_entry_st *encap);

// Takes a known element off the queue and frees it; a report when there is none.
MFWD6_EXPORT void ipmc_retry_msg_queue_rem_element(dlqueue_node_t *queue, dlqueue_node_t *node);

// Tries every element once, in queue order. Its result tells the timer whether to run again, not
// whether the queue is clear: see the body.
MFWD6_EXPORT cerrno ipmc_retry_msg_queue_walk(void);

// Once per process, with its event manager (event_manager_t): finds out whether this router handles
// errors of the hardware asynchronously. Where it does: connects the domain of object ids, starts
// the retry timer and forgets the event histories of the process before. Always 0; a timer that
// cannot be set up ends the process with exit status 1.
MFWD6_EXPORT cerrno ipmc_platform_err_handler_init(void *evm);

// 1 on a router type that handles errors asynchronously, else 0; and the answer that init took
// down.
MFWD6_EXPORT uint32_t ipmc_platform_async_err_oor_handling_supported(void);
MFWD6_EXPORT uint32_t ipmc_platform_get_async_oor_support(void);

// One of ipmc_oor_modes.
MFWD6_EXPORT uint32_t ipmc_platform_err_handler_get_oor_mode(void);

// 1 while the route stands on the retry queue; 0 for NULL.
MFWD6_EXPORT uint8_t ipmc_platform_route_get_err(const ipv4mc_route_entry_st *route);

// Whether the platform may be told of a route or of an interface on it: 0 for what is new while
// resources are out, and for a route that waits for resources. The caller then goes on as if it had
// been programmed.
MFWD6_EXPORT int ipmc_platform_can_program_route(const ipv4mc_route_entry_st *route, int is_new);
MFWD6_EXPORT int ipmc_platform_can_program_intf(const ipv4mc_intf_entry_st *intf,
                                                const ipv4mc_route_entry_st *route, int is_new);

// Called with the result of a failed platform call. 0: the handler has taken the failure over, go
// on as if the platform had agreed. Else the code to return; on routers without asynchronous
// handling always `rc`.
MFWD6_EXPORT cerrno ipmc_platform_err_handler_sync_route(ipv4mc_route_entry_st *route, cerrno rc);
MFWD6_EXPORT cerrno ipmc_platform_err_handler_sync_intf(ipv4mc_intf_entry_st *intf,
                                                        ipv4mc_route_entry_st *route, cerrno rc);

MFWD6_EXPORT cerrno ipmc_platform_err_handler_sync_encap(ipv4mc_encap_entry_st *encap, cerrno rc);

// An error that the hardware reports long after the call, by object id. `oor_error` 0 is a plain
// error, 1 out of resources; others are out of resources too, but mark nothing for an interface.
// The service's code for an id that says nothing; EINVAL for an object without a route.
MFWD6_EXPORT cerrno ipmc_platform_err_handler_async_obj(uint64_t obj_id, uint32_t oor_error);

// A plain error of a route; a route that was not programmed for lack of resources. EINVAL for NULL;
// 0 without asynchronous handling.
MFWD6_EXPORT cerrno ipmc_platform_err_handler_async_route_err(ipv4mc_route_entry_st *route);
MFWD6_EXPORT cerrno ipmc_platform_err_handler_async_route_oor(ipv4mc_route_entry_st *route);

// Takes an object that goes, or is cleared, off the retry queue. NULL is allowed for a route.
MFWD6_EXPORT void ipmc_platform_err_handler_clear_route_err(ipv4mc_route_entry_st *route);
MFWD6_EXPORT void ipmc_platform_err_handler_clear_encap_err(ipv4mc_encap_entry_st *encap);

// Forgets the event histories of all routes, which are memory of an earlier process. Once per
// process.
MFWD6_EXPORT void ipmc_platform_err_handler_event_history_clear_all(void);

// Brings one object of the retry queue to the hardware again. Not built yet: ENOSYS.
MFWD6_EXPORT cerrno ipmc_platform_err_handler_err_replay_route(ipv4mc_route_entry_st *route);
MFWD6_EXPORT cerrno ipmc_platform_err_handler_err_replay_encap(ipv4mc_encap_entry_st *encap);

// Marks the route of an interface that was not programmed for lack of resources.
MFWD6_EXPORT cerrno ipmc_platform_err_handler_async_intf_oor(ipv4mc_intf_entry_st *intf,
                                                             ipv4mc_route_entry_st *route);

MFWD6_END_C

#endif
