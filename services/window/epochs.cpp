#include "services/window/epochs.h"

#include <errno.h>

#include <algorithm>

#include "services/window/heap.h"
#include "services/window/inspect.h"
#include "services/window/window_table.h"

namespace mfwd6::window {

namespace {

using journal::store;

// A reader handle: place + 1 in the low 9 bits, the place's generation above.
constexpr uint32_t place_bits = 9;

reader_slot *reader_of(uint32_t id, uint32_t reader, open_window **out) {
    open_window *w = find(id);
    const uint32_t number = (reader & ((1U << place_bits) - 1)) - 1;
    if (w == nullptr || number >= SHMWIN_READERS) {
        return nullptr;
    }
    *out = w;
    reader_slot &r = w->super->readers[number];
    const bool own = journal::observe(r.peer) == w->env.self &&
                     journal::observe(r.generation) == reader >> place_bits;
    return own ? &r : nullptr;
}

void announce(open_window &w, reader_slot &r) {
    const uint64_t now = journal::observe(w.super->epochs.now);
    // Ordered before the reader's next load from the window, as the owner orders its unlinking
    // before its look at the readers: one of them sees the other.
    std::atomic_ref<uint64_t>(r.epoch).exchange(now, std::memory_order_seq_cst);
}

bool claim(open_window &w, reader_slot &r) {
    uint32_t holder = journal::observe(r.peer);
    if (holder != 0 && peers::alive(&w.env, holder)) {
        return false;
    }
    return std::atomic_ref<uint32_t>(r.peer).compare_exchange_strong(holder, w.env.self);
}

// A new epoch: whoever announces it has begun after all that was unlinked ahead of this call. Any
// process may ask for one.
uint64_t begin_epoch(open_window &w) {
    return std::atomic_ref<uint64_t>(w.super->epochs.now).fetch_add(1, std::memory_order_seq_cst) +
           1;
}

// The oldest epoch that a live reader still stands in; dead readers in the way are taken off.
uint64_t oldest_reader(open_window &w, uint64_t none) {
    uint64_t oldest = none;
    for (reader_slot &r : w.super->readers) {
        uint32_t holder = journal::observe(r.peer);
        // In one order with the store of the new epoch and with what readers announce.
        const uint64_t epoch = std::atomic_ref<uint64_t>(r.epoch).load(std::memory_order_seq_cst);
        if (holder == 0 || epoch == 0 || epoch >= oldest) {
            continue;
        }
        if (peers::alive(&w.env, holder)) {
            oldest = epoch;
        } else {
            std::atomic_ref<uint32_t>(r.peer).compare_exchange_strong(holder, 0);
        }
    }
    return oldest;
}

// Room for one more entry at the end of the list: 0 or a code, with nothing changed.
cerrno make_room(open_window &w) {
    epoch_state &e = w.super->epochs;
    if (e.last != nullptr && e.filled < deferred_per_chunk) {
        return 0;
    }
    void *memory = nullptr;
    const uint32_t id = w.id.load(std::memory_order_relaxed);
    if (const cerrno code = shmwin_malloc(id, sizeof(deferred_chunk), &memory); code != 0) {
        return code;
    }
    auto *chunk = static_cast<deferred_chunk *>(memory);
    chunk->next = nullptr;
    if (e.last != nullptr) {
        store(e.last->next, chunk);
    } else {
        store(e.first, chunk);
        store(e.taken, 0);
    }
    store(e.last, chunk);
    store(e.filled, 0);
    return 0;
}

void drop_first_chunk(epoch_state &e) {
    deferred_chunk *done = e.first;
    store(e.first, done->next);
    store(e.taken, 0);
    if (done == e.last) {
        store(e.last, nullptr);
        store(e.filled, 0);
    }
    shmwin_free(done);
}

// Takes the oldest entry off the list and ends it, all or nothing.
void end_oldest(open_window &w, shmwin_final_fn final, void *context) {
    epoch_state &e = w.super->epochs;
    const journal::group g;
    void *block = reinterpret_cast<void *>(e.first->entries[e.taken].block);
    store(e.taken, e.taken + 1);
    store(e.count, e.count - 1);
    const uint32_t filled = e.first == e.last ? e.filled : deferred_per_chunk;
    if (e.taken == filled) {
        drop_first_chunk(e);
    }
    if (final != nullptr) {
        final(block, context);
    } else {
        shmwin_free(block);
    }
}

// Calls `visit(chunk)` for each chunk until it gives false. Whoever looks may look at a damaged
// window: a chunk is a live block that is large enough, and there are no more than their entries
// need.
template <class Visit>
void each_chunk(const open_window &w, Visit visit) {
    const epoch_state &e = w.super->epochs;
    uint64_t left = journal::observe(e.count) / deferred_per_chunk + 2;
    for (const deferred_chunk *c = journal::observe(e.first); c != nullptr && left > 0; --left) {
        shmwin_block block{};
        if (shmwin_find_block(c, &block) != 0 || block.address != c || block.size < sizeof(*c) ||
            !visit(c)) {
            return;
        }
        c = journal::observe(c->next);
    }
}

}  // namespace

// A dead reader counts until the block is asked for again: to tell, the kernel must be asked.
bool has_readers(const open_window &w) {
    // What led to the block was taken away ahead of this look, as in `announce`. An exchange, as
    // the thread sanitizer knows no fences.
    std::atomic_ref<uint64_t>(w.super->epochs.now).fetch_add(0, std::memory_order_seq_cst);
    for (reader_slot &r : w.super->readers) {
        if (journal::observe(r.peer) != 0 &&
            std::atomic_ref<uint64_t>(r.epoch).load(std::memory_order_seq_cst) != 0) {
            return true;
        }
    }
    return false;
}

uint32_t reuse_held(open_window &w) {
    if (journal::observe(w.super->heap.held) == 0) {
        return 0;
    }
    const uint64_t now = begin_epoch(w);
    return heap_reuse_held(w, oldest_reader(w, now), 0);
}

}  // namespace mfwd6::window

