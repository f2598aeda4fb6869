#include "services/diag/trace.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>

#include "services/diag/inside.h"
#include "services/diag/run_dir.h"
#include "services/diag/shared_file.h"
#include "services/diag/text.h"
#include "services/diag/trace_ring.h"

using namespace mfwd6::diag;

struct ltrace_handle {
    const char *kind;
    uint64_t slots;
    std::atomic<ring *> open;
};

namespace {

// Texts take several slots each, so the rings that hold them are larger.
constexpr uint64_t word_slots = 2048;
constexpr uint64_t text_slots = 4096;

ltrace_handle handles[] = {
    {"err", text_slots, nullptr},   {"eve", word_slots, nullptr},
    {"warn", word_slots, nullptr},  {"general", word_slots, nullptr},
    {"svd", word_slots, nullptr},   {"idb_warn", word_slots, nullptr},
    {"enc", word_slots, nullptr},   {"bvi", word_slots, nullptr},
    {"objid", word_slots, nullptr}, {"retry_queue", word_slots, nullptr},
    {"debug", text_slots, nullptr},
};
enum : size_t {
    k_err,
    k_eve,
    k_warn,
    k_general,
    k_svd,
    k_idb_warn,
    k_enc,
    k_bvi,
    k_objid,
    k_retry,
    k_debug
};

std::mutex opening;  // and of `left_behind`
ring *left_behind;   // rings of a former run dir; a writer may still be in one, so they stay mapped

uint64_t nanoseconds(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

// ---- Files ----

struct dead_file {
    timespec when;
    char name[NAME_MAX + 1];
};

bool older(const dead_file &a, const dead_file &b) {
    return a.when.tv_sec != b.when.tv_sec ? a.when.tv_sec < b.when.tv_sec
                                          : a.when.tv_nsec < b.when.tv_nsec;
}

bool is_dead(int folder, const char *name, struct stat *st) {
    const int fd = openat(folder, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    const bool dead = fstat(fd, st) == 0 && S_ISREG(st->st_mode) && !is_locked(fd);
    close(fd);
    return dead;
}

// Removes the oldest files of dead processes until room for one more is left.
void prune(const char *path) {
    DIR *dir = opendir(path);
    if (dir == nullptr) {
        return;
    }
    constexpr size_t most = 4 * ltrace_files_kept;
    auto *dead = static_cast<dead_file *>(calloc(most, sizeof(dead_file)));
    size_t count = 0;
    for (const dirent *entry = readdir(dir); dead != nullptr && entry != nullptr && count < most;
         entry = readdir(dir)) {
        struct stat st = {};
        if (entry->d_name[0] != '.' && is_dead(dirfd(dir), entry->d_name, &st)) {
            dead[count].when = st.st_mtim;
            snprintf(dead[count++].name, sizeof(dead->name), "%s", entry->d_name);
        }
    }
    if (count >= ltrace_files_kept) {
        std::sort(dead, dead + count, older);
        for (size_t i = 0; i <= count - ltrace_files_kept; ++i) {
            unlinkat(dirfd(dir), dead[i].name, 0);
        }
    }
    free(dead);
    closedir(dir);
}

// A file of this name is one of a dead process that had our pid, unless it is locked: then it
// belongs to a process of another pid name space and is left alone.
int remove_former(const char *path) {
    int fd = -1;
    const int error = open_file(path, open_mode::existing, &fd);
    if (error != 0) {
        return error == ENOENT ? 0 : error;
    }
    const bool held = is_locked(fd);
    close(fd);
    if (held) {
        return EBUSY;
    }
    return unlink(path) == 0 || errno == ENOENT ? 0 : errno;
}

void *map_new_file(const char *path, size_t length, int *fd) {
    if (open_file(path, open_mode::create_new, fd) != 0) {
        return nullptr;
    }
    void *memory = MAP_FAILED;
    if (lock_file(*fd, false) == 0 && grow_file(*fd, length) == 0) {
        memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, *fd, 0);
    }
    if (memory == MAP_FAILED) {
        unlink(path);
        close(*fd);
        *fd = -1;
        return nullptr;
    }
    return memory;
}

void *map_ring_file(const ltrace_handle *handle, size_t length, int *fd) {
    char path[path_size];
    if (make_folder("trace", path) != 0) {
        return nullptr;
    }
    prune(path);
    char name[ltrace_program_size + ltrace_kind_size + 16];
    snprintf(name, sizeof(name), "%s.%d.%s", diag_program(), getpid(), handle->kind);
    if (file_path("trace", name, path) != 0 || remove_former(path) != 0) {
        return nullptr;
    }
    return map_new_file(path, length, fd);
}

// ---- Rings ----

void fill_header(ring_header *header, const ltrace_handle *handle) {
    header->slots = handle->slots;
    header->monotonic = nanoseconds(CLOCK_MONOTONIC);
    header->realtime = nanoseconds(CLOCK_REALTIME);
    header->pid = getpid();
    snprintf(header->program, sizeof(header->program), "%s", diag_program());
    snprintf(header->kind, sizeof(header->kind), "%s", handle->kind);
    header->magic.store(ring_magic, std::memory_order_release);
}

ring *open_ring(const ltrace_handle *handle) {
    auto *opened = new (std::nothrow) ring{};
    if (opened == nullptr) {
        return nullptr;
    }
    opened->fd = -1;
    opened->length = ring_bytes(handle->slots);
    void *memory = map_ring_file(handle, opened->length, &opened->fd);
    if (memory == nullptr) {
        memory = mmap(nullptr, opened->length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                      -1, 0);
    }
    if (memory == MAP_FAILED) {
        delete opened;
        return nullptr;
    }
    opened->header = static_cast<ring_header *>(memory);
    opened->slots = reinterpret_cast<ring_slot *>(opened->header + 1);
    opened->mask = handle->slots - 1;
    fill_header(opened->header, handle);
    return opened;
}

void close_file(ring *of) {
    if (of->fd >= 0) {
        close(of->fd);
        of->fd = -1;
    }
}

void end_ring(ring *gone) {
    if (gone != nullptr) {
        munmap(gone->header, gone->length);
        close_file(gone);
        delete gone;
    }
}

// The parent's rings are the parent's: the child closes its copies, so that the lock on the file
// does not outlive the parent.
void forget_rings() {
    for (ltrace_handle &handle : handles) {
        end_ring(handle.open.exchange(nullptr, std::memory_order_relaxed));
    }
    while (left_behind != nullptr) {
        ring *gone = left_behind;
        left_behind = gone->next;
        end_ring(gone);
    }
}

void watch_forks() {
    [[maybe_unused]] static const int once =
        pthread_atfork([] { opening.lock(); }, [] { opening.unlock(); },
                       [] {
                           forget_rings();
                           opening.unlock();
                       });
}

ring *open_once(ltrace_handle *handle) {
    watch_forks();
    const std::lock_guard hold(opening);
    ring *opened = handle->open.load(std::memory_order_acquire);
    if (opened == nullptr) {
        const int kept = errno;  // tracing must not change what the caller is about to report
        opened = open_ring(handle);
        errno = kept;
        handle->open.store(opened, std::memory_order_release);
    }
    return opened;
}

// ---- Records ----

ring_slot *take_slot(const ring *to, uint64_t position) {
    ring_slot *slot = &to->slots[position & to->mask];
    uint64_t seen = slot->state.load(std::memory_order_relaxed);
    const bool free_to_take = (seen & 1U) == 0 && seen < slot_busy(position);
    if (!free_to_take ||
        !slot->state.compare_exchange_strong(seen, slot_busy(position), std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
        to->header->dropped.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    return slot;
}

// Released one by one: a reader that sees one of them also sees that the slot was taken.
void put(ring_slot *slot, size_t at, uint64_t value) {
    slot->word[at].store(value, std::memory_order_release);
}

void finish(ring_slot *slot, uint64_t position) {
    slot->state.store(slot_done(position), std::memory_order_release);
}

void put_text(ring_slot *slot, size_t at, const char *text, size_t bytes) {
    for (size_t done = 0; done < bytes; done += 8, ++at) {
        uint64_t word = 0;
        memcpy(&word, text + done, std::min<size_t>(8, bytes - done));
        put(slot, at, word);
    }
}

void put_head(ring_slot *slot, uint64_t id, const slot_meta &meta) {
    put(slot, at_time, nanoseconds(CLOCK_MONOTONIC));
    put(slot, at_id, id);
    put(slot, at_meta, pack(meta));
}

template <class... Words>
void write_words(ltrace_handle *handle, uint64_t id, Words... words) {
    const ring *to = handle == nullptr ? nullptr : ring_of(handle);
    if (to == nullptr) {
        return;
    }
    const uint64_t position = to->header->head.fetch_add(1, std::memory_order_relaxed);
    ring_slot *slot = take_slot(to, position);
    if (slot == nullptr) {
        return;
    }
    put_head(slot, id,
             {static_cast<uint32_t>(qv_gettid()), 0, 1, sizeof...(words), slot_type::words});
    [[maybe_unused]] size_t at = at_payload;
    (put(slot, at++, words), ...);
    finish(slot, position);
}

void write_more_text(const ring *to, uint64_t first, const char *text, size_t length) {
    for (uint64_t part = 1; length > 0; ++part) {
        ring_slot *slot = take_slot(to, first + part);
        if (slot == nullptr) {
            return;  // readers miss this part and pass over the record
        }
        const size_t bytes = std::min(length, more_text_bytes);
        put(slot, at_meta, pack_more(first));
        put_text(slot, at_more_text, text, bytes);
        finish(slot, first + part);
        text += bytes;
        length -= bytes;
    }
}

}  // namespace

namespace mfwd6::diag {

ring *ring_of(ltrace_handle *handle) {
    ring *opened = handle->open.load(std::memory_order_acquire);
    return opened != nullptr ? opened : open_once(handle);
}

void traces_leave_run_dir() {
    const std::lock_guard hold(opening);
    for (ltrace_handle &handle : handles) {
        ring *old = handle.open.exchange(nullptr, std::memory_order_acq_rel);
        if (old != nullptr) {
            if (old->fd >= 0) {
                unlock_file(old->fd);
            }
            close_file(old);  // its file may be replaced if the run dir comes back
            old->next = left_behind;
            left_behind = old;
        }
    }
}

ltrace_handle *debug_ltrace() {
    return &handles[k_debug];
}

}  // namespace mfwd6::diag

ltrace_handle *ip6mc_mlib_err_ltrace(void) {
    return &handles[k_err];
}
ltrace_handle *ip6mc_mlib_eve_ltrace(void) {
    return &handles[k_eve];
}
ltrace_handle *ip6mc_mlib_warn_ltrace(void) {
    return &handles[k_warn];
}
ltrace_handle *ip6mc_mlib_ltrace(void) {
    return &handles[k_general];
}
ltrace_handle *ip6mc_mlib_svd_ltrace(void) {
    return &handles[k_svd];
}
ltrace_handle *ip6mc_mlib_idb_warn_ltrace(void) {
    return &handles[k_idb_warn];
}
ltrace_handle *ip6mc_mlib_enc_ltrace(void) {
    return &handles[k_enc];
}
ltrace_handle *ip6mc_mlib_bvi_ltrace(void) {
    return &handles[k_bvi];
}
ltrace_handle *ip6mc_mlib_objid_ltrace(void) {
    return &handles[k_objid];
}
ltrace_handle *ip6mc_mlib_retry_queue_ltrace(void) {
    return &handles[k_retry];
}

void _ltrace(ltrace_handle *handle, uint64_t id) {
    write_words(handle, id);
}

void _ltrace_2(ltrace_handle *handle, uint64_t id, uint64_t w1, uint64_t w2) {
    write_words(handle, id, w1, w2);
}

void _ltrace_3(ltrace_handle *handle, uint64_t id, uint64_t w1, uint64_t w2, uint64_t w3) {
    write_words(handle, id, w1, w2, w3);
}

void _ltrace_5(ltrace_handle *handle, uint64_t id, uint64_t w1, uint64_t w2, uint64_t w3,
               uint64_t w4, uint64_t w5) {
    write_words(handle, id, w1, w2, w3, w4, w5);
}

void _ltrace_6(ltrace_handle *handle, uint64_t id, uint64_t w1, uint64_t w2, uint64_t w3,
               uint64_t w4, uint64_t w5, uint64_t w6) {
    write_words(handle, id, w1, w2, w3, w4, w5, w6);
}

void _lstrace(ltrace_handle *handle, uint64_t id, const traceback_record *traceback,
              const char *text) {
    const ring *to = handle == nullptr ? nullptr : ring_of(handle);
    if (to == nullptr) {
        return;
    }
    const size_t length = text == nullptr ? 0 : strnlen(text, ltrace_text_size - 1);
    const auto parts = static_cast<uint32_t>(text_parts(length));
    const uint64_t position = to->header->head.fetch_add(parts, std::memory_order_relaxed);
    ring_slot *slot = take_slot(to, position);
    if (slot == nullptr) {
        return;
    }
    put_head(slot, id,
             {static_cast<uint32_t>(qv_gettid()), static_cast<uint32_t>(length), parts, 0,
              slot_type::text});
    const traceback_record none = {};
    const traceback_record *from = traceback == nullptr ? &none : traceback;
    for (size_t i = 0; i < 5; ++i) {
        put(slot, at_payload + i, from->address[i]);
    }
    const size_t here = std::min(length, first_text_bytes);
    put_text(slot, at_text, text, here);
    finish(slot, position);
    write_more_text(to, position, text == nullptr ? nullptr : text + here, length - here);
}
