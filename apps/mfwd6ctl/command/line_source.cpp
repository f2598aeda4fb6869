#include "apps/mfwd6ctl/command/line_source.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "apps/mfwd6ctl/failure.h"

namespace ctl {
namespace {

constexpr size_t piece = size_t{256} << 10;

failure cannot(const char *what, const std::string &name) {
    const int error = errno;
    return {error == EACCES ? exit_code::forbidden : exit_code::failed,
            fmt::format("cannot {} {}: {}", what, name, std::strerror(error))};
}

bool is_comment(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t\r");
    return first == std::string::npos || text[first] == '#';
}

}  // namespace

line_source::line_source(const std::string &path)
    : name_(path == "-" ? "standard input" : path),
      fd_(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_ < 0) {
        throw cannot("open", name_);
    }
    struct stat status {};
    if (fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)) {
        size_ = static_cast<uint64_t>(status.st_size);
    }
}

line_source::~line_source() {
    if (fd_ != STDIN_FILENO) {
        close(fd_);
    }
}

bool line_source::read_some() {
    pollfd end{fd_, POLLIN, 0};
    if (at_end_ || poll(&end, 1, 0) <= 0) {
        return false;
    }
    std::string bytes(piece, '\0');
    const ssize_t n = read(fd_, bytes.data(), bytes.size());
    if (n < 0) {
        if (errno == EINTR || errno == EAGAIN) {
            return false;
        }
        throw cannot("read", name_);
    }
    bytes.resize(static_cast<size_t>(n));
    bytes_ += bytes.size();
    size_t begin = 0;
    for (size_t at = bytes.find('\n'); at != std::string::npos; at = bytes.find('\n', begin)) {
        add_to_rest(bytes.substr(begin, at - begin));
        take(rest_);
        rest_.clear();
        begin = at + 1;
    }
    add_to_rest(bytes.substr(begin));
    if (n == 0) {
        at_end_ = true;
        if (!rest_.empty()) {
            take(rest_);
        }
    }
    return true;
}

void line_source::stop() {
    at_end_ = true;
    lines.clear();
}

// Of a line that is too long no more is kept than shows that it is: it may have no end.
void line_source::add_to_rest(const std::string &bytes) {
    rest_ += bytes.substr(0, longest_line + 1 - rest_.size());
}

void line_source::take(const std::string &text) {
    ++number_;
    if (!is_comment(text)) {
        lines.push_back({number_, text.back() == '\r' ? text.substr(0, text.size() - 1) : text});
    }
}

}  // namespace ctl
