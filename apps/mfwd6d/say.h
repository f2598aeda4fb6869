// What the daemon's processes say: a line on stderr and, unless told otherwise, one in syslog.
#ifndef MFWD6_APPS_MFWD6D_SAY_H
#define MFWD6_APPS_MFWD6D_SAY_H

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

namespace mfwd6::daemon {

// As in syslog(3).
enum class weight : int { error = 3, warning = 4, notice = 5, info = 6 };

// Sets who speaks ("keeper", "owner") and whether syslog hears it. Before the first line.
void speak_as(const char *who, bool to_syslog);

void say_text(weight w, std::string_view text);

template <class... Arguments>
void say(weight w, fmt::format_string<Arguments...> format, Arguments &&...arguments) {
    say_text(w, fmt::format(format, std::forward<Arguments>(arguments)...));
}

}  // namespace mfwd6::daemon

#endif
