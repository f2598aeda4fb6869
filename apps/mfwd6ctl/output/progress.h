// A bar on the terminal that tells how far a long command is.
#ifndef MFWD6_APPS_MFWD6CTL_PROGRESS_H
#define MFWD6_APPS_MFWD6CTL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace ctl {

// Writes to standard error, on one line that is drawn again some times a second.
class progress_bar {
  public:
    explicit progress_bar(bool shown) : shown_(shown) {}
    ~progress_bar() { end(); }
    progress_bar(const progress_bar &) = delete;
    progress_bar &operator=(const progress_bar &) = delete;

    // `part` is from 0 to 1, below 0 if it is not known.
    void draw(double part, const std::string &text);

    // Takes the line away.
    void end();

  private:
    bool shown_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point last_{};
};

}  // namespace ctl

#endif
