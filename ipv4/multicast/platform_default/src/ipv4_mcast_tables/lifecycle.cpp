// Start, stop, states and version of the library in one process.
#include <bit>
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/diag/text.h"
#include "services/events/retry.h"
#include "services/gtrie/gtrie.h"
#include "services/trees/avl.h"
#include "services/window/window.h"

namespace {

ipv4mc_descriptor_struct descriptor;

ipmc_platform_async_err_ft async_err_cb = nullptr;
int download_complete_rcvd = 0;

struct start_request {
    void *evm;
    void *im_context;
    int attach_only;
    uint16_t protocol;
    uint16_t caps;
    uint32_t default_tid;
    uint32_t default_vrf_id;
    uint32_t node_role;
    ipv4mc_lib_callback_ft callback;
    ipmc_free_hook_ft free_hook;
    void *callback_context;
    void *idb_param;
};

void trace_state() {
    _ltrace_2(ip6mc_mlib_eve_ltrace(), MLIB_TRACE_LIB_STATE, descriptor.prev_state,
              descriptor.state);
}

void report_state_change() {
    MLIB_DEBUG(IPV4_DEBUG_STATE, "Lib state changed from %s to %s",
               ipv4_mlib_state_string(descriptor.prev_state),
               ipv4_mlib_state_string(descriptor.state));
}

void tell_client(const ipv4mc_lib_callback_msg &message) {
    if (descriptor.callback != nullptr) {
        descriptor.callback(&descriptor, &message, descriptor.callback_context);
    }
}

// A key for the searches of tables by id: of the process, made anew at every start.
cerrno renew_table_search() {
    shm_avl_tree *tree = descriptor.shmwin_info->table_tid_tree;
    const size_t size = sizeof(ipv4mc_table_st);
    mlib::drop_table_search();
    void *object = nullptr;
    const cerrno rc = shm_avl_tree_allocate_object(&ipmc_db_tid_fns, tree, size, &object);
    if (rc != 0) {
        MLIB_ERR("Cannot allocate %d bytes for table search : %s", static_cast<int>(size),
                 cerr_strerror(rc));
        return rc;
    }
    if (object == nullptr) {
        MLIB_ERR("Cannot allocate %d bytes for table search  (NULL ptr)", static_cast<int>(size));
        return ENOMEM;
    }
    table_search = static_cast<ipv4mc_table_st *>(object);
    return 0;
}

void fill_descriptor(const start_request &request) {
    descriptor.evm = request.evm;
    descriptor.im_context = request.im_context;
    descriptor.protocol = request.protocol;
    descriptor.caps = request.caps;
    descriptor.default_tid = request.default_tid;
    descriptor.default_vrf_id = request.default_vrf_id;
    descriptor.node_role = request.node_role;
    descriptor.callback = request.callback;
    descriptor.free_hook = request.free_hook;
    descriptor.callback_context = request.callback_context;
    descriptor.idb_param = request.idb_param;
    descriptor.platform_callback = ipv4mc_local_platform_callback_func;
    descriptor.reserved = 0;
}

// What every start does before the platform half comes in: the window, its monitor, the search key.
cerrno open_window(const start_request &request, int keep_buffer_pool) {
    cerrno rc = platform_get_mcast_params(&plat_params);
    if (rc != 0) {
        MLIB_ERR("Cannot get platform specific info for shared mem %d: %s", static_cast<int>(rc),
                 cerr_strerror(rc));
        return rc;
    }
    rc = ip6mc_shmwin_open(request.attach_only, keep_buffer_pool);
    if (rc != 0) {
        MLIB_ERR("Cannot open shared mem window: %d %s", static_cast<int>(rc), cerr_strerror(rc));
        return rc;
    }
    if (request.attach_only == 0 && request.callback != nullptr) {
        rc = shmwin_monitor_lock(descriptor.shmwin_id, ipv4mc_shmwin_callback_fn, nullptr);
        if (rc != 0) {
            MLIB_ERR("Cannot register to monitor shared memory mutex: %s", cerr_strerror(rc));
            return rc;
        }
    }
    return renew_table_search();
}

cerrno start_platform(int attach_only) {
    const cerrno rc = ip6mc_platform_lib_init(descriptor.evm, attach_only, &descriptor);
    if (rc != 0) {
        MLIB_ERR("Cannot initialize platform specific library: %s", cerr_strerror(rc));
    }
    return rc;
}

// Both words in one store: a process killed here must not leave half a version to its successor.
void stamp_version() {
    static_assert(std::endian::native == std::endian::little, "the minor word comes first");
    constexpr uint32_t stamp = (uint32_t{IP6MC_VERSION_MAJOR} << 16) | IP6MC_VERSION_MINOR;
    std::memcpy(static_cast<void *>(descriptor.shmwin_info), &stamp, sizeof(stamp));
}

// Only one case counts as a change of version: 0.x with an in-place update in progress. Everything
// else passes silently, a newer version included.
cerrno ipv4mc_handle_version() {
    const ipv4mc_shmwin_hdr_st *hdr = descriptor.shmwin_info;
    const uint16_t major = hdr->version_major;
    const uint16_t minor = hdr->version_minor;
    if (major == 0 && minor != 0 && hdr->update_in_progress != 0) {
        ip6mc_clear_hw_resources(0);
        const cerrno rc = ip6mc_shmwin_reset(0);
        if (rc != 0) {
            MLIB_ERR("Cannot reset shared mem window: %s", cerr_strerror(rc));
            MLIB_ERR("Cannot process version changes from %d.%d to %d.%d: %s", major, minor,
                     IP6MC_VERSION_MAJOR, IP6MC_VERSION_MINOR, cerr_strerror(rc));
            return rc;
        }
    }
    stamp_version();
    return 0;
}

cerrno start_owner() {
    mlib::end_idb_in_hand();
    cerrno rc = ip6mc_reinit_tables();
    if (rc == 0) {
        rc = ipmc_init_encap_regdb();
    }
    if (rc != 0) {
        MLIB_ERR("Cannot re-initialize tables: %s", cerr_strerror(rc));
        return rc;
    }
    mlib::end_all_unfinished_routes();
    rc = start_platform(0);
    if (rc != 0) {
        return rc;
    }
    rc = ipv4mc_handle_version();
    if (rc != 0) {
        return rc;
    }
    if (descriptor.evm != nullptr) {
        rc = retry_init(static_cast<event_manager_t *>(descriptor.evm), 1, 0, 1, 0, 0);
        if (rc != 0) {
            MLIB_ERR("Cannot initialize retry library: %s", cerr_strerror(rc));
        }
    }
    return 0;
}

cerrno finish_start(int attach_only) {
    descriptor.lib_init = 1;
    MLIB_DEBUG(IPV4_DEBUG_EV, "LIB initialized");
    if (attach_only != 0) {
        ipv4mc_update_state(IPV4MC_LIB_STATE_READY);
    } else {
        uint32_t platform_state = 0;
        const cerrno rc = ip6mc_platform_get_state(&platform_state);
        if (rc != 0) {
            MLIB_ERR("Cannot get the state of platform lib: %s", cerr_strerror(rc));
            descriptor.lib_init = 0;
            return rc;
        }
        if (platform_state == IPV4MC_PLATFORM_STATE_READY) {
            ipv4mc_update_state(IPV4MC_LIB_STATE_READY);
            report_state_change();
        }
    }
    mlib::tell_client_of_state();
    return 0;
}

// A failure of either does not stop the sequence; a later one replaces an earlier code.
cerrno stop_platform(int attach_only, uint32_t reason) {
    cerrno result = ip6mc_gtrie_platform_lib_terminate(attach_only);
    if (result != 0) {
        MLIB_ERR("Cannot terminate platform gtrie library: %s", cerr_strerror(result));
    }
    const cerrno rc = ip6mc_platform_lib_terminate(attach_only, reason);
    if (rc != 0) {
        MLIB_ERR("Cannot terminate platform library: %s", cerr_strerror(rc));
        result = rc;
    }
    return result;
}

// The start never finished: nobody was told of it, so nobody is told of the end.
cerrno leave_unfinished_start(cerrno result) {
    ipv4mc_update_state(IPV4MC_LIB_STATE_DOWN);
    const cerrno rc = ip6mc_shmwin_close();
    if (rc != 0) {
        MLIB_ERR("Cannot close shared memory window: %s", cerr_strerror(rc));
        return rc;
    }
    return result;
}

void leave_window(int attach_only, uint32_t reason, cerrno *result) {
    if (reason == IPV4MC_TERMINATE_UPDATE) {
        ip6mc_set_update_in_progress_flag();
        return;
    }
    ip6mc_clear_update_in_progress_flag();
    if (reason > IPV4MC_TERMINATE_UPDATE) {
        return;
    }
    _ltrace_2(ip6mc_mlib_eve_ltrace(), MLIB_TRACE_LIB_LEAVE, reason,
              static_cast<uint64_t>(attach_only));
    if (attach_only == 0) {
        const cerrno rc = ip6mc_shmwin_reset(0);
        if (rc != 0) {
            MLIB_ERR("Cannot reset shared memory window: %s", cerr_strerror(rc));
            *result = rc;
        }
    }
    const cerrno rc = ip6mc_shmwin_close();
    if (rc != 0) {
        *result = rc;
    }
    descriptor.shmwin_info = nullptr;
}

}  // namespace

