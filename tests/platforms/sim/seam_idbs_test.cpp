#include "tests/platforms/sim/sim_fixture.h"

namespace {

class SimIdbs : public SimTest {
  protected:
    SimIdbs() {
        idb.ifh = 5;
        other.ifh = 6;
    }
    cerrno op(uint32_t action, ipv4mc_idb_st *a, ipv4mc_idb_st *b = nullptr) {
        return ip6mc_platform_idb_operation(action, a, b, &spec);
    }
    sim_idb held() {
        sim_idb out = {};
        EXPECT_EQ(sim_find_idb(5, &out), 0U);
        return out;
    }
    ipv4mc_idb_st idb = {};
    ipv4mc_idb_st other = {};
    ipv4mc_idb_op_spec_st spec = {};
};

TEST_F(SimIdbs, CreateAndDestroy) {
    idb.type = idb_type_bundle;
    ASSERT_EQ(op(IPV4MC_IDB_OP_CREATE, &idb, &other), 0U);
    EXPECT_EQ(held().type, static_cast<uint32_t>(idb_type_bundle));
    EXPECT_EQ(held().parent_ifh, 6U);
    ASSERT_EQ(op(IPV4MC_IDB_OP_DESTROY, &idb), 0U);
    EXPECT_EQ(sim_find_idb(5, nullptr), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(op(IPV4MC_IDB_OP_DESTROY, &idb), 0U) << "again";
}

TEST_F(SimIdbs, EachSettingIsKeptAndTakenBack) {
    idb.ttl = 9;
    idb.mtu = 1500;
    idb.remote_mtu = 1400;
    idb.table_id = 77;
    for (const uint32_t on : {IPV4MC_IDB_OP_ENABLE, IPV4MC_IDB_OP_TTL_SET, IPV4MC_IDB_OP_AIB_UPDATE,
                              IPV4MC_IDB_OP_BOUNDARY_UPDATE, IPV4MC_IDB_OP_DPL_ON,
                              IPV4MC_IDB_OP_MTU, IPV4MC_IDB_OP_REMOTE_MTU}) {
        ASSERT_EQ(op(on, &idb), 0U) << on;
    }
    ASSERT_EQ(op(IPV4MC_IDB_OP_TUNNEL_ACTIVATE, &idb, &other), 0U);
    sim_idb h = held();
    EXPECT_EQ(h.enabled, 1);
    EXPECT_EQ(h.ttl, 9);
    EXPECT_EQ(h.has_aib, 1);
    EXPECT_EQ(h.has_boundary, 1);
    EXPECT_EQ(h.dpl_local, 1);
    EXPECT_EQ(h.mtu, 1500U);
    EXPECT_EQ(h.remote_mtu, 1400U);
    EXPECT_EQ(h.table_id, 77U);
    EXPECT_EQ(h.tunnel_active, 1);
    EXPECT_EQ(h.parent_ifh, 6U);
    for (const uint32_t off : {IPV4MC_IDB_OP_DISABLE, IPV4MC_IDB_OP_AIB_ZERO,
                               IPV4MC_IDB_OP_BOUNDARY_DELETE, IPV4MC_IDB_OP_DPL_OFF}) {
        ASSERT_EQ(op(off, &idb), 0U) << off;
    }
    ASSERT_EQ(op(IPV4MC_IDB_OP_TUNNEL_DEACTIVATE, &idb, nullptr), 0U);
    h = held();
    EXPECT_EQ(h.enabled + h.has_aib + h.has_boundary + h.dpl_local + h.tunnel_active, 0);
    EXPECT_EQ(h.parent_ifh, 0U);
}

TEST_F(SimIdbs, TakingBackWhatWasNeverToldMakesNoInterface) {
    for (const uint32_t off :
         {IPV4MC_IDB_OP_DISABLE, IPV4MC_IDB_OP_AIB_DELETE, IPV4MC_IDB_OP_BOUNDARY_DELETE,
          IPV4MC_IDB_OP_DPL_OFF, IPV4MC_IDB_OP_TUNNEL_DEACTIVATE, IPV4MC_IDB_OP_DESTROY}) {
        EXPECT_EQ(op(off, &idb), 0U) << off;
    }
    EXPECT_EQ(op(IPV4MC_IDB_OP_MEMBER_DELETE, &idb, &other), 0U);
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_IDB), 0U);
}

