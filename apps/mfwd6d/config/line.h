// One line of configuration, which is also what the commands `line` and `lines` take.
//
//   phyint IFACE [enable | disable] [mrdisc] [ttl-threshold N]
//   mgroup [vrf NAME] from IFACE [source S[/LEN]] group G[/LEN]
//   mroute [vrf NAME] [inherit-accept] [signal] [drop]
//          from IFACE... [source S] group G[/LEN] [to IFACE...]
//   vrf NAME table ID [interface IFACE...]
//   boundary IFACE group G/LEN
//   include PATH
//
// `no` in front of a line (but not of include) takes back what the line makes. '#' begins a
// comment. `mrdisc` is about IPv4 and has no effect.
#ifndef MFWD6_APPS_MFWD6D_CONFIG_LINE_H
#define MFWD6_APPS_MFWD6D_CONFIG_LINE_H

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_types.h"

namespace mfwd6::config {

// Longest line, name of an interface (IFNAMSIZ of net/if.h), name of a VRF, list of interfaces.
inline constexpr size_t line_bytes = 4096;
inline constexpr size_t interface_name_bytes = 15;
inline constexpr size_t vrf_name_bytes = 31;
inline constexpr size_t interfaces_of_line = 256;

// Kernel tables that a VRF may have: the library tells tables apart by 13 bits of their id, and the
// kernel has three tables of its own (rtnetlink(7): default, main, local).
inline constexpr uint32_t least_table_id = 1;
inline constexpr uint32_t most_table_id = 8191;
inline constexpr uint32_t first_kernel_table = 253;
inline constexpr uint32_t last_kernel_table = 255;

// What `mgroup` with lengths is expanded to at most.
inline constexpr uint32_t joins_of_line = 4096;

inline constexpr char default_vrf[] = "default";

enum class line_kind : uint8_t { empty, phyint, mgroup, mroute, vrf, boundary, include };

enum line_flags : uint8_t {
    line_inherit_accept = 1,
    line_signal = 2,
    line_drop = 4,
};

enum class switch_word : uint8_t { none, enable, disable };

struct prefix {
    ip_maddr_st address{};  // the bits behind `length` are 0
    uint8_t length = 0;     // 0 to 128

    bool operator==(const prefix &other) const {
        return length == other.length &&
               std::memcmp(address.bytes, other.address.bytes, sizeof(address.bytes)) == 0;
    }
};

// Texts are parts of the text that was parsed.
struct line {
    line_kind kind = line_kind::empty;
    bool remove = false;
    uint8_t flags = 0;  // mroute: line_flags
    switch_word enabled = switch_word::none;
    uint8_t ttl = 0;                     // phyint: 0 when not given
    uint32_t table_id = 0;               // vrf: 0 when not given, which only `no vrf` may do
    std::string_view vrf;                // vrf: its name; mgroup, mroute: "default" if not given
    std::string_view path;               // include
    std::vector<std::string_view> from;  // mroute: accepting; phyint, boundary, mgroup: the one.
                                         // mroute and mgroup: a '+' at the end of a name is any end
    std::vector<std::string_view> to;    // mroute: forwarding; vrf: its interfaces
    prefix source;                       // length 0: any source
    prefix group;
};

// Whether a word ends a list of interfaces. One so named can only be the first of its list.
bool ends_interfaces(std::string_view word);

// Reads one line. A pure function of `text`; `out` keeps its lists' memory from call to call. false
// with a sentence (no full stop, no place) in `reason`.
bool parse_line(std::string_view text, line *out, std::string *reason);

// The line in its shortest form, as parse_line takes it; empty for an empty line.
std::string line_text(const line &l);

}  // namespace mfwd6::config

#endif
