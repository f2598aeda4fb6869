#include "apps/mfwd6-signald/log.h"

#include <cstdarg>
#include <cstdio>

namespace mfwd6::signald {

void say(const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "mfwd6-signald: %s\n", text);
}

}  // namespace mfwd6::signald
