#include "services/locks/robust_mutex.h"

namespace mfwd6::locks {

namespace {

void tell(const recovery_plan &plan, peers::peer_id dead, journal::log *log,
          journal::recovery result) {
    if (plan.found != nullptr) {
        plan.found(plan.context, dead, log, result);
    }
}

uint32_t holder_id(journal::log *l) {
    return std::atomic_ref<uint32_t>(l->holder).load(std::memory_order_acquire);
}

void recover_log(const recovery_plan &plan, peers::peer_id dead, journal::log *l) {
    if (l == nullptr || holder_id(l) != dead) {
        return;
    }
    // Told before the log is emptied: a recoverer killed in between must not hide the damage.
    if ((l->used & journal::overflow_bit) != 0 && l->committing == 0) {
        tell(plan, dead, l, journal::recovery::damaged);
        journal::recover(l);
        return;
    }
    const journal::recovery result = journal::recover(l);
    if (result != journal::recovery::clean) {
        tell(plan, dead, l, result);
    }
}

}  // namespace

void recover_peer(const recovery_plan &plan, peers::peer_id dead) {
    if (dead == 0 || peers::alive(plan.window, dead)) {
        return;
    }
    // Recursive: to give blocks back takes the allocator's lock, whose holder may be dead in its
    // turn, an earlier recoverer above all.
    const mutex_options once = {.window = plan.window, .recursive = true, .recovers = false};
    if (!is_taken(lock(plan.recovery, once))) {
        return;
    }
    for (uint32_t i = 0; i < peers::domains; ++i) {
        recover_log(plan, dead, plan.window->logs[i]);
        journal::crash_point();
        if (i == static_cast<uint32_t>(peers::domain::allocator)) {
            // The logs that follow need the allocator, and nobody would free its lock for this
            // thread.
            release_dead(plan.allocator, dead);
        }
    }
    tell(plan, dead, nullptr, journal::recovery::clean);
    peers::clear_slot(plan.window, dead);
    journal::crash_point();
    unlock(plan.recovery, once);
}

}  // namespace mfwd6::locks
