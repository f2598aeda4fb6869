#include "tests/fuzz/operations/keys.h"

#include <arpa/inet.h>

namespace fuzz {
namespace {

// Nested, so that ranges cover one another, and two that share nothing.
constexpr const char *groups[] = {"ff3e::",     "ff3e::1",      "ff3e:1::",   "ff3e:1::1",
                                  "ff3e:1:2::", "ff3e:1:2::77", "ff0e::8000", "::"};
constexpr const char *sources[] = {"2001:db8::1", "2001:db8::2", "fe80::1"};
constexpr uint16_t lengths[] = {128, 128, 128, 127, 112, 96, 64, 48, 48, 33, 32, 32, 16, 8, 1, 0};

ip_maddr_st address(const char *text) {
    ip_maddr_st result{};
    inet_pton(AF_INET6, text, &result);
    return result;
}

ip_maddr_st cut(const ip_maddr_st &group, uint32_t bits) {
    ip_maddr_st out{};
    for (uint32_t bit = 0; bit < bits; ++bit) {
        const auto mask = static_cast<uint8_t>(0x80U >> (bit % 8));
        out.bytes[bit / 8] =
            static_cast<uint8_t>(out.bytes[bit / 8] | (group.bytes[bit / 8] & mask));
    }
    return out;
}

int compare(const route_id &a, const route_id &b) {
    const int groups_differ = std::memcmp(&a.group, &b.group, sizeof(a.group));
    const int sources_differ = std::memcmp(&a.source, &b.source, sizeof(a.source));
    return groups_differ != 0    ? groups_differ
           : sources_differ != 0 ? sources_differ
                                 : a.length - b.length;
}

}  // namespace

bool operator<(const route_id &a, const route_id &b) {
    return compare(a, b) < 0;
}

bool operator==(const route_id &a, const route_id &b) {
    return compare(a, b) == 0;
}

bool route_id::covers(const route_id &other) const {
    if (length > IPV4MC_ROUTE_PFX_LEN_STAR_G) {
        return *this == other;
    }
    const ip_maddr_st theirs = cut(other.group, length);
    return length <= other.length && std::memcmp(&group, &theirs, sizeof(group)) == 0;
}

bool is_wildcard(const ip_maddr_st &address) {
    const ip_maddr_st zero{};
    return std::memcmp(&address, &zero, sizeof(zero)) == 0;
}

route_id named_key::id() const {
    if (!is_wildcard(source)) {
        return {group, source, IPV4MC_ROUTE_PFX_LEN_SG};
    }
    return {cut(group, length), source, length};
}

std::string named_key::text() const {
    char source_text[INET6_ADDRSTRLEN];
    char group_text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &source, source_text, sizeof(source_text));
    inet_ntop(AF_INET6, &group, group_text, sizeof(group_text));
    return std::string("(") + source_text + "," + group_text + "/" + std::to_string(length) + ")";
}

ip_maddr_st pick_group(input &in) {
    return address(groups[in.pick(std::size(groups))]);
}

ip_maddr_st pick_source(input &in) {
    return address(sources[in.pick(std::size(sources))]);
}

named_key pick_key(input &in) {
    const uint8_t shape = in.byte();
    named_key key{address(groups[shape % std::size(groups)]), {}, 0};
    if ((shape & 0x80) != 0) {
        key.source = address(sources[(shape >> 4) % std::size(sources)]);
        key.length = IPV4MC_ROUTE_PFX_LEN_SG;
    } else {
        key.length = lengths[(shape >> 3) % std::size(lengths)];
    }
    return key;
}

named_intf pick_intf(input &in) {
    const uint8_t shape = in.byte();
    const auto ifh = static_cast<ifhtype>(1 + shape % last_ifh);
    if ((shape & 0xc0) != 0xc0) {
        return {IPV4MC_INTF_ORDINARY, ifh, 0, 0};
    }
    return {IPV4MC_INTF_AMT, ifh, (shape >> 3U) & 1U, static_cast<uint16_t>((shape >> 4) & 1)};
}

}  // namespace fuzz
