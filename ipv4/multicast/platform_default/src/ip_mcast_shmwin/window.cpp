// The window of the library: open, where first start and restart part ways; reset; close; its
// monitor.
#include "services/window/window.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/shmwin.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/diag/messages.h"
#include "services/diag/text.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"
#include "services/locks/pak_client.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"
#include "services/window/inspect.h"
#include "services/window/setup.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;

constexpr int rrw_lock_mode = 2;
constexpr int kill_signal = 9;

__attribute__((format(printf, 1, 2))) void trace_rrw_lock(const char *format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    MLIB_DEBUG(IPV4_DEBUG_DEV, "%s", text);
}

shmwin_open_record service_record(int attach_only, void *base_addr, size_t max_table_size) {
    shmwin_open_record record{};
    std::memcpy(record.name, IP6MC_SHMWIN_NAME, sizeof(IP6MC_SHMWIN_NAME));
    record.base_addr = base_addr;
    record.max_table_size = max_table_size;
    record.hdr_size = sizeof(ipv4mc_shmwin_hdr_st);
    record.open_flags = attach_only != 0 ? 0 : SHMWIN_OPEN_OWNER;
    return record;
}

cerrno open_service_window(const shmwin_open_record &record) {
    void *header = nullptr;
    const cerrno rc = shmwin_open_win(&record, &header, &ipv4mc_desc->shmwin_id);
    if (rc == 0) {
        ipv4mc_desc->shmwin_info = static_cast<ipv4mc_shmwin_hdr_st *>(header);
        return 0;
    }
    MLIB_ERR(
        "Cannot init shared mem window  %s base_addr=%p max_table_size=%zd hdr_size=%zd  %d: %s",
        record.name, record.base_addr, record.max_table_size, record.hdr_size, static_cast<int>(rc),
        cerr_strerror(rc));
    return rc;
}

// A window that nobody can use, and nobody does, is thrown away and made again.
void repair_window() {
    cerrno rc = shmwin_reset(ipv4mc_desc->shmwin_id);
    if (rc != 0) {
        MLIB_ERR("Cannot reset shared mem window: %s", cerr_strerror(rc));
    }
    rc = shmwin_close(ipv4mc_desc->shmwin_id, 1);
    if (rc != 0) {
        MLIB_ERR("Cannot close shared mem window: %s", cerr_strerror(rc));
    }
}

cerrno map_window(int attach_only) {
    void *base_addr = nullptr;
    size_t max_table_size = 0;
    cerrno rc = shmwin_platform_info(IP6MC_SHMWIN_NAME, &base_addr, &max_table_size);
    if (rc != 0) {
        MLIB_ERR("Cannot get shared mem window info %d: %s", static_cast<int>(rc),
                 cerr_strerror(rc));
        return rc;
    }
    shmwin_set_fingerprint(IP6MC_SHMWIN_NAME, mlib::layout_fingerprint());
    const shmwin_open_record record = service_record(attach_only, base_addr, max_table_size);
    rc = open_service_window(record);
    if (rc == SHMWIN_ERR_REPAIR) {
        repair_window();
        rc = open_service_window(record);
    }
    return rc;
}

cerrno prepare_pool() {
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    if (hdr->buffer_pool == nullptr) {
        constexpr size_t size = sizeof(ipmc_shmwin_pool_bucket_st) * IPMC_SHMWIN_POOL_BUCKETS;
        const group change;
        void *pool = nullptr;
        const cerrno rc = shmwin_malloc(ipv4mc_desc->shmwin_id, size, &pool);
        if (rc != 0) {
            MLIB_ERR("Cannot Allocate shmwin buffer pool from shared memory %d: %s",
                     static_cast<int>(rc), cerr_strerror(rc));
            return rc;
        }
        std::memset(pool, 0, size);
        publish(hdr->buffer_pool, static_cast<ipmc_shmwin_pool_bucket_st *>(pool));
    }
    ipv4mc_desc->buffer_pool_enabled = 1;
    return 0;
}

