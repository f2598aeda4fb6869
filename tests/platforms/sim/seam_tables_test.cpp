#include "tests/platforms/sim/sim_fixture.h"

namespace {

class SimTables : public SimTest {
  protected:
    cerrno op(ipv4mc_action_type action, uint32_t tid, uint32_t vrf_id, const char *name,
              ipv4mc_table_st *record, int is_new = 0) {
        return ip6mc_platform_table_operation(action, tid, vrf_id, name, &record, is_new);
    }
    void SetUp() override {
        SimTest::SetUp();
        vrf.table_type = IPV4MC_TABLE_VRF;
        std::strcpy(vrf.vrf_name, "red");
    }
    ipv4mc_table_st vrf = {};
};

TEST_F(SimTables, BothSidesAreHeldApart) {
    ASSERT_EQ(op(IPV4MC_ACTION_CREATE, 7, 3, "red", &vrf, 1), 0U);
    ASSERT_EQ(op(IPV4MC_ACTION_CREATE, 7, 3, "red", &table, 1), 0U);
    const auto held = listed(IP6MC_PLATFORM_TABLE);
    ASSERT_EQ(held.size(), 2U);
    EXPECT_EQ(held[0].vrf_id, 3U);
    EXPECT_STREQ(held[0].vrf_name, "red");
    EXPECT_EQ(held[0].tid, 0U);
    EXPECT_EQ(held[1].tid, 7U);
    EXPECT_EQ(held[0].active + held[1].active, 0);
}

TEST_F(SimTables, ActivationAndDeactivationArePerSide) {
    ASSERT_EQ(op(IPV4MC_ACTION_ACTIVATE, 0, 3, "red", &vrf, 1), 0U);
    ASSERT_EQ(op(IPV4MC_ACTION_ACTIVATE, 7, 3, "red", &table, 1), 0U);
    auto held = listed(IP6MC_PLATFORM_TABLE);
    EXPECT_EQ(held[0].active + held[1].active, 2);
    ASSERT_EQ(op(IPV4MC_ACTION_DEACTIVATE, 7, 3, "red", &table), 0U);
    held = listed(IP6MC_PLATFORM_TABLE);
    EXPECT_EQ(held[0].active, 1);
    EXPECT_EQ(held[1].active, 0);
}

TEST_F(SimTables, AVrfIsTheSameByNameAndLaterById) {
    ASSERT_EQ(op(IPV4MC_ACTION_CREATE, 0, 0, "red", &vrf, 1), 0U);
    ASSERT_EQ(op(IPV4MC_ACTION_ACTIVATE, 0, 3, "red", &vrf, 1), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_TABLE), 1U);
    ASSERT_EQ(op(IPV4MC_ACTION_DELETE, 0, 3, "", nullptr), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_TABLE), 0U);
}

TEST_F(SimTables, TheRecordTellsWhatTheCallLeavesOut) {
    ASSERT_EQ(op(IPV4MC_ACTION_COMMIT, 0, 0, nullptr, &vrf, 1), 0U);
    EXPECT_STREQ(listed(IP6MC_PLATFORM_TABLE).at(0).vrf_name, "red");
    ASSERT_EQ(op(IPV4MC_ACTION_MLC_SET, 0, 0, nullptr, &table), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_TABLE), 1U) << "an item of a table does not make it";
}

TEST_F(SimTables, ANameOf33CharactersIsCut) {
    const std::string name(40, 'x');
    ASSERT_EQ(op(IPV4MC_ACTION_CREATE, 0, 0, name.c_str(), nullptr, 1), 0U);
    EXPECT_EQ(std::string(listed(IP6MC_PLATFORM_TABLE).at(0).vrf_name), std::string(32, 'x'));
}

TEST_F(SimTables, DeleteOfATableTakesItsRoutesAndNoOthers) {
    ipv4mc_table_st other = table;
    other.tid = 8;
    test_route mine(table, "2001:db8::1", "ff3e::1", 256);
    test_route theirs(other, "2001:db8::1", "ff3e::1", 256);
    program(mine, {&entry(1, MRIB_INTF_ACCEPT)});
    program(theirs, {&entry(1, MRIB_INTF_ACCEPT)});
    ASSERT_EQ(op(IPV4MC_ACTION_ACTIVATE, 7, 0, "", &table, 1), 0U) << "after its routes";
    ASSERT_EQ(op(IPV4MC_ACTION_DELETE, 7, 0, "", &table), 0U);
    EXPECT_EQ(find(mine), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(find(theirs), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_INTF), 1U);
}

TEST_F(SimTables, ActionsOnATableThatIsNotThereAreSuccesses) {
    for (const uint32_t action :
         {IPV4MC_ACTION_DELETE, IPV4MC_ACTION_CLEAR, IPV4MC_ACTION_DEACTIVATE,
          IPV4MC_ACTION_ACCT_ENABLE, IPV4MC_ACTION_MLC_UNSET}) {
        EXPECT_EQ(op(action, 7, 0, "", &table), 0U) << action;
        EXPECT_EQ(op(action, 0, 3, "red", &vrf), 0U) << action;
    }
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_TABLE), 0U);
}

TEST_F(SimTables, ACallThatNamesNoTableIsRefused) {
    EXPECT_EQ(ip6mc_platform_table_operation(IPV4MC_ACTION_CREATE, 0, 0, nullptr, nullptr, 1),
              static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ip6mc_platform_table_operation(IPV4MC_ACTION_CREATE, 0, 0, "", nullptr, 1),
              static_cast<cerrno>(EINVAL));
}

TEST_F(SimTables, FullMeansThatNoTableIsAddedAndNoneIsLost) {
    sim_set_capacity(IP6MC_PLATFORM_TABLE, 1);
    ASSERT_EQ(op(IPV4MC_ACTION_CREATE, 7, 0, "", &table, 1), 0U);
    EXPECT_EQ(op(IPV4MC_ACTION_CREATE, 0, 3, "red", &vrf, 1), static_cast<cerrno>(ENOSPC));
    EXPECT_EQ(op(IPV4MC_ACTION_ACTIVATE, 7, 0, "", &table, 0), 0U) << "it is there already";
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_TABLE), 1U);
}

}  // namespace
