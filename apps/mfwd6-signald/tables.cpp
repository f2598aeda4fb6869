#include "apps/mfwd6-signald/tables.h"

#include <netinet/icmp6.h>
#include <netinet/in.h>
// Behind netinet/in.h, whose types it uses.
#include <linux/mroute6.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace mfwd6::signald {
namespace {

constexpr int batch = 64;
constexpr size_t largest_packet = 2048;  // longer ones are cut
constexpr int wanted_room = 1 << 20;

}  // namespace

tables::~tables() {
    for (const auto &[kernel_table, fd] : sockets_) {
        close(fd);
    }
}

void tables::add(uint32_t kernel_table, int fd) {
    remove(kernel_table);
    sockets_[kernel_table] = fd;
    // As much as the system allows this user; less is no failure.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &wanted_room, sizeof(wanted_room)) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &wanted_room, sizeof(wanted_room));
    }
}

void tables::remove(uint32_t kernel_table) {
    const auto found = sockets_.find(kernel_table);
    if (found != sockets_.end()) {
        close(found->second);
        sockets_.erase(found);
    }
}

void tables::poll_for(std::vector<pollfd> *list) const {
    for (const auto &[kernel_table, fd] : sockets_) {
        list->push_back({fd, POLLIN, 0});
    }
}

void tables::read(int fd, const report_fn &take) {
    const auto found = std::find_if(sockets_.begin(), sockets_.end(),
                                    [fd](const auto &entry) { return entry.second == fd; });
    if (found == sockets_.end()) {
        return;
    }
    uint8_t bytes[largest_packet];
    for (int i = 0; i < batch; ++i) {
        const ssize_t n = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
        if (n < 0) {
            overruns_ += errno == ENOBUFS ? 1 : 0;
            return;
        }
        linux_flow flow = {};
        const auto size = static_cast<size_t>(n);
        if (linux_parse_report(bytes, size, found->first, &flow) != 0) {
            continue;
        }
        ++reports_;
        const bool whole = flow.report == LINUX_REPORT_PACKET && size > sizeof(mrt6msg);
        take(flow, bytes + sizeof(mrt6msg), whole ? size - sizeof(mrt6msg) : 0);
    }
}

}  // namespace mfwd6::signald
