// Forwarding as rows: routes, a packet in, and who gets it. The same rows run on every platform.
#ifndef MFWD6_TESTS_E2E_ROWS_H
#define MFWD6_TESTS_E2E_ROWS_H

#include <string>
#include <vector>

namespace e2e {

struct row_route {
    std::string vrf;     // "default"
    std::string source;  // "" for any
    std::string group;   // with "/LEN" for a range
    std::vector<std::string> from;
    std::vector<std::string> to;
    std::vector<std::string> flags;
};

struct row_packet {
    std::string from;    // host that sends it
    std::string source;  // address in the packet
    std::string group;
    std::vector<std::string> out;  // hosts that get it, sorted
};

struct row {
    std::string description;
    std::vector<row_route> routes;
    std::vector<row_packet> packets;
};

// Hosts: s1, s2 send and r1, r2, r3 receive in the default VRF; sred sends and rred receives in the
// VRF "red". Interfaces of the router have the names of the hosts.
inline constexpr char s1_address[] = "fd00:1::10";
inline constexpr char s2_address[] = "fd00:2::10";
inline constexpr char sred_address[] = "fd00:1::10";  // the same as that of s1, deliberately
inline constexpr char red_vrf[] = "red";

const std::vector<row> &rows();

}  // namespace e2e

#endif
