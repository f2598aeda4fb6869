#include "services/journal/journal.h"

#include <sched.h>

namespace mfwd6::journal {

constinit thread_local thread_state self{};

#ifdef MFWD6_CRASH_POINTS
void (*crash_hook)() = nullptr;
#endif

namespace {

binding process_binding{};
const block_hooks *hooks = nullptr;

// Identity on memory that belongs to no window, where nobody else looks.
constexpr uint32_t peerless = 1;

constexpr uint64_t address_mask = (uint64_t{1} << 56) - 1;

kind kind_at(const entry &e) {
    return static_cast<kind>(e.where >> 56);
}

void *address_at(const entry &e) {
    return reinterpret_cast<void *>(e.where & address_mask);
}

template <class T>
void put_back(const entry &e) {
    T old;
    std::memcpy(&old, &e.old, sizeof(T));
    std::atomic_ref<T>(*static_cast<T *>(address_at(e))).store(old, std::memory_order_release);
}

void drop_last(log *l) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    --l->used;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

// The hook frees the block and drops the entry together; without an allocator the block is not
// ours.
void release_last(log *l, void *block) {
    if (hooks != nullptr) {
        hooks->release(l, block);
    } else {
        drop_last(l);
    }
}

void retire_last(log *l, void *block) {
    if (hooks != nullptr && hooks->retire != nullptr) {
        hooks->retire(l, block);
    } else {
        release_last(l, block);
    }
}

void undo_last(log *l) {
    const entry e = entries(l)[l->used - 1];
    switch (kind_at(e)) {
        case kind::word1:
            put_back<uint8_t>(e);
            break;
        case kind::word2:
            put_back<uint16_t>(e);
            break;
        case kind::word4:
            put_back<uint32_t>(e);
            break;
        case kind::word8:
            put_back<uint64_t>(e);
            break;
        case kind::free_on_undo:
            retire_last(l, address_at(e));
            return;
        case kind::free_on_commit:
            // Recounted rather than decremented: a kill between the two stores would count it
            // twice.
            break;
    }
    drop_last(l);
}

void recount_frees(log *l) {
    uint64_t frees = 0;
    for (uint64_t i = 0; i < l->used; ++i) {
        frees += kind_at(entries(l)[i]) == kind::free_on_commit ? 1U : 0U;
    }
    l->frees = frees;
}

// A dead process's private memory is not ours: such entries are made void, one store each.
void pass_over_private(log *l) {
    if (hooks == nullptr || hooks->covers == nullptr) {
        return;
    }
    for (uint64_t i = 0; i < l->used; ++i) {
        entry &e = entries(l)[i];
        if (kind_at(e) <= kind::word8 && !hooks->covers(l, address_at(e))) {
            e.where = static_cast<uint64_t>(kind::free_on_commit) << 56;
        }
    }
}

}  // namespace

log *format(void *where, size_t bytes) {
    auto *l = static_cast<log *>(where);
    *l = log{};
    l->capacity = static_cast<uint32_t>((bytes - sizeof(log)) / sizeof(entry));
    l->magic = log_magic;
    return l;
}

void bind_process(log *target, uint32_t peer) {
    process_binding = {target, peer};
}

bool bind_thread(log *target, uint32_t peer) {
    if (self.bound_count >= std::size(self.bound)) {
        return false;
    }
    self.bound[self.bound_count++] = {target, peer};
    return true;
}

void unbind_thread(log *target) {
    for (uint32_t i = self.bound_count; i > 0; --i) {
        if (self.bound[i - 1].target == target) {
            for (uint32_t k = i; k < self.bound_count; ++k) {
                self.bound[k - 1] = self.bound[k];
            }
            --self.bound_count;
            return;
        }
    }
}

void forget_after_fork() {
    process_binding = {};
    self = {};
}

void set_block_hooks(const block_hooks *given) {
    hooks = given;
}

log *choose() {
    const binding *b = self.bound_count != 0 ? &self.bound[self.bound_count - 1] : &process_binding;
    return b->target;
}

namespace {

// An explicit group may be on a log that nothing is bound to: it has the identity of the group
// around it, else that of the process.
uint32_t peer_for(const log *l) {
    for (uint32_t i = self.bound_count; i > 0; --i) {
        if (self.bound[i - 1].target == l) {
            return self.bound[i - 1].peer;
        }
    }
    if (process_binding.target != l && self.peer != 0) {
        return self.peer;
    }
    return process_binding.peer != 0 ? process_binding.peer : peerless;
}

}  // namespace

void begin_slow(log *chosen) {
    const uint32_t peer = peer_for(chosen);
    uint32_t idle = 0;
    while (!std::atomic_ref<uint32_t>(chosen->holder)
                .compare_exchange_weak(idle, peer, std::memory_order_acquire)) {
        // Only another thread of this process can hold it: a dead holder is recovered before
        // binding.
        idle = 0;
        sched_yield();
    }
    self.current = chosen;
    self.depth = 1;
    self.peer = peer;
}

void commit_with_frees(log *l) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    l->committing = 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    crash_point();
    l->used &= ~overflow_bit;
    while (l->used != 0) {
        const entry e = entries(l)[l->used - 1];
        if (kind_at(e) == kind::free_on_commit) {
            release_last(l, address_at(e));
        } else {
            drop_last(l);
        }
        crash_point();
    }
    l->frees = 0;
    ++l->commits;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    l->committing = 0;
}

