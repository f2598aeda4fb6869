#include "apps/mfwd6d/config/document.h"

#include <gtest/gtest.h>

#include <map>

namespace config = mfwd6::config;

namespace {

// Files that are only there in the test.
struct files {
    std::map<std::string, std::string> texts;
    std::map<std::string, std::vector<std::string>> patterns;

    config::file_reader reader() {
        return {[this](const std::string &path, std::string *text) -> std::string {
                    const auto at = texts.find(path);
                    if (at == texts.end())
                        return "No such file or directory";
                    *text = at->second;
                    return "";
                },
                [this](std::string_view pattern, const std::string &,
                       std::vector<std::string> *paths) -> std::string {
                    const auto at = patterns.find(std::string(pattern));
                    if (at != patterns.end())
                        *paths = at->second;
                    return "";
                }};
    }
};

// "" or the error.
std::string read(const std::string &text, config::document *d) {
    files f;
    f.texts["c"] = text;
    std::string error;
    return config::read_document("c", f.reader(), d, &error) ? "" : error;
}

std::string error_of(const std::string &text) {
    config::document d;
    return read(text, &d);
}

TEST(Document, TakesAllKindsOfLines) {
    config::document d;
    EXPECT_EQ(read("# a router\n"
                   "phyint eth0 enable ttl-threshold 3\r\n"
                   "phyint eth1 disable\n"
                   "vrf red table 7 interface eth6 eth7\n"
                   "mgroup from eth0 group ff3e::1\n"
                   "mroute from eth0 source 2001:db8::1 group ff3e::1 to eth1 eth2\n"
                   "mroute vrf red signal from eth6 group ff3e::/96 to eth7\n"
                   "boundary eth2 group ff05::/16\n"
                   "boundary eth2 group ff15::/16",
                   &d),
              "");
    EXPECT_EQ(d.vrfs.at("red").table_id, 7U);
    EXPECT_EQ(d.vrfs.at("red").interfaces, (std::set<std::string>{"eth6", "eth7"}));
    EXPECT_EQ(d.interfaces.at("eth0").ttl, 3);
    EXPECT_EQ(d.interfaces.at("eth0").enabled, config::switch_word::enable);
    EXPECT_EQ(d.interfaces.at("eth1").enabled, config::switch_word::disable);
    EXPECT_EQ(d.interfaces.at("eth2").boundary.size(), 2U);
    EXPECT_EQ(d.joins.size(), 1U);
    EXPECT_EQ(d.routes.size(), 2U);
    for (const auto &[key, wish] : d.routes)
        EXPECT_EQ(wish.where.text(), key.vrf == "red" ? "c:7" : "c:6");
}

TEST(Document, ItsTextMakesItAgain) {
    config::document d;
    ASSERT_EQ(read("vrf red table 7 interface eth6 eth7\n"
                   "phyint eth0 enable ttl-threshold 3\n"
                   "boundary eth2 group ff05::/16\n"
                   "mgroup from eth+ source 2001:db8::1 group ff3e::1\n"
                   "mroute drop from eth0 group ff3e::9\n"
                   "mroute vrf red inherit-accept source 2001:db8::1 group ff3e::1 to eth7\n"
                   "mroute from eth0 group ff3e::/64 to eth1 eth2\n",
                   &d),
              "");
    config::document again;
    std::string error;
    ASSERT_TRUE(config::parse_document(config::document_text(d), "again", &again, &error)) << error;
    EXPECT_EQ(again.routes.size(), d.routes.size());
    for (const auto &[key, wish] : d.routes)
        EXPECT_TRUE(again.routes.at(key).asks_the_same(wish));
    EXPECT_EQ(again.joins, d.joins);
    EXPECT_EQ(again.vrfs.at("red").interfaces, d.vrfs.at("red").interfaces);
    EXPECT_EQ(again.interfaces.at("eth2").boundary, d.interfaces.at("eth2").boundary);
    EXPECT_EQ(again.interfaces.at("eth0").ttl, 3);
}

// Parts of a document whose lines came together to more than one line may hold.
TEST(Document, TextOfManyInterfacesMakesItAgain) {
    constexpr int count = 300;
    std::string all;
    for (int n = 0; n < count; ++n) {
        std::string name = "e";
        name += std::to_string(n);
        all += "vrf red table 7 interface " + name + "\n";
        all += "mroute from " + name + " group ff3e::1 to e0 x\n";
        all += "mroute inherit-accept group ff3e::2 to " + name + "\n";
    }
    config::document d;
    ASSERT_EQ(read(all, &d), "");
    ASSERT_EQ(d.routes.size(), 2U);
    config::document again;
    std::string error;
    ASSERT_TRUE(config::parse_document(config::document_text(d), "again", &again, &error)) << error;
    EXPECT_EQ(again.vrfs.at("red").interfaces.size(), size_t{count});
    ASSERT_EQ(again.routes.size(), 2U);
    for (const auto &[key, wish] : d.routes)
        EXPECT_TRUE(again.routes.at(key).asks_the_same(wish));
}

// A word that ends a list is the name of an interface only at its beginning.
TEST(Document, TextOfInterfacesNamedLikeKeywordsMakesItAgain) {
    config::document d;
    ASSERT_EQ(read("vrf red table 7 interface source a\n"
                   "vrf red table 7 interface group b\n"
                   "mroute from source a group ff3e::1 to group b\n"
                   "mroute from group c group ff3e::2 to x\n"
                   "mroute from source d group ff3e::2 to x\n"
                   "mroute inherit-accept group ff3e::3 to source a\n"
                   "mroute inherit-accept group ff3e::3 to group\n",
                   &d),
              "");
    config::document again;
    std::string error;
    ASSERT_TRUE(config::parse_document(config::document_text(d), "again", &again, &error)) << error;
    EXPECT_TRUE(again.same_but_routes(d));
    ASSERT_EQ(again.routes.size(), d.routes.size());
    for (const auto &[key, wish] : d.routes)
        EXPECT_TRUE(again.routes.at(key).asks_the_same(wish));
}

TEST(Document, AnInterfaceThatIsOnlyNamedIsInTheText) {
    config::document d;
    ASSERT_EQ(read("phyint eth0\n", &d), "");
    EXPECT_EQ(config::document_text(d), "phyint eth0\n");
}

TEST(Document, ErrorsNameFileLineAndReason) {
    EXPECT_EQ(error_of("\n\nmroute from eth0 group 225.1.2.3 to eth1\n"),
              "c:3: \"225.1.2.3\" is an IPv4 address: only IPv6 is routed here");
    EXPECT_EQ(error_of("no mroute group ff3e::1"),
              "c:1: \"no\" is for commands; leave the line out instead");
    EXPECT_EQ(error_of("mroute vrf red from eth0 group ff3e::1 to eth1\n"),
              "c:1: there is no VRF red");
    EXPECT_EQ(error_of("vrf red table 7\nvrf red table 8\n"),
              "c:2: VRF red has another table already (c:1)");
    EXPECT_EQ(error_of("vrf red table 7\n\nvrf blue table 7\n"),
              "c:3: table 7 is that of VRF red already (c:1)");
    EXPECT_EQ(error_of("vrf red table 7 interface eth0\nvrf blue table 8 interface eth0\n"),
              "c:2: interface eth0 is in VRF red already (c:1)");
    files f;
    config::document d;
    std::string error;
    EXPECT_FALSE(config::read_document("c", f.reader(), &d, &error));
    EXPECT_EQ(error, "c: No such file or directory");
}

// One route has one list of outputs. Lines that come to the same are one route.
TEST(Document, LinesOfOneKeyAreOneRoute) {
    config::document d;
    EXPECT_EQ(read("mroute from eth0 group ff3e::1 to eth1\n"
                   "mroute from eth1 group ff3e::1 to eth0\n"
                   "mroute from eth2 group ff3e::2 to eth0 eth1\n"
                   "mroute from eth3 group ff3e::2 to eth0 eth1\n",
                   &d),
              "");
    ASSERT_EQ(d.routes.size(), 2U);
    for (const auto &[key, wish] : d.routes) {
        EXPECT_EQ(wish.from.size(), 2U);
        EXPECT_EQ(wish.to, (std::set<std::string>{"eth0", "eth1"}));
    }
    const std::string reason =
        ": the same source and group are routed otherwise already (c:1), and one route has one "
        "list of outputs for all its inbound interfaces";
    EXPECT_EQ(error_of("mroute from eth0 group ff3e::1 to eth2\n"
                       "mroute from eth1 group ff3e::1 to eth3\n"),
              "c:2" + reason);
    EXPECT_EQ(error_of("mroute from eth0 group ff3e::1 to eth2\n"
                       "mroute signal from eth0 group ff3e::1 to eth2\n"),
              "c:2" + reason);
}

TEST(Document, IncludesOtherFiles) {
    files f;
    f.texts["c"] = "include d/*.conf\nmroute from eth0 group ff3e::3 to eth1\ninclude none*\n";
    f.texts["d/1.conf"] = "mroute from eth0 group ff3e::1 to eth1\n";
    f.texts["d/2.conf"] = "mroute from eth0 group ff3e::2 to eth1\nbad\n";
    f.patterns["d/*.conf"] = {"d/1.conf"};
    config::document d;
    std::string error;
    ASSERT_TRUE(config::read_document("c", f.reader(), &d, &error)) << error;
    EXPECT_EQ(d.routes.size(), 2U);
    EXPECT_EQ(d.warnings, std::vector<std::string>{"c:3: no file is named none*"});
    f.patterns["d/*.conf"] = {"d/1.conf", "d/2.conf"};
    EXPECT_FALSE(config::read_document("c", f.reader(), &d, &error));
    EXPECT_EQ(error, "d/2.conf:2: unknown keyword \"bad\"");
    f.texts["c"] = "include c\n";
    f.patterns["c"] = {"c"};
    EXPECT_FALSE(config::read_document("c", f.reader(), &d, &error));
    EXPECT_EQ(error, "c:1: more than 8 files include one another");
    EXPECT_FALSE(config::parse_document("include c\n", "text", &d, &error));
    EXPECT_EQ(error, "text:1: include is for files");
}

// Each of a few files includes the next one many times.
TEST(Document, IncludesInAllAreLimited) {
    files f;
    const auto name = [](uint32_t n) { return std::string("c").append(std::to_string(n)); };
    for (uint32_t n = 0; n < config::include_depth; ++n)
        for (int i = 0; i < 100; ++i)
            f.texts[name(n)] += "include " + name(n + 1) + "\n";
    for (uint32_t n = 0; n <= config::include_depth; ++n)
        f.patterns[name(n)] = {name(n)};
    f.texts[name(config::include_depth)] = "";
    config::document d;
    std::string error;
    EXPECT_FALSE(config::read_document("c0", f.reader(), &d, &error));
    EXPECT_NE(error.find("more than 4096 files are included"), std::string::npos) << error;
}

}  // namespace
