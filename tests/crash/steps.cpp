#include "tests/crash/steps.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <utility>

#include "tests/crash/universe.h"

namespace crash {
namespace {

uint64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 +
           static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

int code_of(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

victim::victim(const std::function<int()> &work) {
    fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork");
    }
    if (pid_ > 0) {
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    int code = 99;
    try {
        code = work();
    } catch (const std::exception &problem) {
        fail(std::string("exception: ") + problem.what());
    }
    fflush(nullptr);
    _exit(code);
}

victim::~victim() {
    kill();
}

void victim::stop_here() {
    raise(SIGSTOP);
}

bool victim::ended(int status, std::string *why) {
    if (WIFSTOPPED(status)) {
        return false;
    }
    *why = "the process ended with " + std::to_string(code_of(status));
    pid_ = -1;
    return true;
}

bool victim::wait_for_stop(uint32_t milliseconds, std::string *why) {
    const uint64_t until = now_ms() + milliseconds;
    while (true) {
        int status = 0;
        const pid_t got = waitpid(pid_, &status, WNOHANG);
        if (got == pid_) {
            if (ended(status, why)) {
                return false;
            }
            if (WSTOPSIG(status) == SIGSTOP) {
                return true;
            }
            if (WSTOPSIG(status) == SIGSEGV || WSTOPSIG(status) == SIGABRT ||
                WSTOPSIG(status) == SIGBUS || WSTOPSIG(status) == SIGILL) {
                *why = "the process died of signal " + std::to_string(WSTOPSIG(status));
                return false;
            }
            ptrace(PTRACE_CONT, pid_, nullptr, WSTOPSIG(status));
            continue;
        }
        if (now_ms() > until) {
            *why = "the process hangs";
            return false;
        }
        usleep(50);
    }
}

bool victim::step_and_kill(uint64_t instructions, std::string *why) {
    for (uint64_t n = 0; n < instructions; ++n) {
        int status = 0;
        if (ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr) != 0 ||
            waitpid(pid_, &status, 0) != pid_) {
            *why = "cannot step";
            return false;
        }
        if (ended(status, why)) {
            return false;
        }
        if (WSTOPSIG(status) != SIGTRAP && WSTOPSIG(status) != SIGSTOP) {
            *why = "the process died of signal " + std::to_string(WSTOPSIG(status));
            return false;
        }
    }
    kill();
    return true;
}

void victim::go_on() {
    ptrace(PTRACE_CONT, pid_, nullptr, nullptr);
}

void victim::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        while (waitpid(pid_, &status, 0) == pid_ && WIFSTOPPED(status)) {
        }
        pid_ = -1;
    }
}

bool victim::runs(int *code) {
    while (true) {
        int status = 0;
        if (pid_ < 0 || waitpid(pid_, &status, WNOHANG) != pid_) {
            return pid_ > 0;
        }
        if (!WIFSTOPPED(status)) {
            *code = code_of(status);
            pid_ = -1;
            return false;
        }
        ptrace(PTRACE_CONT, pid_, nullptr, WSTOPSIG(status) == SIGSTOP ? 0 : WSTOPSIG(status));
    }
}

int victim::wait(uint32_t milliseconds) {
    const uint64_t until = now_ms() + milliseconds;
    int code = 0;
    while (runs(&code)) {
        if (now_ms() > until) {
            return -1;
        }
        usleep(100);
    }
    return code;
}

}  // namespace crash
