#include "services/diag/errors.h"

#include <gtest/gtest.h>

#include "services/objid/obj_id.h"

TEST(objid_errors, codes_have_texts) {
    EXPECT_STREQ(cerr_strerror(FIB_OBJ_ID_STALE), "Object id was given back");
    EXPECT_STREQ(cerr_strerror(FIB_OBJ_ID_SHAPE), "Object id domain has other numbers");
    EXPECT_STREQ(cerr_strerror(0x44b02fff), "Unknown error 0x44b02fff");
}
