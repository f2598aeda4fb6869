#include "apps/mfwd6d/config/line.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace config = mfwd6::config;

namespace {

// What a line is read as, in its shortest form; "!" and the reason when it is refused.
std::string read(const std::string &text) {
    static config::line l;  // on purpose: what one line leaves must not show in the next
    std::string reason;
    return config::parse_line(text, &l, &reason) ? config::line_text(l) : "!" + reason;
}

struct row {
    const char *text;
    const char *expected;
};

void check(const std::vector<row> &rows) {
    for (const row &r : rows)
        EXPECT_EQ(read(r.text), r.expected) << r.text;
}

TEST(Line, WithoutContents) {
    check({{"", ""}, {"   \t", ""}, {"# mroute from eth0", ""}, {" # x", ""}});
}

TEST(Line, Mroute) {
    check({
        {"mroute from eth0 group ff3e::1 to eth1", "mroute from eth0 group ff3e::1 to eth1"},
        {"mroute from eth0 source 2001:db8::1 group ff3e::1 to eth1 eth2",
         "mroute from eth0 source 2001:db8::1 group ff3e::1 to eth1 eth2"},
        {"  mroute\tfrom eth0 eth1   group FF3E:0::1/128 to eth2 # all of it",
         "mroute from eth0 eth1 group ff3e::1 to eth2"},
        {"mroute from eth0 group ff3e::/96 to eth1", "mroute from eth0 group ff3e::/96 to eth1"},
        // Bits behind the length do not count.
        {"mroute from eth0 group ff3e::77/96 to eth1", "mroute from eth0 group ff3e::/96 to eth1"},
        {"mroute from eth0 source :: group ff3e::1 to eth1",
         "mroute from eth0 group ff3e::1 to eth1"},
        {"mroute from eth0 source ::/0 group ff3e::1 to eth1",
         "mroute from eth0 group ff3e::1 to eth1"},
        {"mroute from eth0 source 2001:db8::1/128 group ff3e::1 to eth1",
         "mroute from eth0 source 2001:db8::1 group ff3e::1 to eth1"},
        {"mroute from eth+ group ff05::1 to wan", "mroute from eth+ group ff05::1 to wan"},
        {"mroute vrf red inherit-accept from eth0 source 2001:db8::1 group ff3e::1 to eth1",
         "mroute vrf red inherit-accept from eth0 source 2001:db8::1 group ff3e::1 to eth1"},
        {"mroute vrf default drop signal from eth0 group ff3e::1",
         "mroute signal drop from eth0 group ff3e::1"},
        {"mroute inherit-accept source 2001:db8::1 group ff3e::1 to eth1",
         "mroute inherit-accept source 2001:db8::1 group ff3e::1 to eth1"},
        {"mroute from eth0.100 group ff3e::1 to br-lan@x",
         "mroute from eth0.100 group ff3e::1 to br-lan@x"},
        {"mroute from eth0 group ff00::/8 to eth1", "mroute from eth0 group ff00::/8 to eth1"},
        // A keyword can be the name of an interface where only one can stand.
        {"mroute from to group ff3e::1 to from", "mroute from to group ff3e::1 to from"},
    });
}

TEST(Line, MrouteRefused) {
    check({
        {"mroute", "!expected \"from\" at the end of the line"},
        {"mroute eth0 group ff3e::1 to eth1", "!expected \"from\", found \"eth0\""},
        {"mroute from", "!the name of an interface is missing"},
        {"mroute from eth0", "!expected \"group\" at the end of the line"},
        {"mroute from eth0 group", "!the group is missing"},
        {"mroute from eth0 group ff3e::1", "!expected \"to\" at the end of the line"},
        {"mroute from eth0 group ff3e::1 to", "!the name of an interface is missing"},
        {"mroute from eth0 group ff3e::1 towards eth1", "!expected \"to\", found \"towards\""},
        {"mroute from eth0 group 225.1.2.3 to eth1",
         "!\"225.1.2.3\" is an IPv4 address: only IPv6 is routed here"},
        {"mroute from eth0 group 225.0.0.0/24 to eth1",
         "!\"225.0.0.0/24\" is an IPv4 address: only IPv6 is routed here"},
        {"mroute from eth0 source 192.168.1.42 group ff3e::1 to eth1",
         "!\"192.168.1.42\" is an IPv4 address: only IPv6 is routed here"},
        {"mroute from eth0 group 2001:db8::1 to eth1",
         "!\"2001:db8::1\" is not within ff00::/8, the multicast addresses"},
        {"mroute from eth0 group ff00::/7 to eth1",
         "!\"ff00::/7\" is not within ff00::/8, the multicast addresses"},
        {"mroute from eth0 group ff02::1 to eth1",
         "!\"ff02::1\" has interface or link scope: no router forwards it"},
        {"mroute from eth0 group ff11::/16 to eth1",
         "!\"ff11::/16\" has interface or link scope: no router forwards it"},
        {"mroute from eth0 group ff3e::1/129 to eth1",
         "!\"ff3e::1/129\": the length must be a number from 0 to 128"},
        {"mroute from eth0 group ff3e::1/ to eth1",
         "!\"ff3e::1/\": the length must be a number from 0 to 128"},
        {"mroute from eth0 group nonsense to eth1", "!\"nonsense\" is no IPv6 address"},
        {"mroute from eth0 source ff3e::2 group ff3e::1 to eth1",
         "!\"ff3e::2\" is a multicast address, which no source has"},
        {"mroute from eth0 source 2001:db8::/64 group ff3e::1 to eth1",
         "!\"2001:db8::/64\": a route has one source or any; give each source, or leave it out"},
        {"mroute from eth0 source 2001:db8::1 group ff3e::/96 to eth1",
         "!a route with a source needs a group without a length"},
        {"mroute from eth0 group ff3e::1 to eth+",
         "!\"eth+\": names with '+' stand for inbound interfaces only"},
        {"mroute from sixteen-letters! group ff3e::1 to eth1",
         "!\"sixteen-letters!\" is no name of an interface"},
        {"mroute from a/b group ff3e::1 to eth1", "!\"a/b\" is no name of an interface"},
        {"mroute vrf", "!the name of the VRF is missing"},
        {"mroute signal", "!expected \"from\" at the end of the line"},
        {"no mroute from eth0", "!expected \"group\" at the end of the line"},
    });
}

TEST(Line, NoMrouteNeedsOnlyTheKey) {
    check({
        {"no mroute group ff3e::1", "no mroute group ff3e::1"},
        {"no mroute source 2001:db8::1 group ff3e::1",
         "no mroute source 2001:db8::1 group ff3e::1"},
        {"no mroute from eth0 group ff3e::1 to eth1", "no mroute from eth0 group ff3e::1 to eth1"},
        {"no mroute vrf red group ff3e::/64", "no mroute vrf red group ff3e::/64"},
    });
}

TEST(Line, Phyint) {
    check({
        {"phyint eth0", "phyint eth0"},
        {"phyint eth0 enable", "phyint eth0 enable"},
        {"phyint eth0 disable", "phyint eth0 disable"},
        {"phyint eth0 enable mrdisc ttl-threshold 11", "phyint eth0 enable ttl-threshold 11"},
        {"phyint eth0 ttl-threshold 255", "phyint eth0 ttl-threshold 255"},
        {"no phyint eth0", "no phyint eth0"},
        {"phyint", "!the name of an interface is missing"},
        {"phyint eth+ enable", "!\"eth+\": names with '+' stand for inbound interfaces only"},
        {"phyint eth0 ttl-threshold", "!ttl-threshold takes a number from 1 to 255"},
        {"phyint eth0 ttl-threshold 0", "!ttl-threshold takes a number from 1 to 255"},
        {"phyint eth0 ttl-threshold 256", "!ttl-threshold takes a number from 1 to 255"},
        {"phyint eth0 igmpv3", "!unexpected \"igmpv3\""},
    });
}

TEST(Line, Mgroup) {
    check({
        {"mgroup from eth0 group ff3e::1", "mgroup from eth0 group ff3e::1"},
        {"mgroup from eth0 source 2001:db8::1 group ff3e::1",
         "mgroup from eth0 source 2001:db8::1 group ff3e::1"},
        {"mgroup from eth0 source 2001:db8::/124 group ff3e::/120",
         "mgroup from eth0 source 2001:db8::/124 group ff3e::/120"},
        {"mgroup vrf red from eth+ group ff3e::1", "mgroup vrf red from eth+ group ff3e::1"},
        {"no mgroup from eth0 group ff3e::1", "no mgroup from eth0 group ff3e::1"},
        {"mgroup eth0 group ff3e::1", "!expected \"from\", found \"eth0\""},
        {"mgroup from eth0 eth1 group ff3e::1", "!expected \"group\", found \"eth1\""},
        {"mgroup from eth0 group 225.1.2.3",
         "!\"225.1.2.3\" is an IPv4 address: only IPv6 is routed here"},
        {"mgroup from eth0 group ff3e::/115", "!that would be more than 4096 groups to join"},
        {"mgroup from eth0 source 2001:db8::/64 group ff3e::1",
         "!that would be more than 4096 groups to join"},
        {"mgroup from eth0 group ff3e::1 to eth1", "!unexpected \"to\""},
    });
}

TEST(Line, Vrf) {
    check({
        {"vrf red table 7", "vrf red table 7"},
        {"vrf red table 8191 interface eth0 eth1", "vrf red table 8191 interface eth0 eth1"},
        {"no vrf red", "no vrf red"},
        {"no vrf red table 7", "no vrf red table 7"},
        {"vrf", "!the name of the VRF is missing"},
        {"vrf red", "!expected \"table\" at the end of the line"},
        {"vrf red table", "!table takes a number from 1 to 8191 other than 253, 254 and 255"},
        {"vrf red table 0", "!table takes a number from 1 to 8191 other than 253, 254 and 255"},
        {"vrf red table 254", "!table takes a number from 1 to 8191 other than 253, 254 and 255"},
        {"vrf red table 8192", "!table takes a number from 1 to 8191 other than 253, 254 and 255"},
        {"vrf default table 7", "!the VRF \"default\" is always there"},
        {"vrf red table 7 interface", "!the name of an interface is missing"},
        {"vrf red table 7 eth0", "!expected \"interface\", found \"eth0\""},
        {"vrf a-name-that-is-longer-than-31-bytes table 7",
         "!\"a-name-that-is-longer-than-31-bytes\" is no name of a VRF"},
    });
}

TEST(Line, BoundaryAndInclude) {
    check({
        {"boundary eth0 group ff05::/16", "boundary eth0 group ff05::/16"},
        {"no boundary eth0 group ff05::/16", "no boundary eth0 group ff05::/16"},
        {"boundary eth0", "!expected \"group\" at the end of the line"},
        {"include /etc/mfwd6.d/*.conf", "include /etc/mfwd6.d/*.conf"},
        {"include", "!the path is missing"},
        {"include a b", "!unexpected \"b\""},
        {"no include a", "!\"no\" does not go with include"},
    });
}

TEST(Line, UnknownThings) {
    check({
        {"route", "!unknown keyword \"route\""},
        {"no", "!\"no\" needs a line behind it"},
        {"no no mroute group ff3e::1", "!unknown keyword \"no\""},
        {"\x01\x80", "!unknown keyword \"??\""},
    });
    EXPECT_EQ(read(std::string(4097, ' ')), "!the line is longer than 4096 bytes");
    EXPECT_EQ(read(std::string(4096, ' ')), "");
    EXPECT_EQ(read(std::string("mroute\0", 7)), "!unknown keyword \"mroute?\"");
}

TEST(Line, ListsHaveAnEnd) {
    std::string text = "mroute from eth0 group ff3e::1 to";
    for (int n = 0; n < 256; ++n)
        text += " e" + std::to_string(n);
    EXPECT_EQ(read(text), text);
    EXPECT_EQ(read(text + " one-more"), "!more than 256 interfaces");
}

// What is read is written, and read again the same; nothing else happens with any text.
TEST(Line, RandomWordsNeverConfuseIt) {
    const char *const words[] = {
        "mroute",  "mgroup",        "phyint",      "vrf",    "boundary",
        "no",      "from",          "to",          "source", "group",
        "table",   "interface",     "eth0",        "eth1",   "eth+",
        "ff3e::1", "ff3e::/96",     "2001:db8::1", "7",      "enable",
        "disable", "ttl-threshold", "signal",      "drop",   "inherit-accept",
        "include", "225.1.2.3",     "#",           "\xff",   ""};
    std::mt19937 random(3);
    int accepted = 0;
    for (int n = 0; n < 200000; ++n) {
        std::string text;
        for (auto count = random() % 10; count > 0; --count) {
            text += words[random() % std::size(words)];
            text += ' ';
        }
        const std::string once = read(text);
        ASSERT_FALSE(once == "!");
        if (once.empty() || once[0] == '!')
            continue;
        ++accepted;
        ASSERT_EQ(read(once), once) << text;
    }
    EXPECT_GT(accepted, 100);
}

// The shortest form of an address can be longer than what was given.
TEST(Line, ThatWouldBeTooLongWhenWrittenIsRefused) {
    const auto line = [](const std::string &source, size_t bytes) {
        std::string text = "mroute from a source " + source + " group ff3e::1 to";
        while (text.size() + 16 < bytes)
            text += " interface-12345";
        return text + " " + std::string(bytes - text.size() - 1, 'x');
    };
    EXPECT_EQ(read(line("::ffff:fffe", config::line_bytes)), "!the line is longer than 4096 bytes");
    EXPECT_EQ(read(line("::ffff:fffe", config::line_bytes - 6)).size(), config::line_bytes);
    EXPECT_EQ(read(line("2001:db8::1", config::line_bytes)).size(), config::line_bytes);
}

}  // namespace
