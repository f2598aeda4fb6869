#include "tests/platforms/sim/sim_fixture.h"

namespace {

class SimAnswers : public SimTest {};

TEST_F(SimAnswers, RouteTriesAreInSoftwareUnlessToldOtherwise) {
    EXPECT_EQ(ip6mc_platform_is_sw_only_gtrie(), 1);
    sim_answer_sw_only_gtrie(0);
    EXPECT_EQ(ip6mc_platform_is_sw_only_gtrie(), 0);
}

TEST_F(SimAnswers, VirtualInterfacesAreLocalOnlyWhenTold) {
    uint8_t local = 9;
    ASSERT_EQ(ip6mc_platform_is_virtual_interface_local(4, &local), 0U);
    EXPECT_EQ(local, 0);
    ASSERT_EQ(sim_answer_virtual_local(4, 1), 0U);
    ASSERT_EQ(ip6mc_platform_is_virtual_interface_local(4, &local), 0U);
    EXPECT_EQ(local, 1);
    ASSERT_EQ(ip6mc_platform_is_virtual_interface_local(5, &local), 0U);
    EXPECT_EQ(local, 0);
    ASSERT_EQ(sim_answer_virtual_local(4, 0), 0U);
    ASSERT_EQ(ip6mc_platform_is_virtual_interface_local(4, &local), 0U);
    EXPECT_EQ(local, 0);
    EXPECT_EQ(ip6mc_platform_is_virtual_interface_local(4, nullptr), static_cast<cerrno>(EINVAL));
}

TEST_F(SimAnswers, MoreHandlesThanThereIsRoomForAreRefused) {
    for (uint32_t ifh = 1; ifh <= 256; ++ifh) {
        ASSERT_EQ(sim_answer_virtual_local(ifh, 1), 0U);
    }
    EXPECT_EQ(sim_answer_virtual_local(257, 1), static_cast<cerrno>(ENOSPC));
    EXPECT_EQ(sim_answer_virtual_local(256, 0), 0U);
}

TEST_F(SimAnswers, BviDataTellWhetherItIsLocal) {
    const uint8_t yes[] = {1, 0};
    const uint8_t no[] = {0, 1};
    int local = 9;
    ASSERT_EQ(ipv6_mfwd_platform_is_bvi_local(yes, 2, &local), 0U);
    EXPECT_EQ(local, 1);
    ASSERT_EQ(ipv6_mfwd_platform_is_bvi_local(no, 2, &local), 0U);
    EXPECT_EQ(local, 0);
    local = 9;
    ASSERT_EQ(ipv6_mfwd_platform_is_bvi_local(nullptr, 0, &local), 0U);
    EXPECT_EQ(local, 0);
    EXPECT_EQ(ipv6_mfwd_platform_is_bvi_local(nullptr, 1, &local), static_cast<cerrno>(EINVAL));
}

TEST_F(SimAnswers, BviAnswersCanBeForcedAndLeftOut) {
    const uint8_t no[] = {0};
    int local = 9;
    sim_answer_bvi_local(SIM_BVI_LOCAL);
    ASSERT_EQ(ipv6_mfwd_platform_is_bvi_local(no, 1, &local), 0U);
    EXPECT_EQ(local, 1);
    sim_answer_bvi_local(SIM_BVI_NOT_LOCAL);
    ASSERT_EQ(ipv6_mfwd_platform_is_bvi_local(no, 1, &local), 0U);
    EXPECT_EQ(local, 0);
    local = 9;
    sim_answer_bvi_local(SIM_BVI_LEAVE_ALONE);
    ASSERT_EQ(ipv6_mfwd_platform_is_bvi_local(no, 1, &local), 0U);
    EXPECT_EQ(local, 9);
    ASSERT_EQ(sim_arm_fault(SIM_OP_BVI_LOCAL, SIM_ANY_ACTION, 0, 1, 5), 0U);
    EXPECT_EQ(ipv6_mfwd_platform_is_bvi_local(no, 1, &local), 5U);
}

TEST_F(SimAnswers, TheBundleHashIsTheLibrarysUnlessToldOtherwise) {
    const ip_maddr_st any = {};
    ifhtype member = 1;
    uint16_t link = 1;
    EXPECT_EQ(ip6mc_platform_bundle_sg_hash(3, &any, &any, &member, &link), 0);
    EXPECT_EQ(member, 1U);
    sim_answer_bundle_hash(1, 44, 55);
    EXPECT_EQ(ip6mc_platform_bundle_sg_hash(3, &any, &any, &member, &link), 1);
    EXPECT_EQ(member, 44U);
    EXPECT_EQ(link, 55);
}

TEST_F(SimAnswers, TheFabricQuestion) {
    test_route route(table, "::", "ff3e::1", 128);
    int changed = 9;
    ASSERT_EQ(ipv6_mfwd_platform_is_slotmask_xid_change(&table, &route.record, &route.record.source,
                                                        &route.record.group, 0, &changed),
              0U);
    EXPECT_EQ(changed, 0);
    sim_answer_slotmask_change(1);
    ASSERT_EQ(ipv6_mfwd_platform_is_slotmask_xid_change(&table, &route.record, &route.record.source,
                                                        &route.record.group, 0, &changed),
              0U);
    EXPECT_EQ(changed, 1);
}

TEST_F(SimAnswers, CountersOfARoute) {
    test_route route(table, "2001:db8::1", "ff3e::1", 256);
    const ip_maddr_st *s = &route.record.source;
    const ip_maddr_st *g = &route.record.group;
    uint64_t count = 9;
    EXPECT_EQ(ip6mc_platform_get_hw_in_stats(&table, s, g, 256, nullptr, &count),
              static_cast<cerrno>(ENOENT));
    EXPECT_EQ(count, 0U);
    program(route, {});
    ASSERT_EQ(sim_set_route_stats(7, s, g, 256, 1, 2, 3, 4), 0U);
    ASSERT_EQ(ip6mc_platform_get_hw_in_stats(&table, s, g, 0, nullptr, &count), 0U);
    EXPECT_EQ(count, 1U);
    ASSERT_EQ(ip6mc_platform_get_hw_in_stats_bytes(&table, s, g, 256, nullptr, &count), 0U);
    EXPECT_EQ(count, 2U);
    ASSERT_EQ(ip6mc_platform_get_hw_eg_stats(&table, s, g, 256, nullptr, &count), 0U);
    EXPECT_EQ(count, 3U);
    ASSERT_EQ(ip6mc_platform_get_hw_eg_stats_bytes(&table, s, g, 256, nullptr, &count), 0U);
    EXPECT_EQ(count, 4U);
    EXPECT_EQ(ip6mc_platform_get_hw_in_stats(&table, s, g, 256, nullptr, nullptr),
              static_cast<cerrno>(EINVAL));
}

}  // namespace
