// The queue of objects whose last platform call failed. It lies in the window, so that a restarted
// process goes on retrying what the one before it left.
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/events/dlqueue.h"
#include "services/journal/journal.h"
#include "services/platform_info/platform_info.h"

namespace {

uint8_t retry_queue_enabled = 0;

// A flag once set in a process stays set.
bool decide_enabled() {
    const uint32_t type = platform_get_router_type();
    if (type == PLATFORM_ROUTER_TYPE_ASYNC_A || type == PLATFORM_ROUTER_TYPE_ASYNC_B) {
        retry_queue_enabled = 1;
    }
    return retry_queue_enabled != 0;
}

}  // namespace

extern "C" void ipmc_queue_init(void) {
    if (!decide_enabled()) {
        _ltrace_2(ip6mc_mlib_retry_queue_ltrace(), MLIB_TRACE_RETRY_QUEUE, 1, 0);
        return;
    }
    _ltrace_2(ip6mc_mlib_retry_queue_ltrace(), MLIB_TRACE_RETRY_QUEUE, 0, 0);
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    if (hdr->retry_queue == nullptr) {
        const mfwd6::journal::group change;
        void *head =
            ipv4mc_shmwin_malloc_inline(sizeof(dlqueue_node_t), IPMC_SHMWIN_ALLOC_RETRY_QUEUE);
        if (head != nullptr) {
            dlqueue_init(static_cast<dlqueue_node_t *>(head), nullptr);
            mfwd6::journal::publish(hdr->retry_queue, static_cast<dlqueue_node_t *>(head));
        }
    }
    _ltrace(ip6mc_mlib_retry_queue_ltrace(), MLIB_TRACE_RETRY_QUEUE_READY);
}
