#include "apps/keeper/keeper_link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "apps/keeper/message.h"

namespace mfwd6::keeper {
namespace {

// The keeper answers at once; one that does not is stopped or gone.
constexpr int answer_ms = 10000;

bool is_readable_within(int fd, int milliseconds) {
    pollfd waiting{fd, POLLIN, 0};
    int rc = 0;
    do {
        rc = poll(&waiting, 1, milliseconds);
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
}

}  // namespace

link::~link() {
    for (event &e : waiting_) {
        if (e.fd >= 0) {
            close(e.fd);
        }
    }
    if (answer_fd_ >= 0) {
        close(answer_fd_);
    }
    if (fd_ >= 0) {
        close(fd_);
    }
}

cerrno link::open() {
    const char *text = getenv(fd_variable);
    if (text == nullptr) {
        return ENOENT;
    }
    char *end = nullptr;
    const long number = std::strtol(text, &end, 10);
    const bool good = *text != '\0' && *end == '\0' && number >= 0 && number <= INT32_MAX;
    unsetenv(fd_variable);
    if (!good) {
        return EBADF;
    }
    const int fd = static_cast<int>(number);
    int type = 0;
    socklen_t size = sizeof(type);
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0) {
        return static_cast<cerrno>(errno);
    }
    if (type != SOCK_SEQPACKET || fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
        return ENOTSOCK;
    }
    fd_ = fd;
    return 0;
}

// Takes one message from the connection: an answer is kept apart, all else waits for `next`.
cerrno link::receive(bool wait) {
    if (wait && !is_readable_within(fd_, answer_ms)) {
        return ETIMEDOUT;
    }
    message m{};
    int fd = -1;
    const cerrno rc = receive_message(fd_, false, &m, &fd);
    if (rc != 0) {
        return rc;
    }
    event e;
    e.kernel_table = m.argument;
    switch (m.kind) {
        case what::answer:
            answered_ = true;
            answer_ = m.argument;
            answer_fd_ = fd;
            return 0;
        case what::table:
            e.kind = event_kind::table;
            e.fd = fd;
            break;
        case what::table_gone:
            e.kind = event_kind::table_gone;
            break;
        case what::stop:
            e.kind = event_kind::stop;
            e.keep = m.argument != 0;
            break;
        default:
            if (fd >= 0) {
                close(fd);
            }
            return EPROTO;
    }
    waiting_.push_back(e);
    return 0;
}

cerrno link::next(event *e) {
    *e = {};
    if (fd_ < 0) {
        return EBADF;
    }
    while (waiting_.empty()) {
        const cerrno rc = receive(false);
        if (rc == EAGAIN) {
            return 0;
        }
        if (rc == EPIPE) {
            e->kind = event_kind::keeper_gone;
            return 0;
        }
        if (rc != 0) {
            return rc;
        }
    }
    *e = waiting_.front();
    waiting_.pop_front();
    return 0;
}

cerrno link::ask(uint32_t kind, uint32_t argument, int *fd) {
    if (fd_ < 0) {
        return EBADF;
    }
    answered_ = false;
    cerrno rc = send_message(fd_, {static_cast<what>(kind), argument}, -1);
    while (rc == 0 && !answered_) {
        rc = receive(true);
    }
    if (rc != 0) {
        return rc;
    }
    const int given = answer_fd_;
    answer_fd_ = -1;
    if (fd != nullptr && answer_ == 0) {
        *fd = given;
        return given >= 0 ? 0 : EPROTO;
    }
    if (given >= 0) {
        close(given);
    }
    return answer_;
}

cerrno link::flow_channel(int *fd) {
    return ask(static_cast<uint32_t>(what::ask_flow_channel), 0, fd);
}

cerrno link::listener(int *fd) {
    return ask(static_cast<uint32_t>(what::ask_listener), 0, fd);
}

cerrno link::table(uint32_t kernel_table, int *fd) {
    return ask(static_cast<uint32_t>(what::ask_table), kernel_table, fd);
}

cerrno link::release(uint32_t kernel_table) {
    return ask(static_cast<uint32_t>(what::ask_release), kernel_table, nullptr);
}

cerrno link::membership(uint32_t number, int *fd) {
    return ask(static_cast<uint32_t>(what::ask_membership), number, fd);
}

cerrno link::shut_down(bool keep) {
    return ask(static_cast<uint32_t>(what::ask_shut_down), keep ? 1 : 0, nullptr);
}

cerrno link::ready() {
    return ask(static_cast<uint32_t>(what::ask_ready), 0, nullptr);
}

}  // namespace mfwd6::keeper