ipv4mc_table_st *table_search = nullptr;

void mlib::drop_table_search() {
    if (table_search != nullptr && window_is_open()) {
        shm_avl_tree_free_object(&ipmc_db_tid_fns, descriptor.shmwin_info->table_tid_tree,
                                 table_search);
    }
    table_search = nullptr;
}

void mlib::tell_client_of_state() {
    ipv4mc_lib_callback_msg message{};
    message.type = IPV4MC_LIB_MSG_STATE;
    message.u.state.state = descriptor.state;
    message.u.state.prev_state = descriptor.prev_state;
    tell_client(message);
}

extern "C" {

ipv4mc_descriptor_struct *ipv4mc_desc = &descriptor;
platform_mcast_params plat_params;

void ipv4mc_update_state(uint32_t state) {
    descriptor.prev_state = descriptor.state;
    descriptor.state = state;
    trace_state();
}

cerrno ip6mc_lib_init(void *evm, void *im_context, int attach_only, uint16_t protocol,
                      uint16_t caps, uint32_t default_tid, uint32_t default_vrf_id,
                      uint32_t node_role, ipv4mc_lib_callback_ft callback,
                      ipmc_free_hook_ft free_hook, void *callback_context, void *idb_param,
                      int keep_buffer_pool) {
    if (descriptor.lib_init != 0) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "Multicast Library already initialized");
        MLIB_DEBUG(IPV4_DEBUG_EV, "HOW??????");
        return 0;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "%s:Multicast Library Init", __func__);
    ipmc_idb_pppoe_parent_db_init();

    const start_request request{evm,      im_context,  attach_only,      protocol,
                                caps,     default_tid, default_vrf_id,   node_role,
                                callback, free_hook,   callback_context, idb_param};
    cerrno rc = open_window(request, keep_buffer_pool);
    if (rc != 0) {
        return rc;
    }
    if (im_context != nullptr && attach_only != 0) {
        return EINVAL;
    }
    fill_descriptor(request);
    ipv4_mlib_debug_init(evm);
    ipv4mc_update_state(IPV4MC_LIB_STATE_INIT);
    report_state_change();

    rc = ip6mc_gtrie_platform_lib_init(evm, attach_only);
    if (rc != 0) {
        MLIB_ERR("Cannot initialize platform gtrie library: %s", cerr_strerror(rc));
        return rc;
    }
    if (attach_only != 0) {
        // Tries that the owner made: a client that posts signals makes leaves in them.
        ip6mc_gtrie_set_memory(ipv4mc_shmwin_malloc_inline, ipv4mc_shmwin_free_inline);
    }
    rc = attach_only != 0 ? start_platform(attach_only) : start_owner();
    return rc != 0 ? rc : finish_start(attach_only);
}

