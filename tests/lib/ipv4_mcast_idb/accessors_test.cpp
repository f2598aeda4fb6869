#include <cstring>

#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

using IdbAccessors = Idb;

TEST_F(IdbAccessors, SetNameKeepsSixtyFourCharactersAndPads) {
    ipv4mc_idb_st *idb = locked(10);
    memset(idb->name, 'z', sizeof(idb->name));
    EXPECT_EQ(ip6mc_idb_set_name(idb, "Eth1"), 0U);
    EXPECT_STREQ(idb->name, "Eth1");
    EXPECT_EQ(idb->name[63], '\0');
    const std::string longest(70, 'y');
    EXPECT_EQ(ip6mc_idb_set_name(idb, longest.c_str()), 0U);
    EXPECT_EQ(std::string(idb->name, 64), longest.substr(0, 64));
    EXPECT_EQ(idb->tunnel_flags, 0);
    EXPECT_EQ(ip6mc_idb_set_name(nullptr, "x"), 22U);
    EXPECT_EQ(ip6mc_idb_set_name(idb, nullptr), 22U);
}

TEST_F(IdbAccessors, DisplayNameSpareTheManagerForNamesNotKnownYet) {
    EXPECT_STREQ(ip6mc_idb_display_name(nullptr), "Unknown");
    ipv4mc_idb_st *idb = locked(0x10);
    EXPECT_EQ(ip6mc_idb_display_name(idb), idb->name);
    EXPECT_STREQ(idb->name, "Ha0x10");
    // A real name that begins so passes as it is, whatever is in it.
    ip6mc_idb_set_name(idb, "Hall\x01");
    EXPECT_EQ(ip6mc_idb_display_name(idb), idb->name);
    ip6mc_idb_set_name(idb, "Eth\x01");
    EXPECT_STREQ(ip6mc_idb_display_name(idb), "Eth?");
    EXPECT_NE(ip6mc_idb_display_name(idb), idb->name);
    const char *text = ip6mc_idb_display_name(idb);
    ip6mc_idb_set_name(idb, "Other");
    EXPECT_EQ(ip6mc_idb_display_name(idb), text) << "one buffer for the process";
}

TEST_F(IdbAccessors, GetTypeCopiesIt) {
    ipv4mc_idb_st *idb = locked(10);
    idb->type = idb_type_bvi;
    uint32_t type = 0;
    EXPECT_EQ(ip6mc_idb_get_type(idb, &type), 0U);
    EXPECT_EQ(type, 8U);
    EXPECT_EQ(ip6mc_idb_get_type(nullptr, &type), 22U);
    EXPECT_EQ(ip6mc_idb_get_type(idb, nullptr), 22U);
    EXPECT_EQ(heard_.errors(), (std::vector<std::string>{"NULL IDB", "NULL type"}));
}

TEST_F(IdbAccessors, SetTypeTellsThePlatformOnly) {
    ipv4mc_idb_st *idb = locked(10);
    sim_log_clear();
    EXPECT_EQ(ip6mc_idb_set_type(idb, 99, idb_type_bundle), 0U);
    EXPECT_EQ(idb->type, uint32_t{idb_type_physical});
    EXPECT_EQ(idb_calls(), (std::vector<uint32_t>{0x40000, 0x200000}));
    sim_idb held{};
    ASSERT_EQ(sim_find_idb(10, &held), 0U);
    EXPECT_EQ(held.type, uint32_t{idb_type_bundle});
}

TEST_F(IdbAccessors, SetTypePassesThePlatformsFailuresOn) {
    ipv4mc_idb_st *idb = locked(10);
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_SPEC_INIT, 0, 1, 5);
    EXPECT_EQ(ip6mc_idb_set_type(idb, 0, 1), 5U);
    EXPECT_TRUE(contains(heard_.errors(), "Failed to set OP SPEC for Ha0xa : "));
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_TYPE_SET, 0, 1, 6);
    EXPECT_EQ(ip6mc_idb_set_type(idb, 0, 1), 6U);
    EXPECT_TRUE(contains(heard_.errors(), "Failed to set the IDB type in HW for Ha0xa : "));
    EXPECT_EQ(ip6mc_idb_set_type(nullptr, 0, 1), 22U);
}

TEST_F(IdbAccessors, GetStateTellsThePreviousState) {
    uint32_t state = 77;
    uint32_t platform_state = 77;
    ASSERT_EQ(ipv4mc_desc->idb_state, 2U);
    EXPECT_EQ(ip6mc_idb_get_state(&state, nullptr), 0U);
    EXPECT_EQ(state, 1U);
    sim_set_idb_state(IPV4MC_PLATFORM_STATE_NOT_READY);
    EXPECT_EQ(ip6mc_idb_get_state(&state, &platform_state), 0U);
    EXPECT_EQ(platform_state, 1U);
    EXPECT_EQ(ip6mc_idb_get_state(nullptr, &platform_state), 22U);
    EXPECT_TRUE(contains(heard_.errors(), "NULL state_p"));
    sim_arm_fault(SIM_OP_IDB, IPV4MC_IDB_OP_GET_STATE, 0, 1, 5);
    EXPECT_EQ(ip6mc_idb_get_state(&state, &platform_state), 5U);
    EXPECT_TRUE(contains(heard_.errors(), "Error while getting platform IDB state: "));
}

TEST_F(IdbAccessors, PrintsOneLine) {
    ipv4mc_idb_st *idb = locked(0x10);
    idb->vrf_id = 0x60;
    heard_.clear();
    EXPECT_EQ(ipmc_idb_print_fn(ipmc_idb_idb2wavl(idb), nullptr), 1);
    idb->vtable = reinterpret_cast<ipv4mc_table_st *>(idb);
    EXPECT_EQ(ipmc_idb_print_fn(ipmc_idb_idb2wavl(idb), nullptr), 1);
    idb->vtable = nullptr;
    idb->vrf_id = 0;
    const auto lines = heard_.lines(IPV4_DEBUG_IDB);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_NE(lines[0].find(": idb 0x10, v 0x60, vt N"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(": idb 0x10, v 0x60, vt Y"), std::string::npos) << lines[1];
    EXPECT_EQ(lines[0].rfind("ipmc_idb_print_fn-", 0), 0U);
}

}  // namespace
}  // namespace idb_test
