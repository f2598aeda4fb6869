#include "services/imc/rtnl/imc_rtnl.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>

#include "services/imc/backend.h"
#include "services/imc/rtnl/take_link.h"

namespace mfwd6::imc_rtnl {
namespace {

constexpr size_t buffer_size = 64 * 1024;
constexpr int receive_buffer = 1024 * 1024;  // so that a burst of changes is rarely lost
constexpr int answer_ms = 5000;              // the kernel answers at once, unless it is in trouble
constexpr int dump_tries = 8;

struct connection {
    imc_context_t *context;
    event_manager_t *evm;
    mnl_socket *socket;
    uint32_t sequence;
    bool out_of_step;  // the last list could not be read
    alignas(nlmsghdr) char buffer[buffer_size];
};

int fd_of(const connection *c) {
    return mnl_socket_get_fd(c->socket);
}

// What one datagram said about the list that was asked for.
struct reading {
    cerrno rc;
    bool done;         // the list is complete
    bool interrupted;  // links changed while the kernel wrote it: ask again
};

bool is_answer(const connection *c, const nlmsghdr *message) {
    return message->nlmsg_seq == c->sequence &&
           message->nlmsg_pid == mnl_socket_get_portid(c->socket);
}

void take_message(connection *c, const nlmsghdr *message, reading *r) {
    const bool answer = is_answer(c, message);
    if (answer && (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
        r->interrupted = true;
    }
    if (answer && message->nlmsg_type == NLMSG_DONE) {
        r->done = true;
    } else if (answer && message->nlmsg_type == NLMSG_ERROR) {
        const auto *const e = static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(message));
        r->done = true;
        r->rc = e->error != 0 ? static_cast<cerrno>(-e->error) : r->rc;
    } else if (const cerrno rc = take_link(c->context, message); rc != 0) {
        r->rc = rc;
    }
}

// Reads one datagram without waiting. EAGAIN: there is none. ENOBUFS: messages were lost.
cerrno read_some(connection *c, reading *r) {
    const ssize_t n = recv(fd_of(c), c->buffer, buffer_size, MSG_DONTWAIT | MSG_TRUNC);
    if (n < 0) {
        return static_cast<cerrno>(errno);
    }
    if (static_cast<size_t>(n) > buffer_size) {
        return ENOBUFS;
    }
    int left = static_cast<int>(n);
    const auto *message = reinterpret_cast<const nlmsghdr *>(c->buffer);
    while (mnl_nlmsg_ok(message, left)) {
        take_message(c, message, r);
        message = mnl_nlmsg_next(message, &left);
    }
    return r->rc;
}

// Throws away what is waiting, and the rest of a list that was asked for before.
cerrno drain(connection *c) {
    for (;;) {
        if (recv(fd_of(c), c->buffer, buffer_size, MSG_DONTWAIT) >= 0) {
            continue;
        }
        if (errno == EAGAIN) {
            return 0;
        }
        if (errno != ENOBUFS && errno != EINTR) {
            return static_cast<cerrno>(errno);
        }
    }
}

cerrno ask_for_links(connection *c) {
    alignas(nlmsghdr) char request[MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(ifinfomsg)) + 64];
    nlmsghdr *const message = mnl_nlmsg_put_header(request);
    message->nlmsg_type = RTM_GETLINK;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message->nlmsg_seq = ++c->sequence;
    mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
    mnl_attr_put_u32(message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    return mnl_socket_sendto(c->socket, message, message->nlmsg_len) < 0
               ? static_cast<cerrno>(errno)
               : 0;
}

// One whole list. EINTR: it is not to be relied on. Old news go first: after a loss they tell of
// links whose end was lost.
cerrno read_links(connection *c) {
    if (const cerrno rc = drain(c); rc != 0) {
        return rc;
    }
    if (const cerrno rc = ask_for_links(c); rc != 0) {
        return rc;
    }
    reading r{};
    while (!r.done) {
        const cerrno rc = read_some(c, &r);
        if (rc == EAGAIN) {
            pollfd wait{fd_of(c), POLLIN, 0};
            const int n = poll(&wait, 1, answer_ms);
            if (n == 0) {
                return ETIMEDOUT;
            }
        } else if (rc == ENOBUFS) {
            r.interrupted = true;
        } else if (rc != 0 && rc != EINTR) {
            return rc;
        }
    }
    return r.interrupted ? cerrno{EINTR} : r.rc;
}

// Brings the context in step with the kernel.
cerrno synchronise(connection *c) {
    cerrno rc = EINTR;
    for (int i = 0; i < dump_tries && rc == EINTR; ++i) {
        imc_backend_sweep_begin(c->context);
        rc = read_links(c);
    }
    if (rc == 0) {
        imc_backend_sweep_end(c->context);
    }
    c->out_of_step = rc != 0;
    imc_backend_lost(c->context, rc != 0 ? 1 : 0);
    return rc;
}

void readable(event_manager_t *, int, uint32_t, void *context) {
    auto *const c = static_cast<connection *>(context);
    reading r{};
    cerrno rc = 0;
    while (rc == 0 || rc == EINTR) {
        rc = read_some(c, &r);
    }
    if (rc != EAGAIN || c->out_of_step) {
        // Whatever was missed is in a fresh list.
        synchronise(c);
    }
}

cerrno connect(connection *c) {
    c->socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (c->socket == nullptr) {
        return static_cast<cerrno>(errno);
    }
    // Without the privilege to force it, the system's limit holds.
    if (setsockopt(fd_of(c), SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof(int)) != 0) {
        setsockopt(fd_of(c), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(int));
    }
    const unsigned groups = c->evm != nullptr ? RTMGRP_LINK : 0;
    return mnl_socket_bind(c->socket, groups, MNL_SOCKET_AUTOPID) < 0 ? static_cast<cerrno>(errno)
                                                                      : 0;
}

void disconnect(connection *c) {
    if (c->socket != nullptr) {
        mnl_socket_close(c->socket);
    }
    free(c);
}

cerrno open_links(imc_context_t *context, event_manager_t *evm, void **state) {
    auto *const c = static_cast<connection *>(calloc(1, sizeof(connection)));
    if (c == nullptr) {
        return ENOMEM;
    }
    c->context = context;
    c->evm = evm;
    // Changes are heard from before the list is asked for, so that none falls between.
    cerrno rc = connect(c);
    if (rc == 0) {
        rc = synchronise(c);
    }
    if (rc == 0 && evm != nullptr) {
        rc = event_fd_watch(evm, fd_of(c), EPOLLIN, readable, c);
    }
    if (rc != 0) {
        disconnect(c);
        return rc;
    }
    *state = c;
    return 0;
}

void close_links(imc_context_t *, void *state) {
    auto *const c = static_cast<connection *>(state);
    if (c->evm != nullptr) {
        event_fd_unwatch(c->evm, fd_of(c));
    }
    disconnect(c);
}

constexpr imc_backend_t backend = {"rtnl", open_links, close_links};

[[gnu::constructor]] void register_at_load() {
    imc_backend_register(&backend);
}

}  // namespace
}  // namespace mfwd6::imc_rtnl

using namespace mfwd6::imc_rtnl;

cerrno imc_rtnl_register(void) {
    return imc_backend_register(&backend);
}

cerrno imc_rtnl_open(event_manager_t *evm, imc_context_t **context) {
    const cerrno rc = imc_rtnl_register();
    return rc != 0 ? rc : imc_context_open(backend.name, evm, context);
}
