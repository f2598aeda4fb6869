#include "apps/mfwd6d/keeper/held_sockets.h"

#include <linux/mroute6.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace mfwd6::daemon {
namespace {

void adopt(std::map<uint32_t, int> *list, uint32_t key, int fd) {
    const auto [at, is_new] = list->try_emplace(key, fd);
    if (!is_new) {
        close(fd);
    }
}

void close_all(const std::map<uint32_t, int> &list) {
    for (const auto &[key, fd] : list) {
        close(fd);
    }
}

}  // namespace

held_sockets::~held_sockets() {
    close_all(tables_);
    close_all(memberships_);
}

cerrno held_sockets::table(uint32_t kernel_table, int *fd, bool *is_new) {
    const auto at = tables_.find(kernel_table);
    *is_new = at == tables_.end();
    if (!*is_new) {
        *fd = at->second;
        return 0;
    }
    if (tables_.size() == tables_max) {
        return EMFILE;
    }
    *fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_ICMPV6);
    if (*fd < 0) {
        return static_cast<cerrno>(errno);
    }
    tables_[kernel_table] = *fd;
    return 0;
}

bool held_sockets::release(uint32_t kernel_table) {
    const auto at = tables_.find(kernel_table);
    if (at == tables_.end()) {
        return false;
    }
    close(at->second);
    tables_.erase(at);
    return true;
}

cerrno held_sockets::membership(uint32_t number, int *fd) {
    if (number >= memberships_max) {
        return EMFILE;
    }
    const auto at = memberships_.find(number);
    if (at != memberships_.end()) {
        *fd = at->second;
        return 0;
    }
    *fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (*fd < 0) {
        return static_cast<cerrno>(errno);
    }
    memberships_[number] = *fd;
    return 0;
}

void held_sockets::adopt_table(uint32_t kernel_table, int fd) {
    adopt(&tables_, kernel_table, fd);
}

void held_sockets::adopt_membership(uint32_t number, int fd) {
    adopt(&memberships_, number, fd);
}

cerrno may_route() {
    const int fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    if (fd < 0) {
        return static_cast<cerrno>(errno);
    }
    // A mif that cannot be: the kernel looks at the caller's rights first.
    const mifi_t no_mif = UINT16_MAX;
    const int rc = setsockopt(fd, IPPROTO_IPV6, MRT6_DEL_MIF, &no_mif, sizeof(no_mif));
    const int code = rc == 0 ? 0 : errno;
    close(fd);
    return code == EACCES || code == EPERM || code == ENOPROTOOPT ? static_cast<cerrno>(code) : 0;
}

}  // namespace mfwd6::daemon
