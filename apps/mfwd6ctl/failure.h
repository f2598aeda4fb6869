// How a command ends.
#ifndef MFWD6_APPS_MFWD6CTL_FAILURE_H
#define MFWD6_APPS_MFWD6CTL_FAILURE_H

#include <stdexcept>
#include <string>

namespace ctl {

// Exit codes of the program. They are documented in mfwd6ctl(8) and do not change.
enum class exit_code : int {
    good = 0,
    failed = 1,           // the operation was refused, or failed in part
    usage = 2,            // arguments that make no sense
    absent = 3,           // no window (yet), or no owner answers
    unusable = 4,         // there is a window, and this program cannot use it
    forbidden = 5,        // not permitted
    interrupted = 130,    // ^C, as shells number it
    output_closed = 141,  // nobody reads the output any more, as shells number it
};

// Ends the command with a sentence for the operator; an empty one says nothing.
class failure : public std::runtime_error {
  public:
    failure(exit_code code, const std::string &sentence) : runtime_error(sentence), code_(code) {}
    exit_code code() const { return code_; }

  private:
    exit_code code_;
};

}  // namespace ctl

#endif
