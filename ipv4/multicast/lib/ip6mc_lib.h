// The library's life in a process: start, stop, states, and the descriptor through which everything
// else reaches the shared window.
//
// A process calls ip6mc_lib_init once, then the operations, and ends with ip6mc_lib_terminate.
// There is no flag for a restart: each step looks at what the window already holds. The owner
// (`attach_only` 0) builds and writes the window; an attached client maps what the owner built.
//
// Thread-safety. Start and stop run on one thread, beside no operation of the same process. State
// words are plain.
#ifndef IP6MC_LIB_H
#define IP6MC_LIB_H

#include "ipv4/multicast/lib/ip6mc_locks.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_shmwin.h"
#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/platform_info/platform_info.h"

// Version of the window's layout.
#define IP6MC_VERSION_MAJOR 1
#define IP6MC_VERSION_MINOR 15

// States of the library. Operations are allowed in READY only.
enum ipv4mc_lib_states {
    IPV4MC_LIB_STATE_DOWN = 0,
    IPV4MC_LIB_STATE_INIT = 1,  // started, the platform library is not ready
    IPV4MC_LIB_STATE_READY = 2
};

// States of the interface half.
enum ipv4mc_idb_states {
    IPV4MC_IDB_STATE_DOWN = 0,
    IPV4MC_IDB_STATE_INIT = 1,  // waits for the platform
    IPV4MC_IDB_STATE_READY = 2
};

// Roles of a node, as far as the library tells them apart: up to IPMC_NODE_ROLE_LAST_RP a route
// processor, above it a line card.
#define IPMC_NODE_ROLE_LAST_RP UINT32_C(1)
#define IPMC_NODE_ROLE_NO_LOCK_TRACE UINT32_C(5)  // locks leave no trace of their holder

// Types of ipv4mc_lib_callback_msg.
enum ipv4mc_lib_msgs {
    IPV4MC_LIB_MSG_STATE = 0,   // the library state changed
    IPV4MC_LIB_MSG_NOTIFY = 1,  // the platform library sent its message type 1; all else is zero
    IPV4MC_LIB_MSG_MONITOR = 2  // the window service reports on the window mutex
};

// What the client's callback receives.
typedef struct ipv4mc_lib_callback_msg {
    uint32_t type;
    uint32_t reserved;
    union {
        struct ipv4mc_lib_msg_state {
            uint32_t state;
            uint32_t prev_state;
        } state;
        struct ipv4mc_lib_msg_monitor {
            uint32_t window_id;
            uint32_t event;
            uint64_t argument;
        } monitor;
    } u;
} ipv4mc_lib_callback_msg;
static_assert(sizeof(ipv4mc_lib_callback_msg) == 24, "clients of other builds read it");

// The client's callback. Its result matters for IPV4MC_LIB_MSG_MONITOR only: 0 says that the client
// deals with it.
typedef cerrno (*ipv4mc_lib_callback_ft)(ipv4mc_descriptor_struct *descriptor,
                                         const ipv4mc_lib_callback_msg *message, void *context);

// What the IDB callback receives.
typedef struct ipv4mc_idb_callback_msg {
    uint32_t type;  // 0: the state changed
    uint32_t state;
    uint32_t prev_state;
} ipv4mc_idb_callback_msg;
typedef cerrno (*ipv4mc_idb_callback_ft)(ipv4mc_descriptor_struct *descriptor,
                                         const ipv4mc_idb_callback_msg *message, void *context);

// Takes over the free of a block: `block` points at its guard. `typed` is 1 for a block of
// ipv4mc_shmwin_free_inline, 0 for an untyped one and one that leaves the pool. The client ends it
// with ip6mc_shmwin_free_final.
typedef void (*ipmc_free_hook_ft)(void *block, int typed);

// The process's root. One static record, zero before the first start.
struct ipv4mc_descriptor_struct {
    ipv4mc_shmwin_hdr_st *shmwin_info;  // NULL when no window is mapped
    uint32_t shmwin_id;
    int32_t shmwin_init;  // the window is open
    int32_t lib_init;     // ip6mc_lib_init has passed; cleared on suspected corruption
    int32_t idb_init;
    int32_t buffer_pool_enabled;
    void *im_context;   // interface manager
    uint16_t protocol;  // numbers for the interface manager
    uint16_t caps;
    uint32_t default_vrf_id;
    uint32_t default_tid;
    uint32_t node_role;
    void *evm;        // event manager, may be NULL
    void *idb_param;  // the caller's, only stored
    uint32_t state;
    uint32_t idb_state;
    uint32_t prev_state;
    uint32_t prev_idb_state;
    ipv4mc_lib_callback_ft callback;  // may be NULL
    ipv4mc_idb_callback_ft idb_callback;
    ipv4mc_platform_callback_ft platform_callback;  // always ipv4mc_local_platform_callback_func
    ipmc_free_hook_ft free_hook;                    // may be NULL
    void *callback_context;
    void *idb_callback_context;
    uint64_t reserved;  // zero
};

// A report of an asynchronous error of the hardware. `obj_id` names the route or interface entry,
// `oor_error` is 0 for a plain error and 1 when the hardware is out of resources, `code` is the
// hardware's own, `object_type` what the platform takes the object for (1 route, 2 interface, 0
// unknown), `unit` the part of the hardware, `context` the platform's own word.
typedef cerrno (*ipmc_platform_async_err_ft)(uint64_t obj_id, uint32_t oor_error, cerrno code,
                                             uint32_t object_type, uint32_t unit, void *context);

MFWD6_BEGIN_C

// All code reaches the descriptor through this pointer.
extern MFWD6_EXPORT ipv4mc_descriptor_struct *ipv4mc_desc;

