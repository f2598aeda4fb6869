#include "tests/platforms/linux/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace net {
namespace {

constexpr uint16_t port = 5001;

struct frame {
    ether_header ether;
    ip6_hdr ip;
    udphdr udp;
    uint32_t number;
} __attribute__((packed));

bool write_file(const char *path, const std::string &text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
}

std::string reason(const char *what) {
    return std::string(what) + ": " + strerror(errno);
}

std::string enter_user_namespace() {
    const std::string uid = std::to_string(geteuid());
    const std::string gid = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER) != 0) {
        return reason("neither root nor user namespaces");
    }
    if (!write_file("/proc/self/setgroups", "deny") ||
        !write_file("/proc/self/uid_map", "0 " + uid + " 1") ||
        !write_file("/proc/self/gid_map", "0 " + gid + " 1")) {
        return reason("cannot map users");
    }
    return {};
}

uint16_t checksum(const frame &f) {
    uint32_t sum = htons(IPPROTO_UDP);
    const auto add = [&](const void *bytes, size_t size) {
        uint16_t word = 0;
        for (size_t at = 0; at < size; at += 2) {
            std::memcpy(&word, static_cast<const char *>(bytes) + at, 2);
            sum += word;
        }
    };
    add(&f.ip.ip6_src, 32);
    sum += f.udp.len;
    add(&f.udp, sizeof(f.udp));
    add(&f.number, sizeof(f.number));
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    const auto result = static_cast<uint16_t>(~sum);
    return result == 0 ? uint16_t{0xffff} : result;
}

frame frame_of(const packet &p) {
    frame f = {};
    const ip_maddr_st source = address(p.source);
    const ip_maddr_st group = address(p.group);
    f.ether.ether_dhost[0] = f.ether.ether_dhost[1] = 0x33;
    std::memcpy(f.ether.ether_dhost + 2, group.bytes + 12, 4);
    f.ether.ether_shost[0] = 2;
    f.ether.ether_type = htons(ETHERTYPE_IPV6);
    f.ip.ip6_vfc = 0x60;
    f.ip.ip6_plen = htons(sizeof(udphdr) + sizeof(f.number));
    f.ip.ip6_nxt = IPPROTO_UDP;
    f.ip.ip6_hlim = p.hop_limit;
    std::memcpy(&f.ip.ip6_src, &source, 16);
    std::memcpy(&f.ip.ip6_dst, &group, 16);
    f.udp.source = htons(port);
    f.udp.dest = htons(port);
    f.udp.len = f.ip.ip6_plen;
    f.number = htonl(p.number);
    f.udp.check = checksum(f);
    return f;
}

bool read_packet(int fd, packet *out, bool *ours) {
    char bytes[2048];
    const ssize_t got = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (got < 0) {
        return false;
    }
    *ours = false;
    if (got < static_cast<ssize_t>(sizeof(frame))) {
        return true;
    }
    frame f;
    std::memcpy(&f, bytes, sizeof(f));
    if (f.ether.ether_type != htons(ETHERTYPE_IPV6) || f.ip.ip6_nxt != IPPROTO_UDP ||
        f.udp.dest != htons(port)) {
        return true;
    }
    ip_maddr_st source;
    ip_maddr_st group;
    std::memcpy(&source, &f.ip.ip6_src, 16);
    std::memcpy(&group, &f.ip.ip6_dst, 16);
    *out = {text_of(source), text_of(group), ntohl(f.number), f.ip.ip6_hlim};
    *ours = true;
    return true;
}

}  // namespace

std::string enter_namespace() {
    static const std::string no_user_namespace =
        geteuid() == 0 ? std::string() : enter_user_namespace();
    if (!no_user_namespace.empty()) {
        return no_user_namespace;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        return reason("no network namespace");
    }
    ip_batch("link set lo up\n");
    return {};
}

ip_maddr_st address(const std::string &text) {
    ip_maddr_st out = {};
    if (inet_pton(AF_INET6, text.c_str(), out.bytes) != 1) {
        throw std::runtime_error("no address: " + text);
    }
    return out;
}

std::string text_of(const ip_maddr_st &a) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, a.bytes, text, sizeof(text));
}

void ip_batch(const std::string &lines) {
    FILE *ip = popen("ip -batch -", "w");
    if (ip == nullptr) {
        throw std::runtime_error("cannot run ip(8)");
    }
    fwrite(lines.data(), 1, lines.size(), ip);
    if (pclose(ip) != 0) {
        throw std::runtime_error("ip(8) failed: " + lines);
    }
}

network::network(const std::vector<uint32_t> &numbers) {
    std::string make;
    std::string up;
    for (const uint32_t n : numbers) {
        const std::string number = std::to_string(n);
        make += "link add if" + number + " index " + std::to_string(handle(n)) +
                " type veth peer name pe" + number + "\n";
        up += "link set if" + number + " up\nlink set pe" + number + " up\n";
    }
    ip_batch(make);
    for (const uint32_t n : numbers) {
        write_file(("/proc/sys/net/ipv6/conf/pe" + std::to_string(n) + "/disable_ipv6").c_str(),
                   "1");
    }
    ip_batch(up);
    for (const uint32_t n : numbers) {
        far_ends_[n] = open_far_end(n);
    }
}

network::~network() {
    for (const auto &[number, fd] : far_ends_) {
        close(fd);
    }
}

void network::add(uint32_t number, uint32_t index) {
    const std::string n = std::to_string(number);
    ip_batch("link add if" + n + (index != 0 ? " index " + std::to_string(index) : "") +
             " type veth peer name pe" + n + "\n");
    write_file(("/proc/sys/net/ipv6/conf/pe" + n + "/disable_ipv6").c_str(), "1");
    ip_batch("link set if" + n + " up\nlink set pe" + n + " up\n");
    far_ends_[number] = open_far_end(number);
}

void network::remove(uint32_t number) {
    close(far_ends_.at(number));
    far_ends_.erase(number);
    ip_batch("link del if" + std::to_string(number) + "\n");
}

int network::open_far_end(uint32_t number) {
    const std::string name = "pe" + std::to_string(number);
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
    sockaddr_ll link = {};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(ETH_P_ALL);
    link.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
    const int room = 32 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
    const int one = 1;
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof(one));
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&link), sizeof(link)) != 0) {
        throw std::runtime_error("cannot open " + name + ": " + strerror(errno));
    }
    return fd;
}

void network::send(uint32_t number, const packet &p) {
    const frame f = frame_of(p);
    if (::send(far_ends_.at(number), &f, sizeof(f), 0) != sizeof(f)) {
        throw std::runtime_error(std::string("cannot send: ") + strerror(errno));
    }
}

std::vector<packet> network::received(uint32_t number) {
    std::vector<packet> all;
    packet p;
    bool ours = false;
    while (read_packet(far_ends_.at(number), &p, &ours)) {
        if (ours) {
            all.push_back(p);
        }
    }
    return all;
}

std::vector<packet> network::wait_for(uint32_t number, size_t count, int milliseconds) {
    using clock = std::chrono::steady_clock;
    const auto end = clock::now() + std::chrono::milliseconds(milliseconds);
    std::vector<packet> all = received(number);
    while (all.size() < count && clock::now() < end) {
        pollfd wait = {far_ends_.at(number), POLLIN, 0};
        poll(&wait, 1, 10);
        for (const packet &p : received(number)) {
            all.push_back(p);
        }
    }
    return all;
}

}  // namespace net
