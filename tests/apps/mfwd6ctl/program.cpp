#include "tests/apps/mfwd6ctl/program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <stdexcept>

namespace ctl_test {
namespace {

using clock = std::chrono::steady_clock;

constexpr auto longest_word = std::chrono::seconds(30);
constexpr auto longest_run = std::chrono::seconds(60);

struct ends {
    int read = -1;
    int write = -1;
};

ends make_pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe");
    }
    return {fds[0], fds[1]};
}

void become(const words &arguments, uid_t user, int in, int out, int err) {
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    unsetenv("MFWD6_RUN_DIR");
    unsetenv("MFWD6_PLATFORM");
    setenv("LC_ALL", "C.UTF-8", 1);
    std::vector<char *> argv{const_cast<char *>("mfwd6ctl")};
    for (const std::string &word : arguments) {
        argv.push_back(const_cast<char *>(word.c_str()));
    }
    argv.push_back(nullptr);
    for (const int number : {SIGINT, SIGPIPE, SIGTERM}) {
        ::signal(number, SIG_DFL);
    }
    if (user != 0 && (setgid(user) != 0 || setuid(user) != 0)) {
        _exit(126);
    }
    // A group whose parent is there. In one that nobody looks after, as a build in the background
    // may be, SIGTSTP is discarded.
    setpgid(0, 0);
    execv(MFWD6CTL, argv.data());
    _exit(127);
}

void close_if_open(int &fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

}  // namespace

program::program(const words &arguments, uid_t user) {
    ends in = make_pipe();
    ends out = make_pipe();
    ends err = make_pipe();
    pid_ = fork();
    if (pid_ == 0) {
        become(arguments, user, in.read, out.write, err.write);
    }
    close(in.read);
    close(out.write);
    close(err.write);
    in_ = in.write;
    out_fd_ = out.read;
    err_fd_ = err.read;
    ::signal(SIGPIPE, SIG_IGN);
}

program::~program() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close_if_open(in_);
    close_if_open(out_fd_);
    close_if_open(err_fd_);
}

void program::type(const std::string &input) {
    size_t done = 0;
    while (done < input.size()) {
        const ssize_t n = write(in_, input.data() + done, input.size() - done);
        if (n <= 0) {
            return;  // it does not want to hear more
        }
        done += static_cast<size_t>(n);
    }
}

void program::close_input() {
    close_if_open(in_);
}

void program::close_output() {
    close_if_open(out_fd_);
}

void program::signal(int number) const {
    kill(pid_, number);
}

bool program::read_some(int timeout_ms) {
    pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
    if (poll(fds, 2, timeout_ms) <= 0) {
        return out_fd_ >= 0 || err_fd_ >= 0;
    }
    char bytes[65536];
    for (auto &[fd, events, revents] : fds) {
        if (fd < 0 || revents == 0) {
            continue;
        }
        const ssize_t n = read(fd, bytes, sizeof(bytes));
        if (n > 0) {
            (fd == out_fd_ ? out_ : err_).append(bytes, static_cast<size_t>(n));
        } else {
            close_if_open(fd == out_fd_ ? out_fd_ : err_fd_);
        }
    }
    return out_fd_ >= 0 || err_fd_ >= 0;
}

bool program::says(const std::string &text) {
    const auto deadline = clock::now() + longest_word;
    while (out_.find(text) == std::string::npos && err_.find(text) == std::string::npos) {
        if (clock::now() >= deadline || !read_some(100)) {
            return false;
        }
    }
    return true;
}

ended program::wait() {
    close_input();
    const auto deadline = clock::now() + longest_run;
    while (read_some(100)) {
        if (clock::now() >= deadline) {
            kill(pid_, SIGKILL);
            err_ += "\n(killed by the test: it does not end)";
            break;
        }
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    ended result;
    result.code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    result.out = out_;
    result.err = err_;
    return result;
}

ended run(const words &arguments, const std::string &input) {
    program p(arguments);
    p.type(input);
    return p.wait();
}

std::string without_ages(const std::string &text) {
    // At the end of a line, with the blanks that line it up.
    return std::regex_replace(text, std::regex(R"( +\d+(s|m\d\ds)(?=\n|$))"), " AGE");
}

nlohmann::json without(nlohmann::json value, const words &members) {
    if (value.is_object()) {
        for (const std::string &member : members) {
            value.erase(member);
        }
    }
    if (value.is_structured()) {
        for (auto &inner : value) {
            inner = without(inner, members);
        }
    }
    return value;
}

}  // namespace ctl_test
