// Link messages, as the kernel writes them and as it never would.
#include <gtest/gtest.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <cstring>

#include "services/imc/imc.h"
#include "services/imc/rtnl/link.h"
#include "tests/services/imc/link_message.h"

namespace {

using mfwd6::imc_rtnl::link;
using mfwd6::imc_rtnl::read_link;
using mfwd6::imc_rtnl::type_of;
using rtnl_test::message;

TEST(rtnl_link, kinds_have_their_types) {
    const struct {
        const char *kind;
        uint16_t hardware;
        uint16_t type;
    } rows[] = {
        {"", ARPHRD_ETHER, IMC_TYPE_PHYSICAL},
        {"veth", ARPHRD_ETHER, IMC_TYPE_PHYSICAL},
        {"dummy", ARPHRD_ETHER, IMC_TYPE_PHYSICAL},
        {"vlan", ARPHRD_ETHER, IMC_TYPE_SUBINTERFACE},
        {"bridge", ARPHRD_ETHER, IMC_TYPE_BVI},
        {"bond", ARPHRD_ETHER, IMC_TYPE_BUNDLE},
        {"gretap", ARPHRD_ETHER, IMC_TYPE_TUNNEL},
        {"ip6tnl", ARPHRD_TUNNEL6, IMC_TYPE_TUNNEL},
        {"wireguard", ARPHRD_NONE, IMC_TYPE_TUNNEL},
        {"ppp", ARPHRD_PPP, IMC_TYPE_PPPOE},
        {"", ARPHRD_PPP, IMC_TYPE_PPPOE},
        {"", ARPHRD_LOOPBACK, IMC_TYPE_LOOPBACK},
        {"vrf", ARPHRD_ETHER, IMC_TYPE_VRF},
        {"something", ARPHRD_NONE, IMC_TYPE_OTHER},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(type_of({1, row.hardware, "x", row.kind, 0}), row.type) << row.kind;
    }
}

TEST(rtnl_link, all_is_read_from_a_message) {
    message m(7, ARPHRD_ETHER);
    m.name("eth0.5").kind("vlan").below(3);
    link l{};
    ASSERT_TRUE(read_link(m.head(), &l));
    EXPECT_EQ(l.index, 7U);
    EXPECT_EQ(l.hardware, ARPHRD_ETHER);
    EXPECT_STREQ(l.name, "eth0.5");
    EXPECT_STREQ(l.kind, "vlan");
    EXPECT_EQ(l.below, 3U);
}

TEST(rtnl_link, the_link_below_counts_only_in_this_namespace_and_is_never_a_peer) {
    link l{};
    message away(7, ARPHRD_ETHER);
    ASSERT_TRUE(read_link(away.below(3).elsewhere().kind("macvlan").head(), &l));
    EXPECT_EQ(l.below, 0U);
    message peer(7, ARPHRD_ETHER);
    ASSERT_TRUE(read_link(peer.below(3).kind("veth").head(), &l));
    EXPECT_EQ(l.below, 0U);
    message itself(7, ARPHRD_ETHER);
    ASSERT_TRUE(read_link(itself.below(7).head(), &l));
    EXPECT_EQ(l.below, 0U);
}

TEST(rtnl_link, what_is_no_link_is_passed_over) {
    link l{};
    message address(7, ARPHRD_ETHER, RTM_NEWADDR);
    EXPECT_FALSE(read_link(address.head(), &l));
    message zero(0, ARPHRD_ETHER);
    EXPECT_FALSE(read_link(zero.head(), &l));
    message port(7, ARPHRD_ETHER);
    port.info()->ifi_family = AF_BRIDGE;
    EXPECT_FALSE(read_link(port.head(), &l));
    message cut(7, ARPHRD_ETHER);
    cut.head()->nlmsg_len = NLMSG_HDRLEN + 4;
    EXPECT_FALSE(read_link(cut.head(), &l));
}

TEST(rtnl_link, damaged_attributes_are_passed_over) {
    message m(7, ARPHRD_ETHER);
    mnl_attr_put(m.head(), IFLA_IFNAME, 3, "abc");  // no terminator
    mnl_attr_put(m.head(), IFLA_LINK, 2, "ab");
    nlattr *const nest = mnl_attr_nest_start(m.head(), IFLA_LINKINFO);
    mnl_attr_put(m.head(), IFLA_INFO_KIND, 2, "xy");
    mnl_attr_nest_end(m.head(), nest);
    link l{};
    ASSERT_TRUE(read_link(m.head(), &l));
    EXPECT_EQ(l.name, nullptr);
    EXPECT_STREQ(l.kind, "");
    EXPECT_EQ(l.below, 0U);
}

}  // namespace
