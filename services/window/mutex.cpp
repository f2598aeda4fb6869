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

void tell(const open_window &w, uint32_t event) {
    if (w.monitor != nullptr) {
        w.monitor(w.id.load(std::memory_order_relaxed), event, w.monitor_context);
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
    o.stuck_after = wait_limit_ns();
    o.on_stuck = holder_is_stuck;
    o.context = &w;
}

}  // namespace mfwd6::window

using namespace mfwd6;
using namespace mfwd6::window;

extern "C" {

cerrno shmwin_lock(uint32_t id) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    const locks::outcome got = locks::lock(&w->super->window_mutex, w->mutex_options);
    if (!locks::is_taken(got)) {
        return got == locks::outcome::closed ? EBADF : ENOLCK;
    }
    if (got == locks::outcome::taken_after_death) {
        tell(*w, SHMWIN_EVENT_DEAD);
    }
    return 0;
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
    w->monitor_context = context;
    w->monitor = monitor;
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
