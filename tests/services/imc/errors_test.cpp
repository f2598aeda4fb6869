#include "services/diag/errors.h"

#include <gtest/gtest.h>

#include "services/imc/imc.h"

TEST(imc_errors, codes_have_texts) {
    EXPECT_STREQ(cerr_strerror(IMC_NO_INTERFACE), "No such interface");
    EXPECT_STREQ(cerr_strerror(IMC_LOST), "Interface manager lost its connection");
    EXPECT_STREQ(cerr_strerror(0x44e05fff), "Unknown error 0x44e05fff");
}
