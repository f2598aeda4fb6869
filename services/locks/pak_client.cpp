#include "services/locks/pak_client.h"

#include <errno.h>
#include <pthread.h>

#include <atomic>

#include "services/locks/robust_mutex.h"

namespace {

using namespace mfwd6;

constinit locks::robust_mutex own_mutex{};
constinit std::atomic<locks::robust_mutex *> bound{nullptr};

// The mutex of the process: another thread of the parent may have held it.
const int after_fork = pthread_atfork(nullptr, nullptr, [] { own_mutex = {}; });

struct blocker {
    unsigned depth;
    int former;
};
constinit thread_local blocker block{};

locks::mutex_options options_of(const locks::robust_mutex *m) {
    return {.window = m == &own_mutex ? nullptr : peers::env_of(m), .recursive = true};
}

locks::robust_mutex *mutex_in_use() {
    locks::robust_mutex *m = bound.load(std::memory_order_acquire);
    return m != nullptr ? m : &own_mutex;
}

cerrno unlock(locks::robust_mutex *m) {
    return locks::unlock(m, options_of(m));
}

}  // namespace

cerrno pak_client_mutex_lock(void) {
    (void)after_fork;
    locks::robust_mutex *m = mutex_in_use();
    switch (locks::lock(m, options_of(m))) {
        case locks::outcome::closed:
            return EBADF;
        case locks::outcome::no_binding:
            return ENOLCK;
        default:
            return 0;
    }
}

cerrno pak_client_mutex_unlock(void) {
    locks::robust_mutex *m = bound.load(std::memory_order_acquire);
    if (m != nullptr) {
        const cerrno code = unlock(m);
        if (code != EPERM) {
            return code;
        }
    }
    // Taken before the window was opened.
    return unlock(&own_mutex);
}

uint32_t pak_client_mutex_deaths(void) {
    return journal::observe(mutex_in_use()->deaths);
}

void ptd_set_mutex_block(void) {
    if (block.depth++ == 0) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &block.former);
    }
}

void ptd_unset_mutex_block(void) {
    if (block.depth != 0 && --block.depth == 0) {
        pthread_setcancelstate(block.former, nullptr);
    }
}

namespace mfwd6::locks {

void pak_client_mutex_bind(robust_mutex *m) {
    bound.store(m, std::memory_order_release);
}

}  // namespace mfwd6::locks
