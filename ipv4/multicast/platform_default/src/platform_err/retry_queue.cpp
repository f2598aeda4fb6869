// The queue of objects whose last platform call failed. It lies in the window, so that a restarted
// process goes on retrying what the one before it left.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/events/dlqueue.h"
#include "services/journal/journal.h"
#include "services/platform_info/platform_info.h"

namespace {

using mfwd6::journal::group;

uint8_t retry_queue_enabled = 0;

// A flag once set in a process stays set.
bool decide_enabled() {
    const uint32_t type = platform_get_router_type();
    if (type == PLATFORM_ROUTER_TYPE_ASYNC_A || type == PLATFORM_ROUTER_TYPE_ASYNC_B) {
        retry_queue_enabled = 1;
    }
    return retry_queue_enabled != 0;
}

dlqueue_node_t *present_queue() {
    const ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    return hdr != nullptr ? hdr->retry_queue : nullptr;
}

cerrno ipmc_retry_msg_queue_insert(dlqueue_node_t *queue, void *object, uint32_t type) {
    if (queue == nullptr) {
        MLIB_ERR("%s: Retry queue is NULL", __func__);
        return EINVAL;
    }
    const group change;
    auto *element = static_cast<ipmc_retry_msg *>(
        ipv4mc_shmwin_malloc_inline(sizeof(ipmc_retry_msg), IPMC_SHMWIN_ALLOC_RETRY_MSG));
    if (element == nullptr) {
        MLIB_ERR("%s: Malloc of Retry msg Queue node failed", __func__);
        return EINVAL;
    }
    element->object = object;
    element->type = type;
    dlqueue_init(&element->node, element);
    dlqueue_insert(&element->node, queue);
    return 0;
}

void take_off(dlqueue_node_t *node) {
    const group change;
    void *element = node->data;
    dlqueue_remove(node);
    ipv4mc_shmwin_free_inline(element, IPMC_SHMWIN_ALLOC_RETRY_MSG);
}

// The element of an object. EINVAL with null when the queue holds something that is no element.
cerrno find_element(uint32_t type, const void *object, const char *function,
                    ipmc_retry_msg **found) {
    *found = nullptr;
    const dlqueue_node_t *queue = present_queue();
    if (queue == nullptr) {
        return 0;
    }
    for (const dlqueue_node_t *node = queue->next; node != queue; node = node->next) {
        auto *element = static_cast<ipmc_retry_msg *>(node->data);
        if (element == nullptr) {
            MLIB_ERR("%s: Route retry queue node is NULL\n", function);  // for encaps too
            return EINVAL;
        }
        if (element->type == type && element->object == object) {
            *found = element;
            return 0;
        }
    }
    return 0;
}

// The pass's result after one element. A failed route stays in it until a later encap replaces it;
// a route's success never clears it. So a pass whose last encap succeeds gives 0 even with a failed
// route before it, and the timer then rests until the next error: on purpose.
cerrno retry_one(dlqueue_node_t *queue, ipmc_retry_msg *element, cerrno result) {
    cerrno rc = 0;
    switch (element->type) {
        case IPMC_RETRY_ENCAP:
            rc = ipmc_platform_err_handler_err_replay_encap(
                static_cast<ipv4mc_encap_entry_st *>(element->object));
            if (rc == 0) {
                ipmc_retry_msg_queue_rem_element(queue, &element->node);
            }
            return rc;
        case IPMC_RETRY_ROUTE: {
            auto *route = static_cast<ipv4mc_route_entry_st *>(element->object);
            rc = ipmc_platform_err_handler_err_replay_route(route);
            if (rc == 0) {
                ipmc_retry_msg_queue_rem_element(queue, &element->node);
                return result;
            }
            MLIB_ERR("%s:ERR Did not replay route %s %s\n", "ipmc_retry_msg_queue_walk",
                     mlib::source_text(&route->source), mlib::address_text(&route->group));
            return rc;
        }
        default:
            MLIB_ERR("%s: Invalid retry msg type %d", "ipmc_retry_msg_queue_walk",
                     static_cast<int>(element->type));
            return result;
    }
}

}  // namespace

