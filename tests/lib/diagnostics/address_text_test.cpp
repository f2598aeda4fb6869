#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

const char *text_of_other_file(const ip_maddr_st *address);

namespace {

ip_maddr_st address(const char *text) {
    ip_maddr_st result{};
    EXPECT_EQ(inet_pton(AF_INET6, text, &result), 1);
    return result;
}

}  // namespace

TEST(AddressText, FiveStandBesideOneAnotherAndTheSixthReusesTheFirst) {
    const ip_maddr_st one = address("ff05::1");
    const ip_maddr_st two = address("ff05::2");
    const char *first = mlib::address_text(&one);
    const char *others[4];
    for (const char *&other : others) {
        other = mlib::address_text(&two);
    }
    EXPECT_STREQ(first, "ff05::1");
    for (const char *other : others) {
        EXPECT_NE(other, first);
        EXPECT_STREQ(other, "ff05::2");
    }
    EXPECT_EQ(mlib::address_text(&two), first);
    EXPECT_STREQ(first, "ff05::2");
}

TEST(AddressText, HoldsTheLongestAddress) {
    const ip_maddr_st longest = address("ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255");
    EXPECT_STREQ(mlib::address_text(&longest), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST(AddressText, EachFileHasARingOfItsOwn) {
    const ip_maddr_st one = address("ff05::1");
    const ip_maddr_st two = address("ff05::2");
    const char *here = mlib::address_text(&one);
    for (int i = 0; i < 10; ++i) {
        EXPECT_NE(text_of_other_file(&two), here);
    }
    EXPECT_STREQ(here, "ff05::1");
}

TEST(AddressText, AWildcardSourceIsAStar) {
    const ip_maddr_st any{};
    const ip_maddr_st one = address("2001:db8::1");
    EXPECT_STREQ(mlib::source_text(&any), "*");
    EXPECT_STREQ(mlib::source_text(&one), "2001:db8::1");
    EXPECT_STREQ(mlib::address_text(&any), "::");
    EXPECT_STREQ(mlib::address_text(nullptr), "");
}
