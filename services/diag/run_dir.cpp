#include "services/diag/run_dir.h"

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
           access(path, W_OK | X_OK) == 0;
}

void choose_default() {
    snprintf(directory, sizeof(directory), "/run/mfwd6");
    if (usable(directory)) {
        return;
    }
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && *runtime == '/' && strlen(runtime) + sizeof("/mfwd6") <= dir_size) {
        snprintf(directory, sizeof(directory), "%s/mfwd6", runtime);
        if (usable(directory)) {
            return;
        }
    }
    snprintf(directory, sizeof(directory), "/dev/shm/mfwd6-%u", static_cast<unsigned>(geteuid()));
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
