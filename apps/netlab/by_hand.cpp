#include "apps/netlab/by_hand.h"

#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
// Behind netinet/in.h, whose types it uses.
#include <linux/mroute6.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "apps/netlab/packet.h"

namespace netlab {
namespace {

[[noreturn]] void fail(const char *what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

mf6cctl entry(const std::string &source, const std::string &group, unsigned from) {
    mf6cctl e = {};
    e.mf6cc_origin.sin6_family = AF_INET6;
    e.mf6cc_origin.sin6_addr = parse_address(source);
    e.mf6cc_mcastgrp.sin6_family = AF_INET6;
    e.mf6cc_mcastgrp.sin6_addr = parse_address(group);
    e.mf6cc_parent = static_cast<mifi_t>(from);
    return e;
}

}  // namespace

by_hand::by_hand(const network_namespace &router) : router_(router) {
    router.inside([&] {
        const int on = 1;
        fd_ = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
        if (fd_ < 0 || setsockopt(fd_, IPPROTO_IPV6, MRT6_INIT, &on, sizeof(on)) != 0) {
            fail("cannot take multicast routing");
        }
    });
}

by_hand::~by_hand() {
    close(fd_);
}

unsigned by_hand::add_interface(const std::string &name) {
    mif6ctl mif = {};
    mif.mif6c_mifi = static_cast<mifi_t>(interfaces_);
    mif.vifc_threshold = 1;
    router_.inside([&] { mif.mif6c_pifi = static_cast<uint16_t>(if_nametoindex(name.c_str())); });
    if (setsockopt(fd_, IPPROTO_IPV6, MRT6_ADD_MIF, &mif, sizeof(mif)) != 0) {
        fail("MRT6_ADD_MIF");
    }
    return interfaces_++;
}

void by_hand::add_route(const std::string &source, const std::string &group, unsigned from,
                        const std::vector<unsigned> &to) {
    mf6cctl e = entry(source, group, from);
    for (const unsigned mif : to) {
        IF_SET(mif, &e.mf6cc_ifset);
    }
    if (setsockopt(fd_, IPPROTO_IPV6, MRT6_ADD_MFC, &e, sizeof(e)) != 0) {
        fail("MRT6_ADD_MFC");
    }
}

void by_hand::delete_route(const std::string &source, const std::string &group, unsigned from) {
    const mf6cctl e = entry(source, group, from);
    if (setsockopt(fd_, IPPROTO_IPV6, MRT6_DEL_MFC, &e, sizeof(e)) != 0) {
        fail("MRT6_DEL_MFC");
    }
}

}  // namespace netlab
