#include <dirent.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include "services/diag/shared_file.h"
#include "services/diag/trace_ring.h"

using namespace mfwd6::diag;

struct ltrace_reader {
    const ring_header *header;
    const ring_slot *slots;
    uint64_t count;  // as checked at open; what the file says later is not believed
    uint64_t position;
    size_t length;
    int fd;  // -1 for a ring of this process, which stays mapped
    bool own;
};

namespace {

const ring_slot *slot_at(const ltrace_reader *reader, uint64_t position) {
    return &reader->slots[position & (reader->count - 1)];
}

// What a slot tells about the record, or the part of one, that has this position.
enum class progress { to_come, done, gone };

progress progress_of(const ltrace_reader *reader, uint64_t position) {
    const uint64_t state = slot_at(reader, position)->state.load(std::memory_order_acquire);
    return state == slot_done(position)  ? progress::done
           : state < slot_done(position) ? progress::to_come
                                         : progress::gone;
}

bool is_done(const ltrace_reader *reader, uint64_t position) {
    return progress_of(reader, position) == progress::done;
}

uint64_t get(const ring_slot *slot, size_t at) {
    return slot->word[at].load(std::memory_order_acquire);
}

void get_text(const ring_slot *slot, size_t at, char *text, size_t bytes) {
    for (size_t done = 0; done < bytes; done += 8, ++at) {
        const uint64_t word = get(slot, at);
        memcpy(text + done, &word, std::min<size_t>(8, bytes - done));
    }
}

bool is_sound(const slot_meta &meta) {
    if (meta.type == slot_type::words) {
        return meta.words <= 6 && meta.parts == 1;
    }
    return meta.type == slot_type::text && meta.length < ltrace_text_size &&
           meta.parts == text_parts(meta.length);
}

// A slot counts only if it is of its position before and after it was copied.
bool read_more_text(const ltrace_reader *reader, uint64_t first, ltrace_record *record) {
    size_t done = first_text_bytes;
    for (uint64_t position = first + 1; done < record->length; ++position) {
        if (!is_done(reader, position)) {
            return false;
        }
        const ring_slot *slot = slot_at(reader, position);
        const size_t bytes = std::min<size_t>(record->length - done, more_text_bytes);
        const bool belongs = get(slot, at_meta) == pack_more(first);
        get_text(slot, at_more_text, record->text + done, bytes);
        if (!belongs || !is_done(reader, position)) {
            return false;
        }
        done += bytes;
    }
    return true;
}

void read_head(const ltrace_reader *reader, uint64_t position, const slot_meta &meta,
               ltrace_record *record) {
    const ring_slot *slot = slot_at(reader, position);
    record->sequence = position;
    record->time = get(slot, at_time);
    record->wall = record->time - reader->header->monotonic + reader->header->realtime;
    record->id = get(slot, at_id);
    record->tid = meta.tid;
    record->words = meta.words;
    for (size_t i = 0; i < 6; ++i) {
        record->word[i] = i < meta.words ? get(slot, at_payload + i) : 0;
    }
    record->traceback = {};
    record->length = 0;
    record->reserved = 0;
    if (meta.type == slot_type::text) {
        for (size_t i = 0; i < 5; ++i) {
            record->traceback.address[i] = get(slot, at_payload + i);
        }
        record->length = meta.length;
        get_text(slot, at_text, record->text, std::min<size_t>(meta.length, first_text_bytes));
    }
    record->text[record->length] = '\0';
}

// True as long as the position's writer has taken it and not finished all of the record's parts.
bool is_to_come(const ltrace_reader *reader, uint64_t position) {
    const progress first = progress_of(reader, position);
    if (first != progress::done) {
        return first == progress::to_come;
    }
    const slot_meta meta = unpack(get(slot_at(reader, position), at_meta));
    bool missing = false;
    for (uint32_t part = 1; is_sound(meta) && part < meta.parts; ++part) {
        missing = missing || progress_of(reader, position + part) == progress::to_come;
    }
    return missing && is_done(reader, position);
}

uint64_t monotonic_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

// The time that one call of a reader has for records that are being written.
class patience {
  public:
    // Lets the writer go on; false when it has had its time, or is dead.
    bool wait(const ltrace_reader *reader) {
        if (++waits_ <= yields) {
            sched_yield();
            return true;
        }
        const uint64_t now = monotonic_ns();
        until_ = until_ != 0 ? until_ : now + limit_ns;
        if (now >= until_ || (!reader->own && !is_locked(reader->fd))) {
            return false;
        }
        const timespec a_moment = {0, 200'000};
        nanosleep(&a_moment, nullptr);
        return true;
    }

  private:
    static constexpr uint32_t yields = 20;
    static constexpr uint64_t limit_ns = 250'000'000;

    uint32_t waits_ = 0;
    uint64_t until_ = 0;
};

// The number of slots of the record, or 0 if it is torn, overwritten, or the position begins none.
uint32_t read_record(const ltrace_reader *reader, uint64_t position, ltrace_record *record) {
    if (!is_done(reader, position)) {
        return 0;
    }
    const slot_meta meta = unpack(get(slot_at(reader, position), at_meta));
    if (!is_sound(meta)) {
        return 0;
    }
    read_head(reader, position, meta, record);
    if (!is_done(reader, position)) {
        return 0;
    }
    if (record->length > first_text_bytes && !read_more_text(reader, position, record)) {
        return 0;
    }
    return meta.parts;
}

// As read_record at the reader's position, once its writer has finished or had its time.
uint32_t read_finished(const ltrace_reader *reader, ltrace_record *record, patience *writer) {
    for (;;) {
        // Asked first: what is finished between the two is read all the same.
        const bool to_come = is_to_come(reader, reader->position);
        const uint32_t parts = read_record(reader, reader->position, record);
        if (parts != 0 || !to_come || !writer->wait(reader)) {
            return parts;
        }
    }
}

bool is_ring(const ring_header *header, size_t length) {
    return header->magic.load(std::memory_order_acquire) == ring_magic && header->slots != 0 &&
           (header->slots & (header->slots - 1)) == 0 &&
           header->slots <= (length - sizeof(ring_header)) / sizeof(ring_slot);
}

ltrace_reader *make_reader(const ring_header *header, size_t length, int fd, bool own) {
    auto *made = new (std::nothrow) ltrace_reader{};
    if (made != nullptr) {
        *made = {
            header, reinterpret_cast<const ring_slot *>(header + 1), header->slots, 0, length, fd,
            own};
    }
    return made;
}

cerrno open_mapped(int fd, ltrace_reader **reader) {
    struct stat st = {};
    if (fstat(fd, &st) != 0) {
        return static_cast<cerrno>(errno);
    }
    const auto length = static_cast<size_t>(st.st_size);
    if (length < sizeof(ring_header)) {
        return EINVAL;
    }
    void *memory = mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        return static_cast<cerrno>(errno);
    }
    const auto *header = static_cast<const ring_header *>(memory);
    const bool good = is_ring(header, length);
    *reader = good ? make_reader(header, length, fd, false) : nullptr;
    if (*reader == nullptr) {
        munmap(memory, length);
        return good ? ENOMEM : EINVAL;
    }
    return 0;
}

}  // namespace

