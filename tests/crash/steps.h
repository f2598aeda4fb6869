// A child that can be stopped by itself, taken on instruction by instruction, and killed.
#ifndef MFWD6_TESTS_CRASH_STEPS_H
#define MFWD6_TESTS_CRASH_STEPS_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace crash {

class victim {
  public:
    // Forks; the child's exit code is what `work` returns.
    explicit victim(const std::function<int()> &work);
    ~victim();
    victim(const victim &) = delete;
    victim &operator=(const victim &) = delete;

    // In the child: waits for the supervisor's next instruction.
    static void stop_here();

    // Waits until the child has stopped itself. False when it ended, or when the time is up: `why`.
    bool wait_for_stop(uint32_t milliseconds, std::string *why);

    // From a stop on: so many instructions, then death. False when the child ended before, which it
    // must not.
    bool step_and_kill(uint64_t instructions, std::string *why);

    // Lets it go on from a stop.
    void go_on();

    void kill();

    // Exit code of a child that ends by itself, 128 + signal when a signal ended it, -1 when the
    // time is up.
    int wait(uint32_t milliseconds);

    // True while it has not ended. `*code` is as of `wait` otherwise.
    bool runs(int *code);

  private:
    bool ended(int status, std::string *why);

    pid_t pid_ = -1;
};

}  // namespace crash

#endif
