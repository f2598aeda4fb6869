#include "services/diag/fault.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "services/diag/run_dir.h"
#include "services/diag/shared_file.h"

using namespace mfwd6::diag;

namespace {

constexpr uint64_t fault_magic = 0x31746c7561663677;
constexpr uint32_t for_good = 0xffffffff;

struct point_state {
    uint64_t counts;  // skip above, fail below, 32 bits each
    uint64_t hits;
};

struct fault_file {
    fim_table head;
    uint64_t magic;
    uint32_t count;
    uint32_t reserved;
    point_state points[fim_max_points];
    char texts[fim_max_points][fim_text_size];
};
static_assert(offsetof(fault_file, head) == 0, "a handle is the address of its file");

constexpr uint64_t pack(uint32_t skip, uint32_t fail) {
    return uint64_t{skip} << 32U | fail;
}
constexpr uint32_t skip_of(uint64_t counts) {
    return static_cast<uint32_t>(counts >> 32U);
}
constexpr uint32_t fail_of(uint64_t counts) {
    return static_cast<uint32_t>(counts);
}

fault_file *file_of(fim_handle handle) {
    return reinterpret_cast<fault_file *>(handle);
}

// ---- This process's tables ----

constexpr size_t name_size = 32;
constexpr size_t most_tables = 32;
struct table_entry {
    char name[name_size];
    fault_file *file;
};
std::mutex guard;  // of all below
table_entry tables[most_tables];
size_t used;

fault_file *map_private() {
    void *memory = mmap(nullptr, sizeof(fault_file), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<fault_file *>(memory);
}

int fault_path(const char *program, const char *name, char (&path)[path_size]) {
    char file[name_size + 32];
    snprintf(file, sizeof(file), "%s.%s", program, name);
    return file_path("fault", file, path);
}

fault_file *map_open(int fd) {
    void *memory = mmap(nullptr, sizeof(fault_file), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<fault_file *>(memory);
}

void fill(fault_file *file, const char (*texts)[fim_text_size], uint32_t count) {
    const bool same = file->magic == fault_magic && file->count == count &&
                      memcmp(file->texts, texts, size_t{count} * fim_text_size) == 0;
    if (same) {
        return;
    }
    __atomic_store_n(&file->head.armed, 0, __ATOMIC_RELAXED);
    file->count = count;
    memset(file->points, 0, sizeof(file->points));
    memset(file->texts, 0, sizeof(file->texts));
    memcpy(file->texts, texts, size_t{count} * fim_text_size);
    __atomic_store_n(&file->magic, fault_magic, __ATOMIC_RELEASE);
}

// The file of this program's table, filled under its lock; NULL if none can be had.
fault_file *map_shared(const char *name, const char (*texts)[fim_text_size], uint32_t count) {
    char path[path_size];
    int fd = -1;
    if (make_folder("fault", path) != 0 || fault_path(diag_program(), name, path) != 0 ||
        open_file(path, open_mode::create, &fd) != 0) {
        return nullptr;
    }
    fault_file *file = nullptr;
    if (lock_file(fd, true) == 0 && grow_file(fd, sizeof(fault_file)) == 0) {
        file = map_open(fd);
    }
    if (file != nullptr) {
        fill(file, texts, count);
    }
    unlock_file(fd);  // the mapping would keep it
    close(fd);
    return file;
}

fault_file *find(const char *name) {
    for (size_t i = 0; i < used; ++i) {
        if (strcmp(tables[i].name, name) == 0) {
            return tables[i].file;
        }
    }
    return nullptr;
}

// ---- Another program's table, for the time of one call ----

class foreign_table {
  public:
    foreign_table() = default;
    foreign_table(const foreign_table &) = delete;
    foreign_table &operator=(const foreign_table &) = delete;
    ~foreign_table() {
        if (file != nullptr) {
            munmap(file, sizeof(fault_file));
        }
    }

    int open(const char *program, const char *name) {
        char path[path_size];
        if (!is_plain_name(program) || !is_plain_name(name) || strlen(program) > 15 ||
            strlen(name) >= name_size) {
            return EINVAL;
        }
        int error = fault_path(program, name, path);
        int fd = -1;
        if (error == 0) {
            error = open_file(path, open_mode::existing, &fd);
        }
        if (error != 0) {
            return error;
        }
        struct stat st = {};
        const bool whole =
            fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) >= sizeof(fault_file);
        file = whole ? map_open(fd) : nullptr;
        close(fd);
        const bool good = file != nullptr &&
                          __atomic_load_n(&file->magic, __ATOMIC_ACQUIRE) == fault_magic &&
                          file->count <= fim_max_points;
        return good ? 0 : EINVAL;
    }

    fault_file *file = nullptr;
};

cerrno arm(fault_file *file, uint32_t index, uint32_t skip, uint32_t fail) {
    if (index >= file->count || index >= fim_max_points) {
        return EINVAL;
    }
    const uint64_t bit = uint64_t{1} << index;
    if (fail == 0) {
        __atomic_and_fetch(&file->head.armed, ~bit, __ATOMIC_RELEASE);
        __atomic_store_n(&file->points[index].counts, 0, __ATOMIC_RELEASE);
        return 0;
    }
    __atomic_store_n(&file->points[index].counts, pack(skip, fail), __ATOMIC_RELEASE);
    __atomic_or_fetch(&file->head.armed, bit, __ATOMIC_RELEASE);
    return 0;
}

void disarm_spent(fault_file *file, uint32_t index) {
    const uint64_t bit = uint64_t{1} << index;
    __atomic_and_fetch(&file->head.armed, ~bit, __ATOMIC_ACQ_REL);
    // Armed anew in between: the new counts stand.
    if (fail_of(__atomic_load_n(&file->points[index].counts, __ATOMIC_ACQUIRE)) != 0) {
        __atomic_or_fetch(&file->head.armed, bit, __ATOMIC_RELEASE);
    }
}

}  // namespace

cerrno fim_register(const char *name, const char (*texts)[fim_text_size], uint32_t count,
                    uint32_t flags, fim_handle *handle, void *) {
    if (handle == nullptr) {
        return EINVAL;
    }
    *handle = nullptr;
    if (!is_plain_name(name) || strlen(name) >= name_size || texts == nullptr || count == 0 ||
        count > fim_max_points || flags != 0) {
        return EINVAL;
    }
    const std::lock_guard hold(guard);
    fault_file *file = find(name);
    if (file == nullptr) {
        if (used == most_tables) {
            return ENOMEM;
        }
        file = map_shared(name, texts, count);
        if (file == nullptr) {
            file = map_private();
            if (file == nullptr) {
                return ENOMEM;
            }
            fill(file, texts, count);
        }
        snprintf(tables[used].name, name_size, "%s", name);
        tables[used++].file = file;
    }
    *handle = &file->head;
    return 0;
}

bool fim_pass(fim_handle handle, uint32_t index) {
    if (handle == nullptr || index >= fim_max_points) {
        return false;
    }
    fault_file *file = file_of(handle);
    point_state *point = &file->points[index];
    uint64_t counts = __atomic_load_n(&point->counts, __ATOMIC_ACQUIRE);
    for (;;) {
        const uint32_t skip = skip_of(counts);
        const uint32_t fail = fail_of(counts);
        if (fail == 0) {
            return false;
        }
        uint64_t next = counts;
        if (skip != 0) {
            next = pack(skip - 1, fail);
        } else if (fail != for_good) {
            next = pack(0, fail - 1);
        }
        if (!__atomic_compare_exchange_n(&point->counts, &counts, next, false, __ATOMIC_ACQ_REL,
                                         __ATOMIC_ACQUIRE)) {
            continue;
        }
        if (skip != 0) {
            return false;
        }
        __atomic_add_fetch(&point->hits, 1, __ATOMIC_RELAXED);
        if (fail_of(next) == 0) {
            disarm_spent(file, index);
        }
        return true;
    }
}

cerrno fim_arm(fim_handle handle, uint32_t index, uint32_t skip, uint32_t fail) {
    return handle == nullptr ? EINVAL : arm(file_of(handle), index, skip, fail);
}

cerrno fim_disarm_all(fim_handle handle) {
    if (handle == nullptr) {
        return EINVAL;
    }
    for (uint32_t i = 0; i < file_of(handle)->count; ++i) {
        arm(file_of(handle), i, 0, 0);
    }
    return 0;
}

cerrno fim_arm_program(const char *program, const char *name, uint32_t index, uint32_t skip,
                       uint32_t fail) {
    foreign_table table;
    const int error = table.open(program, name);
    return error != 0 ? static_cast<cerrno>(error) : arm(table.file, index, skip, fail);
}

cerrno fim_walk(const char *program, const char *name,
                int (*visit)(void *context, const fim_point *point), void *context) {
    foreign_table table;
    if (visit == nullptr) {
        return EINVAL;
    }
    if (const int error = table.open(program, name); error != 0) {
        return static_cast<cerrno>(error);
    }
    for (uint32_t i = 0; i < table.file->count; ++i) {
        const point_state *from = &table.file->points[i];
        const uint64_t counts = __atomic_load_n(&from->counts, __ATOMIC_ACQUIRE);
        fim_point point = {};
        point.index = i;
        point.skip = skip_of(counts);
        point.fail = fail_of(counts);
        point.hits = __atomic_load_n(&from->hits, __ATOMIC_RELAXED);
        memcpy(point.text, table.file->texts[i], sizeof(point.text) - 1);
        if (visit(context, &point) != 0) {
            break;
        }
    }
    return 0;
}
