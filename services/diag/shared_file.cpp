#include "services/diag/shared_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "services/diag/run_dir.h"

namespace mfwd6::diag {

namespace {

int make_directory(const char *path) {
    if (mkdir(path, 0755) != 0 && errno != EEXIST) {
        return errno;
    }
    struct stat st = {};
    if (lstat(path, &st) != 0) {
        return errno;
    }
    if (!S_ISDIR(st.st_mode)) {
        return ENOTDIR;
    }
    const bool ours = st.st_uid == geteuid() || st.st_uid == 0;
    return ours && (st.st_mode & S_IWOTH) == 0 ? 0 : EPERM;
}

struct flock whole_file(short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

int checked_print(int length) {
    return length > 0 && static_cast<size_t>(length) < path_size ? 0 : ENAMETOOLONG;
}

}  // namespace

int make_folder(const char *folder, char (&path)[path_size]) {
    if (const int error = make_directory(diag_run_dir()); error != 0) {
        return error;
    }
    const int error = checked_print(snprintf(path, sizeof(path), "%s/%s", diag_run_dir(), folder));
    return error != 0 ? error : make_directory(path);
}

int file_path(const char *folder, const char *name, char (&path)[path_size]) {
    return checked_print(snprintf(path, sizeof(path), "%s/%s/%s", diag_run_dir(), folder, name));
}

bool is_plain_name(const char *name) {
    return name != nullptr && *name != '\0' && *name != '.' && strchr(name, '/') == nullptr;
}

int open_file(const char *path, open_mode mode, int *fd) {
    int flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    flags |= mode == open_mode::existing_read_only ? O_RDONLY : O_RDWR;
    flags |= mode == open_mode::create ? O_CREAT : 0;
    flags |= mode == open_mode::create_new ? O_CREAT | O_EXCL : 0;
    const int opened = open(path, flags, 0600);
    if (opened < 0) {
        return errno;
    }
    struct stat st = {};
    int error = fstat(opened, &st) != 0 ? errno : 0;
    if (error == 0 && !S_ISREG(st.st_mode)) {
        error = EINVAL;
    }
    if (error == 0 && st.st_uid != geteuid() && st.st_uid != 0 && geteuid() != 0) {
        error = EPERM;
    }
    if (error != 0) {
        close(opened);
        return error;
    }
    *fd = opened;
    return 0;
}

int grow_file(int fd, size_t length) {
    return posix_fallocate(fd, 0, static_cast<off_t>(length));
}

int lock_file(int fd, bool wait) {
    struct flock lock = whole_file(F_WRLCK);
    while (fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &lock) != 0) {
        if (errno != EINTR) {
            return errno == EACCES ? EAGAIN : errno;
        }
    }
    return 0;
}

void unlock_file(int fd) {
    struct flock lock = whole_file(F_UNLCK);
    fcntl(fd, F_OFD_SETLK, &lock);
}

bool is_locked(int fd) {
    // Asked as a reader would, so that a descriptor opened for reading suffices.
    struct flock lock = whole_file(F_RDLCK);
    return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace mfwd6::diag
