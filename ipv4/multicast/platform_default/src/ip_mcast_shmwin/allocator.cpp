// The typed allocator over the window: a guard in front of each block, counts by type, and a pool
// of freed blocks by exact size.
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/assertion.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/shmwin.h"
#include "services/journal/journal.h"
#include "services/peers/peers.h"
#include "services/window/window.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

constexpr size_t guard_size = sizeof(ipmc_shmwin_guard_st);

ipmc_shmwin_guard_st *guard_of(void *pointer) {
    return reinterpret_cast<ipmc_shmwin_guard_st *>(static_cast<char *>(pointer) - guard_size);
}

ipmc_shmwin_pool_bucket_st *bucket_for(size_t size) {
    ipmc_shmwin_pool_bucket_st *pool = ipv4mc_desc->shmwin_info->buffer_pool;
    return pool != nullptr && size < IPMC_SHMWIN_POOL_BUCKETS &&
                   ipv4mc_desc->buffer_pool_enabled != 0
               ? &pool[size]
               : nullptr;
}

// The change that the calling thread has open: a log, and how many groups it had committed before.
struct open_change {
    const mfwd6::journal::log *log = nullptr;
    uint64_t commits = 0;
    bool operator==(const open_change &) const = default;
};

open_change current_change() {
    const mfwd6::journal::log *log = mfwd6::journal::self.current;
    return log != nullptr ? open_change{log, log->commits} : open_change{};
}

// The latest change of this thread that put a block in the pool. As long as it is open it may be
// run back, and then the block is its old self again: what it holds must not be overwritten.
thread_local open_change pooled_in;

bool may_reuse() {
    return pooled_in.log == nullptr || pooled_in != current_change();
}

ipmc_shmwin_guard_st *unlink_first(ipmc_shmwin_pool_bucket_st &bucket) {
    auto *guard = reinterpret_cast<ipmc_shmwin_guard_st *>(bucket.head);
    store(bucket.head, guard->pool_link);
    store(bucket.count, bucket.count - 1);
    return guard;
}

void push(ipmc_shmwin_pool_bucket_st &bucket, ipmc_shmwin_guard_st *guard) {
    store(guard->pool_link, bucket.head);
    store(bucket.head, reinterpret_cast<uint64_t>(guard));
    store(bucket.count, bucket.count + 1);
    pooled_in = current_change();
}

// A pooled block takes its guard words back if the change that took it is undone; its contents are
// nobody's then.
void save_guard(ipmc_shmwin_guard_st *guard) {
    mfwd6::journal::save(guard->pool_link);
    mfwd6::journal::save(guard->size);
    mfwd6::journal::save(guard->type);
    mfwd6::journal::save(guard->magic);
}

void *take_from_pool(size_t size) {
    ipmc_shmwin_pool_bucket_st *bucket = bucket_for(size);
    if (bucket == nullptr || bucket->head == 0 || !may_reuse()) {
        return nullptr;
    }
    ipmc_shmwin_guard_st *guard = unlink_first(*bucket);
    save_guard(guard);
    store(bucket->reuse_count, bucket->reuse_count + 1);
    return guard;
}

bool is_type(ipmc_shmwin_alloc_type type) {
    if (type >= IPMC_SHMWIN_ALLOC_TYPES) {
        MLIB_ERR("No such type of block: %u", type);
        return false;
    }
    return true;
}

// Who counts. The undo of a change restores the old value of a word, so each journal has words of
// its own. Threads without one share theirs, and count in the change of the window's allocator.
enum class place { owner, mutex, unlogged };

// Inside the group of an allocation or a free.
place place_of_thread() {
    const mfwd6::journal::log *log = mfwd6::journal::self.current;
    const mfwd6::peers::env *window = mfwd6::peers::env_of(ipv4mc_desc->shmwin_info);
    if (log == nullptr || window == nullptr) {
        return log == nullptr ? place::unlogged : place::owner;
    }
    using mfwd6::peers::domain;
    const auto is_log_of = [&](domain d) { return log == window->logs[static_cast<uint32_t>(d)]; };
    return is_log_of(domain::window_mutex) ? place::mutex
           : is_log_of(domain::allocator)  ? place::unlogged
                                           : place::owner;
}

