#include "tests/platforms/sim/sim_fixture.h"

namespace {

class SimEncaps : public SimTest {
  protected:
    SimEncaps() {
        encap.encap_id = 0x12345;
        transport.key.type = REGDB_TYPE_LSM;
        transport.key.u.lsm_id = 4;
        transport.key_bits = IPV4MC_REGDB_KEY_BITS_LSM;
    }
    ipv4mc_encap_entry_st encap = {};
    ipv4mc_encap_leaf_st leaf = {};
    ipv4mc_regdb_entry_st transport = {};
    ipv4mc_regdb_core_info_st core = {};
};

TEST_F(SimEncaps, AnEncapIsCreatedCommittedAndDeleted) {
    ASSERT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_CREATE, &encap), 0U);
    EXPECT_EQ(listed(IP6MC_PLATFORM_ENCAP).at(0).active, 0);
    encap.ip_lkp = 1;
    ASSERT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_COMMIT, &encap), 0U);
    EXPECT_EQ(listed(IP6MC_PLATFORM_ENCAP).at(0).active, 1);
    EXPECT_EQ(listed(IP6MC_PLATFORM_ENCAP).at(0).value, 1U);
    const uint8_t off = 0;
    ASSERT_EQ(ip6mc_platform_encap_update(&encap, IPV4MC_ENCAP_UPDATE_IP_LKP, &off), 0U);
    EXPECT_EQ(listed(IP6MC_PLATFORM_ENCAP).at(0).value, 0U);
    ASSERT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_CREATE, &encap), 0U);
    EXPECT_EQ(listed(IP6MC_PLATFORM_ENCAP).at(0).active, 1) << "a CREATE does not undo a COMMIT";
    ASSERT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_DELETE, &encap), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ENCAP), 0U);
    EXPECT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_CLEAR, &encap), 0U);
}

TEST_F(SimEncaps, ATransportIsHeldFromItsFirstCommit) {
    ipv4mc_regdb_entry_st unnamed = {};
    ASSERT_EQ(ip6mc_platform_regdb_operation(IPV4MC_ACTION_CREATE, &unnamed, nullptr), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_REGDB), 0U);
    ASSERT_EQ(ip6mc_platform_regdb_operation(IPV4MC_ACTION_COMMIT, &transport, &core), 0U);
    const auto held = listed(IP6MC_PLATFORM_REGDB);
    ASSERT_EQ(held.size(), 1U);
    EXPECT_EQ(held[0].regdb_key_bits, 64);
    EXPECT_EQ(std::memcmp(held[0].regdb_key, &transport.key, sizeof(transport.key)), 0);
    ASSERT_EQ(ip6mc_platform_regdb_operation(IPV4MC_ACTION_DELETE, &transport, nullptr), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_REGDB), 0U);
    EXPECT_EQ(ip6mc_platform_regdb_operation(IPV4MC_ACTION_COMMIT, &transport, nullptr),
              static_cast<cerrno>(EINVAL));
}

TEST_F(SimEncaps, ALeafBindsTheTwoAndGoesWithItsEncap) {
    ASSERT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_CREATE, &encap), 0U);
    ASSERT_EQ(
        ip6mc_platform_encap_leaf_operation(IPV4MC_ACTION_CREATE, &leaf, &encap, &transport, 1),
        0U);
    ASSERT_EQ(
        ip6mc_platform_encap_leaf_operation(IPV4MC_ACTION_COMMIT, &leaf, &encap, &transport, 3),
        0U);
    const auto held = listed(IP6MC_PLATFORM_LEAF);
    ASSERT_EQ(held.size(), 1U);
    EXPECT_EQ(held[0].value, 3U);
    EXPECT_EQ(held[0].encap_id, 0x12345U);
    ASSERT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_DELETE, &encap), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_LEAF), 0U);
    EXPECT_EQ(
        ip6mc_platform_encap_leaf_operation(IPV4MC_ACTION_DELETE, &leaf, &encap, &transport, 0),
        0U);
}

TEST_F(SimEncaps, FullMeansThatNothingIsAdded) {
    sim_set_capacity(IP6MC_PLATFORM_ENCAP, 0);
    sim_set_capacity(IP6MC_PLATFORM_LEAF, 0);
    sim_set_capacity(IP6MC_PLATFORM_REGDB, 0);
    const auto full = static_cast<cerrno>(ENOSPC);
    EXPECT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_CREATE, &encap), full);
    EXPECT_EQ(
        ip6mc_platform_encap_leaf_operation(IPV4MC_ACTION_CREATE, &leaf, &encap, &transport, 0),
        full);
    EXPECT_EQ(ip6mc_platform_regdb_operation(IPV4MC_ACTION_CREATE, &transport, nullptr), full);
    EXPECT_EQ(ip6mc_platform_regdb_operation(IPV4MC_ACTION_COMMIT, &transport, &core), full);
    EXPECT_EQ(listed(IP6MC_PLATFORM_KINDS).size(), 0U);
}

TEST_F(SimEncaps, CountersOfAnEncap) {
    uint64_t packets = 1;
    uint64_t bytes = 1;
    uint64_t dropped = 1;
    EXPECT_EQ(
        ip6mc_platform_encap_get_hw_in_stats(0x12345, nullptr, nullptr, &packets, &bytes, &dropped),
        static_cast<cerrno>(ENOENT));
    EXPECT_EQ(packets + bytes + dropped, 0U);
    ASSERT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_CREATE, &encap), 0U);
    ASSERT_EQ(sim_set_encap_stats(0x12345, 1, 2, 3), 0U);
    ASSERT_EQ(ip6mc_platform_encap_get_hw_in_stats(0, &encap, nullptr, &packets, &bytes, &dropped),
              0U);
    EXPECT_EQ(packets, 1U);
    EXPECT_EQ(bytes, 2U);
    EXPECT_EQ(dropped, 3U);
    EXPECT_EQ(ip6mc_platform_encap_get_hw_in_stats(0, &encap, nullptr, nullptr, &bytes, nullptr),
              static_cast<cerrno>(EINVAL));
}

TEST_F(SimEncaps, MissingRecordsAreRefused) {
    const auto einval = static_cast<cerrno>(EINVAL);
    const uint8_t on = 1;
    EXPECT_EQ(ip6mc_platform_encapid_operation(IPV4MC_ACTION_CREATE, nullptr), einval);
    EXPECT_EQ(ip6mc_platform_encap_update(nullptr, 1, &on), einval);
    EXPECT_EQ(ip6mc_platform_encap_update(&encap, 1, nullptr), einval);
    EXPECT_EQ(ip6mc_platform_encap_leaf_operation(IPV4MC_ACTION_CREATE, &leaf, &encap, nullptr, 0),
              einval);
    EXPECT_EQ(ip6mc_platform_regdb_operation(IPV4MC_ACTION_CREATE, nullptr, nullptr), einval);
}

}  // namespace
