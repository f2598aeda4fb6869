// The handful of keys that operations are about, and their order in a trie.
#ifndef MFWD6_TESTS_FUZZ_OPERATIONS_KEYS_H
#define MFWD6_TESTS_FUZZ_OPERATIONS_KEYS_H

#include <compare>
#include <cstring>
#include <string>
#include <tuple>

#include "ipv4/multicast/lib/ip6mc_route.h"
#include "tests/fuzz/operations/input.h"
#include "tests/kit/library.h"

namespace fuzz {

// The key of a route: bits of the group behind a length below 128 are zero.
struct route_id {
    ip_maddr_st group;
    ip_maddr_st source;
    uint16_t length;

    bool covers(const route_id &other) const;  // also itself
};

// As walks go: a less specific key before those that it covers, then by bits.
bool operator<(const route_id &a, const route_id &b);
bool operator==(const route_id &a, const route_id &b);

// A key as an operation names it, with group bits that the length does not count.
struct named_key {
    ip_maddr_st group;
    ip_maddr_st source;
    uint16_t length;

    route_id id() const;
    std::string text() const;
};

constexpr uint32_t tids[] = {0xe0000005, kit::default_tid};
constexpr uint32_t vrf_ids[] = {0x60000006, 0x60000008};
constexpr const char *vrf_names[] = {"red", "blue"};
constexpr size_t tables = 2;
constexpr ifhtype last_ifh = 6;  // handles 1 to 6

named_key pick_key(input &in);
ip_maddr_st pick_group(input &in);
ip_maddr_st pick_source(input &in);  // never all zero
bool is_wildcard(const ip_maddr_st &address);

// Key of an interface of a route.
struct intf_id {
    uint32_t type;
    ifhtype key_ifh;
    uint32_t amt_addr;
    uint16_t amt_port;
    auto operator<=>(const intf_id &) const = default;
};

struct named_intf {
    uint32_t type;
    ifhtype ifh;
    uint32_t amt_addr;
    uint16_t amt_port;
    intf_id id() const {
        return {type, type == IPV4MC_INTF_ORDINARY ? ifh : 0, amt_addr, amt_port};
    }
};

named_intf pick_intf(input &in);

}  // namespace fuzz

#endif
