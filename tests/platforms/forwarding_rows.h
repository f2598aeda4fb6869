// Forwarding as rows: routes, a packet in, the packets out. Every platform passes them.
#ifndef MFWD6_TESTS_PLATFORMS_FORWARDING_ROWS_H
#define MFWD6_TESTS_PLATFORMS_FORWARDING_ROWS_H

#include <vector>

#include "ipv4/multicast/lib/ip6mc_types.h"

namespace forwarding {

enum verdicts : uint32_t { no_route = 0, dropped = 1, wrong_intf = 2, forwarded = 3 };

constexpr uint64_t A = MRIB_INTF_ACCEPT;
constexpr uint64_t F = MRIB_INTF_FORWARD;
constexpr uint64_t N = MRIB_INTF_NEGATE_SIGNAL;
constexpr uint64_t L = MRIB_INTF_LOCAL_COPY;

struct leg {
    ifhtype ifh;
    uint64_t attributes;
};

struct row_route {
    const char *source;
    const char *group;
    uint16_t pfx_len;
    uint64_t attributes;
    std::vector<leg> legs;
    int parent = -1;  // index in the row
};

struct row {
    const char *what;
    std::vector<row_route> routes;
    ifhtype in;
    const char *source;
    const char *group;
    uint32_t verdict;
    std::vector<ifhtype> out;
    uint32_t signalled;
    uint32_t to_node;
};

inline const row rows[] = {
    {"no route", {}, 1, "2001:db8::1", "ff3e::1", no_route, {}, 0, 0},
    {"(S,G) copies to all but the way in, in order",
     {{"2001:db8::1", "ff3e::1", 256, 0, {{1, A | F}, {9, F}, {2, F}}}},
     1,
     "2001:db8::1",
     "ff3e::1",
     forwarded,
     {2, 9},
     0,
     0},
    {"arrival on an interface that is not accepted",
     {{"2001:db8::1", "ff3e::1", 256, 0, {{1, A}, {2, F}}}},
     2,
     "2001:db8::1",
     "ff3e::1",
     wrong_intf,
     {},
     0,
     0},
    {"(S,G) wins over (*,G) wins over (*,G/m)",
     {{"::", "ff3e::", 32, 0, {{1, A}, {30, F}}},
      {"::", "ff3e::1", 128, 0, {{1, A}, {20, F}}},
      {"2001:db8::1", "ff3e::1", 256, 0, {{1, A}, {10, F}}}},
     1,
     "2001:db8::1",
     "ff3e::1",
     forwarded,
     {10},
     0,
     0},
    {"another source takes (*,G)",
     {{"::", "ff3e::", 32, 0, {{1, A}, {30, F}}},
      {"::", "ff3e::1", 128, 0, {{1, A}, {20, F}}},
      {"2001:db8::1", "ff3e::1", 256, 0, {{1, A}, {10, F}}}},
     1,
     "2001:db8::2",
     "ff3e::1",
     forwarded,
     {20},
     0,
     0},
    {"another group takes (*,G/m)",
     {{"::", "ff3e::", 32, 0, {{1, A}, {30, F}}}, {"::", "ff3e::1", 128, 0, {{1, A}, {20, F}}}},
     1,
     "2001:db8::2",
     "ff3e:0::2",
     forwarded,
     {30},
     0,
     0},
    {"a group outside every range",
     {{"::", "ff3e::", 32, 0, {{1, A}, {30, F}}}},
     1,
     "2001:db8::2",
     "ff3e:1::2",
     no_route,
     {},
     0,
     0},
    {"drop",
     {{"::", "ff00::", 8, MRIB_ROUTE_DROP, {{1, A}, {2, F}}}},
     1,
     "2001:db8::2",
     "ff3e::2",
     dropped,
     {},
     0,
     0},
    {"signal by route",
     {{"::", "ff00::", 8, MRIB_ROUTE_SIGNAL, {{1, A}, {2, F}}}},
     1,
     "2001:db8::2",
     "ff3e::2",
     forwarded,
     {2},
     1,
     0},
    {"signal turned round by the interface",
     {{"::", "ff00::", 8, MRIB_ROUTE_SIGNAL, {{1, A | N}, {2, F}}}},
     1,
     "2001:db8::2",
     "ff3e::2",
     forwarded,
     {2},
     0,
     0},
    {"signal by the interface alone, on the wrong one",
     {{"::", "ff00::", 8, 0, {{1, A}, {2, F | N}}}},
     2,
     "2001:db8::2",
     "ff3e::2",
     wrong_intf,
     {},
     1,
     0},
    {"a copy for the node",
     {{"::", "ff00::", 8, 0, {{1, A}, {2, L}}}},
     1,
     "2001:db8::2",
     "ff3e::2",
     forwarded,
     {},
     0,
     1},
    {"accept inherited from the parent",
     {{"::", "ff3e::", 16, MRIB_ROUTE_IF, {{5, A}}},
      {"2001:db8::1", "ff3e::1", 256, MRIB_ROUTE_IA, {{2, F}}, 0}},
     5,
     "2001:db8::1",
     "ff3e::1",
     forwarded,
     {2},
     0,
     0},
    {"a parent without inherit accept is not asked",
     {{"::", "ff3e::", 16, MRIB_ROUTE_IF, {{5, A}}},
      {"2001:db8::1", "ff3e::1", 256, 0, {{2, F}}, 0}},
     5,
     "2001:db8::1",
     "ff3e::1",
     wrong_intf,
     {},
     0,
     0},
    {"accept inherited beside one's own",
     {{"::", "ff3e::", 16, MRIB_ROUTE_IF, {{5, A}}},
      {"2001:db8::1", "ff3e::1", 256, MRIB_ROUTE_IA, {{1, A}, {2, F}}, 0}},
     5,
     "2001:db8::1",
     "ff3e::1",
     forwarded,
     {2},
     0,
     0},
    {"several accepting interfaces, by the second",
     {{"2001:db8::1", "ff3e::1", 256, 0, {{1, A}, {3, A}, {2, F}}}},
     3,
     "2001:db8::1",
     "ff3e::1",
     forwarded,
     {2},
     0,
     0},
    {"(*,G) from several interfaces that are outputs, too",
     {{"::", "ff3e::1", 128, 0, {{1, A | F}, {2, A | F}, {3, A | F}}}},
     2,
     "2001:db8::1",
     "ff3e::1",
     forwarded,
     {1, 3},
     0,
     0},
    {"(S,G) that drops under a (*,G) that forwards",
     {{"::", "ff3e::1", 128, 0, {{1, A}, {2, F}}},
      {"2001:db8::1", "ff3e::1", 256, MRIB_ROUTE_DROP, {{1, A}, {2, F}}}},
     1,
     "2001:db8::1",
     "ff3e::1",
     dropped,
     {},
     0,
     0},
    {"a (*,G) that signals and forwards",
     {{"::", "ff3e::1", 128, MRIB_ROUTE_SIGNAL, {{1, A}, {2, F}}}},
     1,
     "2001:db8::1",
     "ff3e::1",
     forwarded,
     {2},
     1,
     0},
    {"an (S,G) that signals and drops",
     {{"2001:db8::1", "ff3e::1", 256, MRIB_ROUTE_SIGNAL | MRIB_ROUTE_DROP, {{1, A}, {2, F}}}},
     1,
     "2001:db8::1",
     "ff3e::1",
     dropped,
     {},
     1,
     0},
    {"an (S,G) without an accepting interface",
     {{"2001:db8::1", "ff3e::1", 256, 0, {{1, F}, {2, F}}}},
     1,
     "2001:db8::1",
     "ff3e::1",
     wrong_intf,
     {},
     0,
     0},
    {"a copy for the node from an (S,G)",
     {{"2001:db8::1", "ff3e::1", 256, 0, {{1, A}, {2, F}, {3, L}}}},
     1,
     "2001:db8::1",
     "ff3e::1",
     forwarded,
     {2},
     0,
     1},
};

}  // namespace forwarding

#endif