extern "C" {

void ipmc_queue_init(void) {
    if (!decide_enabled()) {
        _ltrace_2(ip6mc_mlib_retry_queue_ltrace(), MLIB_TRACE_RETRY_QUEUE, 1, 0);
        return;
    }
    _ltrace_2(ip6mc_mlib_retry_queue_ltrace(), MLIB_TRACE_RETRY_QUEUE, 0, 0);
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    if (hdr->retry_queue == nullptr) {
        const group change;
        void *head =
            ipv4mc_shmwin_malloc_inline(sizeof(dlqueue_node_t), IPMC_SHMWIN_ALLOC_RETRY_QUEUE);
        if (head != nullptr) {
            dlqueue_init(static_cast<dlqueue_node_t *>(head), nullptr);
            mfwd6::journal::publish(hdr->retry_queue, static_cast<dlqueue_node_t *>(head));
        }
    }
    _ltrace(ip6mc_mlib_retry_queue_ltrace(), MLIB_TRACE_RETRY_QUEUE_READY);
}

cerrno ipmc_retry_msg_queue_insert_route(ipv4mc_route_entry_st *route) {
    if (retry_queue_enabled != 1) {
        return 0;
    }
    const cerrno rc = ipmc_retry_msg_queue_insert(present_queue(), route, IPMC_RETRY_ROUTE);
    MLIB_DEBUG(IPV4_DEBUG_EV, "%s: RC %s\n", __func__, cerr_strerror(rc));
    return rc;
}

cerrno ipmc_retry_msg_queue_insert_encap(ipv4mc_encap_entry_st *encap) {
    if (retry_queue_enabled != 1) {
        return 0;
    }
    const cerrno rc = ipmc_retry_msg_queue_insert(present_queue(), encap, IPMC_RETRY_ENCAP);
    MLIB_DEBUG(IPV4_DEBUG_EV, "%s: RC %s\n", __func__, cerr_strerror(rc));
    return rc;
}

cerrno ipmc_retry_msg_queue_rem_route(ipv4mc_route_entry_st *route) {
    ipmc_retry_msg *element = nullptr;
    const cerrno rc = find_element(IPMC_RETRY_ROUTE, route, __func__, &element);
    if (rc != 0) {
        return rc;
    }
    if (element == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "%s: No matching route found in the queue\n", __func__);
        return EINVAL;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "%s: Route found\n", __func__);
    take_off(&element->node);
    return 0;
}

cerrno ipmc_retry_msg_queue_rem_encap(ipv4mc_encap_entry_st *encap) {
    ipmc_retry_msg *element = nullptr;
    const cerrno rc = find_element(IPMC_RETRY_ENCAP, encap, __func__, &element);
    if (rc != 0) {
        return rc;
    }
    if (element == nullptr) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "%s: No matching Encap found in the queue\n", __func__);
        return EINVAL;
    }
    MLIB_DEBUG(IPV4_DEBUG_EV, "%s: Encap found\n", __func__);
    take_off(&element->node);
    return 0;
}

void ipmc_retry_msg_queue_rem_element(dlqueue_node_t *queue, dlqueue_node_t *node) {
    if (queue == nullptr || node == nullptr) {
        MLIB_ERR("%s:ERR Retry msg queue is NULL\n", __func__);
    } else if (node == queue) {
        MLIB_ERR("%s:ERR Retry msg queue is empty\n", __func__);
    } else if (node->data == nullptr) {
        MLIB_ERR("%s:ERR Retry msg queue node is NULL\n", __func__);
    } else {
        take_off(node);
    }
}

cerrno ipmc_retry_msg_queue_walk(void) {
    dlqueue_node_t *queue = present_queue();
    if (retry_queue_enabled != 1 || queue == nullptr) {
        return 0;
    }
    cerrno result = 0;
    dlqueue_node_t *next = nullptr;
    for (dlqueue_node_t *node = queue->next; node != queue; node = next) {
        next = node->next;
        auto *element = static_cast<ipmc_retry_msg *>(node->data);
        if (element == nullptr) {
            MLIB_ERR("%s: Retry msg queue node is NULL", __func__);
            return EINVAL;
        }
        const uint32_t type = element->type;  // the element may be gone after its visit
        result = retry_one(queue, element, result);
        MLIB_DEBUG(IPV4_DEBUG_EV, "%s: retry msg type %d rc %s", __func__, static_cast<int>(type),
                   cerr_strerror(result));
    }
    return result;
}

}  // extern "C"
