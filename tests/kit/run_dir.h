// A folder of its own for the windows, traces and sockets of one test, gone with it.
#ifndef MFWD6_TESTS_KIT_RUN_DIR_H
#define MFWD6_TESTS_KIT_RUN_DIR_H

#include <string>

namespace kit {

class run_dir {
  public:
    run_dir();  // makes the folder and tells the window and diagnostic services of it
    ~run_dir();
    run_dir(const run_dir &) = delete;
    run_dir &operator=(const run_dir &) = delete;

    const std::string &path() const { return path_; }

  private:
    std::string path_;
    int owner_pid_;  // a forked child leaves the folder alone
};

}  // namespace kit

#endif
