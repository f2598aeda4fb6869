#include "services/platform_info/platform_info.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

constexpr cerrno einval = EINVAL;

class platform_info_test : public ::testing::Test {
  protected:
    void SetUp() override {
        platform_info_defaults(&info);
        ASSERT_EQ(platform_info_set(&info), 0U);
    }
    void TearDown() override {
        platform_info_defaults(&info);
        EXPECT_EQ(platform_info_set(&info), 0U);
    }

    platform_info_t info = {};
};

TEST_F(platform_info_test, has_defaults_from_the_start) {
    platform_mcast_params_t params = {9, 9, 9, 9};
    EXPECT_EQ(platform_get_mcast_params(&params), 0U);
    EXPECT_EQ(params.route_extension_size, 0U);
    EXPECT_EQ(params.intf_extension_size, 0U);
    EXPECT_EQ(params.encap_extension_size, 0U);
    uint32_t node = 0;
    EXPECT_EQ(platform_get_my_nodeid(&node), 0U);
    EXPECT_EQ(node, 1U);
    EXPECT_EQ(platform_get_router_type(), 0U);
    EXPECT_EQ(platform_get_type(), PLATFORM_TYPE_ROUTE_PROCESSOR);
    EXPECT_EQ(platform_am_i_rp_plus_datapath(), 0);
    EXPECT_EQ(rsi_c_vrf_id_dflt(), 0x60000000U);
}

TEST_F(platform_info_test, answers_what_was_set) {
    info.mcast_params = {8, 16, 65536, 0};
    info.node_id = 0x201;
    info.router_type = PLATFORM_ROUTER_TYPE_ASYNC_B;
    info.type = PLATFORM_TYPE_LINE_CARD;
    info.rp_plus_datapath = 1;
    info.default_vrf_id = 7;
    ASSERT_EQ(platform_info_set(&info), 0U);
    platform_mcast_params_t params = {};
    EXPECT_EQ(platform_get_mcast_params(&params), 0U);
    EXPECT_EQ(params.route_extension_size, 8U);
    EXPECT_EQ(params.intf_extension_size, 16U);
    EXPECT_EQ(params.encap_extension_size, 65536U);
    uint32_t node = 0;
    EXPECT_EQ(platform_get_my_nodeid(&node), 0U);
    EXPECT_EQ(node, 0x201U);
    EXPECT_EQ(platform_get_router_type(), 16U);
    EXPECT_EQ(platform_get_type(), 1U);
    EXPECT_EQ(platform_am_i_rp_plus_datapath(), 1);
    EXPECT_EQ(rsi_c_vrf_id_dflt(), 7U);
    platform_info_t back = {};
    platform_info_get(&back);
    EXPECT_EQ(back.node_id, 0x201U);
}

TEST_F(platform_info_test, refuses_extensions_that_would_break_alignment) {
    info.node_id = 99;
    for (uint32_t platform_mcast_params_t::*field :
         {&platform_mcast_params_t::route_extension_size,
          &platform_mcast_params_t::intf_extension_size,
          &platform_mcast_params_t::encap_extension_size}) {
        for (const uint32_t bad : {1U, 12U, 65544U}) {
            info.mcast_params = {};
            info.mcast_params.*field = bad;
            EXPECT_EQ(platform_info_set(&info), einval);
        }
    }
    EXPECT_EQ(platform_info_set(nullptr), einval);
    uint32_t node = 0;
    EXPECT_EQ(platform_get_my_nodeid(&node), 0U);
    EXPECT_EQ(node, 1U);
}

TEST_F(platform_info_test, knows_its_own_fabric_access_point) {
    int local = 9;
    EXPECT_EQ(platform_fapid_is_local(5, &local), static_cast<cerrno>(ENODEV));
    EXPECT_EQ(local, 9);
    info.fapid = 5;
    ASSERT_EQ(platform_info_set(&info), 0U);
    EXPECT_EQ(platform_fapid_is_local(5, &local), 0U);
    EXPECT_EQ(local, 1);
    EXPECT_EQ(platform_fapid_is_local(6, &local), 0U);
    EXPECT_EQ(local, 0);
    EXPECT_EQ(platform_fapid_is_local(0, &local), einval);
    EXPECT_EQ(platform_fapid_is_local(5, nullptr), einval);
}

TEST_F(platform_info_test, refuses_null_outputs) {
    EXPECT_EQ(platform_get_mcast_params(nullptr), einval);
    EXPECT_EQ(platform_get_my_nodeid(nullptr), einval);
}

}  // namespace
