#include "tests/kit/child.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <utility>

namespace kit {

void post::tell(char what) const {
    if (write(out_, &what, 1) != 1) {
        perror("tell");
    }
}

char post::hear() const {
    char what = 0;
    return read(in_, &what, 1) == 1 ? what : '\0';
}

child::child(const std::function<int(const post &parent)> &work) {
    int down[2];
    int up[2];
    if (pipe(down) != 0 || pipe(up) != 0) {
        throw std::runtime_error("pipe");
    }
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(down[1]);
        close(up[0]);
        int code = 99;
        try {
            code = work(post(up[1], down[0]));
        } catch (const std::exception &problem) {
            fprintf(stderr, "child: %s\n", problem.what());
        }
        fflush(nullptr);
        _exit(code);
    }
    close(down[0]);
    close(up[1]);
    out_ = down[1];
    in_ = up[0];
    line_ = post(out_, in_);
}

child::~child() {
    kill();
    close(out_);
    close(in_);
}

void child::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
}

int child::wait() {
    int status = 0;
    if (pid_ <= 0 || waitpid(std::exchange(pid_, -1), &status, 0) < 0) {
        return -1;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace kit
