#include "services/locks/robust_mutex.h"

#include <errno.h>

#include "services/locks/lock_word.h"

namespace mfwd6::locks {

namespace {

peers::peer_id identity(const mutex_options &how) {
    return how.window != nullptr ? how.window->self : peers::private_peer;
}

bool bind(const mutex_options &how, peers::peer_id peer) {
    return how.log == nullptr || journal::bind_thread(how.log, peer);
}

void unbind(const mutex_options &how) {
    if (how.log != nullptr) {
        journal::unbind_thread(how.log);
    }
}

outcome taken(robust_mutex *m, const mutex_options &how, peers::peer_id peer, outcome result) {
    journal::crash_point();
    m->depth = 1;
    if (!bind(how, peer)) {
        word::release(m->word, 1);
        return outcome::no_binding;
    }
    journal::crash_point();
    return result;
}

// Calls `on_stuck` each time that `stuck_after` has gone by.
class stuck_watch {
  public:
    stuck_watch(robust_mutex *m, const mutex_options &how) : mutex_(m), how_(how) {
        if (wanted()) {
            next_ = word::monotonic_ns() + how.stuck_after;
        }
    }

    // Nanoseconds until the next call, at least 1; 0 when there is none.
    uint64_t left() const {
        if (!wanted()) {
            return 0;
        }
        const uint64_t now = word::monotonic_ns();
        return next_ > now ? next_ - now : 1;
    }

    void look(uint64_t w) {
        if (!wanted()) {
            return;
        }
        const uint64_t now = word::monotonic_ns();
        if (now < next_) {
            return;
        }
        how_.on_stuck(how_.context, mutex_, {word::peer_of(w), word::thread_of(w)});
        next_ = now + how_.stuck_after;
    }

  private:
    bool wanted() const { return how_.stuck_after != 0 && how_.on_stuck != nullptr; }

    robust_mutex *mutex_;
    const mutex_options &how_;
    uint64_t next_ = 0;
};

// True when the holder was dead; it is recovered then, and still named by the word.
bool holder_is_dead(const mutex_options &how, uint64_t w) {
    if (how.window == nullptr || peers::alive(how.window, word::peer_of(w))) {
        return false;
    }
    if (how.recovers && how.window->recover != nullptr) {
        how.window->recover(how.window, word::peer_of(w));
    }
    return true;
}

void count_death(robust_mutex *m) {
    std::atomic_ref<uint32_t>(m->deaths).fetch_add(1, std::memory_order_relaxed);
}

outcome acquire(robust_mutex *m, const mutex_options &how, bool wait) {
    const peers::peer_id peer = identity(how);
    const uint64_t me = word::hold(peer, word::thread_id());
    auto w = word::at(m->word);
    stuck_watch watch(m, how);
    word::patience waits(nullptr);
    uint64_t mark = 0;  // after a wait others may wait too
    outcome result = outcome::taken;
    uint64_t seen = w.load(std::memory_order_relaxed);
    for (;;) {
        if (seen == 0) {
            if (w.compare_exchange_weak(seen, me | mark)) {
                return taken(m, how, peer, result);
            }
            continue;
        }
        if (word::same_holder(seen, me)) {
            if (how.recursive) {
                ++m->depth;
                return outcome::taken_again;
            }
        } else if (waits.suspicious() && holder_is_dead(how, seen)) {
            journal::crash_point();
            mark = word::waiting;
            // Its recovery may have freed the mutex, or another waiter may have been faster.
            if (w.compare_exchange_strong(seen, me | mark)) {
                count_death(m);
                return taken(m, how, peer, outcome::taken_after_death);
            }
            if (seen == 0) {
                result = outcome::taken_after_death;
            }
            continue;
        }
        if (!wait) {
            return outcome::busy;
        }
        if (word::mark_waiting(m->word, seen)) {
            mark = word::waiting;
            waits.sleep(m->word, seen, watch.left());
            watch.look(seen);
            seen = w.load(std::memory_order_relaxed);
        }
    }
}

}  // namespace

holder holder_of(const robust_mutex *m) {
    const uint64_t w = word::at(m->word).load(std::memory_order_relaxed);
    return {word::peer_of(w), word::thread_of(w)};
}

outcome lock(robust_mutex *m, const mutex_options &how) {
    const peers::peer_id peer = identity(how);
    if (peer == 0) [[unlikely]] {
        return outcome::closed;
    }
    uint64_t free = 0;
    if (word::at(m->word).compare_exchange_strong(free, word::hold(peer, word::thread_id())))
        [[likely]] {
        return taken(m, how, peer, outcome::taken);
    }
    return acquire(m, how, true);
}

outcome try_lock(robust_mutex *m, const mutex_options &how) {
    return identity(how) == 0 ? outcome::closed : acquire(m, how, false);
}

cerrno unlock(robust_mutex *m, const mutex_options &how) {
    const peers::peer_id peer = identity(how);
    if (peer == 0) {
        return EBADF;
    }
    const uint64_t w = word::at(m->word).load(std::memory_order_relaxed);
    if (!word::same_holder(w, word::hold(peer, word::thread_id()))) {
        return EPERM;
    }
    if (m->depth > 1) {
        --m->depth;
        return 0;
    }
    unbind(how);
    journal::crash_point();
    word::release(m->word, 1);
    journal::crash_point();
    return 0;
}

bool release_dead(robust_mutex *m, peers::peer_id dead) {
    auto w = word::at(m->word);
    uint64_t seen = w.load(std::memory_order_relaxed);
    while (seen != 0 && word::peer_of(seen) == dead) {
        if (w.compare_exchange_weak(seen, 0)) {
            count_death(m);
            word::wake(m->word, word::everybody);
            return true;
        }
    }
    return false;
}

}  // namespace mfwd6::locks
