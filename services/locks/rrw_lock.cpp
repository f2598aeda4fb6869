#include "services/locks/rrw_lock.h"

#include <errno.h>

#include <cstring>

#include "services/locks/lock_word.h"

namespace {

using namespace mfwd6;
using locks::word::at;

constexpr uint32_t lock_magic = 0x72727731;

// `rrw_lock::turn`: a reader has waited for long. The next write unlock turns it into a time until
// which writers hold back, so that a reader gets in between two writers. Time ends it, whoever
// dies.
constexpr uint64_t turn_wanted = 1;
constexpr uint64_t turn_length = 1'000'000;
constexpr uint64_t reader_patience = 10'000'000;

constexpr uint64_t count_mask = 0xffffffff;

constinit std::atomic<rrw_lock_trace_ft> tracer{nullptr};

template <class... Arguments>
void trace(const char *format, Arguments... arguments) {
    if (rrw_lock_trace_ft to = tracer.load(std::memory_order_acquire)) {
        to(format, arguments...);
    }
}

// What one thread holds. The peer id makes what a fork copied, or a closed window left, count for
// nothing.
struct hold {
    const rrw_lock_t *lock;
    peers::peer_id peer;
    uint32_t reads;
    uint32_t writes;
};
constexpr uint32_t most_holds = 8;
constinit thread_local hold holds[most_holds] __attribute__((tls_model("initial-exec"))) = {};

bool idle(const hold &h) {
    return h.reads == 0 && h.writes == 0;
}

// Who asks, and for what.
struct caller {
    rrw_lock_t *lock;
    peers::env *window;  // null: private memory
    peers::peer_id peer;
    hold *mine;  // null: no room

