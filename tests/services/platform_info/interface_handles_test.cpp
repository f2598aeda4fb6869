#include <gtest/gtest.h>

#include <cerrno>

#include "services/platform_info/platform_info.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

class interface_handles_test : public ::testing::Test {
  protected:
    void TearDown() override {
        platform_ifhandle_forget(0);
        platform_info_t info;
        platform_info_defaults(&info);
        EXPECT_EQ(platform_info_set(&info), 0U);
    }
};

uint32_t even_is_virtual(uint32_t ifh, void *context) {
    ++*static_cast<int *>(context);
    return ifh % 2 == 0 ? PLATFORM_IFH_VIRTUAL : PLATFORM_IFH_LOCAL;
}

TEST_F(interface_handles_test, a_handle_is_local_and_not_virtual_unless_told) {
    EXPECT_EQ(platform_ifhandle_is_local(5), 1);
    EXPECT_EQ(platform_ifhandle_is_virtual_check_for_mcast(5), 0);
    EXPECT_EQ(platform_ifhandle_is_local(0), 0);
    EXPECT_EQ(platform_ifhandle_is_virtual_check_for_mcast(0), 0);
}

TEST_F(interface_handles_test, single_handles_come_before_function_and_default) {
    platform_info_t info;
    int asked = 0;
    platform_info_defaults(&info);
    info.ifhandle_fn = even_is_virtual;
    info.ifhandle_context = &asked;
    ASSERT_EQ(platform_info_set(&info), 0U);
    EXPECT_EQ(platform_ifhandle_is_virtual_check_for_mcast(4), 1);
    EXPECT_EQ(platform_ifhandle_is_local(4), 0);
    EXPECT_EQ(platform_ifhandle_is_local(3), 1);
    EXPECT_EQ(asked, 3);
    ASSERT_EQ(platform_ifhandle_set(4, PLATFORM_IFH_LOCAL), 0U);
    EXPECT_EQ(platform_ifhandle_is_local(4), 1);
    EXPECT_EQ(platform_ifhandle_is_virtual_check_for_mcast(4), 0);
    EXPECT_EQ(asked, 3);
    platform_ifhandle_forget(4);
    EXPECT_EQ(platform_ifhandle_is_virtual_check_for_mcast(4), 1);
}

TEST_F(interface_handles_test, many_handles_in_any_order) {
    for (uint32_t i = 0; i < 200; ++i) {
        const uint32_t ifh = i * 73 % 200 + 1;
        ASSERT_EQ(platform_ifhandle_set(ifh, ifh % 3 == 0 ? PLATFORM_IFH_VIRTUAL : 0), 0U);
    }
    for (uint32_t ifh = 1; ifh <= 200; ifh += 2) {
        platform_ifhandle_forget(ifh);
    }
    platform_ifhandle_forget(5000);
    for (uint32_t ifh = 1; ifh <= 200; ++ifh) {
        const bool forgotten = ifh % 2 == 1;
        EXPECT_EQ(platform_ifhandle_is_local(ifh), forgotten ? 1 : 0) << ifh;
        EXPECT_EQ(platform_ifhandle_is_virtual_check_for_mcast(ifh),
                  !forgotten && ifh % 3 == 0 ? 1 : 0)
            << ifh;
    }
}

TEST_F(interface_handles_test, refuses_handle_zero_and_reports_lack_of_memory) {
    EXPECT_EQ(platform_ifhandle_set(0, 0), static_cast<cerrno>(EINVAL));
    SKIP_WITHOUT_FAILING_MALLOC();
    const failing_malloc::scope none(0);
    EXPECT_EQ(platform_ifhandle_set(3, 0), static_cast<cerrno>(ENOMEM));
    EXPECT_EQ(platform_ifhandle_is_local(3), 1);
}

}  // namespace
