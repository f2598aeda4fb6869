#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "services/platform_info/platform_info.h"

namespace {

TEST(platform_names, are_made_of_type_node_and_the_numbers_given) {
    char name[255];
    EXPECT_EQ(platform_node_construct_ifname(name, sizeof name, "FINT", 513, -1, -1, -1, -1), 0U);
    EXPECT_STREQ(name, "FINT513");
    EXPECT_EQ(platform_node_construct_ifname(name, sizeof name, "Eth", 1, 0, 2, -1, -1), 0U);
    EXPECT_STREQ(name, "Eth1_0_2");
    EXPECT_EQ(platform_node_construct_ifname(name, sizeof name, "X", 4294967295U, 1, 2, 3, 4), 0U);
    EXPECT_STREQ(name, "X4294967295_1_2_3_4");
}

TEST(platform_names, a_number_behind_a_gap_has_no_name) {
    char name[64] = "old";
    EXPECT_EQ(platform_node_construct_ifname(name, sizeof name, "FINT", 1, -1, 2, -1, -1),
              PLATFORM_INFO_BAD_NAME);
    EXPECT_STREQ(name, "");
}

TEST(platform_names, fit_with_their_terminator_or_not_at_all) {
    for (size_t size = 1; size <= 10; ++size) {
        char name[16] = "old";
        const cerrno rc = platform_node_construct_ifname(name, size, "FINT", 1, 0, 2, -1, -1);
        EXPECT_EQ(rc, size >= 10 ? 0U : ENOMEM) << size;
        EXPECT_STREQ(name, size >= 10 ? "FINT1_0_2" : "");
    }
}

TEST(platform_names, refuses_bad_arguments) {
    char name[16] = "old";
    const cerrno einval = EINVAL;
    EXPECT_EQ(platform_node_construct_ifname(nullptr, 16, "F", 1, -1, -1, -1, -1), einval);
    EXPECT_EQ(platform_node_construct_ifname(name, 0, "F", 1, -1, -1, -1, -1), einval);
    EXPECT_STREQ(name, "old");
    EXPECT_EQ(platform_node_construct_ifname(name, 16, nullptr, 1, -1, -1, -1, -1), einval);
    EXPECT_EQ(platform_node_construct_ifname(name, 16, "", 1, -1, -1, -1, -1), einval);
    EXPECT_STREQ(name, "");
}

TEST(table_ids, are_taken_apart) {
    uint32_t family = 0;
    uint32_t subfamily = 0;
    uint32_t number = 0;
    EXPECT_EQ(rsi_c_tbl_id_decode2(0xe0801fff, &family, &subfamily, &number), 0U);
    EXPECT_EQ(family, 0xe0U);
    EXPECT_EQ(subfamily, 8U);
    EXPECT_EQ(number, 0x1fffU);
    EXPECT_EQ(rsi_c_tbl_id_decode2(0xe0800002, nullptr, nullptr, &number), 0U);
    EXPECT_EQ(number, 2U);
}

TEST(table_ids, one_that_shares_its_number_with_another_is_told) {
    uint32_t number = 0;
    EXPECT_EQ(rsi_c_tbl_id_decode2(0xe0802003, nullptr, nullptr, &number),
              PLATFORM_INFO_BAD_TABLE_ID);
    EXPECT_EQ(number, 3U);
    EXPECT_EQ(rsi_c_tbl_id_decode2(1, nullptr, nullptr, nullptr), static_cast<cerrno>(EINVAL));
}

}  // namespace
