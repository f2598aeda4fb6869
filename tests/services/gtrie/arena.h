// Memory for tests of structures that live in a window: shared between forks, at one address, with
// a log.
//
// Blocks are cut from the front and never reused, which is what a program with delayed frees looks
// like to a reader. The one word that says how much is taken is journaled, so that undone groups
// give memory back.
#ifndef MFWD6_TESTS_GTRIE_ARENA_H
#define MFWD6_TESTS_GTRIE_ARENA_H

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <map>

#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace gtrie_test {

namespace journal = mfwd6::journal;

struct block {
    uint64_t size;
    uint32_t type;
    uint32_t freed;
};

struct arena {
    uint64_t taken;
    uint64_t limit;
    int64_t fail_after;  // allocations until one fails; negative: never
    void *notes[8];      // for the test
    alignas(64) journal::log log;
};

inline arena *the_arena = nullptr;
inline constexpr uint32_t log_entries = 8192;

inline char *start_of(arena *a) {
    return reinterpret_cast<char *>(a) + 64 * 1024 * 4;
}

inline void open_arena(uint64_t bytes, bool with_log) {
    void *where = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (where == MAP_FAILED) {
        abort();
    }
    the_arena = static_cast<arena *>(where);
    the_arena->limit = bytes - 64 * 1024 * 4;
    the_arena->fail_after = -1;
    static_assert(journal::log_bytes(log_entries) + sizeof(arena) < 64 * 1024 * 4);
    if (with_log) {
        journal::format(&the_arena->log, journal::log_bytes(log_entries));
        journal::bind_process(&the_arena->log, 1);
    }
}

inline void close_arena() {
    journal::bind_process(nullptr, 0);
    munmap(the_arena, the_arena->limit + 64 * 1024 * 4);
    the_arena = nullptr;
}

inline void *arena_alloc(size_t size, uint32_t type) {
    arena *a = the_arena;
    if (a->fail_after == 0) {
        return nullptr;
    }
    if (a->fail_after > 0) {
        --a->fail_after;
    }
    const uint64_t need = (sizeof(block) + size + 15) & ~uint64_t{15};
    if (a->taken + need > a->limit) {
        return nullptr;
    }
    auto *b = reinterpret_cast<block *>(start_of(a) + a->taken);
    const journal::group group;
    journal::store(a->taken, a->taken + need);
    // What an undone group left here.
    memset(static_cast<void *>(b), 0, need);
    b->size = need;
    b->type = type;
    return b + 1;
}

inline cerrno arena_free(void *where, uint32_t type) {
    block *b = static_cast<block *>(where) - 1;
    if (b->type != type || b->freed != 0) {
        abort();
    }
    const journal::group group;
    journal::store(b->freed, 1);
    return 0;
}

// Blocks that are not freed, by type.
inline std::map<const void *, uint32_t> live_blocks() {
    std::map<const void *, uint32_t> live;
    for (uint64_t at = 0; at < the_arena->taken;) {
        auto *b = reinterpret_cast<block *>(start_of(the_arena) + at);
        if (b->freed == 0) {
            live[b + 1] = b->type;
        }
        at += b->size;
    }
    return live;
}

inline ip6mc_gtrie_params_t params(uint32_t kind, uint32_t key_bits, uint32_t tid = 0) {
    ip6mc_gtrie_params_t p{};
    p.shared = 1;
    p.shmwin_id = 7;
    p.gtrie_kind = kind;
    p.tid_decoded = tid;
    p.flags = 1;
    p.key_bits = key_bits;
    p.node_size = 624;
    p.alloc_fn = arena_alloc;
    p.free_fn = arena_free;
    return p;
}

}  // namespace gtrie_test

#endif
