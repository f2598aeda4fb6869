// A run dir of its own for each test, and small tmpfs to run full.
#ifndef MFWD6_TESTS_SERVICES_DIAG_SCRATCH_H
#define MFWD6_TESTS_SERVICES_DIAG_SCRATCH_H

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "services/diag/run_dir.h"
#include "services/diag/trace.h"

class Scratch : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/dev/shm/mfwd6-diag-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        directory = name;
        ASSERT_EQ(diag_set_run_dir(name), 0U);
    }
    void TearDown() override { std::filesystem::remove_all(directory); }
    std::string directory;
};

// Runs `body` in a child; its exit status, or 128 + signal.
template <class Body>
int in_child(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

inline constexpr int cannot_mount = 77;

// For a child: a tmpfs of one page, already full, at `path`. False where the machine does not let
// us.
inline bool mount_full_tmpfs(const char *path) {
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return false;
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", path, "tmpfs", 0, "size=4096,mode=0755") != 0) {
        return false;
    }
    FILE *filler = fopen((std::string(path) + "/filler").c_str(), "w");
    const std::string bytes(4096, 'x');
    return filler != nullptr && fwrite(bytes.data(), 1, bytes.size(), filler) == bytes.size() &&
           fclose(filler) == 0;
}

inline std::vector<ltrace_record> read_all(ltrace_reader *reader) {
    std::vector<ltrace_record> records;
    ltrace_record record;
    while (ltrace_next(reader, &record) == 1) {
        records.push_back(record);
    }
    return records;
}

#endif
