#include "apps/mfwd6d/owner/memberships.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "apps/mfwd6d/config/scan.h"
#include "apps/mfwd6d/say.h"

namespace mfwd6::daemon {
namespace {

// The kernel charges memberships to the socket's option memory (net.core.optmem_max).
constexpr uint32_t most_sockets = 64;

sockaddr_in6 socket_address(const ip_maddr_st &address) {
    sockaddr_in6 result{};
    result.sin6_family = AF_INET6;
    std::memcpy(&result.sin6_addr, address.bytes, sizeof(result.sin6_addr));
    return result;
}

// One join or leave on one socket (ipv6(7), RFC 3678). The result of setsockopt.
int change(int fd, bool join, uint32_t index, const ip_maddr_st *source, const ip_maddr_st &group) {
    if (source != nullptr) {
        group_source_req request{};
        request.gsr_interface = index;
        const sockaddr_in6 s = socket_address(*source);
        const sockaddr_in6 g = socket_address(group);
        std::memcpy(&request.gsr_source, &s, sizeof(s));
        std::memcpy(&request.gsr_group, &g, sizeof(g));
        return setsockopt(fd, IPPROTO_IPV6,
                          join ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP, &request,
                          sizeof(request));
    }
    ipv6_mreq request{};
    std::memcpy(&request.ipv6mr_multiaddr, group.bytes, sizeof(request.ipv6mr_multiaddr));
    request.ipv6mr_interface = index;
    return setsockopt(fd, IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &request,
                      sizeof(request));
}

void step(ip_maddr_st *address) {
    for (size_t i = sizeof(address->bytes); i-- > 0;) {
        if (++address->bytes[i] != 0) {
            return;
        }
    }
}

uint32_t size_of(const config::prefix &p) {
    return p.length == 0 ? 1 : 1U << (128U - p.length);
}

}  // namespace

bool name_matches(std::string_view pattern, std::string_view name) {
    if (pattern.empty() || pattern.back() != '+') {
        return pattern == name;
    }
    pattern.remove_suffix(1);
    return name.starts_with(pattern);
}

memberships::~memberships() {
    for (const int fd : sockets_) {
        close(fd);
    }
}

int memberships::socket(uint32_t number) {
    while (sockets_.size() <= number) {
        const int fd = socket_of_(static_cast<uint32_t>(sockets_.size()));
        if (fd < 0) {
            return fd;
        }
        sockets_.push_back(fd);
    }
    return sockets_[number];
}

cerrno memberships::join_one(uint32_t index, const ip_maddr_st *source, const ip_maddr_st &group) {
    for (uint32_t n = first_with_room_; n < most_sockets; ++n) {
        const int fd = socket(n);
        if (fd < 0) {
            return static_cast<cerrno>(-fd);
        }
        if (change(fd, true, index, source, group) == 0) {
            return 0;
        }
        if (errno == EADDRINUSE || errno == EADDRNOTAVAIL) {  // joined already: two forms of it
            return 0;
        }
        if (errno != ENOBUFS && errno != ENOMEM) {
            return static_cast<cerrno>(errno);
        }
        first_with_room_ = n + 1;
    }
    return ENOBUFS;
}

void memberships::leave_one(uint32_t index, const ip_maddr_st *source, const ip_maddr_st &group) {
    for (size_t n = 0; n < sockets_.size(); ++n) {
        if (change(sockets_[n], false, index, source, group) == 0) {
            first_with_room_ = std::min(first_with_room_, static_cast<uint32_t>(n));
        }
    }
}

template <class Fn>
void memberships::each_flow(const config::line &l, const Fn &fn) const {
    ip_maddr_st source = l.source.address;
    for (uint32_t s = 0; s < size_of(l.source); ++s, step(&source)) {
        ip_maddr_st group = l.group.address;
        for (uint32_t g = 0; g < size_of(l.group); ++g, step(&group)) {
            fn(l.source.length != 0 ? &source : nullptr, group);
        }
    }
}

outcome memberships::join_on(const config::line &l, const interface &i) {
    cerrno first = 0;
    each_flow(l, [&](const ip_maddr_st *source, const ip_maddr_st &group) {
        const cerrno rc = join_one(i.index, source, group);
        first = first != 0 ? first : rc;
    });
    return first == 0 ? outcome{}
                      : failure_of(first, config::line_text(l) + ", interface " + i.name);
}

outcome memberships::add(const config::line &l) {
    outcome first;
    interfaces_.each([&](const interface &i) {
        if (i.index != 0 && i.vrf == l.vrf && name_matches(l.from.front(), i.name)) {
            outcome joined = join_on(l, i);
            if (!first.failed()) {
                first = std::move(joined);
            }
        }
    });
    if (!first.failed()) {
        lines_.insert(config::line_text(l));
    }
    return first;
}

outcome memberships::erase(const config::line &l) {
    config::line plain = l;
    plain.remove = false;
    const std::string text = config::line_text(plain);
    if (lines_.erase(text) == 0) {
        return failure(ENOENT, "there is no line \"" + text + "\"");
    }
    socket(0);
    interfaces_.each([&](const interface &i) {
        if (i.index == 0 || !name_matches(l.from.front(), i.name)) {
            return;
        }
        each_flow(l, [&](const ip_maddr_st *source, const ip_maddr_st &group) {
            leave_one(i.index, source, group);
        });
    });
    // What another line asks for as well was left with it.
    for (const std::string &other : lines_) {
        config::line again;
        std::string ignored;
        if (config::parse_line(other, &again, &ignored)) {
            const outcome joined = add(again);
            if (joined.failed()) {
                say(weight::error, "{}", joined.text);
            }
        }
    }
    return {};
}

void memberships::appeared(const interface &i) {
    for (const std::string &text : lines_) {
        config::line l;
        std::string ignored;
        if (!config::parse_line(text, &l, &ignored) || l.vrf != i.vrf ||
            !name_matches(l.from.front(), i.name)) {
            continue;
        }
        const outcome joined = join_on(l, i);
        if (joined.failed()) {
            say(weight::error, "{}", joined.text);
        }
    }
}

}  // namespace mfwd6::daemon
