// Network namespaces as the hosts of a laboratory: made, wired and entered without leaving a trace.
//
// A namespace has no name and no file; it lives as long as this object, a socket or a process in
// it. However the program ends, nothing is left behind.
//
// Errors of the machine (no memory, a failing `ip` command) are std::runtime_error with a sentence.
#ifndef MFWD6_NETLAB_NAMESPACES_H
#define MFWD6_NETLAB_NAMESPACES_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace netlab {

// Makes this process able to create network namespaces: nothing to do for root, else a user
// namespace in which it is root (user_namespaces(7)). Call it before the first thread is made.
// Empty on success, otherwise the reason in one sentence.
std::string gain_privilege();

// What a started program writes goes to these descriptors; -1 leaves the caller's.
struct output {
    int out = -1;
    int err = -1;
};

class network_namespace {
  public:
    network_namespace();
    ~network_namespace();
    network_namespace(const network_namespace &) = delete;
    network_namespace &operator=(const network_namespace &) = delete;

    int fd() const { return fd_; }

    // The name by which `ip link ... netns NAME` finds it, as long as this process lives.
    std::string path() const;

    // Runs `work` on a thread that lives in the namespace. Sockets made there stay there and can be
    // used from any thread. Exceptions of `work` pass through.
    void inside(const std::function<void()> &work) const;

    // Runs a shell command in there; its output. Throws, with what it said, if it fails.
    std::string shell(const std::string &command) const;

    // Starts a program in there (execvp, `arguments` without the program). It is killed when the
    // calling thread ends before it. The caller waits for it.
    pid_t start(const std::string &program, const std::vector<std::string> &arguments,
                output to = {}) const;

  private:
    int fd_ = -1;
};

}  // namespace netlab

#endif