cerrno ip6mc_lib_terminate(int attach_only, uint32_t reason) {
    if (attach_only == 0) {
        _ltrace_2(ip6mc_mlib_eve_ltrace(), MLIB_TRACE_LIB_TERMINATE, reason, descriptor.state);
    }
    cerrno result = stop_platform(attach_only, reason);
    if (descriptor.shmwin_init == 0) {
        descriptor.shmwin_info = nullptr;
        return 0;
    }
    mlib::drop_table_search();
    ipmc_idb_pppoe_parent_db_terminate();
    if (descriptor.lib_init == 0) {
        return leave_unfinished_start(result);
    }
    leave_window(attach_only, reason, &result);

    // For reason 2 and above the window stays mapped although the descriptor says that it is
    // closed: the process is expected to exit.
    descriptor.shmwin_init = 0;
    descriptor.lib_init = 0;
    descriptor.idb_init = 0;
    if (attach_only != 0) {
        ip6mc_gtrie_set_memory(nullptr, nullptr);
    }
    ipv4mc_update_state(IPV4MC_LIB_STATE_DOWN);
    report_state_change();
    ipv4_mlib_debug_terminate();
    mlib::tell_client_of_state();
    return result;
}

// Called by the platform half, perhaps on a thread of its own.
void ipv4mc_local_platform_callback_func(ipv4mc_descriptor_struct *,
                                         const ipv4mc_platform_msg_st *message) {
    if (message->type == IPV4MC_PLATFORM_MSG_NOTIFY) {
        ipv4mc_lib_callback_msg pass_on{};
        pass_on.type = IPV4MC_LIB_MSG_NOTIFY;
        tell_client(pass_on);
        return;
    }
    if (message->type != IPV4MC_PLATFORM_MSG_STATE) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "Got message type %d", message->type);
        return;
    }
    const bool ready = message->new_state == IPV4MC_PLATFORM_STATE_READY;
    const uint32_t from = ready ? IPV4MC_LIB_STATE_INIT : IPV4MC_LIB_STATE_READY;
    const uint32_t to = ready ? IPV4MC_LIB_STATE_READY : IPV4MC_LIB_STATE_INIT;
    if (descriptor.state != from) {
        return;
    }
    ipv4mc_update_state(to);
    if (descriptor.callback != nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_STATE, "Platform lib state changed from %s to %s",
                   ipv4_mlib_platform_state_string(message->old_state),
                   ipv4_mlib_platform_state_string(message->new_state));
        report_state_change();
        mlib::tell_client_of_state();
    }
}

