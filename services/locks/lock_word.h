// The word that says who holds a lock, and waiting for it. Private to the locks and to those who
// show them.
//
// Upper half: peer id. Lower half: thread id, with bit 31 for "somebody waits". The lower half is
// what futex(2) looks at. 0 is free.
#ifndef MFWD6_SERVICES_LOCKS_LOCK_WORD_H
#define MFWD6_SERVICES_LOCKS_LOCK_WORD_H

#include <time.h>

#include <atomic>
#include <bit>
#include <cstdint>

#include "services/peers/peers.h"

namespace mfwd6::locks::word {

static_assert(std::endian::native == std::endian::little, "futex(2) takes the lower half");

// Thread ids stay below 2^22 (PID_MAX_LIMIT), so the bit is free.
inline constexpr uint64_t waiting = uint64_t{1} << 31;

constexpr uint64_t hold(peers::peer_id peer, uint32_t thread) {
    return (uint64_t{peer} << 32) | thread;
}
constexpr peers::peer_id peer_of(uint64_t w) {
    return static_cast<peers::peer_id>(w >> 32);
}
constexpr uint32_t thread_of(uint64_t w) {
    return static_cast<uint32_t>(w & (waiting - 1));
}
constexpr bool same_holder(uint64_t a, uint64_t b) {
    return ((a ^ b) & ~waiting) == 0;
}

inline std::atomic_ref<uint64_t> at(const uint64_t &w) {
    return std::atomic_ref<uint64_t>(const_cast<uint64_t &>(w));
}

// gettid(2), remembered by each thread.
uint32_t thread_id();

uint64_t monotonic_ns();

inline constexpr int everybody = 0x7fffffff;
void wake(uint64_t &w, int count);

// Frees the word and wakes those who wait for it.
void release(uint64_t &w, int count);

// True when `w` carries the waiting bit now; false when it changed meanwhile. Updates `seen`.
bool mark_waiting(uint64_t &w, uint64_t &seen);

// True once the deadline of `limit` (CLOCK_REALTIME) has passed. Null: never.
bool passed(const timespec *limit);

// One wait, cut into slices so that a death is noticed.
class patience {
  public:
    explicit patience(const timespec *deadline) : deadline_(deadline) {}

    // Sleeps until the lower half of `w` is not that of `seen`, somebody wakes us, or the slice is
    // over. At most `at_most` nanoseconds when that is not 0.
    void sleep(uint64_t &w, uint64_t seen, uint64_t at_most = 0);

    // It is time to ask whether the holder lives: before the first sleep, and after a slice in
    // which nothing happened.
    bool suspicious() const { return suspicious_; }

    bool over() const { return passed(deadline_); }

  private:
    const timespec *deadline_;
    uint64_t slice_ = 2'000'000;
    bool suspicious_ = true;
};

}  // namespace mfwd6::locks::word

#endif
