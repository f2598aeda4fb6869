#include "services/events/timer.h"

#include <sys/timerfd.h>

#include <cerrno>
#include <cstdlib>

#include "services/events/manager.h"

namespace mfwd6::events {
namespace {

bool before(const mgd_timer_leaf *a, const mgd_timer_leaf *b) {
    return a->due_ns != b->due_ns ? a->due_ns < b->due_ns : a->start < b->start;
}

void put(event_manager *evm, size_t place, mgd_timer_leaf *leaf) {
    evm->heap[place] = leaf;
    leaf->place = place;
}

void sift_up(event_manager *evm, size_t place) {
    mgd_timer_leaf *const leaf = evm->heap[place];
    while (place > 0 && before(leaf, evm->heap[(place - 1) / 2])) {
        put(evm, place, evm->heap[(place - 1) / 2]);
        place = (place - 1) / 2;
    }
    put(evm, place, leaf);
}

void sift_down(event_manager *evm, size_t place) {
    mgd_timer_leaf *const leaf = evm->heap[place];
    for (;;) {
        size_t child = 2 * place + 1;
        if (child + 1 < evm->running && before(evm->heap[child + 1], evm->heap[child])) {
            ++child;
        }
        if (child >= evm->running || !before(evm->heap[child], leaf)) {
            break;
        }
        put(evm, place, evm->heap[child]);
        place = child;
    }
    put(evm, place, leaf);
}

void enqueue(mgd_timer_leaf *leaf, uint64_t due_ns) {
    event_manager *const evm = leaf->evm;
    leaf->due_ns = due_ns;
    leaf->start = ++evm->starts;
    put(evm, evm->running, leaf);
    sift_up(evm, evm->running++);
}

void dequeue(mgd_timer_leaf *leaf) {
    event_manager *const evm = leaf->evm;
    const size_t hole = leaf->place;
    leaf->place = not_queued;
    mgd_timer_leaf *const moved = evm->heap[--evm->running];
    if (moved != leaf) {
        put(evm, hole, moved);
        sift_up(evm, hole);
        sift_down(evm, moved->place);
    }
}

// Room for one more leaf, so that starting one never needs memory.
bool reserve_leaf(event_manager *evm) {
    if (evm->leaf_count < evm->heap_room) {
        return true;
    }
    const size_t room = evm->heap_room == 0 ? 16 : 2 * evm->heap_room;
    void *const grown = realloc(evm->heap, room * sizeof(mgd_timer_leaf *));
    if (grown == nullptr) {
        return false;
    }
    evm->heap = static_cast<mgd_timer_leaf **>(grown);
    evm->heap_room = room;
    return true;
}

// The leaf may be gone after this.
void fire(mgd_timer_leaf *leaf, uint64_t now) {
    const timer_handler h = leaf->evm->handlers[leaf->handle];
    dequeue(leaf);
    if (h.mode == EVENT_TIMER_PERIODIC) {
        // Periods missed are not made up for.
        const uint64_t next = add_capped(leaf->due_ns, leaf->period_ns);
        enqueue(leaf, next > now ? next : add_capped(now, leaf->period_ns));
    }
    h.handler(leaf, leaf->context);
}

}  // namespace

int arm_timers(event_manager *evm) {
    const bool wanted = evm->running > 0 && !clock_is_test();
    const uint64_t due = wanted ? evm->heap[0]->due_ns : 0;
    if (due == evm->armed_ns) {
        return 0;
    }
    itimerspec setting{};
    setting.it_value.tv_sec = static_cast<time_t>(due / ns_per_s);
    setting.it_value.tv_nsec = static_cast<long>(due % ns_per_s);
    if (timerfd_settime(evm->timer_fd, TFD_TIMER_ABSTIME, &setting, nullptr) != 0) {
        return errno;
    }
    evm->armed_ns = due;
    return 0;
}

bool timers_due(const event_manager *evm) {
    return evm->running > 0 && evm->heap[0]->due_ns <= clock_now();
}

uint32_t fire_timers(event_manager *evm) {
    // A handler may start its timer for now: that is for the next turn.
    const uint64_t last_start = evm->starts;
    const uint64_t now = clock_now();
    uint32_t fired = 0;
    while (evm->running > 0 && evm->heap[0]->due_ns <= now && evm->heap[0]->start <= last_start) {
        fire(evm->heap[0], now);
        ++fired;
    }
    return fired;
}

void free_timers(event_manager *evm) {
    while (evm->leaves != nullptr) {
        event_timer_leaf_free(evm->leaves);
    }
    free(evm->heap);
    free(evm->handlers);
}

}  // namespace mfwd6::events

