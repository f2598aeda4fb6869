// Start, stop and states of the interface half in one process.
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "services/diag/messages.h"
#include "services/diag/text.h"
#include "services/journal/journal.h"
#include "services/trees/wavl.h"

uint8_t idb_post_restart_done = 0;

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

constexpr uint32_t post_restart_yield_count = 16;

wavl_tree *global_tree() {
    return &ipv4mc_desc->shmwin_info->idb_tree;
}

void trace_state_change() {
    MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "IDB state changed from %s to %s",
                    ipv4_mlib_idb_state_string(ipv4mc_desc->prev_idb_state),
                    ipv4_mlib_idb_state_string(ipv4mc_desc->idb_state));
}

void change_state(uint32_t state) {
    ipv4mc_idb_update_state(state);
    trace_state_change();
}

void tell_client() {
    if (ipv4mc_desc->idb_callback == nullptr) {
        return;
    }
    ipv4mc_idb_callback_msg message{};
    message.type = 0;
    message.state = ipv4mc_desc->idb_state;
    message.prev_state = ipv4mc_desc->prev_idb_state;
    ipv4mc_desc->idb_callback(ipv4mc_desc, &message, ipv4mc_desc->idb_callback_context);
}

// What the interface manager announced to the last process has to be announced again. `context`
// counts.
cerrno ipmc_idb_post_restart_adjust_refcount_fn(ipv4mc_idb_st *idb, void *context) {
    const char *name = ip6mc_idb_display_name(idb);
    if (idb->im_create_rcvd != 0) {
        ++*static_cast<uint32_t *>(context);
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB,
                        "Marking %s 0x%x refcount %d STALE due to MFWD restart, im_create_rcvd %d",
                        name, idb->ifh, idb->refcount, idb->im_create_rcvd);
        const group change;
        store(idb->create_state, static_cast<uint32_t>(IPV4MC_IDB_UNKNOWN));
        store(idb->cfg_flags, static_cast<uint8_t>(idb->cfg_flags | IPV4MC_IDB_CFG_STALE));
    } else {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB,
                        "IDB %s (0x%x) refct %d not marked as stale  due to MFWD restart "
                        "im_create_rcvd %d",
                        name, idb->ifh, idb->refcount, idb->im_create_rcvd);
    }
    return ipmc_bundle_vlantree_reinit(idb);
}

void report_state_error(const char *text, cerrno rc) {
    orv_errmsg(orv_msg_rec_ipv4_mlib_state_err_getfn(), 3, text, cerr_strerror(rc));
}

cerrno prepare_op_spec(ipv4mc_idb_op_spec_st *op_spec) {
    const cerrno rc =
        ip6mc_platform_idb_operation_wrapper(IPV4MC_IDB_OP_SPEC_INIT, nullptr, nullptr, op_spec);
    if (rc != 0) {
        report_state_error("Cannot INIT op_spec", rc);
    }
    return rc;
}

cerrno register_with_platform() {
    ipv4mc_idb_op_spec_st op_spec{};
    cerrno rc = prepare_op_spec(&op_spec);
    if (rc != 0) {
        return rc;
    }
    op_spec.callback = ipv4mc_local_platform_idb_callback_func;
    rc = ip6mc_platform_idb_operation_wrapper(IPV4MC_IDB_OP_INIT, nullptr, nullptr, &op_spec);
    if (rc != 0) {
        MLIB_ERR("Error while init HW IDB:%s", cerr_strerror(rc));
    }
    return rc;
}

cerrno ask_platform_state(uint32_t *state) {
    ipv4mc_idb_op_spec_st op_spec{};
    cerrno rc = prepare_op_spec(&op_spec);
    if (rc != 0) {
        return rc;
    }
    rc = ip6mc_platform_idb_operation_wrapper(IPV4MC_IDB_OP_GET_STATE, nullptr, nullptr, &op_spec);
    if (rc != 0) {
        report_state_error("Cannot get current platform IDB state", rc);
        return rc;
    }
    *state = op_spec.state;
    return 0;
}

// A failure behind the registration leaves `idb_init` set, on purpose: a second start finds it and
// does nothing until somebody stops the interface half.
cerrno start_with_platform() {
    uint32_t platform_state = 0;
    cerrno rc = register_with_platform();
    if (rc == 0) {
        ipv4mc_desc->idb_init = 1;
        rc = ask_platform_state(&platform_state);
    }
    if (rc != 0) {
        change_state(IPV4MC_IDB_STATE_DOWN);
        if (wavl_running(global_tree()) != 0) {
            shm_wavl_finish(&ipmc_idb_fns, global_tree());
        }
        return rc;
    }
    if (platform_state == IPV4MC_PLATFORM_STATE_READY) {
        change_state(IPV4MC_IDB_STATE_READY);
    } else {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "IDB state is still %s",
                        ipv4_mlib_idb_state_string(ipv4mc_desc->idb_state));
    }
    return 0;
}