TEST_F(SimIdbs, MembersOfBundlesVlansAndSessions) {
    ASSERT_EQ(op(IPV4MC_IDB_OP_MEMBER_ADD, &idb, &other), 0U);
    ASSERT_EQ(op(IPV4MC_IDB_OP_MEMBER_ADD, &idb, &other), 0U) << "again";
    EXPECT_EQ(held().members, 1);
    EXPECT_EQ(sim_has_member(5, 6), 1);
    EXPECT_EQ(sim_has_member(6, 5), 0);
    ASSERT_EQ(op(IPV4MC_IDB_OP_VLAN_MEMBER_DELETE, &idb, &other), 0U);
    EXPECT_EQ(sim_has_member(5, 6), 0);
    ASSERT_EQ(op(IPV4MC_IDB_OP_PPPOE_MEMBER_ADD, &idb, &other), 0U);
    ASSERT_EQ(op(IPV4MC_IDB_OP_DESTROY, &idb), 0U);
    EXPECT_EQ(sim_has_member(5, 6), 0) << "members go with their parent";
    EXPECT_EQ(op(IPV4MC_IDB_OP_MEMBER_ADD, &idb, nullptr), static_cast<cerrno>(EINVAL));
}

TEST_F(SimIdbs, TheKindOfAnOperationRecordIsTold) {
    spec.type = 99;
    spec.state = 99;
    ASSERT_EQ(op(IPV4MC_IDB_OP_SPEC_INIT, nullptr), 0U);
    EXPECT_EQ(spec.type, 0U);
    spec.type = idb_type_tunnel;
    ASSERT_EQ(op(IPV4MC_IDB_OP_TYPE_SET, &idb), 0U);
    EXPECT_EQ(held().type, static_cast<uint32_t>(idb_type_tunnel));
}

TEST_F(SimIdbs, TheStateIsAskedForAndItsChangeIsTold) {
    static ipv4mc_platform_msg_st heard;
    static int times;
    times = 0;
    spec.callback = [](ipv4mc_descriptor_struct *, const ipv4mc_platform_msg_st *message) {
        heard = *message;
        ++times;
    };
    ASSERT_EQ(op(IPV4MC_IDB_OP_INIT, nullptr), 0U);
    ASSERT_EQ(op(IPV4MC_IDB_OP_GET_STATE, nullptr), 0U);
    EXPECT_EQ(spec.state, static_cast<uint32_t>(IPV4MC_PLATFORM_STATE_READY));
    sim_set_idb_state(IPV4MC_PLATFORM_STATE_NOT_READY);
    sim_set_idb_state(IPV4MC_PLATFORM_STATE_NOT_READY);
    EXPECT_EQ(times, 1);
    EXPECT_EQ(heard.new_state, static_cast<uint32_t>(IPV4MC_PLATFORM_STATE_NOT_READY));
    EXPECT_EQ(heard.old_state, static_cast<uint32_t>(IPV4MC_PLATFORM_STATE_READY));
    ASSERT_EQ(ip6mc_platform_lib_terminate(1, 2), 0U);
    sim_set_idb_state(IPV4MC_PLATFORM_STATE_READY);
    EXPECT_EQ(times, 1) << "nobody listens any more";
}

TEST_F(SimIdbs, MissingArgumentsAreRefused) {
    const auto einval = static_cast<cerrno>(EINVAL);
    EXPECT_EQ(op(IPV4MC_IDB_OP_ENABLE, nullptr), einval);
    EXPECT_EQ(ip6mc_platform_idb_operation(IPV4MC_IDB_OP_GET_STATE, nullptr, nullptr, nullptr),
              einval);
    EXPECT_EQ(ip6mc_platform_idb_operation(IPV4MC_IDB_OP_TYPE_SET, &idb, nullptr, nullptr), einval);
}

TEST_F(SimIdbs, FullMeansThatNoInterfaceIsAdded) {
    sim_set_capacity(IP6MC_PLATFORM_IDB, 1);
    ASSERT_EQ(op(IPV4MC_IDB_OP_CREATE, &idb), 0U);
    EXPECT_EQ(op(IPV4MC_IDB_OP_CREATE, &other), static_cast<cerrno>(ENOSPC));
    EXPECT_EQ(op(IPV4MC_IDB_OP_ENABLE, &idb), 0U);
}

}  // namespace
