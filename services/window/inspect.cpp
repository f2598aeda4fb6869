#include "services/window/inspect.h"

#include <errno.h>

#include <algorithm>
#include <cstring>

#include "services/locks/lock_word.h"
#include "services/window/heap.h"
#include "services/window/setup.h"
#include "services/window/window_table.h"

namespace mfwd6::window {

namespace {

shmwin_block describe(const open_window &w, const located &l) {
    shmwin_block b = {};
    b.address = slot_address(w, l.index, l.slot);
    // No more than there is memory for, whatever a damaged descriptor says.
    const uint32_t committed = journal::observe(w.super->heap.committed);
    const uint32_t behind = committed > l.index ? committed - l.index : 1;
    b.size = std::min(block_bytes(l), size_t{behind} << span_shift);
    b.live = l.live ? 1 : 0;
    if (l.live) {
        std::memcpy(b.words, b.address, sizeof(b.words));
    }
    return b;
}

// One walk over the descriptors; each is read once, so that a change beside it does no harm.
class walk {
  public:
    walk(const open_window &w, bool with_free, shmwin_block_fn visit, void *context)
        : w_(w), with_free_(with_free), visit_(visit), context_(context) {}

    void run() {
        for (uint32_t at = 0; !ended_ && at < end();) {
            at += span_at(at);
        }
    }

  private:
    // A damaged window may say anything: nothing is read where there is no memory.
    uint32_t end() const {
        const heap_state &h = w_.super->heap;
        return std::min({journal::observe(h.top), journal::observe(h.committed), h.span_count});
    }

    // Visits the blocks of the run that begins at `at`; gives its length.
    uint32_t span_at(uint32_t at) {
        span &s = w_.spans[at];
        switch (static_cast<span_kind>(journal::observe(s.kind))) {
            case span_kind::slab:
                slab(at, s);
                return 1;
            case span_kind::large:
                show({&s, at, 0, !is_held(w_, at, 0)});
                return run_length(s);
            case span_kind::free:
                show({&s, at, 0, false});
                return run_length(s);
            case span_kind::none:
                break;
        }
        return 1;
    }

    uint32_t run_length(const span &s) const {
        return std::clamp(journal::observe(s.length), 1U, w_.super->heap.span_count);
    }

    void slab(uint32_t at, span &s) {
        const uint32_t slots = slots_of(s.cls % class_count);
        for (uint32_t slot = 0; slot < slots && !ended_; ++slot) {
            const uint64_t bits = journal::observe(s.bits[slot / 64]);
            const bool taken = ((bits >> (slot % 64)) & 1U) != 0;
            show({&s, at, slot, taken && !is_held(w_, at, slot)});
        }
    }

    void show(const located &l) {
        if (l.live || with_free_) {
            const shmwin_block b = describe(w_, l);
            ended_ = visit_(&b, context_) != 0;
        }
    }

    const open_window &w_;
    bool with_free_;
    shmwin_block_fn visit_;
    void *context_;
    bool ended_ = false;
};

shmwin_lock_state lock_state(const char *name, const locks::robust_mutex &m) {
    const uint64_t word = journal::observe(m.word);
    shmwin_lock_state state = {};
    state.name = name;
    state.address = &m.word;
    state.peer = locks::word::peer_of(word);
    state.thread = locks::word::thread_of(word);
    state.depth = state.peer != 0 ? journal::observe(m.depth) : 0;
    state.deaths = journal::observe(m.deaths);
    state.contended = (word & locks::word::waiting) != 0 ? 1 : 0;
    return state;
}

uint64_t limit_bytes(const heap_state &h) {
    const uint32_t spans = h.limit != 0 ? std::min(h.limit, h.span_count) : h.span_count;
    return uint64_t{spans} * span_bytes;
}

}  // namespace

}  // namespace mfwd6::window

using namespace mfwd6;
using namespace mfwd6::window;

