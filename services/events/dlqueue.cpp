#include "services/events/dlqueue.h"

#include <cerrno>
#include <cstddef>
#include <type_traits>

#include "services/journal/journal.h"

namespace journal = mfwd6::journal;

static_assert(std::is_trivially_copyable_v<dlqueue_node_t>);
static_assert(sizeof(dlqueue_node_t) == 24 && offsetof(dlqueue_node_t, next) == 8 &&
                  offsetof(dlqueue_node_t, data) == 16,
              "queues outlive the process that made them");

// A node is off every queue when its prev is itself. Its next says nothing about that.
static bool off_queue(const dlqueue_node_t *node) {
    return node->prev == node;
}

void dlqueue_init(dlqueue_node_t *node, void *data) {
    journal::store(node->data, data);
    journal::store(node->prev, node);
    journal::store(node->next, node);
}

cerrno dlqueue_insert(dlqueue_node_t *node, dlqueue_node_t *queue) {
    if (node == nullptr || queue == nullptr || node == queue) {
        return EINVAL;
    }
    if (!off_queue(node)) {
        return EEXIST;
    }
    const journal::group change;
    if (node->next == node) {
        // Not journaled, on purpose: undoing may put back what stands here while a reader is on the
        // node, and a node that leads to itself would hold that reader for ever.
        std::atomic_ref(node->next).store(queue, std::memory_order_relaxed);
    }
    dlqueue_node_t *const last = queue->prev;
    journal::store(node->next, queue);
    journal::store(node->prev, last);
    journal::publish(last->next, node);
    journal::store(queue->prev, node);
    return 0;
}

cerrno dlqueue_remove(dlqueue_node_t *node) {
    if (node == nullptr) {
        return EINVAL;
    }
    if (off_queue(node)) {
        return ENOENT;
    }
    const journal::group change;
    journal::publish(node->prev->next, node->next);
    journal::store(node->next->prev, node->prev);
    journal::store(node->prev, node);
    return 0;
}