using namespace mfwd6::events;

uint32_t event_timer_attach(event_manager_t *evm, uint32_t mode, event_timer_fn handler,
                            void *context) {
    const bool known = mode == EVENT_TIMER_ONE_SHOT || mode == EVENT_TIMER_PERIODIC;
    if (evm == nullptr || handler == nullptr || !known) {
        errno = EINVAL;
        return EVENT_TIMER_INVALID;
    }
    void *const grown =
        realloc(evm->handlers, (size_t{evm->handler_count} + 1) * sizeof(timer_handler));
    if (grown == nullptr) {
        errno = ENOMEM;
        return EVENT_TIMER_INVALID;
    }
    evm->handlers = static_cast<timer_handler *>(grown);
    evm->handlers[evm->handler_count] = {mode, handler, context};
    return evm->handler_count++;
}

mgd_timer_leaf_t *event_timer_leaf_new(event_manager_t *evm, uint32_t handle, void *context) {
    if (evm == nullptr || handle >= evm->handler_count) {
        errno = EINVAL;
        return nullptr;
    }
    auto *const leaf = static_cast<mgd_timer_leaf *>(calloc(1, sizeof(mgd_timer_leaf)));
    if (leaf == nullptr || !reserve_leaf(evm)) {
        free(leaf);
        errno = ENOMEM;
        return nullptr;
    }
    leaf->evm = evm;
    leaf->handle = handle;
    leaf->context = context != nullptr ? context : evm->handlers[handle].context;
    leaf->place = not_queued;
    leaf->next = evm->leaves;
    if (leaf->next != nullptr) {
        leaf->next->prev = leaf;
    }
    evm->leaves = leaf;
    ++evm->leaf_count;
    return leaf;
}

void event_timer_leaf_free(mgd_timer_leaf_t *leaf) {
    if (leaf == nullptr) {
        return;
    }
    mgd_timer_leaf_stop(leaf);
    event_manager *const evm = leaf->evm;
    (leaf->prev != nullptr ? leaf->prev->next : evm->leaves) = leaf->next;
    if (leaf->next != nullptr) {
        leaf->next->prev = leaf->prev;
    }
    --evm->leaf_count;
    free(leaf);
}

int mgd_timer_leaf_running(const mgd_timer_leaf_t *leaf) {
    return leaf != nullptr && leaf->place != not_queued ? 1 : 0;
}

cerrno mgd_timer_leaf_start(mgd_timer_leaf_t *leaf, const struct timespec *period) {
    if (leaf == nullptr || period == nullptr || period->tv_sec < 0 || period->tv_nsec < 0 ||
        period->tv_nsec >= static_cast<long>(ns_per_s)) {
        return EINVAL;
    }
    const uint64_t ns = add_capped(multiply_capped(static_cast<uint64_t>(period->tv_sec), ns_per_s),
                                   static_cast<uint64_t>(period->tv_nsec));
    if (ns == 0 && leaf->evm->handlers[leaf->handle].mode == EVENT_TIMER_PERIODIC) {
        return EINVAL;
    }
    mgd_timer_leaf_stop(leaf);
    leaf->period_ns = ns;
    enqueue(leaf, add_capped(clock_now(), ns));
    return 0;
}

void mgd_timer_leaf_stop(mgd_timer_leaf_t *leaf) {
    if (leaf != nullptr && leaf->place != not_queued) {
        dequeue(leaf);
    }
}
