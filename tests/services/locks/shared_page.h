// A small window for tests: one shared file with a peer table, logs, locks and some words, opened
// under an identity of its own by each process, and closed with it.
#ifndef MFWD6_TESTS_SERVICES_LOCKS_SHARED_PAGE_H
#define MFWD6_TESTS_SERVICES_LOCKS_SHARED_PAGE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "services/journal/journal.h"
#include "services/locks/locks.h"
#include "services/peers/peers.h"

namespace mfwd6::test {

struct page {
    peers::table peers;
    locks::robust_mutex recovery;
    locks::robust_mutex allocator;
    locks::robust_mutex mutex;
    locks::robust_mutex packets;
    rrw_lock_t rw;
    uint64_t words[64];
    uint32_t damaged;
    uint32_t recovered;
    alignas(64) unsigned char logs[peers::domains][journal::log_bytes(64)];
};

class shared_page {
  public:
    explicit shared_page(const std::string &directory = "/dev/shm") {
        path_ = directory + "/mfwd6-page-XXXXXX";
        const int fd = mkstemp(path_.data());
        if (fd < 0 || ftruncate(fd, sizeof(page)) != 0) {
            abort();
        }
        // One mapping for all: a child of a fork keeps it, at the same address.
        at = static_cast<page *>(
            mmap(nullptr, sizeof(page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
        for (uint32_t i = 0; i < peers::domains; ++i) {
            journal::format(at->logs[i], sizeof at->logs[i]);
        }
        current() = this;
    }

    ~shared_page() {
        shut();
        munmap(at, sizeof(page));
        unlink(path_.c_str());
    }

    shared_page(const shared_page &) = delete;
    shared_page &operator=(const shared_page &) = delete;

    // Opens the page in this process, anew in the child of a fork.
    int open(peers::role as = peers::role::attached) {
        // Not over the one that the parent has registered: that object is as it left it.
        auto *e = new peers::env{};
        e->base = at;
        e->length = sizeof(page);
        e->peers = &at->peers;
        e->fd = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
        for (uint32_t i = 0; i < peers::domains; ++i) {
            e->logs[i] = reinterpret_cast<journal::log *>(at->logs[i]);
        }
        e->recover = recover;
        env = e;
        return peers::env_add(e) ? peers::join(e, as) : ENOSPC;
    }

    void shut() {
        if (env != nullptr) {
            peers::leave(env);
            peers::env_remove(env);
            if (env->fd >= 0) {
                close(env->fd);
            }
            delete env;
            env = nullptr;
        }
    }

    locks::recovery_plan plan() {
        return {env, &at->recovery, &at->allocator,
                [](void *context, peers::peer_id, journal::log *l, journal::recovery r) {
                    auto *p = static_cast<page *>(context);
                    if (l == nullptr) {
                        ++p->recovered;
                    } else if (r == journal::recovery::damaged) {
                        p->damaged = 1;
                    }
                },
                at};
    }

    journal::log *log(peers::domain d) { return env->logs[static_cast<uint32_t>(d)]; }

    page *at = nullptr;
    peers::env *env = nullptr;

    // What windows opened from now on have as `env::recover`.
    void (*recover)(peers::env *, peers::peer_id) = [](peers::env *, peers::peer_id dead) {
        locks::recover_peer(current()->plan(), dead);
    };

  private:
    static shared_page *&current() {
        static shared_page *one = nullptr;
        return one;
    }

    std::string path_;
};

// A process that runs `body` and tells through a pipe how far it is.
class child {
  public:
    explicit child(const std::function<void(child &)> &body) {
        if (pipe2(pipe_, O_CLOEXEC) != 0) {
            abort();
        }
        pid_ = fork();
        if (pid_ == 0) {
            body(*this);
            _exit(0);
        }
        ::close(pipe_[1]);
    }

    ~child() {
        if (pid_ > 0) {
            kill();
        }
        ::close(pipe_[0]);
    }

    child(const child &) = delete;
    child &operator=(const child &) = delete;

    // In the child.
    void tell(char step) {
        if (write(pipe_[1], &step, 1) != 1) {
            _exit(99);
        }
    }
    void tell_and_hang(char step) {
        tell(step);
        for (;;) {
            pause();
        }
    }

    // In the parent. 0 when the child ended instead, or nothing came in ten seconds.
    char hear() {
        pollfd p = {pipe_[0], POLLIN, 0};
        char step = 0;
        return poll(&p, 1, 10000) == 1 && read(pipe_[0], &step, 1) == 1 ? step : '\0';
    }
    void kill() {
        ::kill(pid_, SIGKILL);
        wait();
    }
    int wait() {
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return status;
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = 0;
    int pipe_[2];
};

#ifdef MFWD6_CRASH_POINTS
// From now on this process kills itself at its crash point `n`.
inline void die_at_point(int n) {
    static int left;
    left = n;
    journal::crash_hook = [] {
        if (--left == 0) {
            ::kill(getpid(), SIGKILL);
        }
    };
}
#endif

inline bool killed(int status) {
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

inline timespec in_ms(long ms) {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_nsec += (ms % 1000) * 1000000;
    t.tv_sec += ms / 1000 + t.tv_nsec / 1000000000;
    t.tv_nsec %= 1000000000;
    return t;
}

inline bool exited_with(int status, int code) {
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

}  // namespace mfwd6::test

#endif
