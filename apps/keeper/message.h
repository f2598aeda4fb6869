// What travels between the keeper and its children: one datagram each, with at most one descriptor.
#ifndef MFWD6_APPS_KEEPER_MESSAGE_H
#define MFWD6_APPS_KEEPER_MESSAGE_H

#include <cstdint>

#include "services/cerrno.h"

namespace mfwd6::keeper {

enum class what : uint32_t {
    // From the child; each is answered.
    ask_flow_channel = 1,
    ask_listener = 2,
    ask_table = 3,      // argument: kernel table
    ask_release = 4,    // argument: kernel table
    ask_shut_down = 5,  // argument: 1 to keep the sockets
    ask_ready = 6,
    ask_membership = 7,  // argument: number of the socket
    // From the keeper.
    answer = 16,      // argument: code
    table = 17,       // argument: kernel table; with a descriptor
    table_gone = 18,  // argument: kernel table
    stop = 19,        // argument: 1 to keep the window
};

struct message {
    what kind;
    uint32_t argument;
};
static_assert(sizeof(message) == 8);

// Sends with a descriptor, or none with -1. EAGAIN: the other end does not read (unless `wait`).
cerrno send_message(int socket, const message &m, int fd, bool wait = false);

// Receives; `*fd` is -1 when none came. EAGAIN: nothing there (unless `wait`), EPIPE: the other end
// has gone, EPROTO: no such message.
cerrno receive_message(int socket, bool wait, message *m, int *fd);

}  // namespace mfwd6::keeper

#endif
