#include "apps/netlab/receiver.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace netlab {
namespace {

constexpr size_t batch = 64;
constexpr size_t largest = 2048;
constexpr int poll_ms = 20;
constexpr uint64_t most_sequence = 100000000;

int open_tap(const host &at) {
    int fd = -1;
    at.space.inside([&] {
        const int room = 64 << 20;
        const int on = 1;
        sockaddr_ll where = {};
        where.sll_family = AF_PACKET;
        where.sll_protocol = htons(ETH_P_IPV6);
        where.sll_ifindex = static_cast<int>(if_nametoindex("eth0"));
        fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) != 0 ||
            setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on)) != 0 ||
            setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on)) != 0 ||
            bind(fd, reinterpret_cast<sockaddr *>(&where), sizeof(where)) != 0) {
            throw std::runtime_error("cannot listen at " + at.name + ": " + std::strerror(errno));
        }
    });
    return fd;
}

uint64_t arrival_of(msghdr *message) {
    for (cmsghdr *c = CMSG_FIRSTHDR(message); c != nullptr; c = CMSG_NXTHDR(message, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMPNS) {
            timespec ts = {};
            std::memcpy(&ts, CMSG_DATA(c), sizeof(ts));
            return static_cast<uint64_t>(ts.tv_sec) * 1000000000U +
                   static_cast<uint64_t>(ts.tv_nsec);
        }
    }
    return now_ns(CLOCK_REALTIME);
}

void count(stream_report *s, const payload &p, uint64_t arrival_ns) {
    if (p.sequence >= s->seen.size()) {
        s->seen.resize(std::max<size_t>(p.sequence + 1, s->seen.size() * 2));
    }
    if (s->seen[p.sequence]) {
        ++s->duplicates;
        return;
    }
    s->seen[p.sequence] = true;
    if (s->packets == 0) {
        s->first = p.sequence;
        s->first_arrival_ns = arrival_ns;
    } else if (arrival_ns > s->last_arrival_ns) {
        s->longest_gap_ns = std::max(s->longest_gap_ns, arrival_ns - s->last_arrival_ns);
    }
    s->late += p.sequence < s->last ? 1 : 0;
    s->first = std::min(s->first, p.sequence);
    s->last = std::max(s->last, p.sequence);
    s->last_arrival_ns = arrival_ns;
    ++s->packets;
    const uint64_t took = arrival_ns > p.sent_ns ? arrival_ns - p.sent_ns : 0;
    s->latency_us.push_back(static_cast<uint32_t>(std::min<uint64_t>(took / 1000, UINT32_MAX)));
}

bool wait_until(const std::function<bool()> &what, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!what()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace

uint64_t stream_report::missing(uint64_t from, uint64_t to) const {
    uint64_t count = 0;
    for (uint64_t n = from; n <= to; ++n) {
        count += n < seen.size() && seen[n] ? 0 : 1;
    }
    return count;
}

uint32_t stream_report::latency(unsigned percent) const {
    if (latency_us.empty()) {
        return 0;
    }
    std::vector<uint32_t> sorted = latency_us;
    std::sort(sorted.begin(), sorted.end());
    return sorted[std::min(sorted.size() - 1, sorted.size() * percent / 100)];
}

receiver::receiver(const host &at) : at_(at), fd_(open_tap(at)), thread_([this] { run(); }) {}

receiver::~receiver() {
    stopping_ = true;
    thread_.join();
    close(fd_);
}

void receiver::reopen() {
    const int fresh = open_tap(at_);
    const std::lock_guard hold(mutex_);
    const int old = fd_.exchange(fresh);
    close(old);
}

void receiver::run() {
    std::vector<std::array<uint8_t, largest>> packets(batch);
    std::vector<std::array<char, 64>> controls(batch);
    std::vector<iovec> parts(batch);
    std::vector<mmsghdr> messages(batch);
    while (!stopping_) {
        pollfd ready = {fd_, POLLIN, 0};
        if (poll(&ready, 1, poll_ms) <= 0) {
            continue;
        }
        for (size_t i = 0; i < batch; ++i) {
            parts[i] = {packets[i].data(), largest};
            messages[i] = {};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            messages[i].msg_hdr.msg_control = controls[i].data();
            messages[i].msg_hdr.msg_controllen = controls[i].size();
        }
        const std::lock_guard hold(mutex_);
        const int n = recvmmsg(fd_, messages.data(), batch, MSG_DONTWAIT, nullptr);
        for (int i = 0; i < n; ++i) {
            mmsghdr &m = messages[static_cast<size_t>(i)];
            take(packets[static_cast<size_t>(i)].data(), m.msg_len, arrival_of(&m.msg_hdr));
        }
        tpacket_stats lost = {};
        socklen_t size = sizeof(lost);
        if (getsockopt(fd_, SOL_PACKET, PACKET_STATISTICS, &lost, &size) == 0) {
            overrun_.fetch_add(lost.tp_drops, std::memory_order_release);
        }
    }
}

void receiver::take(const uint8_t *packet, size_t size, uint64_t arrival_ns) {
    ip6_hdr ip = {};
    payload p = {};
    if (size < sizeof(ip) + sizeof(udphdr) + sizeof(p)) {
        return;
    }
    std::memcpy(&ip, packet, sizeof(ip));
    std::memcpy(&p, packet + sizeof(ip) + sizeof(udphdr), sizeof(p));
    if (ip.ip6_nxt != IPPROTO_UDP || p.magic != packet_magic || p.sequence > most_sequence) {
        return;
    }
    stream_report &s = streams_[p.stream];
    if (s.packets == 0) {
        s.source = address_text(ip.ip6_src);
        s.group = address_text(ip.ip6_dst);
    }
    s.hop_limit = ip.ip6_hlim;
    count(&s, p, arrival_ns);
}

stream_report receiver::report(uint32_t stream) const {
    const std::lock_guard hold(mutex_);
    const auto found = streams_.find(stream);
    return found == streams_.end() ? stream_report{} : found->second;
}

std::map<uint32_t, stream_report> receiver::reports() const {
    const std::lock_guard hold(mutex_);
    return streams_;
}

uint64_t receiver::packets(uint32_t stream) const {
    const std::lock_guard hold(mutex_);
    const auto found = streams_.find(stream);
    return found == streams_.end() ? 0 : found->second.packets;
}

bool receiver::wait_packets(uint32_t stream, uint64_t packets,
                            std::chrono::milliseconds limit) const {
    return wait_until([&] { return this->packets(stream) >= packets; }, limit);
}

bool receiver::wait_sequence(uint32_t stream, uint64_t sequence,
                             std::chrono::milliseconds limit) const {
    const auto arrived = [&] {
        const std::lock_guard hold(mutex_);
        const auto found = streams_.find(stream);
        return found != streams_.end() && found->second.last >= sequence;
    };
    return wait_until(arrived, limit);
}

}  // namespace netlab
