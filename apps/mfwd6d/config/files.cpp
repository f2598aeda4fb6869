#include "apps/mfwd6d/config/files.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mfwd6::config {
namespace {

constexpr mode_t private_mode = 0600;

class open_file {
  public:
    open_file(const std::string &path, int flags, mode_t mode = 0)
        : fd_(::open(path.c_str(), flags | O_CLOEXEC, mode)) {}
    ~open_file() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    open_file(const open_file &) = delete;
    open_file &operator=(const open_file &) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(n > 0 ? static_cast<size_t>(n) : 0);
    }
    return true;
}

std::string expand(std::string_view pattern, const std::string &file,
                   std::vector<std::string> *paths) {
    std::string whole(pattern);
    const size_t slash = file.rfind('/');
    if (whole[0] != '/' && slash != std::string::npos) {
        whole = file.substr(0, slash + 1) + whole;
    }
    glob_t found{};
    const int rc = glob(whole.c_str(), 0, nullptr, &found);
    for (size_t i = 0; rc == 0 && i < found.gl_pathc; ++i) {
        paths->emplace_back(found.gl_pathv[i]);
    }
    globfree(&found);
    const bool is_pattern = whole.find_first_of("*?[") != std::string::npos;
    if (rc == GLOB_NOMATCH && !is_pattern) {
        return whole + ": " + std::strerror(ENOENT);
    }
    return rc == 0 || rc == GLOB_NOMATCH ? "" : whole + ": cannot be expanded";
}

}  // namespace

std::string read_file(const std::string &path, std::string *text) {
    const open_file file(path, O_RDONLY | O_NONBLOCK);  // a pipe must not stop the owner
    struct stat st {};
    if (file.fd() < 0 || fstat(file.fd(), &st) != 0) {
        return std::strerror(errno);
    }
    if (S_ISDIR(st.st_mode)) {
        return "a folder, not a file";
    }
    if (S_ISFIFO(st.st_mode)) {
        return "a pipe, not a file";
    }
    text->clear();
    char part[65536];
    for (;;) {
        const ssize_t n = ::read(file.fd(), part, sizeof(part));
        if (n == 0) {
            return "";
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return std::strerror(errno);
        }
        if (text->size() + static_cast<size_t>(n) > file_bytes) {
            return "larger than 256 MiB";
        }
        text->append(part, static_cast<size_t>(n));
    }
}

std::string replace_file(const std::string &path, std::string_view text) {
    const std::string fresh = path + ".new";
    {
        const open_file file(fresh, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, private_mode);
        if (file.fd() < 0) {
            return fresh + ": " + std::strerror(errno);
        }
        if (!write_all(file.fd(), text)) {
            const int error = errno;
            unlink(fresh.c_str());  // it may be what fills the file system
            return fresh + ": " + std::strerror(error);
        }
    }
    if (rename(fresh.c_str(), path.c_str()) != 0) {
        return path + ": " + std::strerror(errno);
    }
    return "";
}

file_reader disk() {
    return {read_file, expand};
}

}  // namespace mfwd6::config
