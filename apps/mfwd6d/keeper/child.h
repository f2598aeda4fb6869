// One process that the keeper starts, and starts again when it dies.
#ifndef MFWD6_APPS_MFWD6D_KEEPER_CHILD_H
#define MFWD6_APPS_MFWD6D_KEEPER_CHILD_H

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "apps/mfwd6d/owner/outcome.h"

namespace mfwd6::daemon {

class child {
  public:
    child(const char *name, std::vector<std::string> command, std::string run_dir)
        : name_(name), command_(std::move(command)), run_dir_(std::move(run_dir)) {}
    ~child();
    child(const child &) = delete;
    child &operator=(const child &) = delete;

    const char *name() const { return name_; }
    bool runs() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    // The keeper's end of the connection; -1 while it does not run.
    int link() const { return link_; }

    // Starts it now.
    outcome start(uint64_t now_ms);
    // It said that it works.
    void ready() { ready_ = true; }
    // A word of its command is not for later starts.
    void drop_word(const std::string &word) { std::erase(command_, word); }
    bool was_ready() const { return ever_ready_ || ready_; }
    void close_link();
    void signal(int number) const;

    // Its end was learnt of, and was asked for.
    void ended();
    // Its end was learnt of: says so, and decides when it is to be started again. At once after a
    // death of a child that worked, unless that happens too often; later and later after failed
    // starts.
    void died(int status, uint64_t now_ms);
    // When it is to be started, in the clock of `now_ms`; 0: not.
    uint64_t due_ms() const { return due_ms_; }
    void do_not_restart() { due_ms_ = 0; }

  private:
    [[noreturn]] void become(int link) const;

    const char *name_;
    std::vector<std::string> command_;
    std::string run_dir_;
    pid_t pid_ = -1;
    int link_ = -1;
    bool ready_ = false;
    bool ever_ready_ = false;
    uint32_t failed_starts_ = 0;
    std::deque<uint64_t> deaths_;  // of late
    uint64_t due_ms_ = 0;
};

}  // namespace mfwd6::daemon

#endif
