#include <gtest/gtest.h>

#include "services/diag/debug.h"
#include "tests/kit/child.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"

using lines = std::vector<std::string>;

namespace {

struct flag {
    const char *name;
    cerrno (*set)();
    cerrno (*clear)();
    cerrno (*get)(uint32_t *value_p);
    uint32_t ipv4mc_shmwin_hdr_st::*word;
    bool warns;  // on a closed window; else it reports
};

const flag flags[] = {
    {"UpdateInProgress", ip6mc_set_update_in_progress_flag, ip6mc_clear_update_in_progress_flag,
     ip6mc_get_update_in_progress_flag, &ipv4mc_shmwin_hdr_st::update_in_progress, true},
    {"Transaction", ip6mc_set_transaction_flag, ip6mc_clear_transaction_flag,
     ip6mc_get_transaction_flag, &ipv4mc_shmwin_hdr_st::transaction_flag, true},
    {"IntfChangePending", ip6mc_set_intf_change_pending_flag, ip6mc_clear_intf_change_pending_flag,
     ip6mc_get_intf_change_pending_flag, &ipv4mc_shmwin_hdr_st::intf_change_pending, true},
    {"NetioTransaction", ipv4mc_set_netio_transaction_flag, ipv4mc_clear_netio_transaction_flag,
     ipv4mc_get_netio_transaction_flag, &ipv4mc_shmwin_hdr_st::netio_transaction_flag, false},
};

class TransactionFlag : public ::testing::TestWithParam<flag> {
  protected:
    kit::run_dir dir_;
    kit::listener heard_;
};

}  // namespace

TEST_P(TransactionFlag, IsAWordOfTheHeader) {
    const flag &f = GetParam();
    const kit::library owner;
    heard_.clear();
    ipv4mc_update_state(0);  // the library need not be ready
    uint32_t value = 7;
    EXPECT_EQ(f.get(&value), 0U);
    EXPECT_EQ(value, 0U);
    EXPECT_EQ(f.set(), 0U);
    EXPECT_EQ(ipv4mc_desc->shmwin_info->*f.word, 1U);
    EXPECT_EQ(f.get(&value), 0U);
    EXPECT_EQ(value, 1U);
    for (const flag &other : flags) {
        EXPECT_EQ(ipv4mc_desc->shmwin_info->*other.word, other.word == f.word ? 1U : 0U);
    }
    EXPECT_EQ(f.clear(), 0U);
    EXPECT_EQ(f.get(&value), 0U);
    EXPECT_EQ(value, 0U);
    EXPECT_EQ(heard_.errors(), lines{});
    EXPECT_EQ(f.get(nullptr), 22U);
    EXPECT_EQ(heard_.errors(), lines{"NULL flag pointer"});
}

TEST_P(TransactionFlag, IsRefusedOnAClosedWindow) {
    const flag &f = GetParam();
    uint32_t value = 7;
    EXPECT_EQ(f.set(), 9U);
    EXPECT_EQ(f.clear(), 9U);
    EXPECT_EQ(f.get(&value), 9U);
    EXPECT_EQ(value, 7U);
    const lines said(3, "shmwin not initialized");
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_WRN), f.warns ? said : lines{});
    EXPECT_EQ(heard_.errors(), f.warns ? lines{} : said);
    EXPECT_EQ(heard_.lines(IPV4_DEBUG_ERR), f.warns ? lines{} : said);
}

TEST_P(TransactionFlag, OutlivesAKilledProcess) {
    const flag &f = GetParam();
    kit::child first([&](const kit::post &parent) {
        const kit::library owner;
        f.set();
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_NE(first.hear(), '\0');
    first.kill();
    kit::child second([&](const kit::post &) {
        const kit::library owner;
        uint32_t value = 7;
        return f.get(&value) == 0 && value == 1 ? 0 : 1;
    });
    EXPECT_EQ(second.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Each, TransactionFlag, ::testing::ValuesIn(flags),
                         [](const auto &one) { return std::string(one.param.name); });

TEST(UpdateState, RemembersTheStateBefore) {
    ipv4mc_update_state(1);
    ipv4mc_update_state(2);
    EXPECT_EQ(ipv4mc_desc->prev_state, 1U);
    EXPECT_EQ(ipv4mc_desc->state, 2U);
    ipv4mc_update_state(0);
}
