#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

// Set by the walk behind a restart, which an event manager asks for.
void pass_restart_walk() {
    static int evm;
    ipv4mc_desc->evm = &evm;
    ipv4mc_idb_update_state(IPV4MC_IDB_STATE_READY);
    ipv4mc_desc->evm = nullptr;
}

class IdbRefcountCheck : public Idb {
  protected:
    // 1 when `references` fit the record; the warning otherwise.
    int check(uint32_t references) {
        const uint32_t kept = idb_->refcount;
        idb_->refcount = references;
        heard_.clear();
        const int fits = ip6mc_idb_refcount_sanity_fn(idb_);
        EXPECT_EQ(idb_->refcount, references) << "nothing is repaired";
        idb_->refcount = kept;
        const auto lines = heard_.lines(IPV4_DEBUG_WRN);
        warning_ = lines.empty() ? "" : lines.back();
        return fits;
    }

    ipv4mc_idb_st *idb_ = locked(0x10);
    std::string warning_;
};

TEST_F(IdbRefcountCheck, OfNothingIsZero) {
    EXPECT_EQ(ip6mc_idb_refcount_sanity_fn(nullptr), 0);
    EXPECT_EQ(ip6mc_idb_refcount_sanity_walk(nullptr), 1);
}

TEST_F(IdbRefcountCheck, CountsEachHolder) {
    EXPECT_EQ(check(0), 1);
    EXPECT_EQ(check(1), 0);
    EXPECT_EQ(warning_, "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 0,1 [0x0]");

    idb_->cfg_flags = IPV4MC_IDB_CFG_EXPLICIT;
    EXPECT_EQ(check(0), 0);
    EXPECT_EQ(warning_, "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 1,0 [0x20]");
    EXPECT_EQ(check(1), 1);

    idb_->boundary_name[0] = 'b';
    EXPECT_EQ(check(0), 0);
    EXPECT_EQ(warning_, "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 2,0 [0x60]");

    idb_->aib = reinterpret_cast<adj_base_t *>(idb_);
    EXPECT_EQ(check(0), 0);
    EXPECT_EQ(warning_, "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 3,0 [0x62]");

    idb_->route_count = 5;
    EXPECT_EQ(check(0), 0);
    EXPECT_EQ(warning_, "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 8,0 [0x72]");

    idb_->vrf_id = 3;
    EXPECT_EQ(check(0), 0);
    EXPECT_EQ(warning_, "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 9,0 [0x73]");

    // The fabric interface: one for itself, none for its VRF, whose bit stays.
    header()->fint_ifh = 0x10;
    EXPECT_EQ(check(0), 0);
    EXPECT_EQ(warning_, "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 9,0 [0xf3]");
    EXPECT_EQ(check(9), 1);
    idb_->aib = nullptr;
    idb_->route_count = 0;
    idb_->vrf_id = 0;
}

TEST_F(IdbRefcountCheck, ExemptsAnActiveTunnel) {
    idb_->tunnel_flags = IPV4MC_IDB_TUNNEL_ACTIVE;
    EXPECT_EQ(check(17), 1);
    EXPECT_EQ(warning_, "");
}

TEST_F(IdbRefcountCheck, CountsAnAnnouncementOnlyBehindTheRestartWalk) {
    idb_->im_create_rcvd = 1;
    pass_restart_walk();
    EXPECT_EQ(check(1), 1);
    EXPECT_EQ(check(0), 0);
    EXPECT_EQ(warning_, "IDB-WARN: Refcount mismatch ifh 0x10 - [2] 1,0 [0x4]");
}

TEST_F(IdbRefcountCheck, LeavesATraceRecord) {
    EXPECT_EQ(check(4), 0);
    EXPECT_EQ(heard_.traces(ip6mc_mlib_idb_warn_ltrace(), 0x100060001).size(), 1U);
}

TEST_F(IdbRefcountCheck, WalksATable) {
    ipv4mc_table_st *table = make_table(5, 6, "red");
    ASSERT_NE(shm_wavl_insert_thread(&ipmc_table_idb_fns, &table->idb_tree, ipmc_idb_idb2wavl(idb_),
                                     IPV4MC_IDB_THREAD_VRF),
              nullptr);
    locked(0x11);
    heard_.clear();
    EXPECT_EQ(ip6mc_idb_refcount_sanity_walk(table), 1);
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_WRN),
              std::vector<std::string>{"IDB-WARN: Refcount mismatch ifh 0x10 - [2] 0,1 [0x0]"});
    shm_wavl_delete_thread(&ipmc_table_idb_fns, &table->idb_tree, ipmc_idb_idb2wavl(idb_),
                           IPV4MC_IDB_THREAD_VRF);
}

}  // namespace
}  // namespace idb_test
