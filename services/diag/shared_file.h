// Small files below the run dir that several processes map.
#ifndef MFWD6_SERVICES_DIAG_SHARED_FILE_H
#define MFWD6_SERVICES_DIAG_SHARED_FILE_H

#include <cstddef>

namespace mfwd6::diag {

inline constexpr size_t path_size = 320;

// Writes `<run dir>/<folder>` and makes both directories (mode 0755) where they are missing. 0 or
// an errno value; EPERM if the folder belongs to another user or others may write to it.
int make_folder(const char *folder, char (&path)[path_size]);

// Writes `<run dir>/<folder>/<name>` without making anything. ENAMETOOLONG.
int file_path(const char *folder, const char *name, char (&path)[path_size]);

// True for what may be one component of a path here: not empty, no '/', no leading '.'.
bool is_plain_name(const char *name);

enum class open_mode { existing, existing_read_only, create, create_new };

// Opens a regular file (mode 0600, never through a symbolic link, close on exec). `*fd` is the
// caller's. 0 or an errno value; EPERM for a file of another user (root's are accepted for
// reading).
int open_file(const char *path, open_mode mode, int *fd);

// Makes the file at least `length` bytes, all of them really there: a full file system is an error
// here and never a signal later.
int grow_file(int fd, size_t length);

// An open-file-description lock on the whole file; the kernel drops it with the process. `wait`
// false: EAGAIN if another holds it. Closing the descriptor gives it back only if the file is not
// mapped: a mapping keeps the open file, and so the lock.
int lock_file(int fd, bool wait);
void unlock_file(int fd);
// True while another open of the file holds such a lock.
bool is_locked(int fd);

}  // namespace mfwd6::diag

#endif
