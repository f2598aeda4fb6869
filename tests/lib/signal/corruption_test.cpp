#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

class SignalCorruption : public with_owner {
  protected:
    void expect_stopped() {
        EXPECT_EQ(ipv4mc_desc->shmwin_info->mlib_corrupted, 1U);
        EXPECT_EQ(ipv4mc_desc->lib_init, 0);
        EXPECT_EQ(ipv4mc_desc->state, 0U);
        EXPECT_EQ(ipv4mc_desc->prev_state, 2U);
        EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
        EXPECT_EQ(add(table, 8, 8, ifh_a), unsigned{EBADF});
        EXPECT_EQ(ip6mc_signal_get_total_pkts_preserved(), 5000U);
        errors();
    }
};

// The library has stopped when it is printed.
constexpr const char *no_name = "Er0x00000010";
constexpr const char *key = "(2001:db8::1,ff0e::2/256)";

TEST_F(SignalCorruption, AFailedInsertStopsTheLibraryUntilANewStart) {
    failing_memory::into(table);
    const auto before = counts();
    failing_memory::refuse_type = GTRIE_ALLOC_NODE;
    ipv4mc_route_entry_st *route = nullptr;
    cerrno rc = 0;
    uint32_t made = 0;
    // The nodes that are there have room for some leaves.
    while (made < 100000 && (rc = add(table, 1, 2 + made, ifh_a, &route)) == 0)
        ++made;
    ASSERT_EQ(rc, unsigned{EFAULT}) << made;
    EXPECT_EQ(route, nullptr);
    EXPECT_TRUE(
        has_start(errors(), "Failed to insert signal route " + tag + ": (2001:db8::1,ff0e::"));
    expect_stopped();
    EXPECT_EQ(table->signal_route_count, made);
    EXPECT_EQ(table->signal_route_adds, made);
    if (made == 0) {
        EXPECT_EQ(counts(), before);
    }
    ASSERT_EQ(kit::start_library({}), 0U);
    EXPECT_EQ(add(table, 1, 2 + made, ifh_a, &route), 0U);
    EXPECT_NE(route, nullptr);
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalCorruption, AFailedDeleteStopsTheLibraryUntilANewStart) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ip6mc_gtrie_reset_handle_db(0);  // a trie of which the process knows nothing refuses
    EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), unsigned{EFAULT});
    const texts said = errors();
    EXPECT_TRUE(has(said, text("Cannot delete route from signal table %s:%s %s: %s", tag.c_str(),
                               key, name_a, cerr_strerror(GTRIE_E_NO_FUNCTIONS))));
    EXPECT_TRUE(has(said, text("%s: Failed removing signal on %s %s: %s ", tag.c_str(), no_name,
                               key, cerr_strerror(EFAULT))));
    expect_stopped();
    ASSERT_EQ(kit::start_library({}), 0U);
    EXPECT_EQ(route_of(table, 1, 2), route);
    EXPECT_EQ(add(table, 1, 2, ifh_a), 0U);
    EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), 0U);
    EXPECT_EQ(route_of(table, 1, 2), nullptr);
    EXPECT_EQ(faults(table), "");
}

}  // namespace
