#include "services/window/file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "services/window/settings.h"

namespace mfwd6::window {

namespace {

// FNV-1a: it guards against accidents, not against attackers.
uint64_t hash_bytes(const void *data, size_t bytes) {
    uint64_t h = 0xcbf29ce484222325ULL;
    const auto *p = static_cast<const unsigned char *>(data);
    for (size_t i = 0; i < bytes; ++i) {
        h = (h ^ p[i]) * 0x100000001b3ULL;
    }
    return h;
}

cerrno code_of_open(int error) {
    switch (error) {
        case ENOENT:
            return SHMWIN_ERR_NO_WINDOW;
        case ELOOP:
        case EISDIR:
        case ENXIO:
            return SHMWIN_ERR_FILE_TYPE;
        case EACCES:
        case EPERM:
        case EROFS:
            return SHMWIN_ERR_PERMISSION;
        case ENOSPC:
            return SHMWIN_ERR_SPACE;
        default:
            return static_cast<cerrno>(error);
    }
}

// A file that somebody else could have put there, or could write to, is never mapped.
cerrno refuse_foreign(const struct stat &st) {
    if (!S_ISREG(st.st_mode)) {
        return SHMWIN_ERR_FILE_TYPE;
    }
    const uint32_t group = configured_group();
    const bool by_group = group != no_group && st.st_gid == group;
    const bool ours = st.st_uid == geteuid() || st.st_uid == 0 || by_group;
    const bool open_to_others =
        (st.st_mode & S_IWOTH) != 0 || ((st.st_mode & S_IWGRP) != 0 && !by_group);
    return ours && !open_to_others ? 0 : SHMWIN_ERR_PERMISSION;
}

cerrno give_to_group(int fd, const struct stat &st) {
    const uint32_t group = configured_group();
    if (group == no_group || st.st_uid != geteuid()) {
        return 0;
    }
    const bool done = (st.st_gid == group || fchown(fd, static_cast<uid_t>(-1), group) == 0) &&
                      fchmod(fd, 0660) == 0;
    return done ? 0 : SHMWIN_ERR_PERMISSION;
}

content compare(const identity &id, const shmwin_open_record &asked, uint64_t file_bytes) {
    if (id.check != check_of(id) || id.max_bytes < log_offset(peers::domains) + id.header_bytes ||
        std::strncmp(id.name, asked.name, sizeof(id.name)) != 0 || id.boot != boot_mark()) {
        return content::damaged;
    }
    const places where = place(id.header_bytes, id.max_bytes);
    if (id.header_offset != where.header || id.spans_offset != where.spans ||
        id.heap_offset != where.heap || file_bytes < where.heap) {
        return content::damaged;
    }
    if (id.superblock_bytes != sizeof(superblock) || id.header_bytes != asked.hdr_size ||
        id.fingerprint != fingerprint_of(asked.name)) {
        return content::other_layout;
    }
    return id.base != reinterpret_cast<uint64_t>(asked.base_addr) ? content::other_base
                                                                  : content::ready;
}

}  // namespace

uint64_t check_of(const identity &id) {
    return hash_bytes(&id, offsetof(identity, check));
}

uint64_t boot_mark() {
    char text[64] = {};
    const int fd = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    const ssize_t n = read(fd, text, sizeof(text));
    close(fd);
    return n > 0 ? hash_bytes(text, static_cast<size_t>(n)) : 0;
}

int lock_byte(int fd, int64_t offset, short type) {
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = offset;
    fl.l_len = 1;
    while (fcntl(fd, F_OFD_SETLK, &fl) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

namespace {

// Opens or creates the file in the run dir, or in the first of its default places that has it.
cerrno open_or_find(const char *name, bool make, int *fd) {
    const int flags =
        O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (make ? O_CREAT : 0);
    cerrno first_reason = SHMWIN_ERR_NO_WINDOW;
    char path[path_bytes];
    for (uint32_t i = 0; run_dir_to_try(i, make, path); ++i) {
        cerrno why = 0;
        const int dir = open_dir(path, make, &why);
        if (dir >= 0) {
            *fd = openat(dir, name, flags, 0600);
            why = *fd >= 0 ? 0 : code_of_open(errno);
            close(dir);
        }
        if (why == 0) {
            return 0;
        }
        first_reason = first_reason == SHMWIN_ERR_NO_WINDOW ? why : first_reason;
    }
    return first_reason;
}

}  // namespace

cerrno open_file(const char *name, bool make, int *out) {
    int fd = -1;
    if (const cerrno code = open_or_find(name, make, &fd); code != 0) {
        return code;
    }
    struct stat st;
    cerrno code = fstat(fd, &st) == 0 ? refuse_foreign(st) : static_cast<cerrno>(errno);
    if (code == 0 && make) {
        code = give_to_group(fd, st);
    }
    if (code != 0) {
        close(fd);
        return code;
    }
    *out = fd;
    return 0;
}

content examine(int fd, const shmwin_open_record &asked, identity *id) {
    struct {
        identity id;
        uint32_t state;
        uint32_t owner;
    } head = {};
    struct stat st;
    // A file grows from nothing to its whole size at once; what lies between was cut off.
    const bool readable = fstat(fd, &st) == 0 && pread(fd, &head, sizeof(head), 0) >= 0;
    if (!readable || (st.st_size != 0 && st.st_size < static_cast<off_t>(sizeof(superblock)))) {
        return content::damaged;
    }
    *id = head.id;
    // A file that was never ready may hold anything: its state word is still that of an empty file.
    if (head.state == static_cast<uint32_t>(life::making)) {
        return head.id.magic == 0 || head.id.magic == file_magic ? content::half_made
                                                                 : content::damaged;
    }
    if (head.id.magic != file_magic) {
        return content::damaged;
    }
    if (head.id.version != service_version) {
        return content::other_layout;
    }
    const content found = compare(head.id, asked, static_cast<uint64_t>(st.st_size));
    if (found != content::ready) {
        return found;
    }
    return head.state == static_cast<uint32_t>(life::ready)       ? content::ready
           : head.state == static_cast<uint32_t>(life::resetting) ? content::resetting
                                                                  : content::damaged;
}

int empty_file(int fd) {
    return ftruncate(fd, 0) == 0 ? 0 : errno;
}

}  // namespace mfwd6::window
