#include "services/gtrie/memory.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

namespace mfwd6::gtrie {

namespace {

// A trie's address alone is no identity: the window may have been emptied and filled again.
struct known_trie {
    const trie *where;
    uint64_t cookie;
    uint32_t window;
    memory functions;
};

// Open addressing, grown by doubling; removal leaves a place with a null functions record behind.
struct registry {
    std::mutex lock;
    known_trie *places = nullptr;
    size_t capacity = 0;
    size_t used = 0;  // places that were ever taken
    memory fallback{};
};

registry &known() {
    // Never destroyed: a client may close its tries in a destructor of its own.
    static registry *const r = new registry;
    return *r;
}

// Raised by every change, so that a thread's last answer can be reused without the lock.
std::atomic<uint64_t> changes{1};

struct last_answer {
    const trie *where;
    uint64_t cookie;
    uint64_t change;
    memory functions;
};
thread_local last_answer last{};

size_t start_of(const trie *t, size_t capacity) {
    return mix(reinterpret_cast<uint64_t>(t), 0x9e3779b97f4a7c15U) & (capacity - 1);
}

known_trie *place_of(registry &r, const trie *t) {
    if (r.capacity == 0) {
        return nullptr;
    }
    size_t i = start_of(t, r.capacity);
    while (r.places[i].where != nullptr && r.places[i].where != t) {
        i = (i + 1) & (r.capacity - 1);
    }
    return &r.places[i];
}

bool grow(registry &r) {
    registry bigger;
    bigger.capacity = r.capacity == 0 ? 64 : r.capacity * 2;
    bigger.places = static_cast<known_trie *>(std::calloc(bigger.capacity, sizeof(known_trie)));
    if (bigger.places == nullptr) {
        return false;
    }
    for (size_t i = 0; i < r.capacity; ++i) {
        if (r.places[i].where != nullptr && r.places[i].functions.known()) {
            *place_of(bigger, r.places[i].where) = r.places[i];
            ++bigger.used;
        }
    }
    std::free(r.places);
    r.places = bigger.places;
    r.capacity = bigger.capacity;
    r.used = bigger.used;
    return true;
}

}  // namespace

bool remember(const trie *t, uint32_t window, const memory &functions) {
    registry &r = known();
    const std::lock_guard guard(r.lock);
    if (r.used * 2 >= r.capacity && !grow(r)) {
        return false;
    }
    known_trie *p = place_of(r, t);
    r.used += p->where == nullptr ? 1 : 0;
    *p = {t, t->cookie, window, functions};
    changes.fetch_add(1);
    return true;
}

void forget(const trie *t) {
    registry &r = known();
    const std::lock_guard guard(r.lock);
    known_trie *p = place_of(r, t);
    if (p != nullptr && p->where == t) {
        p->functions = {};
    }
    changes.fetch_add(1);
}

void forget_all() {
    registry &r = known();
    const std::lock_guard guard(r.lock);
    std::free(r.places);
    r.places = nullptr;
    r.capacity = 0;
    r.used = 0;
    changes.fetch_add(1);
}

void set_default(const memory &functions) {
    registry &r = known();
    const std::lock_guard guard(r.lock);
    r.fallback = functions;
    changes.fetch_add(1);
}

memory memory_of(const trie *t) {
    const uint64_t now = changes.load();
    if (last.change == now && last.where == t && last.cookie == t->cookie) {
        return last.functions;
    }
    registry &r = known();
    const std::lock_guard guard(r.lock);
    const known_trie *p = place_of(r, t);
    const bool own =
        p != nullptr && p->where == t && p->cookie == t->cookie && p->functions.known();
    last = {t, t->cookie, now, own ? p->functions : r.fallback};
    return last.functions;
}

trie *find_shared(uint32_t window, uint32_t kind, bool (*accept)(const trie *, uint32_t),
                  uint32_t table) {
    registry &r = known();
    const std::lock_guard guard(r.lock);
    for (size_t i = 0; i < r.capacity; ++i) {
        const known_trie &p = r.places[i];
        if (p.where == nullptr || !p.functions.known() || p.window != window ||
            p.where->cookie != p.cookie || p.where->magic != trie_magic || p.where->kind != kind) {
            continue;
        }
        if (p.where->may_share != 0 && accept(p.where, table)) {
            return const_cast<trie *>(p.where);
        }
    }
    return nullptr;
}

}  // namespace mfwd6::gtrie
