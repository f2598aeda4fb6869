#include "services/diag/errors.h"

#include <gtest/gtest.h>

#include "services/acl/ipv6_acl.h"

TEST(acl_errors, codes_have_texts) {
    EXPECT_STREQ(cerr_strerror(IPV6_ACL_NOT_FOUND), "No such access list");
    EXPECT_STREQ(cerr_strerror(IPV6_ACL_TOO_MANY), "Access list has too many entries");
    EXPECT_STREQ(cerr_strerror(0x44f06fff), "Unknown error 0x44f06fff");
}