cerrno ip6mc_get_state(uint32_t *state_p, uint32_t *platform_state_p) {
    if (state_p == nullptr) {
        MLIB_ERR("NULL state pointer");
        return EINVAL;
    }
    if (platform_state_p != nullptr) {
        const cerrno rc = ip6mc_platform_get_state(platform_state_p);
        if (rc != 0) {
            MLIB_ERR("Cannot get platform lib state: %s", cerr_strerror(rc));
            return rc;
        }
    }
    static_cast<void>(mlib::window_is_open());  // which may take the state down
    *state_p = descriptor.state;
    return 0;
}

void ip6mc_get_version(uint16_t *major_p, uint16_t *minor_p) {
    *major_p = IP6MC_VERSION_MAJOR;
    *minor_p = IP6MC_VERSION_MINOR;
}

cerrno ip6mc_update_im_context(void *context) {
    descriptor.im_context = context;
    return 0;
}

cerrno ip6mc_clear_hw_resources(uint32_t arg) {
    const cerrno rc = ip6mc_platform_clear_hw_resources(arg);
    if (rc != 0) {
        MLIB_ERR("Plat clear hw resources API : %s", cerr_strerror(rc));
    }
    return 0;
}

void ipmc_platform_async_err_set_cb(ipmc_platform_async_err_ft cb) {
    async_err_cb = cb;
}

// Not tested for NULL: a platform that reports errors has been given its handler first.
cerrno ipmc_platform_async_err_handler(uint64_t obj_id, uint32_t oor_error, cerrno code,
                                       uint32_t object_type, uint32_t unit, void *context) {
    return async_err_cb(obj_id, oor_error, code, object_type, unit, context);
}

void ipmc_set_download_complete_rcvd(int flag) {
    download_complete_rcvd = flag;
}

int ipmc_get_download_complete_rcvd(void) {
    return download_complete_rcvd;
}

}  // extern "C"
