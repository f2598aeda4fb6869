#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "services/diag/errors.h"
#include "services/locks/pak_client.h"
#include "services/window/file.h"
#include "services/window/heap.h"
#include "services/window/mutex.h"
#include "services/window/recovery.h"
#include "services/window/settings.h"

namespace mfwd6::window {

namespace {

uint64_t now_ns(clockid_t clock) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000U + static_cast<uint64_t>(ts.tv_nsec);
}

void sleep_a_millisecond() {
    const struct timespec ts = {0, 1000000};
    nanosleep(&ts, nullptr);
}

bool valid(const shmwin_open_record &r) {
    const auto base = reinterpret_cast<uintptr_t>(r.base_addr);
    return good_name(r.name) && base != 0 && base % span_bytes == 0 &&
           r.max_table_size >= (size_t{16} << 20) && r.max_table_size <= (size_t{1} << 40) &&
           r.max_table_size % 4096 == 0 && r.hdr_size <= r.max_table_size / 4 &&
           (r.open_flags & ~SHMWIN_OPEN_OWNER) == 0;
}

cerrno code_of_space(int error) {
    return error == ENOSPC || error == EFBIG ? SHMWIN_ERR_SPACE : static_cast<cerrno>(error);
}

cerrno map(open_window &w, void *base, uint64_t bytes) {
    void *at = mmap(base, bytes, PROT_READ | PROT_WRITE,
                    MAP_SHARED | MAP_FIXED_NOREPLACE | MAP_NORESERVE, w.env.fd, 0);
    if (at == MAP_FAILED) {
        return errno == EEXIST ? SHMWIN_ERR_BASE_TAKEN : static_cast<cerrno>(errno);
    }
    if (at != base) {
        // A kernel that does not know the flag takes the address as a hint.
        munmap(at, bytes);
        return SHMWIN_ERR_BASE_TAKEN;
    }
    madvise(base, bytes, MADV_DONTFORK);
    w.super = static_cast<superblock *>(base);
    w.env.base = base;
    w.env.length = bytes;
    w.env.peers = &w.super->peers;
    return 0;
}

void find_parts(open_window &w) {
    auto *bytes = reinterpret_cast<std::byte *>(w.super);
    w.spans = reinterpret_cast<span *>(bytes + w.super->id.spans_offset);
    w.held = reinterpret_cast<held_span *>(
        bytes + place(w.super->id.header_bytes, w.super->id.max_bytes).held);
    w.heap = bytes + w.super->id.heap_offset;
}

void unmap(open_window &w) {
    if (w.super != nullptr) {
        munmap(w.super, w.env.length);
        w.super = nullptr;
    }
}

cerrno give_up(open_window &w, cerrno code) {
    unmap(w);
    if (w.env.fd >= 0) {
        close(w.env.fd);
        w.env.fd = -1;
    }
    return code;
}

// Takes a place among the window's processes, and makes it known in this one.
cerrno enter(open_window &w, peers::role as) {
    prepare_recovery(w);
    if (!peers::env_add(&w.env)) {
        return SHMWIN_ERR_PEERS_FULL;
    }
    // Before joining, which may recover a dead process and free its blocks by their addresses.
    publish(&w);
    const int error = peers::join(&w.env, as);
    if (error != 0) {
        drop(&w);
        peers::env_remove(&w.env);
        return error == EMFILE ? SHMWIN_ERR_PEERS_FULL : static_cast<cerrno>(error);
    }
    return 0;
}

void leave(open_window &w) {
    drop(&w);
    peers::leave(&w.env);
    peers::env_remove(&w.env);
}

identity identity_for(const shmwin_open_record &r) {
    const places where = place(r.hdr_size, r.max_table_size);
    identity id = {};
    id.magic = file_magic;
    id.version = service_version;
    id.superblock_bytes = sizeof(superblock);
    std::memcpy(id.name, r.name, strnlen(r.name, sizeof(id.name) - 1));
    id.base = reinterpret_cast<uint64_t>(r.base_addr);
    id.max_bytes = r.max_table_size;
    id.header_bytes = r.hdr_size;
    id.fingerprint = fingerprint_of(r.name);
    id.header_offset = where.header;
    id.spans_offset = where.spans;
    id.heap_offset = where.heap;
    id.boot = boot_mark();
    id.check = check_of(id);
    return id;
}

int give_memory(int fd, const places &where) {
    int error = empty_file(fd);
    while (error == 0 && fallocate(fd, 0, 0, static_cast<off_t>(where.spans)) != 0) {
        error = errno != EINTR ? errno : 0;
    }
    if (error == 0) {
        error = heap_commit(fd, where, 0, first_commit);
    }
    if (error != 0) {
        empty_file(fd);
    }
    return error;
}

// Makes the window in a file that nobody has mapped. Until its last store the file counts as half
// made.
cerrno make(open_window &w, const shmwin_open_record &r, uint64_t former_generation) {
    if (lock_byte(w.env.fd, mapped_offset, F_WRLCK) != 0) {
        return give_up(w, SHMWIN_ERR_HALF_MADE);
    }
    const int error = give_memory(w.env.fd, place(r.hdr_size, r.max_table_size));
    if (error != 0) {
        return give_up(w, code_of_space(error));
    }
    journal::crash_point();
    if (const cerrno code = map(w, r.base_addr, r.max_table_size); code != 0) {
        return give_up(w, code);
    }
    superblock &s = *w.super;
    s.id = identity_for(r);
    journal::crash_point();
    s.generation = std::max(former_generation + 1, now_ns(CLOCK_REALTIME));
    s.epochs.now = 1;
    find_parts(w);
    heap_format(w, first_commit);
    for (uint32_t d = 0; d < peers::domains; ++d) {
        journal::format(log_at(w, static_cast<peers::domain>(d)),
                        journal::log_bytes(log_entries[d]));
        journal::crash_point();
    }
    if (const cerrno code = enter(w, peers::role::owner); code != 0) {
        return give_up(w, code);
    }
    w.opening.found = SHMWIN_FOUND_NEW;
    set_state(w, life::ready);
    lock_byte(w.env.fd, mapped_offset, F_RDLCK);
    return 0;
}

// Whether the file holds all that the heap counts as its own. Attached processes may be growing
// both: what is counted is read first, the file behind it.
bool file_holds_heap(const open_window &w) {
    const heap_state &h = w.super->heap;
    const uint32_t committed = journal::observe(h.committed);
    struct stat st;
    return committed <= h.span_count && fstat(w.env.fd, &st) == 0 &&
           w.super->id.heap_offset + uint64_t{committed} * span_bytes <=
               static_cast<uint64_t>(st.st_size);
}

// Brings a window that other processes made to rest. SHMWIN_ERR_DAMAGED: it is not what it should
// be.
cerrno settle(open_window &w) {
    const uint64_t from = now_ns(CLOCK_MONOTONIC);
    if (!logs_plausible(w) || !file_holds_heap(w)) {
        return SHMWIN_ERR_DAMAGED;
    }
    const bool cut_short = w.super->state == static_cast<uint32_t>(life::resetting);
    if (cut_short) {
        forget_logs_of_dead(w);
    }
    if (!recover_all_dead(w)) {
        return SHMWIN_ERR_DAMAGED;
    }
    if (cut_short) {
        wipe(w);
        set_state(w, life::ready);
    }
    if (!heap_plausible(w)) {
        return SHMWIN_ERR_DAMAGED;
    }
    reuse_held(w);
    w.opening.recovery_ns = now_ns(CLOCK_MONOTONIC) - from;
    w.opening.found = cut_short                  ? SHMWIN_FOUND_NEW
                      : w.opening.recovered != 0 ? SHMWIN_FOUND_REPAIRED
                                                 : SHMWIN_FOUND_CLEAN;
    return 0;
}

cerrno take_over(open_window &w, const identity &id) {
    cerrno code = map(w, reinterpret_cast<void *>(id.base), id.max_bytes);
    if (code != 0) {
        return code;
    }
    find_parts(w);
    code = enter(w, peers::role::owner);
    if (code != 0) {
        return code;
    }
    code = settle(w);
    if (code != 0) {
        set_state(w, life::damaged);
        leave(w);
        unmap(w);
    }
    return code;
}

// A window that is of no use. If nobody has it mapped the owner may repair it.
cerrno offer_repair(open_window &w, cerrno code) {
    if (lock_byte(w.env.fd, mapped_offset, F_WRLCK) != 0) {
        return give_up(w, code);
    }
    w.broken = true;
    return SHMWIN_ERR_REPAIR;
}

void bind_log_of(const open_window &w) {
    journal::bind_process(w.env.logs[static_cast<uint32_t>(peers::domain::owner)], w.env.self);
}

void become_owner(open_window &w) {
    w.owner = true;
    bind_log_of(w);
    std::atomic_ref<uint32_t>(w.super->owner).store(w.env.self, std::memory_order_release);
    ++w.super->opened;
}

uint64_t generation_in(int fd) {
    uint64_t generation = 0;
    const ssize_t n = pread(fd, &generation, sizeof(generation), offsetof(superblock, generation));
    return n == sizeof(generation) && generation < now_ns(CLOCK_REALTIME) * 2 ? generation : 0;
}

cerrno open_owner(open_window &w, const shmwin_open_record &r) {
    if (const cerrno code = open_file(r.name, true, &w.env.fd); code != 0) {
        return code;
    }
    if (lock_byte(w.env.fd, peers::owner_lease_offset, F_WRLCK) != 0) {
        return give_up(w, EBUSY);
    }
    if (lock_byte(w.env.fd, mapped_offset, F_RDLCK) != 0) {
        return give_up(w, SHMWIN_ERR_HALF_MADE);
    }
    identity id;
    cerrno code = 0;
    switch (examine(w.env.fd, r, &id)) {
        case content::half_made:
            code = make(w, r, generation_in(w.env.fd));
            break;
        case content::ready:
        case content::resetting:
            code = take_over(w, id);
            code = code == SHMWIN_ERR_DAMAGED ? offer_repair(w, code)
                   : code != 0                ? give_up(w, code)
                                              : 0;
            break;
        case content::damaged:
            code = offer_repair(w, SHMWIN_ERR_DAMAGED);
            break;
        case content::other_layout:
            code = offer_repair(w, SHMWIN_ERR_LAYOUT);
            break;
        case content::other_base:
            code = give_up(w, SHMWIN_ERR_BASE);
            break;
    }
    if (code == 0) {
        become_owner(w);
    }
    return code;
}

cerrno code_of(content found) {
    switch (found) {
        case content::half_made:
        case content::resetting:
            return SHMWIN_ERR_HALF_MADE;
        case content::damaged:
            return SHMWIN_ERR_DAMAGED;
        case content::other_layout:
            return SHMWIN_ERR_LAYOUT;
        case content::other_base:
            return SHMWIN_ERR_BASE;
        case content::ready:
            break;
    }
    return 0;
}

// An owner that makes or repairs a window has the byte for itself, for a moment or until it closes.
bool share_mapping(int fd) {
    for (int tries = 0; tries < 100; ++tries) {
        if (lock_byte(fd, mapped_offset, F_RDLCK) == 0) {
            return true;
        }
        sleep_a_millisecond();
    }
    return false;
}

cerrno open_attached(open_window &w, const shmwin_open_record &r) {
    if (const cerrno code = open_file(r.name, false, &w.env.fd); code != 0) {
        return code;
    }
    if (!share_mapping(w.env.fd)) {
        return give_up(w, SHMWIN_ERR_HALF_MADE);
    }
    identity id;
    cerrno code = code_of(examine(w.env.fd, r, &id));
    if (code == 0) {
        code = map(w, r.base_addr, id.max_bytes);
    }
    if (code != 0) {
        return give_up(w, code);
    }
    find_parts(w);
    code = enter(w, peers::role::attached);
    if (code != 0) {
        return give_up(w, code);
    }
    code = code_of(examine(w.env.fd, r, &id));
    if (code != 0) {
        leave(w);
        return give_up(w, code);
    }
    w.opening.found = SHMWIN_FOUND_CLEAN;
    return 0;
}

// `w` is about to be closed: the process's log and the packet client mutex become those of the
// window opened last before it.
void bind_to_others(const open_window &w) {
    if (const open_window *owned = latest(true, &w); owned != nullptr) {
        bind_log_of(*owned);
    } else {
        journal::bind_process(nullptr, 0);
    }
    const open_window *other = latest(false, &w);
    locks::pak_client_mutex_bind(other != nullptr ? &other->super->packet_mutex : nullptr);
}

void close_window(open_window &w) {
    if (w.broken) {
        drop(&w);
    } else {
        bind_to_others(w);
        journal::crash_point();
        leave(w);
        journal::crash_point();
    }
    give_up(w, 0);
    release(&w);
}

// A window that an earlier call left open for repair, and that nobody closed.
void close_broken(const char *name) {
    each([&](open_window &w) {
        if (w.broken && std::strcmp(w.name, name) == 0) {
            close_window(w);
        }
    });
}

// The change of another live process would go on into the emptied heap.
bool others_in_a_change(const open_window &w) {
    return std::any_of(std::begin(w.env.logs), std::end(w.env.logs), [&](const journal::log *l) {
        const peers::peer_id holder = journal::observe(l->holder);
        return holder != 0 && holder != w.env.self && peers::alive(&w.env, holder);
    });
}

cerrno reset_open(open_window &w) {
    for (int tries = 0; others_in_a_change(w); ++tries) {
        if (tries == 1000) {
            return SHMWIN_ERR_IN_USE;
        }
        sleep_a_millisecond();
    }
    if (!locks::is_taken(locks::lock(&w.super->allocator_lock, w.allocator_options))) {
        return EBADF;
    }
    set_state(w, life::resetting);
    wipe(w);
    set_state(w, life::ready);
    locks::unlock(&w.super->allocator_lock, w.allocator_options);
    return 0;
}

}  // namespace

}  // namespace mfwd6::window

