// What the tests of the window share: a run dir of their own, opening, and work in other processes.
#ifndef MFWD6_TESTS_WINDOW_SUPPORT_H
#define MFWD6_TESTS_WINDOW_SUPPORT_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "services/window/inspect.h"
#include "services/window/setup.h"
#include "services/window/window.h"

namespace window_test {

inline constexpr size_t header_bytes = 256;

inline shmwin_open_record record(bool owner, const char *name = "test") {
    shmwin_open_record r = {};
    std::memcpy(r.name, name, strnlen(name, sizeof(r.name) - 1));
    EXPECT_EQ(shmwin_platform_info(name, &r.base_addr, &r.max_table_size), 0U);
    r.hdr_size = header_bytes;
    r.open_flags = owner ? SHMWIN_OPEN_OWNER : 0;
    return r;
}

// One opening of a window.
struct opened {
    cerrno code = 0;
    uint32_t id = 0;
    void *header = nullptr;

    void close() { EXPECT_EQ(shmwin_close(id, 1), 0U); }
};

inline opened open_as(bool owner, const char *name = "test") {
    const shmwin_open_record r = record(owner, name);
    opened o;
    o.code = shmwin_open_win(&r, &o.header, &o.id);
    return o;
}

class WindowTest : public testing::Test {
  protected:
    WindowTest() {
        char path[] = "/dev/shm/mfwd6-test-XXXXXX";
        dir_ = mkdtemp(path);
        shmwin_set_run_dir(dir_.c_str());
    }
    ~WindowTest() override {
        shmwin_set_run_dir(nullptr);
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    std::string file(const char *name = "test") const { return dir_ + "/" + name; }

    std::string dir_;
};

// Ends a process at once: nothing is unlocked, closed or flushed.
[[noreturn]] inline void die() {
    kill(getpid(), SIGKILL);
    for (;;) {
        pause();
    }
}

// Starts fn() in a child, whose exit code is its result.
template <class F>
pid_t start(F fn) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);  // a failed test must not leave a child waiting for ever
        const int code = fn();
        std::fflush(nullptr);
        _exit(code);
    }
    return pid;
}

// Exit code, or minus the signal that ended it.
inline int end_of(pid_t pid) {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

template <class F>
int in_child(F fn) {
    return end_of(start(fn));
}

// A pipe by which one process lets another go on.
class gate {
  public:
    gate() { EXPECT_EQ(pipe(ends_), 0); }
    ~gate() {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }
    void open() { EXPECT_EQ(write(ends_[1], "x", 1), 1); }
    void wait() {
        char c = 0;
        EXPECT_EQ(read(ends_[0], &c, 1), 1);
    }

  private:
    int ends_[2];
};

using blocks = std::vector<std::pair<uint64_t, size_t>>;

inline blocks live_blocks(uint32_t id) {
    blocks found;
    const auto add = [](const shmwin_block *b, void *context) {
        static_cast<blocks *>(context)->push_back(
            {reinterpret_cast<uint64_t>(b->address), b->size});
        return 0;
    };
    EXPECT_EQ(shmwin_each_block(id, 0, add, &found), 0U);
    return found;
}

inline testing::AssertionResult whole(uint32_t id) {
    char why[160] = "";
    if (shmwin_check_heap(id, why, sizeof(why)) == 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << why;
}

}  // namespace window_test

#endif
