#include "services/peers/peers.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

namespace mfwd6::peers {

namespace {

// A lookup reads the range here, not in the env, which its owner may free after env_remove.
struct entry {
    std::atomic<uintptr_t> begin;
    std::atomic<uintptr_t> end;
    std::atomic<env *> window;
};

constexpr uint32_t max_windows = 8;
constinit entry windows[max_windows]{};
constinit std::mutex changing;  // guards writes to `windows`, and joins of this process

// Only async-signal-safe calls: another thread of the parent may have held any lock.
void close_all_in_child() {
    for (entry &e : windows) {
        env *window = e.window.load(std::memory_order_relaxed);
        if (e.begin.load(std::memory_order_relaxed) == 0 || window == nullptr) {
            continue;
        }
        if (window->fd >= 0) {
            close(window->fd);
        }
        window->fd = -1;
        window->self = 0;
    }
    journal::forget_after_fork();
    changing.unlock();
}

void watch_forks() {
    static const int once =
        pthread_atfork([] { changing.lock(); }, [] { changing.unlock(); }, close_all_in_child);
    (void)once;
}

int slot_lock(int fd, int command, short type, uint32_t slot, struct flock *answer) {
    struct flock what = {};
    what.l_type = type;
    what.l_whence = SEEK_SET;
    what.l_start = slot_lock_offset + slot;
    what.l_len = 1;
    int rc;
    do {
        rc = fcntl(fd, command, &what);
    } while (rc != 0 && errno == EINTR);
    if (answer != nullptr) {
        *answer = what;
    }
    return rc == 0 ? 0 : errno;
}

uint32_t id_in(const slot &s) {
    return std::atomic_ref<uint32_t>(const_cast<slot &>(s).id).load(std::memory_order_acquire);
}

void describe(slot &s, role as) {
    s.role = static_cast<uint32_t>(as);
    s.pid = getpid();
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    s.started =
        static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
    char name[sizeof s.name] = {};
    prctl(PR_GET_NAME, name);
    std::memcpy(s.name, name, sizeof s.name);
}

// The byte of slot `i` is locked by this process. A dead holder's id goes to `predecessor` first,
// so that it is not forgotten should this process die before the recovery; the new id makes it dead
// for everybody. Returns that id.
peer_id claim(env *window, uint32_t i, role as) {
    slot &s = window->peers->slots[i];
    const uint32_t dead = id_in(s);
    if (dead != 0 && s.predecessor == 0) {
        s.predecessor = dead;
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
    describe(s, as);
    s.generation++;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    const peer_id id = (s.generation << 8) | (i + 1);
    std::atomic_ref<uint32_t>(s.id).store(id, std::memory_order_release);
    std::atomic_ref<uint32_t>(window->peers->openings).fetch_add(1, std::memory_order_relaxed);
    window->self = id;
    return dead;
}

bool try_claim(env *window, uint32_t i, role as, bool also_dead, peer_id *dead, int *error) {
    slot &s = window->peers->slots[i];
    if ((id_in(s) != 0 && !also_dead) || s.generation >= last_generation) {
        return false;
    }
    const int rc = slot_lock(window->fd, F_OFD_SETLK, F_WRLCK, i, nullptr);
    if (rc != 0) {
        if (rc != EAGAIN && rc != EACCES) {
            *error = rc;
        }
        return false;
    }
    // Somebody may have come and gone before the lock.
    if ((id_in(s) != 0 && !also_dead) || s.generation >= last_generation) {
        slot_lock(window->fd, F_OFD_SETLK, F_UNLCK, i, nullptr);
        return false;
    }
    *dead = claim(window, i, as);
    return true;
}

// Two when the first to take the slot over died before it had recovered the one before.
void recover_predecessors(env *window, peer_id dead) {
    slot &mine = window->peers->slots[slot_of(window->self)];
    for (const peer_id id : {mine.predecessor, dead}) {
        if (id != 0 && window->recover != nullptr) {
            window->recover(window, id);
        }
    }
    mine.predecessor = 0;
}

int take_slot(env *window, role as, peer_id *dead) {
    int error = 0;
    for (const bool also_dead : {false, true}) {
        for (uint32_t i = 0; i < max_peers; ++i) {
            if (try_claim(window, i, as, also_dead, dead, &error)) {
                return 0;
            }
            if (error != 0) {
                return error;
            }
        }
    }
    return EMFILE;
}

}  // namespace

bool env_add(env *window) {
    watch_forks();
    const std::lock_guard<std::mutex> guard(changing);
    const auto begin = reinterpret_cast<uintptr_t>(window->base);
    entry *free = nullptr;
    for (entry &e : windows) {
        const env *there = e.window.load(std::memory_order_relaxed);
        if (e.begin.load(std::memory_order_relaxed) == 0) {
            free = free != nullptr ? free : &e;
        } else if (e.begin.load(std::memory_order_relaxed) == begin && there->self == 0 &&
                   there->fd < 0) {
            // Closed by a fork, and opened anew by the child.
            free = &e;
            break;
        }
    }
    if (free == nullptr || begin == 0) {
        return false;
    }
    free->begin.store(0, std::memory_order_release);
    free->end.store(begin + window->length, std::memory_order_release);
    free->window.store(window, std::memory_order_release);
    free->begin.store(begin, std::memory_order_release);
    return true;
}

void env_remove(env *window) {
    const std::lock_guard<std::mutex> guard(changing);
    for (entry &e : windows) {
        if (e.window.load(std::memory_order_relaxed) == window) {
            e.begin.store(0, std::memory_order_release);
            e.window.store(nullptr, std::memory_order_release);
        }
    }
}

env *env_of(const void *address) {
    const auto at = reinterpret_cast<uintptr_t>(address);
    for (const entry &e : windows) {
        const uintptr_t begin = e.begin.load(std::memory_order_acquire);
        if (begin != 0 && at >= begin && at < e.end.load(std::memory_order_acquire)) {
            env *window = e.window.load(std::memory_order_acquire);
            if (e.begin.load(std::memory_order_acquire) == begin) {
                return window;
            }
        }
    }
    return nullptr;
}

int join(env *window, role as) {
    peer_id dead = 0;
    {
        const std::lock_guard<std::mutex> guard(changing);
        if (window->self != 0) {
            return EALREADY;
        }
        if (window->fd < 0) {
            return EBADF;
        }
        const int rc = take_slot(window, as, &dead);
        if (rc != 0) {
            return rc;
        }
    }
    // Recovery may wait for others, stopped ones too; whoever attaches does not. What the dead left
    // is found by its id: by who waits for its locks, and by the next owner.
    if (as == role::owner) {
        recover_predecessors(window, dead);
    }
    return 0;
}

void leave(env *window) {
    const std::lock_guard<std::mutex> guard(changing);
    if (window->self == 0) {
        return;
    }
    const uint32_t i = slot_of(window->self);
    clear_slot(window, window->self);
    window->self = 0;
    slot_lock(window->fd, F_OFD_SETLK, F_UNLCK, i, nullptr);
}

bool alive(const env *window, peer_id id) {
    if (id == 0) {
        return false;
    }
    if (window == nullptr || id == window->self) {
        return true;
    }
    const uint32_t i = slot_of(id);
    if (i >= max_peers || id_in(window->peers->slots[i]) != id) {
        return false;
    }
    struct flock answer;
    if (slot_lock(window->fd, F_OFD_GETLK, F_WRLCK, i, &answer) != 0) {
        return true;
    }
    return answer.l_type != F_UNLCK;
}

void clear_slot(env *window, peer_id dead) {
    const uint32_t i = slot_of(dead);
    if (dead == 0 || i >= max_peers) {
        return;
    }
    peer_id expected = dead;
    std::atomic_ref<uint32_t>(window->peers->slots[i].id)
        .compare_exchange_strong(expected, 0, std::memory_order_acq_rel);
}

}  // namespace mfwd6::peers