bool undo_to(log *l, uint64_t mark) {
    if (l->used > l->capacity) {
        return false;
    }
    while (l->used > mark) {
        undo_last(l);
        crash_point();
    }
    if (l->frees != 0) {
        recount_frees(l);
    }
    return true;
}

void overflow(log *l) {
    if ((l->used & overflow_bit) == 0) {
        l->used |= overflow_bit;
        ++l->overflowed;
    }
}

void note_allocation(log *outer, void *block) {
    const uint64_t n = outer->used;
    if (n < outer->capacity) {
        entries(outer)[n] = {
            (static_cast<uint64_t>(kind::free_on_undo) << 56) | reinterpret_cast<uint64_t>(block),
            0};
        store(outer->used, n + 1);
    } else if ((n & overflow_bit) == 0) {
        // Through the allocator's journal like the note itself: a later restore must not lose it.
        store(outer->used, n | overflow_bit);
        ++outer->overflowed;
    }
}

void copy(void *to, const void *from, size_t bytes) {
    auto *t = static_cast<unsigned char *>(to);
    const auto *f = static_cast<const unsigned char *>(from);
    while (bytes != 0) {
        if (bytes >= sizeof(uint64_t) && reinterpret_cast<uintptr_t>(t) % sizeof(uint64_t) == 0) {
            uint64_t word;
            std::memcpy(&word, f, sizeof word);
            store(*reinterpret_cast<uint64_t *>(t), word);
            t += sizeof word;
            f += sizeof word;
            bytes -= sizeof word;
        } else {
            store(*t, *f);
            ++t;
            ++f;
            --bytes;
        }
    }
}

void note_free(log *outer, void *block) {
    append(outer, kind::free_on_commit, block, 0);
    ++outer->frees;
}

recovery recover(log *l) {
    if (l->magic != log_magic) {
        return recovery::damaged;
    }
    if (l->holder == 0) {
        return recovery::clean;
    }
    recovery result = recovery::clean;
    if (l->committing != 0) {
        commit_with_frees(l);
        result = recovery::finished;
    } else if (l->used != 0) {
        if (l->used > l->capacity) {
            l->used = 0;
            result = recovery::damaged;
        } else {
            pass_over_private(l);
            undo_to(l, 0);
            ++l->undone;
            result = recovery::undone;
        }
    }
    l->frees = 0;
    std::atomic_ref<uint32_t>(l->holder).store(0, std::memory_order_release);
    return result;
}

bool after_commit(void (*then)(void *context), void *context) {
    if (self.after != nullptr || self.current == nullptr) {
        return false;
    }
    self.after_context = context;
    self.after = then;
    return true;
}

void run_after() {
    void (*then)(void *) = self.after;
    self.after = nullptr;
    then(self.after_context);
}

}  // namespace mfwd6::journal