void prepare_lock() {
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    const int survives = hdr->table_tid_tree != nullptr ? 1 : 0;
    const cerrno rc = rrw_lock_init(&hdr->tbl_rw_lock, rrw_lock_mode, survives, trace_rrw_lock, 0);
    if (rc != 0 && rc != EBUSY) {
        MLIB_ERR("[%d] Cannot init rwlock [%d] : %s", __LINE__, static_cast<int>(rc),
                 cerr_strerror(rc));
    }
}

// Whoever comes first to a new window builds the two trees of tables, an attached client too.
cerrno prepare_table_trees() {
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    if (wavl_running(&hdr->table_name_tree) == 0) {
        static_assert(sizeof(hdr->table_name_tree) == 96);
        std::memset(&hdr->table_name_tree, 0, sizeof(hdr->table_name_tree));
        const cerrno rc = shm_wavl_init(&ipmc_db_table_fns, &hdr->table_name_tree, 2);
        if (rc != 0) {
            MLIB_ERR("Cannot init wavl tree for tables %d: %s", static_cast<int>(rc),
                     cerr_strerror(rc));
            return rc;
        }
    }
    if (hdr->table_tid_tree == nullptr) {
        const cerrno rc = shm_avl_tree_init(&ipmc_db_tid_fns, &hdr->table_tid_tree, 1, 0);
        if (rc != 0) {
            MLIB_ERR("Cannot init avl tree for table(tid based) %d: %s", static_cast<int>(rc),
                     cerr_strerror(rc));
            return rc;
        }
    }
    return 0;
}

// The former holder is gone: what it left is stale.
void forget_lock_holders() {
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    hdr->pak_lock_total = 0;
    hdr->pak_lock_count = 0;
    hdr->pak_lock_fn[0] = '\0';
    hdr->pak_lock_line = 0;
    hdr->pak_lock_fails = 0;
    hdr->pak_unlock_fails = 0;
    hdr->shmwin_lock_pid = 0;
    hdr->shmwin_lock_fn[0] = '\0';
    hdr->shmwin_lock_line = 0;
    hdr->shmwin_lock_count = 0;
    hdr->pak_lock_deaths = pak_client_mutex_deaths();
    shmwin_get_mutex_deaths(ipv4mc_desc->shmwin_id, &hdr->shmwin_lock_deaths);
}

cerrno open_again(int attach_only, int keep_buffer_pool) {
    MLIB_DEBUG(IPV4_DEBUG_EV, "Shmwin already initialized [%c] [%c]", attach_only != 0 ? 'Y' : 'N',
               keep_buffer_pool != 0 ? 'Y' : 'N');
    if (attach_only == 0 && keep_buffer_pool == 0) {
        ipmc_shmwin_init_buffer_pool();
    }
    return 0;
}

}  // namespace

extern "C" {

cerrno ip6mc_shmwin_open(int attach_only, int keep_buffer_pool) {
    if (ipv4mc_desc->shmwin_init != 0) {
        return open_again(attach_only, keep_buffer_pool);
    }
    cerrno rc = map_window(attach_only);
    if (rc != 0) {
        return rc;
    }
    ipv4mc_desc->shmwin_init = 1;
    mlib::note_window_contents();
    if (attach_only == 0) {
        rc = prepare_pool();
        if (rc != 0) {
            return rc;
        }
        prepare_lock();
        ipmc_changed_routes_init(ipv4mc_desc->shmwin_info);
    } else {
        ipv4mc_desc->buffer_pool_enabled = 0;
    }
    rc = prepare_table_trees();
    if (rc != 0 || attach_only != 0) {
        return rc;
    }
    if (ip6mc_bvi_intf_db_init() == 0) {
        MLIB_ERR("%s: ERR:BVI Intf DB Init FAILED", __func__);
        return 1;
    }
    forget_lock_holders();
    ipmc_queue_init();
    return 0;
}

cerrno ip6mc_shmwin_close(void) {
    if (ipv4mc_desc->shmwin_init == 0) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "Shmwin already closed");
        return 0;
    }
    mlib::drop_table_search();
    const cerrno rc = shmwin_close(ipv4mc_desc->shmwin_id, 1);
    if (rc != 0) {
        MLIB_ERR("Cannot close shared mem window: %s", cerr_strerror(rc));
    } else {
        ipv4mc_desc->shmwin_info = nullptr;
    }
    ipv4mc_desc->shmwin_init = 0;
    return rc;
}

