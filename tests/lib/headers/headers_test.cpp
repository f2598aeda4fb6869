// Every public header compiles alone in both languages (see CMakeLists.txt), and both see the same
// records. The layouts themselves are pinned here a second time: when this test fails although the
// change was meant, windows of the former build can no longer be read, and the library's minor
// version (IP6MC_VERSION_MINOR) is what has to be raised with these figures.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>

#include "tests/lib/headers/all.h"
#include "tests/lib/headers/layouts.h"

namespace {

const layout layouts_cpp[] = {
#include "tests/lib/headers/layouts.inc"
};

TEST(PublicHeaders, CAndCppSeeTheSameRecords) {
    ASSERT_EQ(std::size(layouts_cpp), layouts_c_count);
    for (size_t i = 0; i < layouts_c_count; ++i) {
        ASSERT_STREQ(layouts_cpp[i].what, layouts_c[i].what);
        EXPECT_EQ(layouts_cpp[i].value, layouts_c[i].value) << layouts_c[i].what;
    }
}

TEST(PublicHeaders, LayoutOfVersion15IsUnchanged) {
    ASSERT_EQ(IP6MC_VERSION_MAJOR, 1);
    ASSERT_EQ(IP6MC_VERSION_MINOR, 15);
    const std::map<std::string, size_t> pinned = {
        {"ipv4mc_shmwin_hdr_st", 10304},
        {"ipv4mc_shmwin_hdr_st.retry_queue", 9832},
        {"ipmc_shmwin_guard_st", 24},
        {"ipmc_shmwin_pool_bucket_st", 16},
        {"ipv4mc_table_st", 544},
        {"ipv4mc_table_st.tid", 48},
        {"ipv4mc_table_st.idb_tree", 264},
        {"ipv4mc_route_entry_st", 544},
        {"ipv4mc_route_rate_st", 192},
        {"ipv4mc_intf_entry_st", 264},
        {"ipv4mc_intf_entry_st.avl_node", 168},
        {"ipv4mc_idb_st", 416},
        {"ipv4mc_idb_st.name", 264},
        {"ipmc_intf_change_req_st", 88},
        {"ipv4mc_encap_entry_st", 64},
        {"ipv4mc_encap_leaf_st", 56},
        {"ipv4mc_regdb_key_st", 28},
        {"ipv4mc_regdb_entry_st", 120},
        {"ipv4mc_bvi_entry_t", 184},
        {"ipv4mc_bvi_if_t", 96},
        {"ipv4mc_bvi_intf_db_t", 56},
        {"ipmc_retry_msg", 40},
    };
    size_t seen = 0;
    for (const layout &l : layouts_cpp) {
        const auto found = pinned.find(l.what);
        if (found != pinned.end()) {
            EXPECT_EQ(l.value, found->second) << l.what;
            ++seen;
        }
    }
    EXPECT_EQ(seen, pinned.size());
}

TEST(PublicHeaders, AttributeBitsOfAWordAreDistinct) {
    const uint64_t route[] = {
        MRIB_ROUTE_IA,         MRIB_ROUTE_IF,        MRIB_ROUTE_TID_DEMAND,
        MRIB_ROUTE_TID_STICKY, MRIB_ROUTE_MT,        MRIB_ROUTE_MH,
        MRIB_ROUTE_DT,         MRIB_ROUTE_DT_REMOTE, MRIB_ROUTE_CLEAR_ATTR,
        MRIB_ROUTE_ENCAP,      MRIB_ROUTE_RPF_ID,    MRIB_ROUTE_MOFRR_UPD,
        MRIB_ROUTE_SIGNAL,     MRIB_ROUTE_DROP,      MRIB_ROUTE_CONNECTED_CHECK};
    const uint64_t intf[] = {MRIB_INTF_SP,
                             MRIB_INTF_COUNTED,
                             MRIB_INTF_EG,
                             MRIB_INTF_MI,
                             MRIB_INTF_BVI,
                             MRIB_INTF_LMI,
                             MRIB_INTF_TMI,
                             MRIB_INTF_IRMI,
                             MRIB_INTF_REGDB,
                             MRIB_INTF_TRMI,
                             MRIB_INTF_ACCEPT,
                             MRIB_INTF_FORWARD,
                             MRIB_INTF_NEGATE_SIGNAL,
                             MRIB_INTF_LOCAL_COPY};
    uint64_t all = 0;
    for (const uint64_t bit : route) {
        EXPECT_EQ(all & bit, 0U);
        all |= bit;
    }
    all = 0;
    for (const uint64_t bit : intf) {
        EXPECT_EQ(all & bit, 0U);
        all |= bit;
    }
    EXPECT_EQ(all & ~MRIB_INTF_ANY, 0U) << "a bit that a walk over any interface would miss";
}

TEST(PublicHeaders, IdbOperationsAreDistinctBits) {
    const uint32_t ops[] = {
        IPV4MC_IDB_OP_AIB_UPDATE,
        IPV4MC_IDB_OP_AIB_DELETE,
        IPV4MC_IDB_OP_BOUNDARY_UPDATE,
        IPV4MC_IDB_OP_BOUNDARY_DELETE,
        IPV4MC_IDB_OP_TTL_SET,
        IPV4MC_IDB_OP_ENABLE,
        IPV4MC_IDB_OP_DISABLE,
        IPV4MC_IDB_OP_INIT,
        IPV4MC_IDB_OP_CREATE,
        IPV4MC_IDB_OP_DESTROY,
        IPV4MC_IDB_OP_MEMBER_ADD,
        IPV4MC_IDB_OP_MEMBER_DELETE,
        IPV4MC_IDB_OP_GET_STATE,
        IPV4MC_IDB_OP_SPEC_INIT,
        IPV4MC_IDB_OP_TUNNEL_ACTIVATE,
        IPV4MC_IDB_OP_TUNNEL_DEACTIVATE,
        IPV4MC_IDB_OP_TYPE_SET,
        IPV4MC_IDB_OP_AIB_ZERO,
        IPV4MC_IDB_OP_VLAN_MEMBER_ADD,
        IPV4MC_IDB_OP_VLAN_MEMBER_DELETE,
        IPV4MC_IDB_OP_DPL_ON,
        IPV4MC_IDB_OP_DPL_OFF,
        IPV4MC_IDB_OP_MTU,
        IPV4MC_IDB_OP_REMOTE_MTU,
        IPV4MC_IDB_OP_PPPOE_MEMBER_ADD,
        IPV4MC_IDB_OP_PPPOE_MEMBER_DELETE,
    };
    std::set<uint32_t> seen;
    for (const uint32_t op : ops) {
        EXPECT_EQ(op & (op - 1), 0U) << op;
        EXPECT_TRUE(seen.insert(op).second) << op;
    }
}

}  // namespace
