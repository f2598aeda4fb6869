#include "apps/netlab/receiver.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace netlab {
namespace {

constexpr uint32_t frame_bytes = 512;  // a packet is cut to it; what counts lies in front
constexpr uint32_t block_bytes = 1 << 20;
constexpr uint32_t blocks = 16;
constexpr uint32_t frames = block_bytes / frame_bytes * blocks;
constexpr int poll_ms = 20;
constexpr uint64_t most_sequence = 100000000;

[[noreturn]] void fail(const host &at) {
    throw std::runtime_error("cannot listen at " + at.name + ": " + std::strerror(errno));
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

receiver::tap::tap(const host &at) {
    const int version = TPACKET_V2;
    const int on = 1;
    const tpacket_req size = {block_bytes, blocks, frame_bytes, frames};
    sockaddr_ll where = {};
    where.sll_family = AF_PACKET;
    where.sll_protocol = htons(ETH_P_IPV6);
    at.space.inside([&] {
        where.sll_ifindex = static_cast<int>(if_nametoindex("eth0"));
        fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    });
    if (fd < 0 || setsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, sizeof(version)) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &size, sizeof(size)) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on)) != 0) {
        fail(at);
    }
    void *const memory =
        mmap(nullptr, size_t{block_bytes} * blocks, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        fail(at);
    }
    ring = static_cast<uint8_t *>(memory);
    if (bind(fd, reinterpret_cast<sockaddr *>(&where), sizeof(where)) != 0) {
        fail(at);
    }
}

receiver::tap::~tap() {
    munmap(ring, size_t{block_bytes} * blocks);
    close(fd);
}

receiver::receiver(const host &at)
    : at_(at), tap_(std::make_unique<tap>(at)), thread_([this] { run(); }) {}

receiver::~receiver() {
    stopping_ = true;
    thread_.join();
}

void receiver::reopen() {
    auto fresh = std::make_unique<tap>(at_);
    const std::lock_guard hold(mutex_);
    take_all();
    tap_.swap(fresh);
}

void receiver::run() {
    while (!stopping_) {
        int fd = -1;
        {
            const std::lock_guard hold(mutex_);
            take_all();
            fd = tap_->fd;
        }
        // The wait is short, so it does not matter that `fd` may have been closed meanwhile.
        pollfd ready = {fd, POLLIN, 0};
        poll(&ready, 1, poll_ms);
    }
}

void receiver::take_all() {
    for (;;) {
        uint8_t *const frame = tap_->ring + size_t{tap_->next} * frame_bytes;
        auto *const head = reinterpret_cast<tpacket2_hdr *>(frame);
        std::atomic_ref<__u32> status(head->tp_status);
        if ((status.load(std::memory_order_acquire) & TP_STATUS_USER) == 0) {
            break;
        }
        take(frame + head->tp_net, head->tp_snaplen,
             uint64_t{head->tp_sec} * 1000000000U + head->tp_nsec);
        status.store(TP_STATUS_KERNEL, std::memory_order_release);
        tap_->next = (tap_->next + 1) % frames;
    }
    tpacket_stats lost = {};
    socklen_t size = sizeof(lost);
    if (getsockopt(tap_->fd, SOL_PACKET, PACKET_STATISTICS, &lost, &size) == 0) {
        overrun_.fetch_add(lost.tp_drops, std::memory_order_release);
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
