#include "services/diag/errors.h"

#include <gtest/gtest.h>

#include "services/platform_info/platform_info.h"

TEST(platform_info_errors, codes_have_texts) {
    EXPECT_STREQ(cerr_strerror(PLATFORM_INFO_BAD_NAME),
                 "Interface name cannot be made of these numbers");
    EXPECT_STREQ(cerr_strerror(PLATFORM_INFO_BAD_TABLE_ID),
                 "Table id shares its number with another one");
    EXPECT_STREQ(cerr_strerror(0x45007fff), "Unknown error 0x45007fff");
}
