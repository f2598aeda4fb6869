#include <algorithm>

#include "tests/platforms/sim/sim_fixture.h"

namespace {

class SimEnumerate : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        vrf.table_type = IPV4MC_TABLE_VRF;
        std::strcpy(vrf.vrf_name, "red");
        ipv4mc_table_st *side = &vrf;
        ASSERT_EQ(ip6mc_platform_table_operation(IPV4MC_ACTION_ACTIVATE, 0, 3, "red", &side, 1),
                  0U);
        side = &table;
        ASSERT_EQ(ip6mc_platform_table_operation(IPV4MC_ACTION_ACTIVATE, 7, 3, "red", &side, 1),
                  0U);
        program(route, {&entry(1, MRIB_INTF_ACCEPT), &entry(2, MRIB_INTF_FORWARD)});
        idb.ifh = 2;
        ASSERT_EQ(ip6mc_platform_idb_operation(IPV4MC_IDB_OP_ENABLE, &idb, nullptr, nullptr), 0U);
        encap.encap_id = 9;
        transport.key.type = REGDB_TYPE_TE;
        transport.key_bits = 64;
        ASSERT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_COMMIT, &encap), 0U);
        ASSERT_EQ(ip6mc_platform_regdb_operation(IPV4MC_ACTION_COMMIT, &transport, &core), 0U);
        ASSERT_EQ(
            ip6mc_platform_encap_leaf_operation(IPV4MC_ACTION_COMMIT, &leaf, &encap, &transport, 1),
            0U);
    }
    ipv4mc_table_st vrf = {};
    test_route route{table, "2001:db8::1", "ff3e::1", 256};
    ipv4mc_idb_st idb = {};
    ipv4mc_encap_entry_st encap = {};
    ipv4mc_encap_leaf_st leaf = {};
    ipv4mc_regdb_entry_st transport = {};
    ipv4mc_regdb_core_info_st core = {};
};

TEST_F(SimEnumerate, OfAllKindsTablesComeBeforeRoutesBeforeInterfaces) {
    const auto all = listed(IP6MC_PLATFORM_KINDS);
    ASSERT_EQ(all.size(), 9U);
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(),
                               [](const auto &a, const auto &b) { return a.kind < b.kind; }));
    for (ip6mc_platform_kind kind = 0; kind < IP6MC_PLATFORM_KINDS; ++kind) {
        EXPECT_EQ(listed(kind).size(), sim_count(kind)) << kind;
        EXPECT_GE(sim_count(kind), 1U) << kind;
    }
}

TEST_F(SimEnumerate, TheFirstFailureOfTheVisitorEndsTheWalk) {
    int visits = 0;
    EXPECT_EQ(ip6mc_platform_enumerate(
                  IP6MC_PLATFORM_KINDS,
                  [](const ip6mc_platform_held_st *, void *context) -> cerrno {
                      return ++*static_cast<int *>(context) == 3 ? 88 : 0;
                  },
                  &visits),
              88U);
    EXPECT_EQ(visits, 3);
}

TEST_F(SimEnumerate, ImpossibleRequestsAreRefused) {
    const auto fn = [](const ip6mc_platform_held_st *, void *) -> cerrno { return 0; };
    const auto einval = static_cast<cerrno>(EINVAL);
    ip6mc_platform_held_st held = {};
    held.kind = IP6MC_PLATFORM_KINDS;
    EXPECT_EQ(ip6mc_platform_enumerate(IP6MC_PLATFORM_ROUTE, nullptr, nullptr), einval);
    EXPECT_EQ(ip6mc_platform_enumerate(IP6MC_PLATFORM_KINDS + 1, fn, nullptr), einval);
    EXPECT_EQ(ip6mc_platform_remove_held(nullptr), einval);
    EXPECT_EQ(ip6mc_platform_remove_held(&held), einval);
}

TEST_F(SimEnumerate, WhatIsListedCanBeRemovedOneByOneInAnyOrder) {
    auto all = listed(IP6MC_PLATFORM_KINDS);
    std::reverse(all.begin(), all.end());
    size_t left = all.size();
    for (const ip6mc_platform_held_st &held : all) {
        ASSERT_EQ(ip6mc_platform_remove_held(&held), 0U);
        --left;
        ASSERT_EQ(listed(IP6MC_PLATFORM_KINDS).size(), left) << held.kind;
        ASSERT_EQ(ip6mc_platform_remove_held(&held), 0U) << "again";
    }
}

TEST_F(SimEnumerate, WhatHangsOnAThingGoesWithIt) {
    for (const ip6mc_platform_held_st &held : listed(IP6MC_PLATFORM_TABLE)) {
        ASSERT_EQ(ip6mc_platform_remove_held(&held), 0U);
    }
    EXPECT_EQ(listed(IP6MC_PLATFORM_ROUTE).size(), 0U);
    EXPECT_EQ(listed(IP6MC_PLATFORM_INTF).size(), 0U);
    ASSERT_EQ(ip6mc_platform_remove_held(&listed(IP6MC_PLATFORM_ENCAP).at(0)), 0U);
    EXPECT_EQ(listed(IP6MC_PLATFORM_LEAF).size(), 0U);
}

TEST_F(SimEnumerate, AnAmtEntryIsRemovedByItsFarEnd) {
    ipv4mc_intf_entry_st &amt = entry(30, MRIB_INTF_FORWARD);
    amt.intf_type = IPV4MC_INTF_AMT;
    amt.key_ifh = 0;
    amt.amt_addr = 0x0a000001;
    amt.amt_port = 9;
    ASSERT_EQ(intf_op(IPV4MC_ACTION_CREATE, route, amt, 0, 1), 0U);
    for (const ip6mc_platform_held_st &held : listed(IP6MC_PLATFORM_INTF)) {
        if (held.intf_type == IPV4MC_INTF_AMT) {
            ASSERT_EQ(ip6mc_platform_remove_held(&held), 0U);
        }
    }
    EXPECT_EQ(listed(IP6MC_PLATFORM_INTF).size(), 2U);
}

}  // namespace
