#include "apps/mfwd6d/config/scan.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace config = mfwd6::config;

namespace {

TEST(Words, AreParted) {
    struct {
        const char *text;
        std::vector<std::string> words;
    } const rows[] = {
        {"", {}},
        {" \t\r", {}},
        {"# all of it", {}},
        {"one", {"one"}},
        {" one\ttwo  three # four", {"one", "two", "three"}},
        {"a#b", {"a#b"}},  // within a word it is no comment
        {"one\r", {"one"}},
    };
    for (const auto &row : rows) {
        config::words in(row.text);
        std::vector<std::string> got;
        while (!in.end())
            got.emplace_back(in.take());
        EXPECT_EQ(got, row.words) << row.text;
    }
}

TEST(Numbers, AreReadWithinBounds) {
    uint32_t number = 77;
    EXPECT_TRUE(config::parse_number("0", 0, 10, &number));
    EXPECT_EQ(number, 0U);
    EXPECT_TRUE(config::parse_number("0010", 0, 10, &number));
    EXPECT_EQ(number, 10U);
    EXPECT_TRUE(config::parse_number("4294967295", 0, UINT32_MAX, &number));
    EXPECT_EQ(number, UINT32_MAX);
    for (const char *bad :
         {"", "-1", "+1", "1a", " 1", "11", "18446744073709551616", "99999999999999999999999999"})
        EXPECT_FALSE(config::parse_number(bad, 0, 10, &number)) << bad;
    EXPECT_FALSE(config::parse_number("3", 4, 10, &number));
    EXPECT_EQ(number, UINT32_MAX);
}

// The system's own reader says what is right.
void compare(const std::string &text) {
    ip_maddr_st ours{};
    ip_maddr_st theirs{};
    const bool expected = inet_pton(AF_INET6, text.c_str(), &theirs) == 1;
    const bool got = config::parse_ipv6(text, &ours);
    ASSERT_EQ(got, expected) << '"' << text << '"';
    if (got) {
        ASSERT_EQ(std::memcmp(&ours, &theirs, sizeof(ours)), 0) << '"' << text << '"';
    }
}

TEST(Addresses, ListedFormsAreReadAsTheSystemDoes) {
    for (const char *text : {"::",
                             "::1",
                             "1::",
                             "ff3e::1",
                             "2001:db8:1:2:3:4:5:6",
                             "1:2:3:4:5:6:7::",
                             "::2:3:4:5:6:7:8",
                             "1::8",
                             "FFFF::aBcD",
                             "::ffff:1.2.3.4",
                             "1:2:3:4:5:6:1.2.3.4",
                             "::1.2.3.4",
                             "1::1.2.3.4",
                             "",
                             ":",
                             ":::",
                             "1",
                             "1:",
                             ":1",
                             "1:2:3:4:5:6:7",
                             "1:2:3:4:5:6:7:8:9",
                             "1::2::3",
                             "12345::",
                             "g::",
                             "1:2:3:4:5:6:7:8::",
                             "::1:2:3:4:5:6:7:8",
                             "1:2:3:4:5:6:7:1.2.3.4",
                             "::1.2.3",
                             "::1.2.3.4.5",
                             "::256.1.1.1",
                             "::01.2.3.4",
                             "::1.2.3.4:1",
                             "::1..2.3",
                             "1.2.3.4",
                             "::%eth0",
                             "::1/64",
                             " ::1",
                             "::1 ",
                             "0:0:0:0:0:0:0:0",
                             "::0000",
                             "::00000",
                             "1:2::3:4:5:6:7:8"})
        compare(text);
}

TEST(Addresses, RandomTextsAreReadAsTheSystemDoes) {
    std::mt19937 random(5);
    constexpr char alphabet[] = "0123456789abcdef::::...:1f";
    for (int n = 0; n < 200000; ++n) {
        std::string text;
        for (auto length = random() % 24; length > 0; --length)
            text += alphabet[random() % (sizeof(alphabet) - 1)];
        compare(text);
    }
}

TEST(Addresses, RandomAddressesComeBack) {
    std::mt19937 random(6);
    for (int n = 0; n < 20000; ++n) {
        in6_addr address{};
        for (uint16_t &word : address.s6_addr16)
            word = random() % 3 == 0 ? uint16_t{0} : static_cast<uint16_t>(random());
        char text[INET6_ADDRSTRLEN];
        inet_ntop(AF_INET6, &address, text, sizeof(text));
        ip_maddr_st got{};
        ASSERT_TRUE(config::parse_ipv6(text, &got)) << text;
        ASSERT_EQ(std::memcmp(&got, &address, sizeof(got)), 0) << text;
    }
}

TEST(Addresses, BitsBehindALengthAreCleared) {
    for (uint32_t length = 0; length <= 128; ++length) {
        ip_maddr_st address{};
        std::memset(&address, 0xff, sizeof(address));
        config::clear_behind(&address, length);
        for (uint32_t bit = 0; bit < 128; ++bit) {
            const bool set = (address.bytes[bit / 8] >> (7 - bit % 8) & 1) != 0;
            ASSERT_EQ(set, bit < length) << length << " " << bit;
        }
    }
}

TEST(Addresses, Ipv4IsTold) {
    EXPECT_TRUE(config::looks_like_ipv4("225.1.2.3"));
    EXPECT_TRUE(config::looks_like_ipv4("225.0.0.0/24"));
    EXPECT_FALSE(config::looks_like_ipv4("::1.2.3.4"));
    EXPECT_FALSE(config::looks_like_ipv4("1.2.3"));
    EXPECT_FALSE(config::looks_like_ipv4("eth0.1"));
}

}  // namespace
