#include "tests/e2e/rows.h"

namespace e2e {
namespace {

const std::string g1 = "ff3e::8000:1";
const std::string g2 = "ff3e::8000:2";
const std::string range = "ff3e::8000:0/112";
const std::string wide = "ff3e:0:0:0:0:9::/96";
const std::string s1 = s1_address;
const std::string s2 = s2_address;
constexpr char dflt[] = "default";

const std::vector<row> all = {
    {"(S,G) reaches two of three receivers",
     {{dflt, s1, g1, {"s1"}, {"r1", "r2"}, {}}},
     {{"s1", s1, g1, {"r1", "r2"}}}},
    {"(S,G) does not take another source",
     {{dflt, s1, g1, {"s1"}, {"r1"}, {}}},
     {{"s2", s2, g1, {}}, {"s1", s1, g1, {"r1"}}}},
    {"(S,G) does not take another group",
     {{dflt, s1, g1, {"s1"}, {"r1"}, {}}},
     {{"s1", s1, g2, {}}}},
    {"(S,G) does not take packets from another interface",
     {{dflt, s1, g1, {"s1"}, {"r1"}, {}}},
     {{"s2", s1, g1, {}}, {"s1", s1, g1, {"r1"}}}},
    {"(*,G) takes two sources",
     {{dflt, "", g1, {"s1", "s2"}, {"r1", "r3"}, {}}},
     {{"s1", s1, g1, {"r1", "r3"}}, {"s2", s2, g1, {"r1", "r3"}}}},
    {"(*,G) accepts only from its interfaces",
     {{dflt, "", g1, {"s1"}, {"r1"}, {}}},
     {{"s2", s2, g1, {}}, {"s1", s1, g1, {"r1"}}}},
    {"a packet does not leave where it came from",
     {{dflt, "", g1, {"s1", "r1"}, {"r1", "r2"}, {}}},
     {{"r1", "fd00:11::10", g1, {"r2"}}, {"s1", s1, g1, {"r1", "r2"}}}},
    {"a /96 takes groups as they appear",
     {{dflt, "", wide, {"s1"}, {"r2"}, {}}},
     {{"s1", s1, "ff3e::9:0:1", {"r2"}},
      {"s1", s1, "ff3e::9:0:2", {"r2"}},
      {"s1", s1, "ff3e::9:ffff:ffff", {"r2"}},
      {"s1", s1, "ff3e::a:0:1", {}}}},
    {"the longest range decides",
     {{dflt, "", wide, {"s1"}, {"r1"}, {}}, {dflt, "", "ff3e::9:8000:0/97", {"s1"}, {"r3"}, {}}},
     {{"s1", s1, "ff3e::9:0:1", {"r1"}}, {"s1", s1, "ff3e::9:8000:1", {"r3"}}}},
    {"(S,G) comes before (*,G), and both before a range",
     {{dflt, "", range, {"s1", "s2"}, {"r3"}, {}},
      {dflt, "", g1, {"s1", "s2"}, {"r2"}, {}},
      {dflt, s1, g1, {"s1"}, {"r1"}, {}}},
     {{"s1", s1, g1, {"r1"}}, {"s2", s2, g1, {"r2"}}, {"s2", s2, g2, {"r3"}}}},
    {"a route that inherits takes the accepting interfaces of its range",
     {{dflt, "", range, {"s1"}, {}, {}}, {dflt, s1, g1, {}, {"r1", "r2"}, {"inherit-accept"}}},
     {{"s1", s1, g1, {"r1", "r2"}}, {"s2", s1, g1, {}}}},
    {"a route that drops, inside a range that does not",
     {{dflt, "", range, {"s1"}, {"r1"}, {}}, {dflt, "", g1, {"s1"}, {"r1"}, {"drop"}}},
     {{"s1", s1, g1, {}}, {"s1", s1, g2, {"r1"}}}},
    {"the same source and group in two VRFs",
     {{dflt, s1, g1, {"s1"}, {"r1"}, {}}, {red_vrf, s1, g1, {"sred"}, {"rred"}, {}}},
     {{"s1", s1, g1, {"r1"}}, {"sred", sred_address, g1, {"rred"}}}},
    {"a VRF without the route does not borrow it",
     {{dflt, s1, g1, {"s1"}, {"r1"}, {}}},
     {{"sred", sred_address, g1, {}}, {"s1", s1, g1, {"r1"}}}},
};

}  // namespace

const std::vector<row> &rows() {
    return all;
}

}  // namespace e2e
