#include "apps/keeper/message.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mfwd6::keeper {
namespace {

// Room for one descriptor (cmsg(3)).
union control_room {
    cmsghdr head;
    char bytes[CMSG_SPACE(sizeof(int))];
};

int take_descriptor(msghdr *head) {
    int fd = -1;
    for (cmsghdr *c = CMSG_FIRSTHDR(head); c != nullptr; c = CMSG_NXTHDR(head, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS &&
            c->cmsg_len == CMSG_LEN(sizeof(int))) {
            std::memcpy(&fd, CMSG_DATA(c), sizeof(fd));
        }
    }
    return fd;
}

}  // namespace

cerrno send_message(int socket, const message &m, int fd, bool wait) {
    message copy = m;
    iovec part{&copy, sizeof(copy)};
    control_room room{};
    msghdr head{};
    head.msg_iov = &part;
    head.msg_iovlen = 1;
    if (fd >= 0) {
        head.msg_control = room.bytes;
        head.msg_controllen = sizeof(room.bytes);
        cmsghdr *c = CMSG_FIRSTHDR(&head);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(c), &fd, sizeof(fd));
    }
    for (;;) {
        if (sendmsg(socket, &head, MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT)) >= 0) {
            return 0;
        }
        if (errno != EINTR) {
            return static_cast<cerrno>(errno);
        }
    }
}

cerrno receive_message(int socket, bool wait, message *m, int *fd) {
    *fd = -1;
    iovec part{m, sizeof(*m)};
    control_room room{};
    msghdr head{};
    head.msg_iov = &part;
    head.msg_iovlen = 1;
    head.msg_control = room.bytes;
    head.msg_controllen = sizeof(room.bytes);
    ssize_t n = 0;
    do {
        n = recvmsg(socket, &head, MSG_CMSG_CLOEXEC | (wait ? 0 : MSG_DONTWAIT));
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        return errno == ECONNRESET ? cerrno{EPIPE} : static_cast<cerrno>(errno);
    }
    *fd = take_descriptor(&head);
    if (n == 0) {
        return EPIPE;
    }
    if (n != sizeof(*m)) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
        return EPROTO;
    }
    return 0;
}

}  // namespace mfwd6::keeper
