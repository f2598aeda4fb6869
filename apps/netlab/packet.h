// What the laboratory's packets carry, and how their flows are named.
#ifndef MFWD6_NETLAB_PACKET_H
#define MFWD6_NETLAB_PACKET_H

#include <netinet/in.h>
#include <time.h>

#include <cstdint>
#include <string>

namespace netlab {

inline constexpr uint16_t udp_port = 5006;
inline constexpr uint32_t packet_magic = 0x6d667736;

// Payload of every packet; byte order of the machine, as both ends are on it.
struct payload {
    uint32_t magic;
    uint32_t stream;    // one sender
    uint64_t sequence;  // from 1
    uint64_t sent_ns;   // CLOCK_REALTIME
};

inline uint64_t now_ns(clockid_t clock = CLOCK_MONOTONIC) {
    timespec ts = {};
    clock_gettime(clock, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000U + static_cast<uint64_t>(ts.tv_nsec);
}

// Throws std::runtime_error for a text that is no address.
in6_addr parse_address(const std::string &text);
std::string address_text(const in6_addr &address);

}  // namespace netlab

#endif
