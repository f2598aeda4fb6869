#include "services/window/setup.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "services/diag/run_dir.h"
#include "services/window/settings.h"

#ifndef MFWD6_WINDOW_BASE
#define MFWD6_WINDOW_BASE 0x200000000000
#endif

namespace mfwd6::window {

namespace {

constexpr uint64_t gibibyte = uint64_t{1} << 30;
constexpr uint64_t place_unit = uint64_t{2} << 20;
constexpr size_t names = 8;

struct placing {
    uint64_t base = MFWD6_WINDOW_BASE;
    uint64_t bytes = 64 * gibibyte;
};

struct named_placing {
    char name[16];
    placing where;
};

struct named_fingerprint {
    char name[16];
    uint64_t value;
};

char run_dir[path_bytes];
placing default_place;
named_placing places_by_name[names];
named_fingerprint fingerprints[names];
uint32_t group = no_group;
std::atomic<uint32_t> wait_limit_ms{10000};

// The entry for `name`, or the first empty one, or null.
template <class T>
T *entry_for(T (&list)[names], const char *name) {
    for (T &e : list) {
        if (e.name[0] == '\0' || std::strcmp(e.name, name) == 0) {
            return &e;
        }
    }
    return nullptr;
}

cerrno make_placing(uint64_t base, uint64_t bytes, placing *out) {
    placing p;
    p.base = base != 0 ? base : p.base;
    p.bytes = bytes != 0 ? bytes : p.bytes;
    if (p.base % place_unit != 0 || p.bytes % place_unit != 0 || p.bytes < 8 * place_unit ||
        p.bytes > 1024 * gibibyte || p.base >= uint64_t{1} << 47) {
        return EINVAL;
    }
    *out = p;
    return 0;
}

placing placing_of(const char *name) {
    const named_placing *e = entry_for(places_by_name, name);
    return e != nullptr && e->name[0] != '\0' ? e->where : default_place;
}

// Whether `path` is one of the places where the run dir is if nobody set it.
bool is_default(const char *path) {
    for (unsigned i = 0; i < DIAG_RUN_DIRS; ++i) {
        char other[path_bytes];
        if (diag_default_run_dir(i, other, sizeof(other)) != 0 && std::strcmp(path, other) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool good_name(const char *name) {
    if (name == nullptr || name[0] == '\0' || name[0] == '.') {
        return false;
    }
    const size_t length = strnlen(name, 16);
    return length < 16 && std::memchr(name, '/', length) == nullptr;
}

uint64_t fingerprint_of(const char *name) {
    const named_fingerprint *e = entry_for(fingerprints, name);
    return e != nullptr && e->name[0] != '\0' ? e->value : 0;
}

uint32_t configured_group() {
    return group;
}

uint64_t wait_limit_ns() {
    return uint64_t{wait_limit_ms.load(std::memory_order_relaxed)} * 1000000;
}

bool run_dir_to_try(uint32_t number, bool make, char (&path)[path_bytes]) {
    const char *in_use = run_dir[0] != '\0' ? run_dir : diag_run_dir();
    if (number == 0) {
        std::snprintf(path, sizeof(path), "%s", in_use);
        return true;
    }
    // Places that this user has none of are passed over.
    while (number <= DIAG_RUN_DIRS && diag_default_run_dir(number - 1, path, path_bytes) == 0) {
        ++number;
    }
    return !make && run_dir[0] == '\0' && number <= DIAG_RUN_DIRS && is_default(in_use);
}

int open_dir(const char *path, bool make, cerrno *why) {
    if (make && mkdir(path, 0755) != 0 && errno != EEXIST && errno != EROFS && errno != EACCES) {
        *why = errno == ENOENT ? SHMWIN_ERR_NO_WINDOW : static_cast<cerrno>(errno);
        return -1;
    }
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        *why = errno == ENOENT    ? SHMWIN_ERR_NO_WINDOW
               : errno == EACCES  ? SHMWIN_ERR_PERMISSION
               : errno == ENOTDIR ? SHMWIN_ERR_FILE_TYPE
                                  : static_cast<cerrno>(errno);
        return -1;
    }
    struct stat st;
    const bool ours =
        fstat(fd, &st) == 0 && (st.st_mode & S_IWOTH) == 0 &&
        (st.st_uid == geteuid() || st.st_uid == 0 || (group != no_group && st.st_gid == group));
    if (!ours) {
        close(fd);
        *why = SHMWIN_ERR_PERMISSION;
        return -1;
    }
    return fd;
}

}  // namespace mfwd6::window

using namespace mfwd6::window;

extern "C" {

cerrno shmwin_set_run_dir(const char *path) {
    if (path == nullptr) {
        run_dir[0] = '\0';
        return 0;
    }
    const size_t length = std::strlen(path);
    if (path[0] != '/' || length >= path_bytes) {
        return EINVAL;
    }
    std::memcpy(run_dir, path, length + 1);
    return 0;
}

cerrno shmwin_get_run_dir(char *path, size_t size) {
    if (path == nullptr) {
        return EINVAL;
    }
    char found[path_bytes];
    run_dir_to_try(0, true, found);
    cerrno why = 0;
    const int fd = open_dir(found, true, &why);
    if (fd < 0) {
        return why;
    }
    close(fd);
    if (std::strlen(found) >= size) {
        return ERANGE;
    }
    std::memcpy(path, found, std::strlen(found) + 1);
    return 0;
}

cerrno shmwin_set_place(uint64_t base_addr, uint64_t max_size) {
    return make_placing(base_addr, max_size, &default_place);
}

cerrno shmwin_set_place_of(const char *name, uint64_t base_addr, uint64_t max_size) {
    placing p;
    if (!good_name(name) || make_placing(base_addr, max_size, &p) != 0) {
        return EINVAL;
    }
    named_placing *e = entry_for(places_by_name, name);
    if (e == nullptr) {
        return ENOSPC;
    }
    std::memcpy(e->name, name, std::strlen(name) + 1);
    e->where = p;
    return 0;
}

cerrno shmwin_set_fingerprint(const char *name, uint64_t fingerprint) {
    if (!good_name(name)) {
        return EINVAL;
    }
    named_fingerprint *e = entry_for(fingerprints, name);
    if (e == nullptr) {
        return ENOSPC;
    }
    std::memcpy(e->name, name, std::strlen(name) + 1);
    e->value = fingerprint;
    return 0;
}

void shmwin_set_group(uint32_t gid) {
    group = gid;
}

void shmwin_set_wait_limit(uint32_t milliseconds) {
    wait_limit_ms.store(milliseconds, std::memory_order_relaxed);
}

cerrno shmwin_platform_info(const char *name, void **base_addr, size_t *max_table_size) {
    if (!good_name(name) || base_addr == nullptr || max_table_size == nullptr) {
        return EINVAL;
    }
    const placing p = placing_of(name);
    *base_addr = reinterpret_cast<void *>(p.base);
    *max_table_size = p.bytes;
    return 0;
}

}  // extern "C"
