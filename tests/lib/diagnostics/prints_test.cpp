#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "services/diag/debug.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"

using lines = std::vector<std::string>;

TEST(Prints, ATableIsOneLineOfClassState) {
    const kit::run_dir dir;
    const kit::listener heard;
    ipv4mc_table_st table{};
    strcpy(table.vrf_name, "red");
    table.tid = 0x1f;
    table.active = 1;
    ipmc_table_print(&table);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_STATE), lines{"table print: red/0x1f active:0x1"});
    EXPECT_EQ(heard.lines().size(), 1U);
}

TEST(Prints, ARouteShowsItsTableAndKey) {
    const kit::run_dir dir;
    kit::listener heard;
    ipv4mc_table_st table{};
    table.tid = 0x1f;
    ipv4mc_route_entry_st route{};
    inet_pton(AF_INET6, "ff05::1", &route.group);
    inet_pton(AF_INET6, "2001:db8::1", &route.source);
    route.pfx_len = 256;
    route.table = &table;
    ipv4mc_route_print(&route);
    route.table = nullptr;
    route.source = ip_maddr_st{};
    route.pfx_len = 128;
    ipv4mc_route_print(&route);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_STATE), (lines{"route print: 0x1f (2001:db8::1,ff05::1/256)",
                                                    "route print: 0xffffffff (*,ff05::1/128)"}));
}

TEST(FaultPoints, AreNamedAndRegistered) {
    const char *const texts[] = {"MLIB_FAULT_ROUTE_CREATE_FAIL: PD Route create fail",
                                 "MLIB_FAULT_ROUTE_COMMIT_FAIL: PD Route commit fail",
                                 "MLIB_FAULT_INTF_CREATE_FAIL: PD Interface create fail",
                                 "MLIB_FAULT_INTF_COMMIT_FAIL: PD Interface commit fail",
                                 "MLIB_FAULT_ENCAP_CREATE_FAIL: PD Encap-ID create fail",
                                 "MLIB_FAULT_ENCAP_CREATE_FAIL: PD Encap-ID commit fail",
                                 "MLIB_FAULT_BUCKET_CREATE_FAIL: PD Bucket-ID create fail",
                                 "MLIB_FAULT_BUCKET_CREATE_FAIL: PD Bucket-ID commit fail",
                                 "MLIB_FAULT_TABLE_CREATE_FAIL: PD Table create fail",
                                 "MLIB_FAULT_TABLE_CREATE_FAIL: PD Table commit fail"};
    static_assert(sizeof(mlib_fault_points) == 640);
    for (uint32_t i = 0; i < 10; ++i) {
        EXPECT_STREQ(mlib_fault_points[i], texts[i]);
    }
    const kit::run_dir dir;
    const kit::listener heard;
    EXPECT_FALSE(fim_armed(mlib_fim_hdl, MLIB_FAULT_ROUTE_CREATE));
    mlib_fim_init(nullptr);
    EXPECT_NE(mlib_fim_hdl, nullptr);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_EV), lines{"MLIB FIM Init: Success"});
    EXPECT_EQ(fim_arm(mlib_fim_hdl, MLIB_FAULT_TABLE_COMMIT, 1, 1), 0U);
    EXPECT_FALSE(fim_armed(mlib_fim_hdl, MLIB_FAULT_TABLE_COMMIT));
    EXPECT_TRUE(fim_armed(mlib_fim_hdl, MLIB_FAULT_TABLE_COMMIT));
    EXPECT_FALSE(fim_armed(mlib_fim_hdl, MLIB_FAULT_TABLE_COMMIT));
    EXPECT_EQ(fim_arm(mlib_fim_hdl, MLIB_FAULT_POINTS, 0, 1), 22U);
}