// A tree that runs was left by an earlier process, with its records.
cerrno make_tree() {
    if (wavl_running(global_tree()) != 0) {
        return 0;
    }
    const cerrno rc = shm_wavl_init(&ipmc_idb_fns, global_tree(), IPV4MC_IDB_THREADS);
    if (rc != 0) {
        MLIB_ERR("Cannot init wavl tree for idb %d: %s", static_cast<int>(rc), cerr_strerror(rc));
    }
    return rc;
}

}  // namespace

extern "C" {

ipv4mc_idb_route_walk_ft ip_mfwd_check_bundle_data_mdt_f = nullptr;

void ipv4mc_idb_update_state(uint32_t state) {
    ipv4mc_desc->prev_idb_state = ipv4mc_desc->idb_state;
    ipv4mc_desc->idb_state = state;
    if (state != IPV4MC_IDB_STATE_READY || ipv4mc_desc->evm == nullptr) {
        return;
    }
    uint32_t marked = 0;
    const cerrno rc =
        ip6mc_idb_walk_with_count(nullptr, 0, 0, ipmc_idb_post_restart_adjust_refcount_fn, &marked,
                                  post_restart_yield_count, 0);
    if (rc != 0) {
        MLIB_ERR("IDB walk failed");
    }
    _ltrace_2(ip6mc_mlib_ltrace(), MLIB_TRACE_IDB_POST_RESTART, marked, rc);
    idb_post_restart_done = 1;
}

cerrno ip6mc_idb_init(void *evm, void *, int manage_interfaces, ipv4mc_idb_callback_ft callback,
                      void *callback_context, ipv4mc_idb_route_walk_ft bundle_mdt_check_fn,
                      void *idb_param) {
    if (ipv4mc_desc->idb_init != 0) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "IDB lib already initialized");
        return 0;
    }
    if (!mlib::library_is_ready()) {
        MLIB_ERR("Multicast library Not ready\n");
        return EBADF;
    }
    if (ipv4mc_desc->shmwin_info == nullptr) {
        MLIB_ERR("Fatal Error: Null ipv4mc_shmwin_info");
        return EINVAL;
    }
    if (manage_interfaces != 0 && evm == nullptr) {
        MLIB_ERR("Fatal Error: Cannot manage I/Fs with NULL evm");
        return EINVAL;
    }
    ipv4mc_desc->evm = evm;
    ipv4mc_desc->idb_param = idb_param;
    ipv4mc_desc->idb_callback = callback;
    ipv4mc_desc->idb_callback_context = callback_context;
    ip_mfwd_check_bundle_data_mdt_f = bundle_mdt_check_fn;

    cerrno rc = make_tree();
    if (rc != 0) {
        return rc;
    }
    change_state(IPV4MC_IDB_STATE_INIT);
    if (manage_interfaces == 0) {
        ipv4mc_desc->idb_init = 1;
        change_state(IPV4MC_IDB_STATE_READY);
    } else {
        rc = start_with_platform();
        if (rc != 0) {
            return rc;
        }
    }
    tell_client();
    return 0;
}

cerrno ip6mc_idb_reinit(void) {
    wavl_running(global_tree());
    return 0;
}

cerrno ip6mc_idb_terminate(int destroy_tree, int flag, ...) {
    if (ipv4mc_desc->idb_init == 0) {
        ipv4mc_idb_update_state(IPV4MC_IDB_STATE_DOWN);
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "IDB lib is not initialized");
        return 0;
    }
    if (ipv4mc_desc->shmwin_info == nullptr) {
        MLIB_ERR("NULL shared mem descriptor");
        return 0;
    }
    if (destroy_tree != 0 && flag == 0 && wavl_running(global_tree()) != 0) {
        shm_wavl_finish(&ipmc_idb_fns, global_tree());
    }
    ipv4mc_idb_update_state(IPV4MC_IDB_STATE_DOWN);
    ipv4mc_desc->idb_init = 0;
    trace_state_change();
    return 0;
}

// Looks at the state before the present one, on purpose and unlike the library's own state machine:
// from a first wait for the platform it does not move.
void ipv4mc_local_platform_idb_callback_func(ipv4mc_descriptor_struct *,
                                             const ipv4mc_platform_msg_st *message) {
    if (message->type != IPV4MC_PLATFORM_MSG_STATE) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "Got message type %d", message->type);
        return;
    }
    const bool ready = message->new_state == IPV4MC_PLATFORM_STATE_READY;
    const uint32_t from = ready ? IPV4MC_IDB_STATE_INIT : IPV4MC_IDB_STATE_READY;
    if (ipv4mc_desc->prev_idb_state != from) {
        return;
    }
    ipv4mc_idb_update_state(ready ? IPV4MC_IDB_STATE_READY : IPV4MC_IDB_STATE_INIT);
    if (ipv4mc_desc->evm != nullptr) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "Platform IDB state changed from %s to %s",
                        ipv4_mlib_platform_idb_state_string(message->old_state),
                        ipv4_mlib_platform_idb_state_string(message->new_state));
        trace_state_change();
    }
    tell_client();
}

}  // extern "C"
