#include "services/platform_info/adjacency.h"

#include <gtest/gtest.h>

namespace {

TEST(adjacency, is_held_and_released_through_its_table) {
    adj_base_t adjacency;
    adj_base_init(&adjacency, 42);
    EXPECT_EQ(adjacency.ifh, 42U);
    const adj_own_fn *const own = adj_own_bundle_from_base(&adjacency);
    ASSERT_NE(own, nullptr);
    own[ADJ_OWN_HOLD](&adjacency);
    own[ADJ_OWN_HOLD](&adjacency);
    EXPECT_EQ(adjacency.holds, 2U);
    for (int i = 0; i < 3; ++i) {
        own[ADJ_OWN_RELEASE](&adjacency);
    }
    EXPECT_EQ(adjacency.holds, 0U);
}

TEST(adjacency, may_have_no_table) {
    const adj_base_t adjacency = {1, 0, nullptr};
    EXPECT_EQ(adj_own_bundle_from_base(&adjacency), nullptr);
    EXPECT_EQ(adj_own_bundle_from_base(nullptr), nullptr);
}

}  // namespace
