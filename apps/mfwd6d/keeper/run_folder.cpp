#include "apps/mfwd6d/keeper/run_folder.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "apps/keeper/message.h"
#include "apps/mfwd6d/say.h"

namespace mfwd6::daemon {
namespace {

constexpr char lock_name[] = "keeper.lock";
constexpr char door_name[] = "keeper";
constexpr char command_name[] = "command";
constexpr mode_t folder_mode = 0755;
constexpr mode_t private_mode = 0600;
constexpr mode_t private_mask = 0177;
constexpr int backlog = 128;

cerrno last_error() {
    return static_cast<cerrno>(errno);
}

bool address_of(const std::string &path, sockaddr_un *address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) {
        return false;
    }
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

// A listening Unix socket in the file system, for this user only.
cerrno listen_at(const std::string &path, int type, int *fd) {
    sockaddr_un address;
    if (!address_of(path, &address)) {
        return ENAMETOOLONG;
    }
    const int s = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s < 0) {
        return last_error();
    }
    unlink(path.c_str());
    const mode_t before = umask(private_mask);
    const bool bound = bind(s, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    const cerrno bind_error = bound ? 0 : last_error();
    umask(before);
    if (!bound || listen(s, backlog) != 0) {
        const cerrno code = bound ? last_error() : bind_error;
        close(s);
        return code;
    }
    *fd = s;
    return 0;
}

struct flock whole_file(short type) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    return range;
}

std::string holder_text(int lock) {
    char text[32] = "";
    const ssize_t n = pread(lock, text, sizeof(text) - 1, 0);
    text[n > 0 ? n : 0] = '\0';
    return text[0] == '\0' ? "?" : text;
}

}  // namespace

run_folder::~run_folder() {
    if (door_ >= 0) {
        close(door_);
    }
    if (lock_ >= 0) {
        close(lock_);
    }
}

outcome run_folder::make_folder() const {
    if (mkdir(path_.c_str(), folder_mode) != 0 && errno != EEXIST) {
        return failure_of(last_error(), "the run dir " + path_ + " cannot be made");
    }
    struct stat st {};
    if (lstat(path_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return failure(ENOTDIR, "the run dir " + path_ + " is no folder");
    }
    if ((st.st_uid != geteuid() && st.st_uid != 0) || (st.st_mode & S_IWOTH) != 0) {
        return failure(EPERM, "the run dir " + path_ +
                                  " belongs to another user, or everybody may write there");
    }
    if (faccessat(AT_FDCWD, path_.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        return failure_of(last_error(), "the run dir " + path_ + " cannot be written to");
    }
    return {};
}

// The lock is the kernel's: it goes with the process, however that ends.
outcome run_folder::lock() {
    if (lock_ < 0) {
        lock_ =
            open(file(lock_name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, private_mode);
    }
    if (lock_ < 0) {
        return failure_of(last_error(), file(lock_name));
    }
    struct flock range = whole_file(F_WRLCK);
    if (fcntl(lock_, F_OFD_SETLK, &range) != 0) {
        return failure(EBUSY, fmt::format("another mfwd6d (process {}) runs in {}",
                                          holder_text(lock_), path_));
    }
    const std::string pid = std::to_string(getpid());
    if (ftruncate(lock_, 0) != 0 ||
        pwrite(lock_, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        return failure_of(last_error(), file(lock_name));
    }
    return {};
}

outcome run_folder::open_door() {
    const cerrno rc = listen_at(file(door_name), SOCK_SEQPACKET, &door_);
    return rc == 0 ? outcome{} : failure_of(rc, file(door_name));
}

outcome run_folder::take(held_sockets *sockets) {
    outcome o = make_folder();
    if (!o.failed()) {
        o = lock();
    }
    if (o.code == EBUSY) {
        const outcome taken = take_over(sockets);
        if (taken.failed()) {
            return o;
        }
        o = lock();
    }
    return o.failed() ? o : open_door();
}

// Asks the keeper that has the lock for its sockets. It refuses while it has children.
outcome run_folder::take_over(held_sockets *sockets) {
    sockaddr_un address;
    const int s = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (s < 0 || !address_of(file(door_name), &address) ||
        connect(s, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        const cerrno code = last_error();
        close(s);
        return failure_of(code, file(door_name));
    }
    const timeval patience{5, 0};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    cerrno rc = 0;
    keeper::message m{};
    for (;;) {
        int fd = -1;
        rc = keeper::receive_message(s, true, &m, &fd);
        if (rc != 0 || m.kind == keeper::what::answer) {
            break;
        }
        if (fd >= 0 && m.kind == keeper::what::table) {
            sockets->adopt_table(m.argument, fd);
        } else if (fd >= 0) {
            sockets->adopt_membership(m.argument, fd);
        }
    }
    rc = rc != 0 ? rc : m.argument;
    if (rc == 0) {
        // It ends now, and its lock with it: the connection tells when.
        int fd = -1;
        keeper::receive_message(s, true, &m, &fd);
    }
    close(s);
    return rc == 0 ? outcome{} : failure_of(rc, "the sockets");
}

bool run_folder::answer_successor(bool may_go, const held_sockets &sockets) const {
    const int s = accept4(door_, nullptr, nullptr, SOCK_CLOEXEC);
    if (s < 0) {
        return false;
    }
    ucred peer{};
    socklen_t size = sizeof(peer);
    const bool permitted = getsockopt(s, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
                           (peer.uid == 0 || peer.uid == geteuid());
    if (!permitted || !may_go) {
        keeper::send_message(s, {keeper::what::answer, EBUSY}, -1);
        close(s);
        return false;
    }
    const timeval patience{5, 0};
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    cerrno rc = 0;
    for (const auto &[kernel_table, fd] : sockets.tables()) {
        rc = rc != 0 ? rc : keeper::send_message(s, {keeper::what::table, kernel_table}, fd, true);
    }
    for (const auto &[number, fd] : sockets.memberships()) {
        rc = rc != 0 ? rc
                     : keeper::send_message(s, {keeper::what::ask_membership, number}, fd, true);
    }
    rc = rc != 0 ? rc : keeper::send_message(s, {keeper::what::answer, 0}, -1, true);
    // The connection stays open: its end tells the successor that this process has gone.
    if (rc != 0) {
        close(s);
    }
    return rc == 0;
}

outcome run_folder::listen_for_commands(int *fd) const {
    const cerrno rc = listen_at(file(command_name), SOCK_STREAM, fd);
    return rc == 0 ? outcome{} : failure_of(rc, file(command_name));
}

}  // namespace mfwd6::daemon