    uint64_t word() const { return locks::word::hold(peer, locks::word::thread_id()); }
    rrw_lock_slot &slot() const { return lock->slots[peers::slot_of(peer)]; }
};

hold *find_hold(const rrw_lock_t *lock, peers::peer_id peer) {
    hold *free = nullptr;
    for (hold &h : holds) {
        if (h.lock == lock && h.peer == peer) {
            return &h;
        }
        if (h.lock == nullptr || idle(h) || (h.lock == lock && h.peer != peer)) {
            free = free != nullptr ? free : &h;
        }
    }
    if (free != nullptr) {
        *free = {lock, peer, 0, 0};
    }
    return free;
}

caller caller_of(rrw_lock_t *lock) {
    peers::env *window = peers::env_of(lock);
    const peers::peer_id peer = window != nullptr ? window->self : peers::private_peer;
    return {lock, window, peer, peer != 0 ? find_hold(lock, peer) : nullptr};
}

bool is_time(const struct timespec *deadline) {
    return deadline != nullptr && deadline->tv_nsec >= 0 && deadline->tv_nsec < 1'000'000'000;
}

cerrno check(const caller &who) {
    return who.peer == 0 ? EBADF : who.mine == nullptr ? ENOLCK : 0;
}

void recover(const caller &who, peers::peer_id dead) {
    if (who.window != nullptr && who.window->recover != nullptr) {
        who.window->recover(who.window, dead);
    }
}

// The gate's holder `seen` is dead and recovered: hands the gate to `next` (0: opens it).
bool take_from_dead(const caller &who, uint64_t &seen, uint64_t next) {
    const uint64_t dead = seen;
    if (!at(who.lock->gate).compare_exchange_strong(seen, next)) {
        return false;
    }
    std::atomic_ref<uint32_t>(who.lock->deaths).fetch_add(1, std::memory_order_relaxed);
    if (next == 0) {
        locks::word::wake(who.lock->gate, locks::word::everybody);
    }
    trace("rrw lock %p: writer 0x%x (thread %u) died, its changes were recovered",
          static_cast<void *>(who.lock), locks::word::peer_of(dead), locks::word::thread_of(dead));
    return true;
}

bool dead_and_recovered(const caller &who, uint64_t seen) {
    const peers::peer_id peer = locks::word::peer_of(seen);
    if (peers::alive(who.window, peer)) {
        return false;
    }
    recover(who, peer);
    journal::crash_point();
    return true;
}

// ---- readers

void make_known(const caller &who) {
    const uint32_t i = peers::slot_of(who.peer);
    const uint64_t bit = uint64_t{1} << (i % 64);
    auto known = at(who.lock->known[i / 64]);
    if ((known.load(std::memory_order_relaxed) & bit) == 0) {
        known.fetch_or(bit);
    }
}

// Counts one more hold. What a dead process left in the slot is overwritten.
bool enter(const caller &who) {
    auto slot = at(who.slot().word);
    uint64_t seen = slot.load(std::memory_order_relaxed);
    uint64_t next;
    do {
        if (locks::word::peer_of(seen) != who.peer) {
            next = locks::word::hold(who.peer, 1);
        } else if ((seen & count_mask) != count_mask) {
            next = seen + 1;
        } else {
            return false;
        }
    } while (!slot.compare_exchange_weak(seen, next));
    return true;
}

void leave(const caller &who) {
    rrw_lock_slot &slot = who.slot();
    uint64_t seen = at(slot.word).load(std::memory_order_relaxed);
    do {
        // The lock was zeroed under us, with the header that it lies in.
        if (locks::word::peer_of(seen) != who.peer || (seen & count_mask) == 0) {
            return;
        }
    } while (!at(slot.word).compare_exchange_weak(seen, seen - 1));
    if ((seen & count_mask) == 1 && at(who.lock->gate).load() != 0) {
        locks::word::wake(slot.word, locks::word::everybody);
    }
}

// The gate was taken when we looked: waits until it is free. 0 or ETIMEDOUT.
cerrno wait_for_gate(const caller &who, locks::word::patience &waits, uint64_t started) {
    auto gate = at(who.lock->gate);
    uint64_t seen = gate.load(std::memory_order_acquire);
    while (seen != 0) {
        if (waits.suspicious() && dead_and_recovered(who, seen)) {
            take_from_dead(who, seen, 0);
            return 0;
        }
        if (waits.over()) {
            return ETIMEDOUT;
        }
        if (locks::word::monotonic_ns() - started > reader_patience) {
            uint64_t none = 0;
            at(who.lock->turn).compare_exchange_strong(none, turn_wanted);
        }
        if (locks::word::mark_waiting(who.lock->gate, seen)) {
            waits.sleep(who.lock->gate, seen);
            seen = gate.load(std::memory_order_acquire);
        }
    }
    return 0;
}

cerrno read_slow(const caller &who, const struct timespec *deadline) {
    const uint64_t started = locks::word::monotonic_ns();
    locks::word::patience waits(deadline);
    for (;;) {
        const cerrno code = wait_for_gate(who, waits, started);
        if (code != 0) {
            return code;
        }
        if (!enter(who)) {
            return EAGAIN;
        }
        if (at(who.lock->gate).load() == 0) {
            return 0;
        }
        leave(who);
    }
}

// ---- writers

// Readers that waited long have the lock for a moment.
void leave_turn(const caller &who, const struct timespec *deadline) {
    auto turn = at(who.lock->turn);
    uint64_t until = turn.load(std::memory_order_relaxed);
    while (until > turn_wanted) {
        const uint64_t now = locks::word::monotonic_ns();
        // Longer than a turn: left from before a reboot of the clock.
        if (now >= until || until - now > turn_length) {
            turn.compare_exchange_strong(until, 0);
            return;
        }
        if (locks::word::passed(deadline)) {
            return;
        }
        const timespec rest = {0, static_cast<long>(until - now)};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, nullptr);
        until = turn.load(std::memory_order_relaxed);
    }
}