cerrno ip6mc_shmwin_reset(int notify) {
    if (ipv4mc_desc->shmwin_init == 0) {
        MLIB_ERR("Shared Memory Window Not Initialized");
        return EBADF;
    }
    ip6mc_gtrie_reset_handle_db(notify);
    const cerrno rc = shmwin_reset(ipv4mc_desc->shmwin_id);
    if (rc != 0) {
        MLIB_ERR("Cannot reset shared mem window: %s", cerr_strerror(rc));
    } else {
        mlib::note_window_contents();
    }
    // The search key lay in the heap that is gone.
    table_search = nullptr;
    // The trees, the pool and the lock are built by the next open, not here.
    std::memset(static_cast<void *>(ipv4mc_desc->shmwin_info), 0, sizeof(ipv4mc_shmwin_hdr_st));
    ipv4mc_desc->lib_init = 0;
    ipv4mc_desc->idb_init = 0;
    ipv4mc_update_state(IPV4MC_LIB_STATE_DOWN);
    MLIB_DEBUG(IPV4_DEBUG_STATE, "Lib state changed from %s to %s",
               ipv4_mlib_state_string(ipv4mc_desc->prev_state),
               ipv4_mlib_state_string(ipv4mc_desc->state));
    if (notify != 0) {
        mlib::tell_client_of_state();
    }
    return rc;
}

cerrno ip6mc_shmwin_is_init(int32_t *flag_p) {
    if (flag_p == nullptr) {
        MLIB_ERR("NULL pointer");
        return EINVAL;
    }
    *flag_p = ipv4mc_desc->shmwin_init;
    return 0;
}

cerrno ip6mc_shmwin_get_id(uint32_t *id_p) {
    if (ipv4mc_desc->shmwin_init == 0) {
        MLIB_ERR("Shared Memory Window Not Initialized");
        return EBADF;
    }
    if (id_p == nullptr) {
        MLIB_ERR("NULL pointer");
        return EINVAL;
    }
    *id_p = ipv4mc_desc->shmwin_id;
    return 0;
}

cerrno ip6mc_shmwin_get_info(ipv4mc_shmwin_hdr_st **hdr_p) {
    if (!mlib::window_is_open()) {
        MLIB_ERR("Shared Memory Window Not Initialized");
        return EBADF;
    }
    if (hdr_p == nullptr) {
        MLIB_ERR("NULL pointer");
        return EINVAL;
    }
    *hdr_p = ipv4mc_desc->shmwin_info;
    return 0;
}

int ip6mc_shmwin_buffer_status(int enable) {
    ipv4mc_desc->buffer_pool_enabled = enable != 0 ? 1 : 0;
    return ipv4mc_desc->buffer_pool_enabled;
}

cerrno ipv4mc_shmwin_callback_fn(uint32_t id, uint32_t event, void *argument) {
    _ltrace_3(ip6mc_mlib_eve_ltrace(), MLIB_TRACE_SHMWIN_MONITOR, id, event,
              reinterpret_cast<uint64_t>(argument));
    cerrno rc = 0;
    if (ipv4mc_desc->callback != nullptr) {
        ipv4mc_lib_callback_msg message{};
        message.type = IPV4MC_LIB_MSG_MONITOR;
        message.u.monitor.window_id = id;
        message.u.monitor.event = event;
        message.u.monitor.argument = reinterpret_cast<uint64_t>(argument);
        rc = ipv4mc_desc->callback(ipv4mc_desc, &message, ipv4mc_desc->callback_context);
        if (rc == 0) {
            return 0;
        }
        MLIB_ERR("Callback function failed");
    }
    if (event != SHMWIN_EVENT_STUCK) {
        return rc;
    }
    rc = shmwin_kill_and_reset(id, kill_signal);
    if (rc != 0) {
        orv_errmsg(orv_msg_rec_ipv4_mlib_shmwin_err_getfn(), 3, "Failed in calling shmwin_kill", "",
                   cerr_strerror(rc));
    }
    return rc;
}

}  // extern "C"
