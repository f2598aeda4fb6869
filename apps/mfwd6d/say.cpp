#include "apps/mfwd6d/say.h"

#include <syslog.h>
#include <unistd.h>

namespace mfwd6::daemon {
namespace {

std::string speaker = "mfwd6d";
bool syslog_too = false;

}  // namespace

void speak_as(const char *who, bool to_syslog) {
    speaker = std::string("mfwd6d ") + who;
    syslog_too = to_syslog;
    if (to_syslog) {
        openlog("mfwd6d", LOG_PID, LOG_DAEMON);
    }
}

void say_text(weight w, std::string_view text) {
    const std::string line =
        fmt::format("{}[{}]: {}{}\n", speaker, getpid(), w == weight::error ? "error: " : "", text);
    // One write, so that the lines of several processes do not mix. Nobody to hear it is no error.
    if (write(STDERR_FILENO, line.data(), line.size()) < 0) {
    }
    if (syslog_too) {
        syslog(static_cast<int>(w), "%.*s", static_cast<int>(text.size()), text.data());
    }
}

}  // namespace mfwd6::daemon
