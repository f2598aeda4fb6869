// What a killed owner left goes back, and nothing else.
#include "tests/apps/check/rich_state.h"

using mfwd6::check::check_window;
using mfwd6::check::reclaim;
using mfwd6::check::report;

TEST(Reclaim, NeedsAWindowAndASoundOne) {
    EXPECT_EQ(reclaim({}), static_cast<cerrno>(EBADF));
    rich::state state;
    state.busy->intf_local_EG_cnt = 0;
    EXPECT_EQ(reclaim(check_window()), static_cast<cerrno>(EINVAL));
    state.busy->intf_local_EG_cnt = 1;
}

TEST(Reclaim, OfASoundWindowDoesNothing) {
    rich::state state;
    uint64_t blocks = 99;
    EXPECT_EQ(reclaim(check_window(), &blocks), 0U);
    EXPECT_EQ(blocks, 0U);
    EXPECT_EQ(rich::lines(check_window()), "");
    EXPECT_NE(ip6mc_table_lookup_by_tbl_id(state.red->tid), nullptr);
}

TEST(Reclaim, GivesBackWhatNobodyReaches) {
    rich::state state;
    const report before = check_window();
    rich::allocate<ipv4mc_route_rate_st>(IPMC_SHMWIN_ALLOC_ROUTE);
    rich::allocate<ipv4mc_table_st>(IPMC_SHMWIN_ALLOC_TABLE);
    ipv4mc_intf_entry_st *entry = nullptr;
    bed::intf_operate(IPV4MC_ACTION_CREATE, state.busy, {IPV4MC_INTF_ORDINARY, 0x777, 0, 0}, &entry,
                      1);
    void *own = ip6mc_shmwin_malloc(100);  // a client's
    const report found = check_window();
    EXPECT_TRUE(found.clean()) << rich::lines(found);
    EXPECT_EQ(found.orphans.size(), 4U);
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    EXPECT_EQ(reclaim(found, &blocks, &bytes), 0U);
    EXPECT_EQ(blocks, 3U);
    EXPECT_GT(bytes, sizeof(ipv4mc_table_st));
    ip6mc_shmwin_free(own);
    const report after = check_window();
    EXPECT_EQ(rich::lines(after), "");
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        EXPECT_EQ(after.blocks[type].live, before.blocks[type].live) << type;
    }
    EXPECT_EQ(after.walked.at("object id"), before.walked.at("object id"));
    // The same report again finds other blocks there.
    EXPECT_EQ(reclaim(found, &blocks), 0U);
    EXPECT_EQ(blocks, 0U);
}

TEST(Reclaim, FreesTheSearchKeysOfTheDeadAndKeepsItsOwn) {
    kit::run_dir dir;
    for (int n = 0; n < 3; ++n) {
        kit::child owner([](const kit::post &parent) {
            kit::library library;
            parent.tell();
            parent.hear();
            return 0;
        });
        ASSERT_EQ(owner.hear(), '.');
        owner.kill();
    }
    kit::library library;
    bed::make_table(5, 6, "red");
    const report found = check_window();
    EXPECT_EQ(found.orphans.size(), 3U);
    EXPECT_EQ(found.search_keys, 1U);
    uint64_t blocks = 0;
    EXPECT_EQ(reclaim(found, &blocks), 0U);
    EXPECT_EQ(blocks, 3U);
    EXPECT_EQ(rich::lines(check_window()), "");
    EXPECT_NE(ip6mc_table_lookup_by_tbl_id(5), nullptr);
}

TEST(Reclaim, IsRefusedBesideOthersAndToAClient) {
    kit::run_dir dir;
    kit::child owner([](const kit::post &parent) {
        kit::library library;
        parent.tell();
        parent.hear();
        const cerrno rc = reclaim(check_window());
        parent.tell();
        parent.hear();
        return rc == EBUSY ? 0 : 1;
    });
    ASSERT_EQ(owner.hear(), '.');
    kit::start how;
    how.attach_only = 1;
    kit::library client(how);
    EXPECT_EQ(reclaim(check_window()), static_cast<cerrno>(EBUSY));
    owner.tell();
    EXPECT_EQ(owner.hear(), '.');
    owner.tell();
    EXPECT_EQ(owner.wait(), 0);
    // Nobody else is left, and this process is no owner.
    kit::child alone([](const kit::post &) { return 0; });
    alone.wait();
    EXPECT_EQ(reclaim(check_window()), static_cast<cerrno>(EPERM));
}