// Sizes and places that the platform states, filled by ip6mc_lib_init.
extern MFWD6_EXPORT platform_mcast_params_t plat_params;

// Starts the library. Success, with nothing changed, when it is started already. Each failure ends
// the start with the code of the step, and what was done stays, so that it can be called again. An
// attached client must pass a NULL `im_context` (22). `callback` and `free_hook` may be NULL;
// without a callback the window mutex is not monitored. `keep_buffer_pool` is that of
// ip6mc_shmwin_open.
//
// An owner may throw the contents of the window away while clients are attached
// (ip6mc_shmwin_reset, an end with reason 0 or 1, a start on the window of another version). A
// client's first call behind that finds out: it reports it, the library goes to state 0, and calls
// fail as on a closed window or a library that is not ready, until the client terminates the
// library and starts it again. What the client itself kept of the window (tables, routes, entries)
// is void then. Only a call that is under way while the owner resets may read what goes.
MFWD6_EXPORT cerrno ip6mc_lib_init(void *evm, void *im_context, int attach_only, uint16_t protocol,
                                   uint16_t caps, uint32_t default_tid, uint32_t default_vrf_id,
                                   uint32_t node_role, ipv4mc_lib_callback_ft callback,
                                   ipmc_free_hook_ft free_hook, void *callback_context,
                                   void *idb_param, int keep_buffer_pool);

// Why a process stops. Values above 2 stop without touching the window.
enum ipv4mc_terminate_reasons {
    IPV4MC_TERMINATE_END = 0,    // owner: the window is reset; it is closed
    IPV4MC_TERMINATE_END_1 = 1,  // the same
    IPV4MC_TERMINATE_UPDATE =
        2  // the window stays, marked "update in progress"; the process should exit
};

// Stops the library. The last failure of a step; no failure stops the sequence. 0 when the window
// was never opened.
MFWD6_EXPORT cerrno ip6mc_lib_terminate(int attach_only, uint32_t reason);

// Writes the library's state and, where `platform_state_p` is not NULL, that of the platform
// library. 22 for a NULL `state_p`; the platform's code, and nothing written to `state_p`, when it
// cannot tell.
MFWD6_EXPORT cerrno ip6mc_get_state(uint32_t *state_p, uint32_t *platform_state_p);

// Writes 1 and 15.
MFWD6_EXPORT void ip6mc_get_version(uint16_t *major_p, uint16_t *minor_p);

// Replaces the interface manager's context. Always 0.
MFWD6_EXPORT cerrno ip6mc_update_im_context(void *context);

// Gives the tries of all tables the process-local pointers of this process. Part of an owner's
// start.
MFWD6_EXPORT cerrno ip6mc_reinit_tables(void);

// Has the platform free all that the hardware holds. Always 0; a failure is reported.
MFWD6_EXPORT cerrno ip6mc_clear_hw_resources(uint32_t arg);

// Registers the function that takes asynchronous errors; the platform library enters through the
// handler, which passes its arguments on. It must not be called before a function is registered.
MFWD6_EXPORT void ipmc_platform_async_err_set_cb(ipmc_platform_async_err_ft cb);
MFWD6_EXPORT cerrno ipmc_platform_async_err_handler(uint64_t obj_id, uint32_t oor_error,
                                                    cerrno code, uint32_t object_type,
                                                    uint32_t unit, void *context);

// A note of the client's: has the download of all routes been complete?
MFWD6_EXPORT void ipmc_set_download_complete_rcvd(int flag);
MFWD6_EXPORT int ipmc_get_download_complete_rcvd(void);

// The platform library's messages arrive here.
MFWD6_EXPORT void ipv4mc_local_platform_callback_func(ipv4mc_descriptor_struct *descriptor,
                                                      const ipv4mc_platform_msg_st *message);

// Fills the record with which a table's trie is made or joined again: its signal trie with
// `is_signal`, else one of its route tries, for which the caller sets `gtrie_usage`.
MFWD6_EXPORT void ipv4mc_set_default_gtrie_init(ip6mc_gtrie_params_t *params,
                                                const ipv4mc_table_st *table, int is_signal);

// Records the old state in `prev_state` and sets the new one, with a trace. For the library and its
// platform.
MFWD6_EXPORT void ipv4mc_update_state(uint32_t state);

// Four words of the window header that tell the next process what the last one was doing: set
// before a batch, cleared behind it; a word that is found set after a restart belongs to a batch
// that did not finish. They work as soon as the window is open. EBADF when it is not; get: EINVAL
// for NULL.
MFWD6_EXPORT cerrno ip6mc_set_update_in_progress_flag(void);
MFWD6_EXPORT cerrno ip6mc_clear_update_in_progress_flag(void);
MFWD6_EXPORT cerrno ip6mc_get_update_in_progress_flag(uint32_t *value_p);
MFWD6_EXPORT cerrno ip6mc_set_transaction_flag(void);
MFWD6_EXPORT cerrno ip6mc_clear_transaction_flag(void);
MFWD6_EXPORT cerrno ip6mc_get_transaction_flag(uint32_t *value_p);
MFWD6_EXPORT cerrno ip6mc_set_intf_change_pending_flag(void);
MFWD6_EXPORT cerrno ip6mc_clear_intf_change_pending_flag(void);
MFWD6_EXPORT cerrno ip6mc_get_intf_change_pending_flag(uint32_t *value_p);
MFWD6_EXPORT cerrno ipv4mc_set_netio_transaction_flag(void);
MFWD6_EXPORT cerrno ipv4mc_clear_netio_transaction_flag(void);
MFWD6_EXPORT cerrno ipv4mc_get_netio_transaction_flag(uint32_t *value_p);

MFWD6_END_C

#endif
