#include "services/window/setup.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "services/window/settings.h"
#include "services/window/window_table.h"

#ifndef MFWD6_WINDOW_BASE
#define MFWD6_WINDOW_BASE 0x200000000000
#endif

namespace mfwd6::window {

namespace {

constexpr uint64_t gibibyte = uint64_t{1} << 30;
constexpr uint64_t place_unit = uint64_t{2} << 20;
constexpr size_t names = 8;
constexpr size_t path_bytes = 201;

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

// Opens one candidate for the run dir. *why says what is wrong with it.
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

struct candidate {
    char path[path_bytes];
};

// Where windows lie if nothing was set, best first; an empty path ends the list.
void default_dirs(candidate (&list)[4]) {
    list[0] = candidate{"/run/mfwd6"};
    uint32_t n = 1;
    const char *runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] == '/' && std::strlen(runtime) < 150) {
        std::snprintf(list[n++].path, path_bytes, "%s/mfwd6", runtime);
    }
    std::snprintf(list[n++].path, path_bytes, "/dev/shm/mfwd6-%u", geteuid());
    list[n].path[0] = '\0';
}

bool usable_for_new(int fd) {
    return faccessat(fd, ".", W_OK | X_OK, AT_EACCESS) == 0;
}

// The default that this user may write to; one that is there already for a client that only
// attaches.
int open_default_dir(bool make, cerrno *why, char *path) {
    candidate list[4];
    default_dirs(list);
    *why = SHMWIN_ERR_NO_WINDOW;
    for (const candidate *c = list; c->path[0] != '\0'; ++c) {
        const int fd = open_dir(c->path, make, why);
        if (fd >= 0 && (!make || usable_for_new(fd))) {
            std::memcpy(path, c->path, path_bytes);
            return fd;
        }
        if (fd >= 0) {
            close(fd);
        }
    }
    return -1;
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

int open_run_dir(bool make, cerrno *why) {
    if (run_dir[0] != '\0') {
        return open_dir(run_dir, make, why);
    }
    char path[path_bytes];
    return open_default_dir(make, why, path);
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
    std::memcpy(found, run_dir, path_bytes);
    cerrno why = 0;
    const int fd =
        found[0] != '\0' ? open_dir(found, true, &why) : open_default_dir(true, &why, found);
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
    each([](open_window &w) { w.mutex_options.stuck_after = wait_limit_ns(); });
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