ipmc_shmwin_counts_st &counts_of(place where) {
    return ipv4mc_desc->shmwin_info->counted[where == place::mutex ? IPMC_SHMWIN_COUNTED_UNDER_MUTEX
                                                                   : IPMC_SHMWIN_COUNTED_UNLOGGED];
}

uint32_t &alloc_word(place where, uint32_t slot) {
    return where == place::owner ? ipv4mc_desc->shmwin_info->alloc_count[slot]
                                 : counts_of(where).alloc_count[slot];
}

uint32_t &free_word(place where) {
    return where == place::owner ? ipv4mc_desc->shmwin_info->free_count
                                 : counts_of(where).free_count;
}

void count(place where, uint32_t &word, uint32_t step) {
    if (where == place::unlogged) {
        mfwd6::journal::crash_point();
        mfwd6::journal::save(word);
        std::atomic_ref(word).fetch_add(step, std::memory_order_relaxed);
    } else {
        store(word, word + step);
    }
}

struct new_block {
    size_t size;
    ipmc_shmwin_alloc_type type;
    uint32_t count_slot;
};

void make_block(void *block, void *context) {
    const auto &wanted = *static_cast<const new_block *>(context);
    mfwd6::journal::crash_point();
    std::memset(block, 0, wanted.size + guard_size);
    auto *guard = static_cast<ipmc_shmwin_guard_st *>(block);
    guard->size = wanted.size;
    guard->type = wanted.type;
    guard->magic = IPMC_SHMWIN_MAGIC_LIVE;
    const place here = place_of_thread();
    count(here, alloc_word(here, wanted.count_slot), 1);
}

// A thread without a change of its own makes the block inside that of the window's allocator.
cerrno take_and_make(new_block &wanted, void **block) {
    const size_t size = wanted.size + guard_size;
    if (place_of_thread() == place::unlogged) {
        return shmwin_malloc_made(ipv4mc_desc->shmwin_id, size, make_block, &wanted, block);
    }
    const cerrno rc = shmwin_malloc(ipv4mc_desc->shmwin_id, size, block);
    if (rc == 0) {
        make_block(*block, &wanted);
    }
    return rc;
}

void *take_from_service(new_block &wanted) {
    void *block = nullptr;
    const cerrno rc = wanted.size <= SIZE_MAX - guard_size ? take_and_make(wanted, &block) : ENOMEM;
    if (rc != 0) {
        MLIB_ERR("Cannot Allocate %d bytes from shared memory %d: %s",
                 static_cast<int>(wanted.size), static_cast<int>(rc), cerr_strerror(rc));
        return nullptr;
    }
    return block;
}

void *allocate(size_t size, ipmc_shmwin_alloc_type type, uint32_t count_slot) {
    if (!mlib::window_is_open()) {
        MLIB_ERR("Shared Memory Window Not Initialized");
        return nullptr;
    }
    if (!is_type(type)) {
        return nullptr;
    }
    new_block wanted = {size, type, count_slot};
    const group change;
    void *block = take_from_pool(size);
    if (block != nullptr) {
        make_block(block, &wanted);
    } else {
        block = take_from_service(wanted);
    }
    return block != nullptr ? static_cast<ipmc_shmwin_guard_st *>(block) + 1 : nullptr;
}

void count_down(uint32_t slot) {
    if (ipmc_shmwin_live_blocks(ipv4mc_desc->shmwin_info, slot) > 0) {
        const place here = place_of_thread();
        count(here, alloc_word(here, slot), UINT32_MAX);
    }
}

