// Configuration lines of a file or a pipe, with their numbers.
#ifndef MFWD6_APPS_MFWD6CTL_LINE_SOURCE_H
#define MFWD6_APPS_MFWD6CTL_LINE_SOURCE_H

#include <cstdint>
#include <deque>
#include <string>

namespace ctl {

// Bytes of a line. What stands behind them is passed over, but for one byte that shows it.
inline constexpr size_t longest_line = size_t{64} << 10;

struct numbered_line {
    uint64_t number = 0;  // from 1
    std::string text;     // without the line end
};

class line_source {
  public:
    // "-" is standard input. Throws failure when it cannot be opened.
    explicit line_source(const std::string &path);
    ~line_source();
    line_source(const line_source &) = delete;
    line_source &operator=(const line_source &) = delete;

    // Reads once if that does not wait; false when there is nothing to read now. Throws failure.
    bool read_some();

    // No more will come.
    bool at_end() const { return at_end_; }
    void stop();  // as if it were so; what was read and not taken is dropped

    // Lines that were read: blank ones and comments are passed over.
    std::deque<numbered_line> lines;

    int descriptor() const { return fd_; }
    uint64_t bytes_read() const { return bytes_; }
    uint64_t size() const { return size_; }  // 0 if it is not known
    const std::string &name() const { return name_; }

  private:
    void take(const std::string &text);
    void add_to_rest(const std::string &bytes);

    std::string name_;
    int fd_;
    bool at_end_ = false;
    uint64_t bytes_ = 0;
    uint64_t size_ = 0;
    uint64_t number_ = 0;
    std::string rest_;  // of a line whose end was not read yet
};

}  // namespace ctl

#endif
