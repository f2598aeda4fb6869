#include "services/window/window_table.h"

#include <pthread.h>

#include <cstring>

namespace mfwd6::window {

open_window table[max_windows];

namespace {

constexpr uint32_t index_bits = 4;
std::atomic<uint32_t> next_generation{1};

// The mapping is not inherited (MADV_DONTFORK), the descriptor is closed by services/peers.
void forget_all() {
    for (open_window &w : table) {
        w.id.store(0, std::memory_order_relaxed);
        w.reserved.store(false, std::memory_order_relaxed);
        w.super = nullptr;
    }
}

void register_fork_handler() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(nullptr, nullptr, forget_all); });
}

}  // namespace

open_window *find_any(uint32_t id) {
    const uint32_t place_number = id & ((1U << index_bits) - 1);
    if (id == 0 || place_number >= max_windows) {
        return nullptr;
    }
    open_window &w = table[place_number];
    return w.id.load(std::memory_order_acquire) == id ? &w : nullptr;
}

open_window *find(uint32_t id) {
    open_window *w = find_any(id);
    return w != nullptr && !w->broken ? w : nullptr;
}

open_window *covering(const void *address) {
    const auto at = reinterpret_cast<uintptr_t>(address);
    for (open_window &w : table) {
        if (w.id.load(std::memory_order_acquire) != 0 && !w.broken &&
            at - reinterpret_cast<uintptr_t>(w.env.base) < w.env.length) {
            return &w;
        }
    }
    return nullptr;
}

open_window *reserve(const char *name) {
    register_fork_handler();
    for (open_window &w : table) {
        if (!w.reserved.exchange(true, std::memory_order_acquire)) {
            w.owner = false;
            w.broken = false;
            std::memset(w.name, 0, sizeof(w.name));
            std::memcpy(w.name, name, strnlen(name, sizeof(w.name) - 1));
            w.env = {};
            w.env.fd = -1;
            w.super = nullptr;
            w.spans = nullptr;
            w.heap = nullptr;
            w.allocator_options = {};
            w.mutex_options = {};
            w.plan = {};
            w.monitor.store(nullptr, std::memory_order_relaxed);
            w.monitor_context.store(nullptr, std::memory_order_relaxed);
            w.monitor_version.store(0, std::memory_order_relaxed);
            w.opening = {};
            return &w;
        }
    }
    return nullptr;
}

void publish(open_window *w) {
    const auto place_number = static_cast<uint32_t>(w - table);
    const uint32_t id = (next_generation.fetch_add(1) << index_bits) | place_number;
    w->id.store(id, std::memory_order_release);
}

void drop(open_window *w) {
    w->id.store(0, std::memory_order_release);
}

void release(open_window *w) {
    w->reserved.store(false, std::memory_order_release);
}

open_window *latest(bool owned, const open_window *but) {
    open_window *found = nullptr;
    uint32_t newest = 0;
    each([&](open_window &w) {
        // Ids go up with every opening.
        const uint32_t opening = w.id.load(std::memory_order_relaxed) >> index_bits;
        if (&w != but && !w.broken && (w.owner || !owned) && opening > newest) {
            found = &w;
            newest = opening;
        }
    });
    return found;
}

journal::log *log_at(const open_window &w, peers::domain domain) {
    auto *bytes = reinterpret_cast<std::byte *>(w.super);
    return reinterpret_cast<journal::log *>(bytes + log_offset(static_cast<uint32_t>(domain)));
}

}  // namespace mfwd6::window
