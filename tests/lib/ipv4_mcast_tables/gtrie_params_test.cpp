#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/gtrie/gtrie.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"
#include "tests/kit/service_faults.h"

using lines = std::vector<std::string>;

class TableTries : public ::testing::Test {
  protected:
    TableTries() {
        sim_reset();
        kit::heal_services();
    }

    static ipv4mc_table_st *make_table(uint32_t tid, uint32_t vrf_id, const char *name) {
        ipv4mc_table_st *table = nullptr;
        EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, vrf_id, name, &table, 16), 0U);
        return ip6mc_table_lookup_by_tbl_id(tid);
    }

    kit::run_dir dir_;
    kit::listener heard_;
    kit::library owner_;
};

TEST_F(TableTries, ParametersFollowTheTableAndTheTrie) {
    ipv4mc_table_st table{};
    ip6mc_gtrie_params_t params;
    struct {
        uint32_t tid;
        int is_signal;
        uint32_t kind;
        uint32_t bits;
        uint32_t decoded;
    } const rows[] = {{kit::default_tid, 0, 0, 256, 0},
                      {kit::default_tid, 1, 1, 256, 0},
                      {0xe0800123, 0, 2, 269, 0x123},
                      {0xe0800123, 1, 3, 269, 0x123}};
    for (const auto &row : rows) {
        table.tid = row.tid;
        memset(static_cast<void *>(&params), 0xee, sizeof(params));
        ipv4mc_set_default_gtrie_init(&params, &table, row.is_signal);
        EXPECT_EQ(params.version_mark, 0U);
        EXPECT_EQ(params.evm, ipv4mc_desc->evm);
        EXPECT_EQ(params.shared, 1U);
        EXPECT_EQ(params.shmwin_id, ipv4mc_desc->shmwin_id);
        EXPECT_EQ(params.gtrie_kind, row.kind);
        EXPECT_EQ(params.tid_decoded, row.decoded);
        EXPECT_EQ(params.flags, 1U);
        EXPECT_EQ(params.key_bits, row.bits);
        EXPECT_EQ(params.node_size, 624U);
        EXPECT_EQ(params.alloc_fn, ipv4mc_shmwin_malloc_inline);
        EXPECT_EQ(params.free_fn, ipv4mc_shmwin_free_inline);
        EXPECT_EQ(params.leaf_position, 0U);
    }
    const lines said = heard_.lines(IPV4_DEBUG_DEV);
    ASSERT_GE(said.size(), 4U);
    EXPECT_TRUE(said.back().starts_with("ipv4mc_set_default_gtrie_init-")) << said.back();
    EXPECT_TRUE(said.back().ends_with(
        ": Table type-0/tid-0xe0800123 default-0xe0800000 htype-0x3,plen-269"))
        << said.back();
}

TEST_F(TableTries, AWalkOverNoTablesIsASuccess) {
    EXPECT_EQ(ip6mc_reinit_tables(), 0U);
    EXPECT_EQ(heard_.errors(), lines{});
}

TEST_F(TableTries, AreReconnectedTableByTable) {
    ASSERT_NE(make_table(5, 6, "red"), nullptr);
    ASSERT_NE(make_table(9, 10, "blue"), nullptr);
    heard_.clear();
    kit::heal_services();
    EXPECT_EQ(ip6mc_reinit_tables(), 0U);
    EXPECT_EQ(kit::service_calls("ip6mc_gtrie_platform_re_init"), 2U);
    EXPECT_EQ(kit::service_calls("ip6mc_gtrie_re_init"), 2U);
    const lines said = heard_.lines(IPV4_DEBUG_DEV);
    ASSERT_FALSE(said.empty());
    EXPECT_EQ(said[0], "Table type-1/tid-0x5, i-Y, e-N, s-Y");
    EXPECT_EQ(heard_.errors(), lines{});
}

TEST_F(TableTries, AFailureEndsTheWalk) {
    ASSERT_NE(make_table(5, 6, "red"), nullptr);
    ipv4mc_table_st *blue = make_table(9, 10, "blue");
    ASSERT_NE(blue, nullptr);
    heard_.clear();
    kit::heal_services();
    kit::fail_service("ip6mc_gtrie_platform_re_init", EIO);
    EXPECT_EQ(ip6mc_reinit_tables(), 5U);
    EXPECT_EQ(kit::service_calls("ip6mc_gtrie_platform_re_init"), 1U);
    EXPECT_EQ(heard_.errors(), lines{"Cannot re-init ingress table 0x5(red): Input/output error"});
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_WRN), lines{"ReinitAll failed : Input/output error"});

    kit::fail_service("ip6mc_gtrie_re_init", EIO);
    EXPECT_EQ(ip6mc_reinit_tables(), 5U);
    EXPECT_EQ(heard_.errors(), lines{"Cannot re-init signal table 0x5(red): Input/output error"});

    // No table of this build has an egress trie; one borrows a trie for a moment.
    blue->egress_gtrie = blue->ingress_gtrie;
    kit::fail_service("ip6mc_gtrie_platform_re_init", EIO, 1, 2);
    EXPECT_EQ(ip6mc_reinit_tables(), 5U);
    EXPECT_EQ(heard_.errors(), lines{"Cannot re-init egress table 0x9(blue): Input/output error"});
    blue->egress_gtrie = nullptr;
}

TEST_F(TableTries, AFailedReconnectionFailsTheStart) {
    ASSERT_NE(make_table(5, 6, "red"), nullptr);
    ipv4mc_desc->lib_init = 0;
    heard_.clear();
    kit::fail_service("ip6mc_gtrie_re_init", EIO);
    EXPECT_EQ(kit::start_library(), 5U);
    EXPECT_EQ(heard_.errors(), (lines{"Cannot re-init signal table 0x5(red): Input/output error",
                                      "Cannot re-initialize tables: Input/output error"}));
    kit::heal_services();
    kit::fail_service("ip6mc_gtrie_platform_re_init", EIO, 1, 1);  // the trie of encaps
    EXPECT_EQ(kit::start_library(), 5U);
    EXPECT_EQ(heard_.errors(), (lines{"Cannot re-init encap Gtrie error 5 Input/output error",
                                      "Cannot re-initialize tables: Input/output error"}));
    EXPECT_EQ(kit::start_library(), 0U);
    EXPECT_NE(ipv4mc_desc->shmwin_info->encap_gtrie, nullptr);
}
