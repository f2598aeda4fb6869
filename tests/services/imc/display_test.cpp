#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "services/imc/imc.h"

namespace {

TEST(imc_display, copies_what_fits) {
    char buffer[64];
    EXPECT_STREQ(imc_display_namestring("eth0.100", buffer, sizeof buffer, 1), "eth0.100");
    EXPECT_EQ(imc_display_namestring("eth0", buffer, 4, 1), buffer);
    EXPECT_STREQ(buffer, "eth");
    EXPECT_STREQ(imc_display_namestring("eth0", buffer, 1, 1), "");
}

TEST(imc_display, replaces_what_cannot_be_printed_if_asked_to) {
    char buffer[64];
    EXPECT_STREQ(imc_display_namestring("a\x01 \x7f\xc3z", buffer, sizeof buffer, 1), "a????z");
    EXPECT_STREQ(imc_display_namestring("a\x01z", buffer, sizeof buffer, 0), "a\x01z");
}

TEST(imc_display, needs_no_terminator_at_the_full_length) {
    char name[IMC_NAME_SIZE];
    char buffer[128];
    std::memset(name, 'n', sizeof name);
    EXPECT_EQ(imc_display_namestring(name, buffer, sizeof buffer, 1), std::string(64, 'n'));
    EXPECT_EQ(imc_display_namestring(name, buffer, 64, 1), std::string(63, 'n'));
}

TEST(imc_display, has_an_answer_for_null) {
    char buffer[64];
    EXPECT_STREQ(imc_display_namestring(nullptr, buffer, sizeof buffer, 1), "Unknown");
    EXPECT_EQ(imc_display_namestring("eth0", nullptr, 64, 1), nullptr);
    EXPECT_EQ(imc_display_namestring("eth0", buffer, 0, 1), nullptr);
}

}  // namespace
