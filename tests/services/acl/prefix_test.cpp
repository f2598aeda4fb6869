#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "services/acl/ipv6_acl.h"

namespace {

std::string only(const char *address, uint32_t length) {
    uint8_t bytes[16];
    char text[INET6_ADDRSTRLEN];
    EXPECT_EQ(inet_pton(AF_INET6, address, bytes), 1);
    ipv6_prefix_only(bytes, length, bytes);
    return inet_ntop(AF_INET6, bytes, text, sizeof text);
}

TEST(prefix_only, keeps_the_bits_of_the_prefix) {
    EXPECT_EQ(only("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 0), "::");
    EXPECT_EQ(only("ff3e:1234::1", 16), "ff3e::");
    EXPECT_EQ(only("ff3e:1234::1", 20), "ff3e:1000::");
    EXPECT_EQ(only("ff3e:1234::1", 127), "ff3e:1234::");
    EXPECT_EQ(only("ff3e:1234::1", 128), "ff3e:1234::1");
    EXPECT_EQ(only("ff3e:1234::1", 1000), "ff3e:1234::1");
}

TEST(prefix_only, every_length_has_as_many_ones) {
    for (uint32_t length = 0; length <= 128; ++length) {
        uint8_t ones[16];
        std::memset(ones, 0xff, sizeof ones);
        uint8_t prefix[16];
        ipv6_prefix_only(ones, length, prefix);
        for (uint32_t bit = 0; bit < 128; ++bit) {
            EXPECT_EQ(prefix[bit / 8] >> (7 - bit % 8) & 1, bit < length ? 1 : 0);
        }
    }
}

}  // namespace
