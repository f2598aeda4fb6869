// Shared memory with a journal in it, and processes that are killed in the middle of their work on
// it.
#ifndef MFWD6_TESTS_SERVICES_CRASH_ARENA_H
#define MFWD6_TESTS_SERVICES_CRASH_ARENA_H

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>

#include "services/journal/journal.h"

namespace crash {

namespace journal = mfwd6::journal;

// Memory that a child shares with its parent, at the same address.
class arena {
  public:
    explicit arena(size_t bytes, uint32_t log_entries = 256)
        : bytes_(bytes + journal::log_bytes(log_entries)),
          base_(mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (base_ == MAP_FAILED) {
            std::abort();
        }
        log_ = journal::format(base_, journal::log_bytes(log_entries));
        head_ = new (static_cast<char *>(base_) + journal::log_bytes(log_entries)) head{};
        head_->used = journal::log_bytes(log_entries) + 64;
        head_->fail_after = -1;
    }
    ~arena() { munmap(base_, bytes_); }
    arena(const arena &) = delete;
    arena &operator=(const arena &) = delete;

    journal::log *log() { return log_; }

    // Takes memory in the group that is open; nothing is ever given back. NULL when it is used up,
    // or when `fail_after` allocations were made.
    void *take(size_t bytes) {
        const size_t rounded = (bytes + 63) / 64 * 64;
        if (head_->fail_after == 0 || head_->used + rounded > bytes_) {
            return nullptr;
        }
        head_->fail_after -= head_->fail_after > 0 ? 1 : 0;
        void *const block = static_cast<char *>(base_) + head_->used;
        journal::store(head_->used, head_->used + rounded);
        return block;
    }

    template <class T>
    T *make() {
        return new (take(sizeof(T))) T{};
    }

    void fail_after(int64_t allocations) { head_->fail_after = allocations; }

    size_t used() const { return head_->used; }

  private:
    struct alignas(64) head {
        size_t used;
        int64_t fail_after;
    };

    size_t bytes_;
    void *base_;
    journal::log *log_;
    head *head_;
};

inline uint64_t points_left = 0;

inline void count_down() {
    if (--points_left == 0) {
        raise(SIGKILL);
    }
}

// Runs `work` in a child that journals to the arena and is killed at its `point`th crash point,
// counted from 1. True if it was killed, false if it came to its end first. The journal is not
// recovered.
inline bool killed_at(arena *a, uint64_t point, const std::function<void()> &work) {
    const pid_t child = fork();
    if (child == 0) {
        journal::bind_process(a->log(), 7);
        points_left = point;
        journal::crash_hook = count_down;
        work();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0);
    return WIFSIGNALED(status);
}

}  // namespace crash

#endif