using namespace mfwd6;
using namespace mfwd6::window;

extern "C" {

cerrno shmwin_reader_enter(uint32_t id, uint32_t *reader) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (reader == nullptr) {
        return EINVAL;
    }
    for (uint32_t i = 0; i < SHMWIN_READERS; ++i) {
        reader_slot &r = w->super->readers[i];
        if (claim(*w, r)) {
            const uint32_t generation =
                (journal::observe(r.generation) + 1) & ((1U << (32 - place_bits)) - 1);
            std::atomic_ref<uint32_t>(r.generation).store(generation, std::memory_order_relaxed);
            announce(*w, r);
            *reader = (generation << place_bits) | (i + 1);
            return 0;
        }
    }
    return SHMWIN_ERR_PEERS_FULL;
}

void shmwin_reader_quiescent(uint32_t id, uint32_t reader) {
    open_window *w = nullptr;
    if (reader_slot *r = reader_of(id, reader, &w); r != nullptr) {
        announce(*w, *r);
    }
}

void shmwin_reader_idle(uint32_t id, uint32_t reader) {
    open_window *w = nullptr;
    if (reader_slot *r = reader_of(id, reader, &w); r != nullptr) {
        std::atomic_ref<uint64_t>(r->epoch).store(0, std::memory_order_release);
    }
}

void shmwin_reader_leave(uint32_t id, uint32_t reader) {
    open_window *w = nullptr;
    if (reader_slot *r = reader_of(id, reader, &w); r != nullptr) {
        std::atomic_ref<uint64_t>(r->epoch).store(0, std::memory_order_release);
        std::atomic_ref<uint32_t>(r->peer).store(0, std::memory_order_release);
    }
}

cerrno shmwin_defer(uint32_t id, void *block) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (!w->owner) {
        return SHMWIN_ERR_NOT_OWNER;
    }
    if (covering(block) != w || !locate(*w, block, false).live) {
        return SHMWIN_ERR_BAD_BLOCK;
    }
    const journal::group g;
    if (const cerrno code = make_room(*w); code != 0) {
        return code;
    }
    epoch_state &e = w->super->epochs;
    // Beyond what counts: nobody sees the entry before the count says so.
    e.last->entries[e.filled] = {reinterpret_cast<uint64_t>(block), journal::observe(e.now)};
    store(e.filled, e.filled + 1);
    store(e.count, e.count + 1);
    return 0;
}

cerrno shmwin_reclaim(uint32_t id, uint32_t most, shmwin_final_fn final, void *context,
                      uint32_t *ended) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (!w->owner) {
        return SHMWIN_ERR_NOT_OWNER;
    }
    epoch_state &e = w->super->epochs;
    uint32_t done = 0;
    if (e.first != nullptr || journal::observe(w->super->heap.held) != 0) {
        const uint64_t now = begin_epoch(*w);
        const uint64_t oldest = oldest_reader(*w, now);
        while (e.first != nullptr && (most == 0 || done < most) &&
               e.first->entries[e.taken].epoch < oldest) {
            end_oldest(*w, final, context);
            ++done;
        }
        heap_reuse_held(*w, oldest, most);
    }
    if (ended != nullptr) {
        *ended = done;
    }
    return 0;
}

cerrno shmwin_each_deferred(uint32_t id, int (*visit)(void *block, void *context), void *context) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (visit == nullptr) {
        return EINVAL;
    }
    const epoch_state &e = w->super->epochs;
    uint32_t at = journal::observe(e.taken);
    each_chunk(*w, [&](const deferred_chunk *c) {
        const uint32_t filled =
            c == journal::observe(e.last) ? journal::observe(e.filled) : deferred_per_chunk;
        const uint32_t end = std::min(filled, deferred_per_chunk);
        for (; at < end; ++at) {
            void *block = reinterpret_cast<void *>(journal::observe(c->entries[at].block));
            if (visit(block, context) != 0) {
                return false;
            }
        }
        at = 0;
        return true;
    });
    return 0;
}

cerrno shmwin_each_deferred_list(uint32_t id, int (*visit)(const void *block, void *context),
                                 void *context) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (visit == nullptr) {
        return EINVAL;
    }
    each_chunk(*w, [&](const deferred_chunk *c) { return visit(c, context) == 0; });
    return 0;
}

cerrno shmwin_get_epochs(uint32_t id, shmwin_epoch_state *state) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (state == nullptr) {
        return EINVAL;
    }
    const epoch_state &e = w->super->epochs;
    *state = {journal::observe(e.now), journal::observe(e.count), 0, 0,
              journal::observe(w->super->heap.held)};
    const uint64_t oldest = e.first != nullptr ? e.first->entries[e.taken].epoch : 0;
    for (const reader_slot &r : w->super->readers) {
        const uint32_t holder = journal::observe(r.peer);
        const uint64_t epoch = journal::observe(r.epoch);
        if (holder != 0 && epoch != 0 && peers::alive(&w->env, holder)) {
            ++state->readers;
            state->waiting += state->deferred != 0 && epoch <= oldest ? 1U : 0U;
        }
    }
    return 0;
}

}  // extern "C"