using namespace mfwd6;
using namespace mfwd6::window;

extern "C" {

cerrno shmwin_open_win(const shmwin_open_record *record, void **header, uint32_t *id) {
    if (record == nullptr || header == nullptr || id == nullptr || !valid(*record)) {
        return EINVAL;
    }
    cerr_register(0x41d6f000U, 0xfffff000U, shmwin_strerror);
    install_block_hooks();
    close_broken(record->name);
    open_window *w = reserve(record->name);
    if (w == nullptr) {
        return SHMWIN_ERR_PEERS_FULL;
    }
    const bool owner = record->open_flags == SHMWIN_OPEN_OWNER;
    const cerrno code = owner ? open_owner(*w, *record) : open_attached(*w, *record);
    if (code != 0 && code != SHMWIN_ERR_REPAIR) {
        release(w);
        return code;
    }
    if (w->id.load() == 0) {
        publish(w);
    }
    if (code == 0) {
        prepare_mutex(*w);
        locks::pak_client_mutex_bind(&w->super->packet_mutex);
        *header = reinterpret_cast<std::byte *>(w->super) + w->super->id.header_offset;
    }
    *id = w->id.load();
    return code;
}

cerrno shmwin_malloc_made(uint32_t id, size_t size, shmwin_block_ft make, void *context,
                          void **block) {
    open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (block == nullptr) {
        return EINVAL;
    }
    void *got = heap_take(*w, size, {make, context});
    if (got == nullptr) {
        return SHMWIN_ERR_SPACE;
    }
    *block = got;
    return 0;
}

cerrno shmwin_malloc(uint32_t id, size_t size, void **block) {
    return shmwin_malloc_made(id, size, nullptr, nullptr, block);
}

cerrno shmwin_free_ended(void *block, shmwin_block_ft end, void *context) {
    open_window *w = covering(block);
    return w != nullptr ? heap_give(*w, block, {end, context}) : SHMWIN_ERR_BAD_BLOCK;
}

cerrno shmwin_free(void *block) {
    return shmwin_free_ended(block, nullptr, nullptr);
}

cerrno shmwin_reset(uint32_t id) {
    open_window *w = find_any(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    if (w->broken) {
        return static_cast<cerrno>(empty_file(w->env.fd));
    }
    return w->owner ? reset_open(*w) : SHMWIN_ERR_NOT_OWNER;
}

cerrno shmwin_close(uint32_t id, int) {
    open_window *w = find_any(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    close_window(*w);
    return 0;
}

}  // extern "C"