cerrno take_gate(const caller &who, const struct timespec *deadline) {
    auto gate = at(who.lock->gate);
    const uint64_t me = who.word();
    locks::word::patience waits(deadline);
    uint64_t mark = 0;
    uint64_t seen = 0;
    for (;;) {
        if (seen == 0) {
            leave_turn(who, deadline);
            if (gate.compare_exchange_strong(seen, me | mark)) {
                return 0;
            }
        }
        if (waits.suspicious() && dead_and_recovered(who, seen)) {
            mark = locks::word::waiting;
            if (take_from_dead(who, seen, me | mark)) {
                return 0;
            }
            continue;
        }
        if (waits.over()) {
            return ETIMEDOUT;
        }
        if (locks::word::mark_waiting(who.lock->gate, seen)) {
            mark = locks::word::waiting;
            waits.sleep(who.lock->gate, seen);
            seen = gate.load(std::memory_order_relaxed);
        }
    }
}

void open_gate(const caller &who) {
    auto turn = at(who.lock->turn);
    if (turn.load(std::memory_order_relaxed) == turn_wanted) {
        turn.store(locks::word::monotonic_ns() + turn_length, std::memory_order_relaxed);
    }
    locks::word::release(who.lock->gate, locks::word::everybody);
}

// A dead process's holds are taken off by whoever finds them.
bool clean_slot(rrw_lock_t *lock, uint32_t i, uint64_t seen) {
    rrw_lock_slot &slot = lock->slots[i];
    if (!at(slot.word).compare_exchange_strong(seen, 0)) {
        return false;
    }
    std::atomic_ref<uint32_t>(slot.cleaned).fetch_add(1, std::memory_order_relaxed);
    trace("rrw lock %p: reader 0x%x died with %u holds", static_cast<void *>(lock),
          locks::word::peer_of(seen), static_cast<uint32_t>(seen & count_mask));
    return true;
}

cerrno wait_for_readers(const caller &who, uint32_t i, const struct timespec *deadline) {
    rrw_lock_slot &slot = who.lock->slots[i];
    locks::word::patience waits(deadline);
    uint64_t seen = at(slot.word).load();
    while ((seen & count_mask) != 0) {
        if (waits.suspicious() && !peers::alive(who.window, locks::word::peer_of(seen))) {
            clean_slot(who.lock, i, seen);
        } else if (waits.over()) {
            return ETIMEDOUT;
        } else {
            waits.sleep(slot.word, seen);
        }
        seen = at(slot.word).load();
    }
    return 0;
}

cerrno drain(const caller &who, const struct timespec *deadline) {
    for (uint32_t half = 0; half < 2; ++half) {
        for (uint64_t left = at(who.lock->known[half]).load(); left != 0; left &= left - 1) {
            const uint32_t i = half * 64 + static_cast<uint32_t>(std::countr_zero(left));
            const cerrno code = wait_for_readers(who, i, deadline);
            if (code != 0) {
                return code;
            }
        }
    }
    return 0;
}

journal::log *log_of(const caller &who) {
    return who.window != nullptr
               ? who.window->logs[static_cast<uint32_t>(peers::domain::table_lock)]
               : nullptr;
}

cerrno bind_log(const caller &who) {
    journal::log *log = log_of(who);
    return log == nullptr || journal::bind_thread(log, who.peer) ? 0 : ENOLCK;
}

cerrno unlock_write(const caller &who, int line) {
    if (who.mine->writes == 0) {
        return EPERM;
    }
    who.mine->writes = 0;
    if (journal::log *log = log_of(who)) {
        journal::unbind_thread(log);
    }
    const uint64_t gate = at(who.lock->gate).load(std::memory_order_relaxed);
    if (!locks::word::same_holder(gate, who.word())) {
        return EPERM;  // the lock was zeroed under us
    }
    who.lock->line = line;
    journal::crash_point();
    open_gate(who);
    journal::crash_point();
    return 0;
}

cerrno unlock_read(const caller &who, int line) {
    if (who.mine->reads == 0) {
        return EPERM;
    }
    --who.mine->reads;
    std::atomic_ref<int32_t>(who.slot().line).store(line, std::memory_order_relaxed);
    journal::crash_point();
    leave(who);
    journal::crash_point();
    return 0;
}

