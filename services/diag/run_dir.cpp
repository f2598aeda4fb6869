#include "services/diag/run_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "services/diag/inside.h"

namespace {

constexpr size_t dir_size = 200;
std::mutex guard;
char directory[dir_size];

bool usable(const char *path) {
    struct stat st = {};
    return (mkdir(path, 0755) == 0 || errno == EEXIST) && lstat(path, &st) == 0 &&
           S_ISDIR(st.st_mode) && (st.st_uid == geteuid() || st.st_uid == 0) &&
           (st.st_mode & S_IWOTH) == 0 && faccessat(AT_FDCWD, path, W_OK | X_OK, AT_EACCESS) == 0;
}

// The last place stays if none is usable: whoever opens something there learns why.
void choose_default() {
    for (unsigned i = 0; i < DIAG_RUN_DIRS; ++i) {
        if (diag_default_run_dir(i, directory, sizeof(directory)) != 0 && usable(directory)) {
            return;
        }
    }
}

}  // namespace

cerrno diag_set_run_dir(const char *path) {
    if (path == nullptr || *path == '\0' || strlen(path) >= dir_size) {
        return EINVAL;
    }
    {
        const std::lock_guard hold(guard);
        snprintf(directory, sizeof(directory), "%s", path);
    }
    mfwd6::diag::traces_leave_run_dir();
    mfwd6::diag::debug_follow_run_dir();
    return 0;
}

int diag_default_run_dir(unsigned number, char *path, size_t size) {
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    int length = 0;
    switch (number) {
        case 0:
            length = snprintf(path, size, "/run/mfwd6");
            break;
        case 1:
            if (runtime == nullptr || *runtime != '/') {
                return 0;
            }
            length = snprintf(path, size, "%s/mfwd6", runtime);
            break;
        case 2:
            length = snprintf(path, size, "/dev/shm/mfwd6-%u", static_cast<unsigned>(geteuid()));
            break;
        default:
            return 0;
    }
    return length > 0 && static_cast<size_t>(length) < size ? 1 : 0;
}

const char *diag_run_dir(void) {
    const std::lock_guard hold(guard);
    if (directory[0] == '\0') {
        choose_default();
    }
    return directory;
}

const char *diag_program(void) {
    static const struct program_name {
        char text[16] = {};
        program_name() {
            snprintf(text, sizeof(text), "%.15s", program_invocation_short_name);
            for (char *c = text; *c != '\0'; ++c) {
                if (*c == '/' || *c == '*' || (c == text && *c == '.')) {
                    *c = '_';
                }
            }
            if (text[0] == '\0') {
                snprintf(text, sizeof(text), "unnamed");
            }
        }
    } name;
    return name.text;
}