cerrno ltrace_open(const char *path, ltrace_reader **reader) {
    if (path == nullptr || reader == nullptr) {
        return EINVAL;
    }
    *reader = nullptr;
    int fd = -1;
    if (const int error = open_file(path, open_mode::existing_read_only, &fd); error != 0) {
        return static_cast<cerrno>(error);
    }
    const cerrno error = open_mapped(fd, reader);
    if (error != 0) {
        close(fd);
    }
    return error;
}

cerrno ltrace_open_handle(ltrace_handle *handle, ltrace_reader **reader) {
    if (handle == nullptr || reader == nullptr) {
        return EINVAL;
    }
    const ring *opened = ring_of(handle);
    *reader =
        opened == nullptr ? nullptr : make_reader(opened->header, opened->length, opened->fd, true);
    return *reader == nullptr ? ENOMEM : 0;
}

int ltrace_next(ltrace_reader *reader, ltrace_record *record) {
    if (reader == nullptr || record == nullptr) {
        return 0;
    }
    const uint64_t head = reader->header->head.load(std::memory_order_acquire);
    if (head > reader->count) {
        reader->position = std::max(reader->position, head - reader->count);
    }
    patience writers;
    while (reader->position < head) {
        const uint32_t parts = read_finished(reader, record, &writers);
        reader->position += std::max(parts, 1U);
        if (parts != 0) {
            return 1;
        }
    }
    return 0;
}

void ltrace_info(const ltrace_reader *reader, ltrace_ring_info *info) {
    if (reader == nullptr || info == nullptr) {
        return;
    }
    *info = {};
    const ring_header *header = reader->header;
    memcpy(info->program, header->program, sizeof(info->program) - 1);
    memcpy(info->kind, header->kind, sizeof(info->kind) - 1);
    info->pid = header->pid;
    info->alive = reader->own || is_locked(reader->fd) ? 1 : 0;
    info->written = header->head.load(std::memory_order_relaxed);
    info->slots = reader->count;
    info->dropped = header->dropped.load(std::memory_order_relaxed);
}

void ltrace_close(ltrace_reader *reader) {
    if (reader == nullptr) {
        return;
    }
    if (!reader->own) {
        munmap(const_cast<ring_header *>(reader->header), reader->length);
        close(reader->fd);
    }
    delete reader;
}

cerrno ltrace_walk_files(int (*visit)(void *context, const char *path), void *context) {
    char folder[path_size];
    if (visit == nullptr) {
        return EINVAL;
    }
    if (const int error = file_path("trace", ".", folder); error != 0) {
        return static_cast<cerrno>(error);
    }
    DIR *dir = opendir(folder);
    if (dir == nullptr) {
        return errno == ENOENT ? 0 : static_cast<cerrno>(errno);
    }
    for (const dirent *entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
        char path[path_size];
        if (is_plain_name(entry->d_name) && file_path("trace", entry->d_name, path) == 0 &&
            visit(context, path) != 0) {
            break;
        }
    }
    closedir(dir);
    return 0;
}
