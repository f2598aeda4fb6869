// A process of a test: an owner or an attached client that can be killed.
#ifndef MFWD6_TESTS_KIT_CHILD_H
#define MFWD6_TESTS_KIT_CHILD_H

#include <sys/types.h>

#include <functional>

namespace kit {

// What a child tells its parent, and how it waits for it.
class post {
  public:
    explicit post(int out, int in) : out_(out), in_(in) {}
    void tell(char what = '.') const;  // one byte to the other side
    char hear() const;                 // waits for one byte; 0 when the other side has gone

  private:
    int out_;
    int in_;
};

// Forks at once. Fork children before the test makes threads, and before it opens the window
// itself.
class child {
  public:
    // The child's exit code is what `work` returns; 99 for an exception.
    explicit child(const std::function<int(const post &parent)> &work);
    ~child();  // kills it if it still runs
    child(const child &) = delete;
    child &operator=(const child &) = delete;

    void tell(char what = '.') const { line_.tell(what); }
    char hear() const { return line_.hear(); }

    void kill();  // SIGKILL, and waits for the end
    int wait();   // exit code; 128 + signal when a signal ended it
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    int in_ = -1;
    post line_{-1, -1};
};

}  // namespace kit

#endif
