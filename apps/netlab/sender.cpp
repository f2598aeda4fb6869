#include "apps/netlab/sender.h"

#include <arpa/inet.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace netlab {
namespace {

constexpr uint64_t most_at_once = 64;
constexpr int hop_limit = 16;
constexpr uint64_t ns_per_second = 1000000000;
std::atomic<uint32_t> last_stream{0};

int open_socket(const std::string &source, const std::string &group) {
    sockaddr_in6 from = {};
    from.sin6_family = AF_INET6;
    from.sin6_addr = parse_address(source);
    sockaddr_in6 to = {};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(udp_port);
    to.sin6_addr = parse_address(group);
    const int room = 4 << 20;
    const int freebind = 1;
    const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hop_limit, sizeof(int)) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room)) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_FREEBIND, &freebind, sizeof(int)) != 0 ||
        bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof(from)) != 0 ||
        connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) != 0) {
        throw std::runtime_error("cannot send from " + source + " to " + group + ": " +
                                 std::strerror(errno));
    }
    return fd;
}

}  // namespace

in6_addr parse_address(const std::string &text) {
    in6_addr address = {};
    if (inet_pton(AF_INET6, text.c_str(), &address) != 1) {
        throw std::runtime_error("not an IPv6 address: " + text);
    }
    return address;
}

std::string address_text(const in6_addr &address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &address, text, sizeof(text));
    return text;
}

sender::sender(const host &from, const std::string &group, size_t size, const std::string &source)
    : stream_(++last_stream),
      size_(std::max(size, sizeof(payload))),
      group_(group),
      source_(source.empty() ? from.address : source) {
    from.space.inside([&] { fd_ = open_socket(source_, group_); });
}

sender::~sender() {
    stop();
    close(fd_);
}

void sender::start(uint32_t packets_per_second, uint64_t limit) {
    stop();
    stopping_ = false;
    thread_ = std::thread([this, packets_per_second, limit] { run(packets_per_second, limit); });
}

void sender::stop() {
    stopping_ = true;
    wait();
}

void sender::wait() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

void sender::run(uint32_t packets_per_second, uint64_t limit) {
    prctl(PR_SET_TIMERSLACK, 1);
    const uint64_t began = now_ns();
    uint64_t done = 0;
    while (!stopping_ && (limit == 0 || done < limit)) {
        const uint64_t due = (now_ns() - began) * packets_per_second / ns_per_second + 1;
        uint64_t now_due = due > done ? std::min(due - done, most_at_once) : 0;
        if (limit != 0) {
            now_due = std::min(now_due, limit - done);
        }
        send_some(now_due);
        done += now_due;
        const uint64_t next = began + done * ns_per_second / packets_per_second;
        const timespec until = {static_cast<time_t>(next / ns_per_second),
                                static_cast<long>(next % ns_per_second)};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    }
}

void sender::burst(uint64_t packets) {
    while (packets > 0) {
        const uint64_t some = std::min(packets, most_at_once);
        send_some(some);
        packets -= some;
    }
}

void sender::send_some(uint64_t packets) {
    std::vector<char> bytes(size_ * packets);
    std::vector<iovec> parts(packets);
    std::vector<mmsghdr> messages(packets);
    const uint64_t first = sent_.load(std::memory_order_relaxed) + 1;
    const uint64_t now = now_ns(CLOCK_REALTIME);
    for (uint64_t i = 0; i < packets; ++i) {
        const payload p = {packet_magic, stream_, first + i, now};
        std::memcpy(&bytes[i * size_], &p, sizeof(p));
        parts[i] = {&bytes[i * size_], size_};
        messages[i] = {};
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    uint64_t done = 0;
    while (done < packets) {
        const int n = sendmmsg(fd_, &messages[done], static_cast<unsigned>(packets - done), 0);
        if (n > 0) {
            done += static_cast<uint64_t>(n);
            sent_.store(first - 1 + done, std::memory_order_release);
        } else if (errno != EINTR) {
            // No wire at the moment: the packet is lost at its source, and is counted there.
            refused_.fetch_add(1, std::memory_order_release);
            ++done;
            sent_.store(first - 1 + done, std::memory_order_release);
        }
    }
}

}  // namespace netlab