// ---- making and taking over

bool in_live_use(const caller &who) {
    const uint64_t gate = at(who.lock->gate).load();
    if (gate != 0 && peers::alive(who.window, locks::word::peer_of(gate))) {
        return true;
    }
    for (const rrw_lock_slot &slot : who.lock->slots) {
        const uint64_t seen = at(slot.word).load();
        if ((seen & count_mask) != 0 && peers::alive(who.window, locks::word::peer_of(seen))) {
            return true;
        }
    }
    return false;
}

void bury(const caller &who) {
    uint64_t gate = at(who.lock->gate).load();
    if (gate != 0 && dead_and_recovered(who, gate)) {
        take_from_dead(who, gate, 0);
    }
    for (uint32_t i = 0; i < RRW_LOCK_SLOTS; ++i) {
        const uint64_t seen = at(who.lock->slots[i].word).load();
        if ((seen & count_mask) != 0 && !peers::alive(who.window, locks::word::peer_of(seen))) {
            clean_slot(who.lock, i, seen);
        }
    }
}

}  // namespace

cerrno rrw_lock_init(rrw_lock_t *lock, int mode, int exists, rrw_lock_trace_ft trace_to,
                     intptr_t reserved) {
    if (lock == nullptr || mode != RRW_LOCK_MODE_SHARED || reserved != 0) {
        return EINVAL;
    }
    const caller who = caller_of(lock);
    if (who.peer == 0) {
        return EBADF;
    }
    if (trace_to != nullptr) {
        tracer.store(trace_to, std::memory_order_release);
    }
    // Private memory may hold anything before. A window's is zero or a lock, which clients may be
    // using already, so there it is never overwritten as a whole.
    if (who.window == nullptr && exists == 0 && lock->magic != lock_magic) {
        std::memset(lock, 0, sizeof *lock);
    }
    if (in_live_use(who)) {
        return EBUSY;
    }
    bury(who);
    lock->mode = static_cast<uint32_t>(mode);
    lock->magic = lock_magic;
    return 0;
}

cerrno rrw_lock_get_timedwrlock(rrw_lock_t *lock, const struct timespec *deadline) {
    if (lock == nullptr || !is_time(deadline)) {
        return EINVAL;
    }
    const caller who = caller_of(lock);
    cerrno code = check(who);
    if (code != 0) {
        return code;
    }
    code = take_gate(who, deadline);
    if (code != 0) {
        return code;
    }
    journal::crash_point();
    code = drain(who, deadline);
    journal::crash_point();
    if (code == 0) {
        code = bind_log(who);
    }
    if (code != 0) {
        open_gate(who);
        return code;
    }
    who.mine->writes = 1;
    journal::crash_point();
    return 0;
}

cerrno rrw_lock_get_timedrdlock(rrw_lock_t *lock, const struct timespec *deadline) {
    if (lock == nullptr || !is_time(deadline)) {
        return EINVAL;
    }
    const caller who = caller_of(lock);
    cerrno code = check(who);
    if (code != 0) {
        return code;
    }
    make_known(who);
    journal::crash_point();
    if (!enter(who)) {
        return EAGAIN;
    }
    journal::crash_point();
    // A thread that holds the lock already keeps writers out, or is the writer.
    if (idle(*who.mine) && at(lock->gate).load() != 0) {
        leave(who);
        journal::crash_point();
        code = read_slow(who, deadline);
    }
    if (code == 0) {
        ++who.mine->reads;
    }
    return code;
}

cerrno rrw_lock_unlock(rrw_lock_t *lock, int line, int is_reader) {
    if (lock == nullptr) {
        return EINVAL;
    }
    const caller who = caller_of(lock);
    const cerrno code = check(who);
    if (code != 0) {
        return code == ENOLCK ? EPERM : code;
    }
    return is_reader != 0 ? unlock_read(who, line) : unlock_write(who, line);
}
