// Hears what the library says: error reports, debug lines, system messages, trace records.
#ifndef MFWD6_TESTS_KIT_LISTENER_H
#define MFWD6_TESTS_KIT_LISTENER_H

#include <cstdint>
#include <string>
#include <vector>

#include "services/diag/trace.h"

namespace kit {

struct debug_line {
    uint32_t debug_class;
    std::string header;
    std::string text;
};

struct system_message {
    uint32_t severity;
    std::string line;
};

// From its making on: all debug classes are on and collected, system messages are collected, and
// error reports are read from the error trace. One at a time.
class listener {
  public:
    explicit listener(uint64_t classes = ~uint64_t{0});
    ~listener();
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;

    // Texts of the error reports since the last call, without the prefix that all of them have.
    std::vector<std::string> errors();

    // Lines of one class since the last clear; or of all.
    std::vector<std::string> lines(uint32_t debug_class) const;
    const std::vector<debug_line> &lines() const { return lines_; }
    const std::vector<system_message> &messages() const { return messages_; }
    void clear();

    // Trace records with this id in one ring since the listener was made.
    std::vector<ltrace_record> traces(ltrace_handle *handle, uint64_t id) const;

  private:
    static void on_line(void *self, uint32_t debug_class, const char *header, const char *text);
    static void on_message(void *self, uint32_t severity, const char *line);

    std::vector<debug_line> lines_;
    std::vector<system_message> messages_;
    ltrace_reader *errors_ = nullptr;
    uint64_t started_ns_ = 0;
};

}  // namespace kit

#endif
