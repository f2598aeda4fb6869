// mfwd6ctl as a process: started, fed, waited for.
#ifndef MFWD6_TESTS_APPS_MFWD6CTL_PROGRAM_H
#define MFWD6_TESTS_APPS_MFWD6CTL_PROGRAM_H

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ctl_test {

using words = std::vector<std::string>;

struct ended {
    int code = -1;  // 128 + signal when a signal ended it
    std::string out;
    std::string err;

    nlohmann::json json() const { return nlohmann::json::parse(out); }
};

// One run of the program. Its environment says nothing of run dirs, and it speaks in C.UTF-8.
class program {
  public:
    // Arguments without the program's name. With a `user` other than 0 it runs as that one.
    explicit program(const words &arguments, uid_t user = 0);
    ~program();  // kills it if it still runs
    program(const program &) = delete;
    program &operator=(const program &) = delete;

    void type(const std::string &input);  // to its standard input
    void close_input();
    void close_output();  // nobody reads it any more
    void signal(int number) const;
    pid_t pid() const { return pid_; }

    // Reads its output until it contains `text`; false when it ends, or 30 s pass, before.
    bool says(const std::string &text);
    const std::string &output() const { return out_; }

    // Closes its input and waits for its end, at most 60 s.
    ended wait();

  private:
    bool read_some(int timeout_ms);

    pid_t pid_ = -1;
    int in_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    std::string out_;
    std::string err_;
};

// Runs it to its end.
ended run(const words &arguments, const std::string &input = "");

// What people see, without what differs from run to run: ages become "AGE".
std::string without_ages(const std::string &text);

// The same for JSON: values of these members are left out, wherever they stand.
nlohmann::json without(nlohmann::json value, const words &members);

}  // namespace ctl_test

#endif
