#include "platforms/linux/kernel.h"

#include <netinet/icmp6.h>
#include <netinet/in.h>
// Behind the C library's own.
#include <linux/mroute6.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mfwd6::lnx {

namespace {

static_assert(mifs_of_table == MAXMIFS, "a set of mifs is one word");

cerrno last_error() {
    return static_cast<cerrno>(errno);
}

template <class T>
cerrno set_option(int fd, int option, const T &value) {
    return setsockopt(fd, IPPROTO_IPV6, option, &value, sizeof(value)) == 0 ? 0 : last_error();
}

sockaddr_in6 socket_address(const ip_maddr_st &address) {
    sockaddr_in6 out = {};
    out.sin6_family = AF_INET6;
    std::memcpy(&out.sin6_addr, &address, sizeof(address));
    return out;
}

mf6cctl entry_of(const entry_key &key, uint32_t parent, mif_set outputs) {
    mf6cctl entry = {};
    entry.mf6cc_origin = socket_address(key.source);
    entry.mf6cc_mcastgrp = socket_address(key.group);
    entry.mf6cc_parent = static_cast<mifi_t>(parent);
    entry.mf6cc_ifset.ifs_bits[0] = outputs;
    return entry;
}

cerrno add_mif(int fd, uint32_t mif, uint32_t ifindex, uint8_t flags) {
    mif6ctl request = {};
    request.mif6c_mifi = static_cast<mifi_t>(mif);
    request.mif6c_flags = flags;
    request.vifc_threshold = 1;
    request.mif6c_pifi = static_cast<uint16_t>(ifindex);
    return set_option(fd, MRT6_ADD_MIF, request);
}

// All ICMPv6 messages of the host would come to a raw socket: they must not fill the queue of
// reports, which pass the filter.
cerrno block_icmp(int fd) {
    icmp6_filter none;
    ICMP6_FILTER_SETBLOCKALL(&none);
    return setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &none, sizeof(none)) == 0 ? 0
                                                                                  : last_error();
}

constexpr int report_queue_bytes = 4 << 20;

}  // namespace

bool same(const ip_maddr_st &a, const ip_maddr_st &b) {
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

int kernel_open_socket() {
    const int fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    return fd >= 0 ? fd : -errno;
}

cerrno kernel_take_table(int fd, uint32_t kernel_table, bool *fresh) {
    *fresh = false;
    const cerrno busy = set_option(fd, MRT6_TABLE, kernel_table);
    if (busy == EBUSY) {
        return 0;  // it is the routing socket already
    }
    if (busy != 0) {
        return busy;
    }
    cerrno failed = block_icmp(fd);
    failed = failed != 0 ? failed : set_option(fd, MRT6_INIT, int{1});
    if (failed != 0) {
        return failed;
    }
    *fresh = true;
    // More room than the default of the system, where it is allowed: a burst of new flows.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &report_queue_bytes,
                   sizeof(report_queue_bytes)) != 0) {
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &report_queue_bytes,
                         sizeof(report_queue_bytes));
    }
    // Without it the kernel reports wrong interfaces only where the flow also leaves by them. A
    // kernel built without it still forwards.
    (void)set_option(fd, MRT6_PIM, int{1});
    return 0;
}

cerrno kernel_ask_table(int fd, uint32_t kernel_table) {
    return set_option(fd, MRT6_TABLE, kernel_table);
}

cerrno kernel_add_mif(int fd, uint32_t mif, uint32_t ifindex) {
    if (ifindex > UINT16_MAX) {
        return EOVERFLOW;
    }
    return add_mif(fd, mif, ifindex, 0);
}

cerrno kernel_add_register_mif(int fd, uint32_t mif) {
    return add_mif(fd, mif, 0, MIFF_REGISTER);
}

cerrno kernel_delete_mif(int fd, uint32_t mif) {
    mif6ctl request = {};
    request.mif6c_mifi = static_cast<mifi_t>(mif);
    const cerrno failed = set_option(fd, MRT6_DEL_MIF, request.mif6c_mifi);
    return failed == EADDRNOTAVAIL ? 0 : failed;
}

cerrno kernel_set_entry(int fd, const entry_key &key, uint32_t parent, mif_set outputs) {
    const bool any = is_any(key.source);
    return set_option(fd, any ? MRT6_ADD_MFC_PROXY : MRT6_ADD_MFC,
                      entry_of(key, parent, any ? outputs | mif_bit(parent) : outputs));
}

cerrno kernel_delete_entry(int fd, const entry_key &key) {
    cerrno failed = 0;
    uint32_t most = is_any(key.source) ? mifs_of_table : 1;
    while (failed == 0 && most-- > 0) {
        failed = set_option(fd, MRT6_DEL_MFC, entry_of(key, 0, 0));
    }
    return failed == ENOENT ? 0 : failed;
}

cerrno kernel_delete_any_source(int fd, const entry_key &key, uint32_t parent) {
    const cerrno failed = set_option(fd, MRT6_DEL_MFC_PROXY, entry_of(key, parent, 0));
    return failed == ENOENT ? 0 : failed;
}

cerrno kernel_counters(int fd, const entry_key &key, counters *out) {
    sioc_sg_req6 request = {};
    request.src = socket_address(key.source);
    request.grp = socket_address(key.group);
    if (ioctl(fd, SIOCGETSGCNT_IN6, &request) != 0) {
        return errno == EADDRNOTAVAIL ? ENOENT : last_error();
    }
    *out = {request.pktcnt, request.bytecnt, request.wrong_if};
    return 0;
}

cerrno kernel_flush(int fd) {
    return set_option(
        fd, MRT6_FLUSH,
        int{MRT6_FLUSH_MFC | MRT6_FLUSH_MFC_STATIC | MRT6_FLUSH_MIFS | MRT6_FLUSH_MIFS_STATIC});
}

cerrno kernel_end_table(int fd) {
    const cerrno failed = set_option(fd, MRT6_DONE, int{1});
    return failed == EACCES ? 0 : failed;  // it was none
}

namespace {

cerrno membership(int fd, int option, const ip_maddr_st &group, uint32_t ifindex) {
    ipv6_mreq request = {};
    std::memcpy(&request.ipv6mr_multiaddr, &group, sizeof(group));
    request.ipv6mr_interface = ifindex;
    return set_option(fd, option, request);
}

}  // namespace

cerrno kernel_join(int fd, const ip_maddr_st &group, uint32_t ifindex) {
    const cerrno failed = membership(fd, IPV6_ADD_MEMBERSHIP, group, ifindex);
    return failed == EADDRINUSE ? 0 : failed;
}

cerrno kernel_leave(int fd, const ip_maddr_st &group, uint32_t ifindex) {
    const cerrno failed = membership(fd, IPV6_DROP_MEMBERSHIP, group, ifindex);
    return failed == EADDRNOTAVAIL ? 0 : failed;
}

}  // namespace mfwd6::lnx
