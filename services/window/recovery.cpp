#include "services/window/recovery.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "services/window/file.h"
#include "services/window/heap.h"

namespace mfwd6::window {

namespace {

void clear_readers_of(open_window &w, peers::peer_id dead) {
    for (reader_slot &r : w.super->readers) {
        uint32_t holder = dead;
        std::atomic_ref<uint32_t>(r.peer).compare_exchange_strong(holder, 0);
    }
}

// Called by the locks service while it recovers `dead`; at the end with no log.
void note_recovery(void *context, peers::peer_id dead, journal::log *log,
                   journal::recovery result) {
    open_window &w = *static_cast<open_window *>(context);
    if (log == nullptr) {
        clear_readers_of(w, dead);
        return;
    }
    ++w.opening.recovered;
    if (result == journal::recovery::damaged) {
        set_state(w, life::damaged);
    }
}

void recover_peer_of(peers::env *env, peers::peer_id dead) {
    locks::recover_peer(static_cast<open_window *>(env->context)->plan, dead);
}

// What an undo may write to: the mapped file behind the identity. A log of no window is private
// memory.
bool undo_covers(const journal::log *l, const void *address) {
    const open_window *w = covering(l);
    struct stat st;
    if (w == nullptr) {
        return true;
    }
    const uint64_t offset =
        reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(w->super);
    return offset >= sizeof(identity) && offset < w->env.length && fstat(w->env.fd, &st) == 0 &&
           offset < static_cast<uint64_t>(st.st_size);
}

void empty_log(journal::log *l) {
    l->used = 0;
    l->frees = 0;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    l->committing = 0;
}

}  // namespace

void set_state(open_window &w, life state) {
    std::atomic_ref<uint32_t>(w.super->state)
        .store(static_cast<uint32_t>(state), std::memory_order_release);
    journal::crash_point();
}

void prepare_recovery(open_window &w) {
    w.env.recover = recover_peer_of;
    w.env.context = &w;
    for (uint32_t d = 0; d < peers::domains; ++d) {
        w.env.logs[d] = log_at(w, static_cast<peers::domain>(d));
    }
    w.allocator_options.window = &w.env;
    w.plan = {&w.env, &w.super->recovery_lock, &w.super->allocator_lock, note_recovery, &w};
}

void install_block_hooks() {
    static const journal::block_hooks hooks = {heap_release, undo_covers, heap_retire};
    journal::set_block_hooks(&hooks);
}

bool logs_plausible(const open_window &w) {
    for (uint32_t d = 0; d < peers::domains; ++d) {
        const journal::log *l = w.env.logs[d];
        if (l->magic != journal::log_magic || l->capacity != log_entries[d] ||
            (l->used & ~journal::overflow_bit) > l->capacity) {
            return false;
        }
    }
    return true;
}

bool recover_all_dead(open_window &w) {
    const auto recover_if_dead = [&](peers::peer_id id) {
        if (id != 0 && !peers::alive(&w.env, id)) {
            w.env.recover(&w.env, id);
        }
    };
    // The allocator first: the other logs give blocks back through it.
    for (uint32_t d = 0; d < peers::domains; ++d) {
        recover_if_dead(journal::observe(w.env.logs[d]->holder));
    }
    for (const peers::slot &s : w.super->peers.slots) {
        recover_if_dead(journal::observe(s.id));
    }
    return w.super->state != static_cast<uint32_t>(life::damaged);
}

void forget_logs_of_dead(open_window &w) {
    for (journal::log *l : w.env.logs) {
        if (l->holder != 0 && !peers::alive(&w.env, l->holder)) {
            empty_log(l);
        }
    }
}

void wipe(open_window &w) {
    superblock &s = *w.super;
    // First: whoever is attached must see it no later than the first word that goes.
    std::atomic_ref(s.generation).fetch_add(1, std::memory_order_seq_cst);
    auto *bytes = reinterpret_cast<std::byte *>(&s);
    for (journal::log *l : w.env.logs) {
        empty_log(l);
    }
    journal::crash_point();
    std::memset(bytes + s.id.header_offset, 0, s.id.header_bytes);
    journal::crash_point();
    std::memset(static_cast<void *>(w.spans), 0, s.heap.top * sizeof(span));
    journal::crash_point();
    std::memset(static_cast<void *>(w.held), 0, s.heap.top * sizeof(held_span));
    journal::crash_point();
    const uint64_t next_epoch = s.epochs.now + 1;
    s.epochs = epoch_state{};
    s.epochs.now = next_epoch;
    journal::crash_point();
    // Memory goes back to the system only when nobody can have a pointer into it.
    const bool alone = lock_byte(w.env.fd, mapped_offset, F_WRLCK) == 0;
    heap_format(w, alone ? first_commit : s.heap.committed);
    journal::crash_point();
    if (alone) {
        const uint64_t keep = s.id.heap_offset + uint64_t{first_commit} * span_bytes;
        const int failed = ftruncate(w.env.fd, static_cast<off_t>(keep));
        // Memory that could not be given back is found again when the heap grows.
        static_cast<void>(failed);
        lock_byte(w.env.fd, mapped_offset, F_RDLCK);
    }
}

}  // namespace mfwd6::window
