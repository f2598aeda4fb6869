#include "tests/fuzz/operations/complaint.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace fuzz {
namespace {

std::vector<std::string> notes;
const bool tracing = getenv("MFWD6_FUZZ_TRACE") != nullptr;

std::string formatted(const char *format, va_list arguments) {
    char text[512];
    vsnprintf(text, sizeof(text), format, arguments);
    return text;
}

}  // namespace

void note(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    notes.push_back(formatted(format, arguments));
    va_end(arguments);
    if (tracing) {
        fprintf(stderr, "%s\n", notes.back().c_str());
    }
}

void forget_notes() {
    notes.clear();
}

void complain(const char *format, ...) {
    for (const std::string &line : notes) {
        fprintf(stderr, "  %s\n", line.c_str());
    }
    va_list arguments;
    va_start(arguments, format);
    fprintf(stderr, "DISAGREEMENT: %s\n", formatted(format, arguments).c_str());
    va_end(arguments);
    abort();
}

}  // namespace fuzz