extern "C" {

cerrno shmwin_get_usage(uint32_t id, shmwin_usage *usage) {
    const open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (usage == nullptr) {
        return EINVAL;
    }
    const superblock &s = *w->super;
    *usage = {};
    usage->used = journal::observe(s.heap.used);
    usage->peak = journal::observe(s.heap.peak);
    usage->committed = uint64_t{journal::observe(s.heap.committed)} * span_bytes;
    usage->limit = limit_bytes(s.heap);
    usage->generation = journal::observe(s.generation);
    usage->opened = journal::observe(s.opened);
    for (const journal::log *l : w->env.logs) {
        const uint64_t undone = journal::observe(l->undone);
        usage->undone += undone;
        usage->changes += undone + journal::observe(l->commits);
        usage->open += journal::observe(l->used) != 0 ? 1U : 0U;
    }
    return 0;
}

const uint64_t *shmwin_generation_word(uint32_t id) {
    const open_window *w = find(id);
    return w != nullptr ? &w->super->generation : nullptr;
}

cerrno shmwin_set_growth_limit(uint32_t id, uint64_t bytes) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (!w->owner) {
        return SHMWIN_ERR_NOT_OWNER;
    }
    const uint64_t spans = std::min<uint64_t>(bytes / span_bytes, w->super->heap.span_count);
    const auto limit = bytes == 0 ? 0U : std::max(static_cast<uint32_t>(spans), 1U);
    std::atomic_ref<uint32_t>(w->super->heap.limit).store(limit, std::memory_order_relaxed);
    return 0;
}

cerrno shmwin_each_block(uint32_t id, int with_free, shmwin_block_fn visit, void *context) {
    const open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (visit == nullptr) {
        return EINVAL;
    }
    walk(*w, with_free != 0, visit, context).run();
    return 0;
}

cerrno shmwin_find_block(const void *address, shmwin_block *block) {
    const open_window *w = covering(address);
    if (block == nullptr) {
        return EINVAL;
    }
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_BLOCK;
    }
    const located l = locate(*w, address, true);
    if (!l.live) {
        return SHMWIN_ERR_BAD_BLOCK;
    }
    *block = describe(*w, l);
    return 0;
}

cerrno shmwin_get_processes(uint32_t id, shmwin_process *list, uint32_t room, uint32_t *count) {
    const open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (count == nullptr || (list == nullptr && room != 0)) {
        return EINVAL;
    }
    uint32_t n = 0;
    for (const peers::slot &s : w->super->peers.slots) {
        const uint32_t peer = journal::observe(s.id);
        if (peer == 0) {
            continue;
        }
        if (n < room) {
            shmwin_process &p = list[n];
            p = {};
            p.peer = peer;
            p.pid = s.pid;
            p.owner = s.role == static_cast<uint32_t>(peers::role::owner) ? 1 : 0;
            p.alive = peers::alive(&w->env, peer) ? 1 : 0;
            p.opened_at = s.started;
            std::memcpy(p.name, s.name, sizeof(s.name));
        }
        ++n;
    }
    *count = n;
    return 0;
}

cerrno shmwin_get_locks(uint32_t id, shmwin_lock_state *list) {
    const open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (list == nullptr) {
        return EINVAL;
    }
    const superblock &s = *w->super;
    list[0] = lock_state("allocator", s.allocator_lock);
    list[1] = lock_state("recovery", s.recovery_lock);
    list[2] = lock_state("window", s.window_mutex);
    list[3] = lock_state("packet client", s.packet_mutex);
    return 0;
}

cerrno shmwin_get_mutex_deaths(uint32_t id, uint32_t *deaths) {
    const open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (deaths == nullptr) {
        return EINVAL;
    }
    *deaths = journal::observe(w->super->window_mutex.deaths);
    return 0;
}

cerrno shmwin_get_opening(uint32_t id, shmwin_opening *opening) {
    const open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (opening == nullptr) {
        return EINVAL;
    }
    *opening = w->opening;
    return 0;
}

}  // extern "C"
