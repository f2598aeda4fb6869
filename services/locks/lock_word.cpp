#include "services/locks/lock_word.h"

#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

namespace mfwd6::locks::word {

namespace {

constexpr uint64_t second = 1'000'000'000;
// The longest time for which the death of a holder goes unnoticed.
constexpr uint64_t longest_slice = 50'000'000;

constinit thread_local uint32_t own_thread __attribute__((tls_model("initial-exec"))) = 0;

const int forget_after_fork = pthread_atfork(nullptr, nullptr, [] { own_thread = 0; });

long futex(uint64_t &w, int operation, uint32_t value, const timespec *timeout) {
    return syscall(SYS_futex, reinterpret_cast<uint32_t *>(&w), operation, value, timeout, nullptr,
                   0);
}

uint64_t realtime_ns() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * second + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t nanoseconds(const timespec &t) {
    // A date before 1970 has passed, one too far away never comes.
    if (t.tv_sec < 0) {
        return 0;
    }
    const auto seconds = static_cast<uint64_t>(t.tv_sec);
    return seconds > UINT64_MAX / second - 1 ? UINT64_MAX
                                             : seconds * second + static_cast<uint64_t>(t.tv_nsec);
}

}  // namespace

uint32_t thread_id() {
    if (own_thread == 0) [[unlikely]] {
        (void)forget_after_fork;
        own_thread = static_cast<uint32_t>(syscall(SYS_gettid));
    }
    return own_thread;
}

uint64_t monotonic_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * second + static_cast<uint64_t>(now.tv_nsec);
}

void wake(uint64_t &w, int count) {
    futex(w, FUTEX_WAKE, static_cast<uint32_t>(count), nullptr);
}

void release(uint64_t &w, int count) {
    if ((at(w).exchange(0) & waiting) != 0) {
        wake(w, count);
    }
}

bool mark_waiting(uint64_t &w, uint64_t &seen) {
    if ((seen & waiting) != 0) {
        return true;
    }
    if (!at(w).compare_exchange_strong(seen, seen | waiting)) {
        return false;
    }
    seen |= waiting;
    return true;
}

bool passed(const timespec *limit) {
    return limit != nullptr && realtime_ns() >= nanoseconds(*limit);
}

void patience::sleep(uint64_t &w, uint64_t seen, uint64_t at_most) {
    uint64_t time = slice_;
    if (at_most != 0) {
        time = std::min(time, at_most);
    }
    if (deadline_ != nullptr) {
        const uint64_t now = realtime_ns();
        const uint64_t end = nanoseconds(*deadline_);
        time = std::min(time, end > now ? end - now : 0);
    }
    const timespec timeout = {static_cast<time_t>(time / second), static_cast<long>(time % second)};
    const long rc = futex(w, FUTEX_WAIT, static_cast<uint32_t>(seen), &timeout);
    suspicious_ = rc != 0 && errno == ETIMEDOUT;
    if (suspicious_) {
        slice_ = std::min(slice_ * 2, longest_slice);
    }
}

}  // namespace mfwd6::locks::word