void mark_freed(ipmc_shmwin_guard_st *guard) {
    const place here = place_of_thread();
    count(here, free_word(here), 1);
    store(guard->magic, static_cast<uint32_t>(IPMC_SHMWIN_MAGIC_FREED));
}

void report_refused_free(const ipmc_shmwin_guard_st *guard, cerrno rc) {
    if (rc != 0) {
        MLIB_ERR("Cannot free pointer %p from shared memory %d: %s",
                 static_cast<const void *>(guard), static_cast<int>(rc), cerr_strerror(rc));
    }
}

// Straight back to the window service.
void give_back(ipmc_shmwin_guard_st *guard) {
    mark_freed(guard);
    report_refused_free(guard, shmwin_free(guard));
}

// The same, with what is counted, inside the change of the window's allocator.
void give_back_at_once(ipmc_shmwin_guard_st *guard, uint32_t count_slot) {
    const auto end = [](void *block, void *slot) {
        count_down(*static_cast<const uint32_t *>(slot));
        mark_freed(static_cast<ipmc_shmwin_guard_st *>(block));
    };
    report_refused_free(guard, shmwin_free_ended(guard, end, &count_slot));
}

// Whether the thread has no change of its own that would hold a count and a free together.
bool frees_at_once(const ipmc_shmwin_guard_st *guard) {
    return place_of_thread() == place::unlogged && ipv4mc_desc->free_hook == nullptr &&
           bucket_for(guard->size) == nullptr;
}

// To the pool, to the client's hook, or to the service; `hook_argument` tells the hook who freed.
void retire(ipmc_shmwin_guard_st *guard, int hook_argument) {
    ipmc_shmwin_pool_bucket_st *bucket = bucket_for(guard->size);
    if (bucket != nullptr) {
        push(*bucket, guard);
        return;
    }
    if (ipv4mc_desc->free_hook != nullptr) {
        ipv4mc_desc->free_hook(guard, hook_argument);
        return;
    }
    give_back(guard);
}

void release_from_pool(ipmc_shmwin_guard_st *guard) {
    if (ipv4mc_desc->free_hook != nullptr) {
        ipv4mc_desc->free_hook(guard, 0);
        return;
    }
    give_back(guard);
}

// Whether `pointer` may be freed at all; what the entry answers if not.
cerrno refuse_free(const void *pointer) {
    if (!mlib::window_is_open()) {
        MLIB_ERR("Shared Memory Window Not Initialized");
        return EBADF;
    }
    if (pointer == nullptr) {
        MLIB_ERR("NULL pointer");
        return EINVAL;
    }
    return 0;
}

uint32_t most_to_keep(size_t size) {
    return size < 66 ? 8192 : size <= 256 ? 2048 : 1024;
}

}  // namespace

void ipmc_shmwin_init_buffer_pool(void) {
    MLIB_DEBUG(IPV4_DEBUG_EV, "initialising buffer pool");
    ipmc_shmwin_pool_bucket_st *pool = ipv4mc_desc->shmwin_info->buffer_pool;
    if (pool == nullptr) {
        return;
    }
    for (size_t size = 0; size < IPMC_SHMWIN_POOL_BUCKETS; ++size) {
        while (pool[size].head != 0) {
            const group change;
            release_from_pool(unlink_first(pool[size]));
        }
        if (pool[size].count != 0) {
            store(pool[size].count, 0U);
        }
    }
}

