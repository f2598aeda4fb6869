#include "services/window/mutex.h"

#include <errno.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "services/window/settings.h"
#include "services/window/window_table.h"

namespace mfwd6::window {

namespace {

constexpr int death_wait_ms = 1000;

struct registration {
    shmwin_monitor_fn call;
    void *context;
};

registration monitor_of(const open_window &w) {
    for (;;) {
        const uint32_t version = w.monitor_version.load(std::memory_order_acquire);
        const registration found = {w.monitor.load(std::memory_order_acquire),
                                    w.monitor_context.load(std::memory_order_acquire)};
        if (version % 2 == 0 && w.monitor_version.load(std::memory_order_acquire) == version) {
            return found;
        }
    }
}

void set_monitor(open_window &w, registration wanted) {
    uint32_t version = w.monitor_version.load(std::memory_order_relaxed);
    do {
        version &= ~1U;
    } while (!w.monitor_version.compare_exchange_weak(version, version + 1));
    w.monitor.store(wanted.call, std::memory_order_release);
    w.monitor_context.store(wanted.context, std::memory_order_release);
    w.monitor_version.store(version + 2, std::memory_order_release);
}

void tell(const open_window &w, uint32_t event) {
    const registration to = monitor_of(w);
    if (to.call != nullptr) {
        to.call(w.id.load(std::memory_order_relaxed), event, to.context);
    }
}

void holder_is_stuck(void *context, locks::robust_mutex *, locks::holder) {
    tell(*static_cast<open_window *>(context), SHMWIN_EVENT_STUCK);
}

// A descriptor of the process that `peer` names, or -1 with the reason in *why. The peer is seen
// alive after the descriptor is open: the pid cannot have passed to another process before.
int open_peer(const open_window &w, peers::peer_id peer, cerrno *why) {
    const peers::slot &s = w.super->peers.slots[peers::slot_of(peer) % peers::max_peers];
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, s.pid, 0));
    if (fd < 0) {
        *why = static_cast<cerrno>(errno);
        return -1;
    }
    if (journal::observe(s.id) != peer || !peers::alive(&w.env, peer)) {
        close(fd);
        *why = ESRCH;
        return -1;
    }
    return fd;
}

cerrno end_process(int fd, int signal) {
    if (syscall(SYS_pidfd_send_signal, fd, signal, nullptr, 0) != 0 && errno != ESRCH) {
        return static_cast<cerrno>(errno);
    }
    struct pollfd p = {fd, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&p, 1, death_wait_ms);
    } while (ready < 0 && errno == EINTR);
    return ready > 0 ? 0 : ETIMEDOUT;
}

cerrno end_peer(const open_window &w, peers::peer_id peer, int signal) {
    cerrno why = 0;
    const int fd = open_peer(w, peer, &why);
    if (fd < 0) {
        return peers::alive(&w.env, peer) ? why : 0;
    }
    const bool still_holds = locks::holder_of(&w.super->window_mutex).peer == peer;
    const cerrno code = still_holds ? end_process(fd, signal) : 0;
    close(fd);
    return code;
}

}  // namespace

void prepare_mutex(open_window &w) {
    locks::mutex_options &o = w.mutex_options;
    o.window = &w.env;
    o.log = w.env.logs[static_cast<uint32_t>(peers::domain::window_mutex)];
    o.recursive = false;
    o.recovers = true;
    o.on_stuck = holder_is_stuck;
    o.context = &w;
}

}  // namespace mfwd6::window

using namespace mfwd6;
using namespace mfwd6::window;

extern "C" {

cerrno shmwin_lock(uint32_t id) {
    for (;;) {
        open_window *w = find(id);
        if (w == nullptr) {
            return SHMWIN_ERR_BAD_ID;
        }
        locks::mutex_options how = w->mutex_options;
        how.stuck_after = wait_limit_ns();
        const locks::outcome got = locks::lock(&w->super->window_mutex, how);
        if (!locks::is_taken(got)) {
            return got == locks::outcome::closed ? EBADF : ENOLCK;
        }
        if (got != locks::outcome::taken_after_death || monitor_of(*w).call == nullptr) {
            return 0;
        }
        // The monitor may take the mutex itself, or wait for somebody who does, so it is called
        // without it; what the dead left is at rest already.
        locks::unlock(&w->super->window_mutex, w->mutex_options);
        tell(*w, SHMWIN_EVENT_DEAD);
    }
}

cerrno shmwin_unlock(uint32_t id) {
    open_window *w = find(id);
    return w != nullptr ? locks::unlock(&w->super->window_mutex, w->mutex_options)
                        : SHMWIN_ERR_BAD_ID;
}

cerrno shmwin_monitor_lock(uint32_t id, shmwin_monitor_fn monitor, void *context) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    set_monitor(*w, {monitor, context});
    return 0;
}

cerrno shmwin_kill_and_reset(uint32_t id, int signal) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    const peers::peer_id peer = locks::holder_of(&w->super->window_mutex).peer;
    if (peer == 0) {
        return 0;
    }
    if (peer == w->env.self) {
        return EDEADLK;
    }
    if (peers::alive(&w->env, peer)) {
        if (const cerrno code = end_peer(*w, peer, signal); code != 0) {
            return code;
        }
    }
    w->env.recover(&w->env, peer);
    locks::release_dead(&w->super->window_mutex, peer);
    return 0;
}

}  // extern "C"
