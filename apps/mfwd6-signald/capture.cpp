#include "apps/mfwd6-signald/capture.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/ip6.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace mfwd6::signald {
namespace {

constexpr size_t most_wishes = 16;
constexpr uint64_t patience_ns = 1000000000;
constexpr size_t largest = 2048;
constexpr uint32_t take_all = 0xffffffff;

// What the socket is bound to while nothing is wished: a protocol for experiments, which no packet
// of a router has. There is no way to bind a packet socket to nothing again.
constexpr uint16_t no_packets = ETH_P_802_EX1;

// A packet socket of type SOCK_DGRAM sees a packet from its IPv6 header on.
constexpr uint32_t source_offset = offsetof(ip6_hdr, ip6_src);
constexpr uint32_t group_offset = offsetof(ip6_hdr, ip6_dst);
constexpr uint32_t words_of_flow = 8;
constexpr uint32_t steps_of_flow = 2 * words_of_flow + 1;

// The words of source and group, which lie side by side in the header, as a filter sees them.
uint32_t word_of(const linux_flow &flow, uint32_t number) {
    const ip_maddr_st &address = number < 4 ? flow.source : flow.group;
    return ntohl(address.words[number % 4]);
}
static_assert(group_offset == source_offset + sizeof(ip_maddr_st));

// Takes the packet if all words agree, else goes on behind these steps.
void add_steps(const linux_flow &flow, std::vector<sock_filter> *filter) {
    for (uint32_t n = 0; n < words_of_flow; ++n) {
        const auto to_next_flow = static_cast<uint8_t>(steps_of_flow - 2 * n - 2);
        filter->push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, source_offset + 4 * n));
        filter->push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, word_of(flow, n), 0, to_next_flow));
    }
    filter->push_back(BPF_STMT(BPF_RET | BPF_K, take_all));
}

bool same_flow(const linux_flow &flow, const ip6_hdr &ip) {
    return std::memcmp(&flow.source, &ip.ip6_src, sizeof(ip.ip6_src)) == 0 &&
           std::memcmp(&flow.group, &ip.ip6_dst, sizeof(ip.ip6_dst)) == 0;
}

}  // namespace

capture::~capture() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

cerrno capture::open() {
    const int on = 1;
    fd_ = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) {
        return static_cast<cerrno>(errno);
    }
    // The filter comes first, and only then packets.
    set_filter();
    if (setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on)) != 0 ||
        !take(no_packets)) {
        const int error = errno;
        close(fd_);
        fd_ = -1;
        return static_cast<cerrno>(error);
    }
    return 0;
}

bool capture::take(uint16_t protocol) {
    sockaddr_ll all = {};
    all.sll_family = AF_PACKET;
    all.sll_protocol = htons(protocol);
    return bind(fd_, reinterpret_cast<sockaddr *>(&all), sizeof(all)) == 0;
}

void capture::wishes_changed(bool were_none) {
    set_filter();
    if (were_none != wishes_.empty()) {
        take(wishes_.empty() ? no_packets : ETH_P_IPV6);
    }
}

void capture::set_filter() {
    std::vector<sock_filter> filter;
    for (const wish &w : wishes_) {
        add_steps(w.flow, &filter);
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, 0));
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    setsockopt(fd_, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program));
}

void capture::want(const linux_flow &flow, uint64_t now_ns) {
    if (fd_ < 0) {
        return;
    }
    if (wishes_.size() == most_wishes) {
        wishes_.erase(wishes_.begin());
    }
    const bool were_none = wishes_.empty();
    wishes_.push_back({flow, now_ns + patience_ns});
    wishes_changed(were_none);
}

void capture::read(uint64_t now_ns, const caught_fn &caught) {
    const size_t wished = wishes_.size();
    uint8_t packet[largest];
    for (;;) {
        const ssize_t n = recv(fd_, packet, sizeof(packet), MSG_DONTWAIT);
        if (n < static_cast<ssize_t>(sizeof(ip6_hdr))) {
            break;
        }
        ip6_hdr ip = {};
        std::memcpy(&ip, packet, sizeof(ip));
        const auto found = std::find_if(wishes_.begin(), wishes_.end(),
                                        [&ip](const wish &w) { return same_flow(w.flow, ip); });
        if (found != wishes_.end()) {
            const linux_flow flow = found->flow;
            wishes_.erase(found);
            caught(flow, packet, static_cast<size_t>(n));
        }
    }
    if (wishes_.size() != wished) {
        wishes_changed(wished == 0);
    }
    forget_old(now_ns);
}

void capture::forget_old(uint64_t now_ns) {
    const auto old = std::remove_if(wishes_.begin(), wishes_.end(),
                                    [now_ns](const wish &w) { return w.until_ns <= now_ns; });
    if (old != wishes_.end()) {
        wishes_.erase(old, wishes_.end());
        wishes_changed(false);
    }
}

}  // namespace mfwd6::signald