extern "C" {

void *ipv4mc_shmwin_malloc_inline(size_t size, ipmc_shmwin_alloc_type type) {
    return allocate(size, type, type);
}

// The guard says 35 and slot 20 counts it: the two numbers differ on purpose.
void *ip6mc_shmwin_malloc(size_t size) {
    return allocate(size, IPMC_SHMWIN_ALLOC_UNTYPED, IPMC_SHMWIN_ALLOC_UNTYPED_COUNT);
}

cerrno ipv4mc_shmwin_free_inline(void *pointer, ipmc_shmwin_alloc_type type) {
    const cerrno refused = refuse_free(pointer);
    if (refused != 0 || !is_type(type)) {
        return refused != 0 ? refused : EINVAL;
    }
    const group change;
    ipmc_shmwin_guard_st *guard = guard_of(pointer);
    const bool at_once = frees_at_once(guard);
    if (!at_once) {
        count_down(type);
    }
    const bool guard_is_whole = guard->magic == IPMC_SHMWIN_MAGIC_LIVE;
    if (!guard_is_whole) {
        MLIB_ERR("!!BAD!! ptr free %p                 (type 0x%x size 0x%zx)", pointer, guard->type,
                 static_cast<size_t>(guard->size));
    }
    MLIB_ASSERT(guard_is_whole, "guard->magic == 0xaaaabbbb");
    if (at_once) {
        give_back_at_once(guard, type);
    } else {
        retire(guard, 1);
    }
    return 0;
}

// Differs from the typed free on purpose: only a block already marked as freed is reported, the
// report stops nothing, and the hook gets 0.
cerrno ip6mc_shmwin_free(void *pointer) {
    const cerrno refused = refuse_free(pointer);
    if (refused != 0) {
        return refused;
    }
    const group change;
    ipmc_shmwin_guard_st *guard = guard_of(pointer);
    const bool at_once = frees_at_once(guard);
    if (!at_once) {
        count_down(IPMC_SHMWIN_ALLOC_UNTYPED_COUNT);
    }
    if (guard->magic == IPMC_SHMWIN_MAGIC_FREED) {
        MLIB_ERR("!!BAD!! ptr free %p (type 0x%x size 0x%zx)", pointer, guard->type,
                 static_cast<size_t>(guard->size));
    }
    if (at_once) {
        give_back_at_once(guard, IPMC_SHMWIN_ALLOC_UNTYPED_COUNT);
    } else {
        retire(guard, 0);
    }
    return 0;
}

void ip6mc_shmwin_memory_releaser(void) {
    if (!mlib::window_is_open()) {
        MLIB_ERR("Shared Memory Window Not Initialized");
        return;
    }
    ipmc_shmwin_pool_bucket_st *pool = ipv4mc_desc->shmwin_info->buffer_pool;
    if (pool == nullptr) {
        return;
    }
    for (size_t size = 0; size < IPMC_SHMWIN_POOL_BUCKETS; ++size) {
        ipmc_shmwin_pool_bucket_st &bucket = pool[size];
        const uint32_t half = bucket.count / 2;
        const uint32_t keep = half < most_to_keep(size) ? half : most_to_keep(size);
        while (bucket.count > keep && bucket.head != 0) {
            const group change;
            release_from_pool(unlink_first(bucket));
        }
    }
}

cerrno ip6mc_shmwin_free_final(void *block) {
    const cerrno refused = refuse_free(block);
    if (refused != 0) {
        return refused;
    }
    const cerrno rc = shmwin_free(block);
    if (rc != 0) {
        MLIB_ERR("Cannot free pointer %p from shared memory %d: %s", block, static_cast<int>(rc),
                 cerr_strerror(rc));
    }
    return rc;
}

void *ipmc_shmwin_avl_calloc(size_t count, size_t size) {
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        bytes = SIZE_MAX;  // which cannot be had
    }
    return ipv4mc_shmwin_malloc_inline(bytes, IPMC_SHMWIN_ALLOC_AVL);
}
cerrno ipmc_shmwin_avl_free(void *memory) {
    return ipv4mc_shmwin_free_inline(memory, IPMC_SHMWIN_ALLOC_AVL);
}
void *ipmc_shmwin_wavl_malloc(size_t size) {
    return ipv4mc_shmwin_malloc_inline(size, IPMC_SHMWIN_ALLOC_WAVL);
}
cerrno ipmc_shmwin_wavl_free(void *memory) {
    return ipv4mc_shmwin_free_inline(memory, IPMC_SHMWIN_ALLOC_WAVL);
}

}  // extern "C"
