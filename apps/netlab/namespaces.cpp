#include "apps/netlab/namespaces.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <thread>

namespace netlab {
namespace {

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

bool write_file(const char *path, const std::string &text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool whole = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return whole;
}

// Can a network namespace be made? Asked in a child, so that the caller stays where it is.
bool may_make_namespaces() {
    const pid_t child = fork();
    if (child == 0) {
        _exit(unshare(CLONE_NEWNET) == 0 ? 0 : 1);
    }
    int status = 1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

std::string enter_user_namespace() {
    const std::string uid_map = "0 " + std::to_string(geteuid()) + " 1";
    const std::string gid_map = "0 " + std::to_string(getegid()) + " 1";
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return std::string("neither root nor an unprivileged user namespace: unshare says ") +
               std::strerror(errno);
    }
    if (!write_file("/proc/self/setgroups", "deny") || !write_file("/proc/self/uid_map", uid_map) ||
        !write_file("/proc/self/gid_map", gid_map)) {
        return std::string("cannot map the user into a user namespace: ") + std::strerror(errno);
    }
    return "";
}

std::string read_all(int fd) {
    std::string text;
    char part[4096];
    ssize_t n = 0;
    while ((n = read(fd, part, sizeof(part))) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) {
            text.append(part, static_cast<size_t>(n));
        }
    }
    return text;
}

// The child's side of `start`: only what is safe behind fork in a program with threads.
[[noreturn]] void become(int ns, char *const *argv, output to) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (setns(ns, CLONE_NEWNET) != 0 || (to.out >= 0 && dup2(to.out, STDOUT_FILENO) < 0) ||
        (to.err >= 0 && dup2(to.err, STDERR_FILENO) < 0)) {
        _exit(126);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(argv[0], argv);
    _exit(127);
}

}  // namespace

std::string gain_privilege() {
    if (may_make_namespaces()) {
        return "";
    }
    const std::string reason = enter_user_namespace();
    if (!reason.empty()) {
        return reason;
    }
    return may_make_namespaces() ? "" : "a user namespace is allowed, a network namespace is not";
}

network_namespace::network_namespace() {
    int error = 0;
    std::thread([&] {
        if (unshare(CLONE_NEWNET) == 0) {
            fd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        }
        error = errno;
    }).join();
    if (fd_ < 0) {
        errno = error;
        fail("cannot make a network namespace");
    }
    shell("ip link set lo up");
}

network_namespace::~network_namespace() {
    close(fd_);
}

std::string network_namespace::path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_);
}

void network_namespace::inside(const std::function<void()> &work) const {
    std::exception_ptr thrown;
    std::thread([&] {
        try {
            if (setns(fd_, CLONE_NEWNET) != 0) {
                fail("cannot enter a network namespace");
            }
            work();
        } catch (...) {
            thrown = std::current_exception();
        }
    }).join();
    if (thrown) {
        std::rethrow_exception(thrown);
    }
}

std::string network_namespace::shell(const std::string &command) const {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        fail("pipe");
    }
    const pid_t child = start("sh", {"-c", command}, {ends[1], ends[1]});
    close(ends[1]);
    const std::string said = read_all(ends[0]);
    close(ends[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (status != 0) {
        throw std::runtime_error("`" + command + "` failed: " + said);
    }
    return said;
}

pid_t network_namespace::start(const std::string &program,
                               const std::vector<std::string> &arguments, output to) const {
    std::vector<char *> argv = {const_cast<char *>(program.c_str())};
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        become(fd_, argv.data(), to);
    }
    if (child < 0) {
        fail("fork");
    }
    return child;
}

}  // namespace netlab
