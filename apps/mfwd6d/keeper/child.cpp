#include "apps/mfwd6d/keeper/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "apps/keeper/keeper_link.h"
#include "apps/mfwd6d/options.h"
#include "apps/mfwd6d/say.h"

namespace mfwd6::daemon {
namespace {

constexpr uint64_t first_delay_ms = 100;
constexpr uint64_t longest_delay_ms = 10000;
// So many deaths in so long a time and it is started more slowly.
constexpr size_t deaths_at_once = 20;
constexpr uint64_t deaths_within_ms = 10000;
constexpr uint64_t slow_restart_ms = 250;

std::string end_text(int status) {
    if (WIFSIGNALED(status)) {
        return fmt::format("was ended by signal {} ({})", WTERMSIG(status),
                           strsignal(WTERMSIG(status)));
    }
    return fmt::format("ended with code {}", WEXITSTATUS(status));
}

}  // namespace

child::~child() {
    close_link();
}

void child::close_link() {
    if (link_ >= 0) {
        close(link_);
        link_ = -1;
    }
}

void child::signal(int number) const {
    if (pid_ > 0) {
        kill(pid_, number);
    }
}

// In the new process: the connection is inherited, everything else was opened close-on-exec.
void child::become(int link) const {
    const pid_t keeper = getppid();
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    setpgid(0, 0);  // Ctrl-C is the keeper's: it ends its children in order
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    fcntl(link, F_SETFD, 0);
    setenv(keeper::fd_variable, std::to_string(link).c_str(), 1);
    setenv(keeper::run_dir_variable, run_dir_.c_str(), 1);
    std::vector<char *> arguments;
    for (const std::string &word : command_) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    if (getppid() == keeper && keeper != 1) {
        execv(arguments[0], arguments.data());
        say(weight::error, "{}: {}", command_[0], std::strerror(errno));
    }
    _exit(exit_hopeless);
}

outcome child::start(uint64_t now_ms) {
    int ends[2];
    due_ms_ = 0;
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        due_ms_ = now_ms + longest_delay_ms;
        return failure_of(static_cast<cerrno>(errno), name_);
    }
    const pid_t pid = fork();
    if (pid == 0) {
        become(ends[1]);
    }
    close(ends[1]);
    if (pid < 0) {
        const auto code = static_cast<cerrno>(errno);
        close(ends[0]);
        due_ms_ = now_ms + longest_delay_ms;
        return failure_of(code, name_);
    }
    pid_ = pid;
    link_ = ends[0];
    ready_ = false;
    return {};
}

void child::ended() {
    pid_ = -1;
    close_link();
    due_ms_ = 0;
}

void child::died(int status, uint64_t now_ms) {
    const pid_t pid = pid_;
    ended();
    uint64_t delay = 0;
    if (ready_) {
        ever_ready_ = true;
        failed_starts_ = 0;
        deaths_.push_back(now_ms);
        while (deaths_.front() + deaths_within_ms < now_ms) {
            deaths_.pop_front();
        }
        delay = deaths_.size() > deaths_at_once ? slow_restart_ms : 0;
    } else {
        delay = std::min(longest_delay_ms, first_delay_ms << std::min(failed_starts_, 10U));
        ++failed_starts_;
    }
    due_ms_ = now_ms + delay;
    due_ms_ = due_ms_ == 0 ? 1 : due_ms_;
    say(weight::warning, "the {} (process {}) {}; it is started again{}", name_, pid,
        end_text(status), delay == 0 ? std::string(" at once") : fmt::format(" in {} ms", delay));
}

}  // namespace mfwd6::daemon
