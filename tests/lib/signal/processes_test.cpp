#include "services/gtrie/gtrie.h"
#include "services/window/epochs.h"
#include "tests/kit/child.h"
#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

constexpr uint32_t routes = 64;

ipv4mc_table_st *attach() {
    return kit::start_library({.attach_only = 1}) == 0 ? ip6mc_table_lookup_by_tbl_id(tid)
                                                       : nullptr;
}

// Waits for the window, posts on routes of its own and on those of all.
int poster(const kit::post &parent, uint32_t me) {
    parent.hear();
    ipv4mc_table_st *table = attach();
    if (table == nullptr)
        return 1;
    parent.tell();
    int code = 0;
    for (uint32_t i = 0; i < 20 * routes && code == 0; ++i) {
        ipv4mc_route_entry_st *route = nullptr;
        const uint32_t n = 1 + i % routes;
        if (add(table, n, n, 0x1000 + me, &route) != 0)
            code = 2;
        if (add(table, 1000 * me + i % 50, n, 0x1000 + i % 2, &route) != 0)
            code = 3;
        if (i % 5 == 0 && probe(table, n, n, 0x2000) != 0)
            code = 4;
    }
    return ip6mc_lib_terminate(1, IPV4MC_TERMINATE_END) != 0 ? 5 : code;
}

TEST(SignalProcesses, ClientsPostWhileTheOwnerRemovesAndWalks) {
    kit::run_dir dir;
    std::vector<std::unique_ptr<kit::child>> posters;
    for (uint32_t p = 1; p <= 3; ++p) {
        posters.push_back(std::make_unique<kit::child>(
            [p](const kit::post &parent) { return poster(parent, p); }));
    }
    sim_reset();
    kit::library owner;
    ipv4mc_table_st *table = make_table();
    ASSERT_NE(table, nullptr);
    for (auto &p : posters)
        p->tell();
    for (auto &p : posters)
        ASSERT_NE(p->hear(), 0);
    for (uint32_t i = 0; i < 2000; ++i) {
        const ip_maddr_st s = source(1 + i % routes);
        const ip_maddr_st g = group(1 + i % routes);
        EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, 0x1001 + i % 3), 0U);
        if (i % 100 == 0) {
            EXPECT_EQ(ip6mc_signal_remove_all_routes(table, 4, 0), 0U);
        }
        // The owner counts blocks of the same types without the mutex.
        void *block = ipv4mc_shmwin_malloc_inline(600, IPMC_SHMWIN_ALLOC_ROUTE);
        EXPECT_EQ(ipv4mc_shmwin_free_inline(block, IPMC_SHMWIN_ALLOC_ROUTE), 0U);
    }
    for (auto &p : posters)
        EXPECT_EQ(p->wait(), 0);
    EXPECT_EQ(faults(table), "");
    while (table->signal_route_count != 0)
        ASSERT_EQ(ip6mc_signal_remove_all_routes(table, 4, 0), 0U);
    EXPECT_EQ(faults(table), "");
}

TEST(SignalProcesses, APosterKilledWithTheMutexLosesNothingThatWasDoneAndStopsNobody) {
    kit::run_dir dir;
    kit::child holder([](const kit::post &parent) {
        parent.hear();
        ipv4mc_table_st *table = attach();
        if (table == nullptr || ip6mc_shmwin_mutex_lock("holder", 1) != 0)
            return 1;
        ipv4mc_route_entry_st *route = nullptr;
        const ip_maddr_st s = source(1);
        const ip_maddr_st g = group(1);
        if (ip6mc_signal_add(table, &s, &g, ifh_a, &route) != 0)
            return 2;
        const mfwd6::journal::group open;  // and one that is cut off
        const ip_maddr_st s2 = source(2);
        if (ip6mc_signal_add(table, &s2, &g, ifh_a, &route) != 0)
            return 3;
        parent.tell();
        parent.hear();
        return 4;
    });
    sim_reset();
    kit::library owner;
    ipv4mc_table_st *table = make_table();
    ASSERT_NE(table, nullptr);
    holder.tell();
    ASSERT_NE(holder.hear(), 0);
    holder.kill();
    ipv4mc_route_entry_st *route = nullptr;
    EXPECT_EQ(add(table, 3, 1, ifh_a, &route), 0U);
    // Who holds the mutex is known again: the orders of locks are not said to be broken.
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
    kit::listener heard;
    ipv6_mlib_pak_client_mutex_lock("packet path", 1);
    ipv6_mlib_pak_client_mutex_unlock("packet path", 2);
    EXPECT_NE(route_of(table, 1, 1), nullptr);
    EXPECT_EQ(heard.errors(), texts{});
    EXPECT_EQ(route_of(table, 2, 1), nullptr);
    EXPECT_EQ(table->signal_route_count, 2U);
    EXPECT_EQ(changed().size(), 2U);
    EXPECT_EQ(faults(table), "");
}

// Deletion fails in a process that has lost the functions of its tries; only that process stops.
TEST(SignalProcesses, AClientThatFindsTheTrieCorruptStopsAndMayStartAgain) {
    kit::run_dir dir;
    kit::child client([](const kit::post &parent) {
        parent.hear();
        ipv4mc_table_st *table = attach();
        const ip_maddr_st s = source(1);
        const ip_maddr_st g = group(1);
        ip6mc_gtrie_set_memory(nullptr, nullptr);
        ip6mc_gtrie_reset_handle_db(0);
        if (table == nullptr || ip6mc_signal_remove_mutex(table, &s, &g, ifh_a) != EFAULT)
            return 1;
        if (ipv4mc_desc->state != 0 || ipv4mc_desc->lib_init != 0 || add(table, 2, 2, 7) != EBADF)
            return 2;
        table = attach();
        if (table == nullptr || add(table, 1, 1, ifh_a) != 0)
            return 3;
        return ip6mc_signal_remove_mutex(table, &s, &g, ifh_a) == 0 ? 0 : 4;
    });
    sim_reset();
    kit::library owner;
    ipv4mc_table_st *table = make_table();
    ASSERT_EQ(add(table, 1, 1, ifh_a), 0U);
    client.tell();
    EXPECT_EQ(client.wait(), 0);
    EXPECT_EQ(ipv4mc_desc->shmwin_info->mlib_corrupted, 1U);
    EXPECT_EQ(ipv4mc_desc->state, 2U);
    EXPECT_EQ(add(table, 5, 5, ifh_a), 0U);
    EXPECT_EQ(table->signal_route_count, 1U);
    EXPECT_EQ(faults(table), "");
}

TEST(SignalProcesses, AClientRemovesWhatTheOwnerPosted) {
    kit::run_dir dir;
    kit::child client([](const kit::post &parent) {
        parent.hear();
        ipv4mc_table_st *table = attach();
        const ip_maddr_st s = source(1);
        const ip_maddr_st g = group(1);
        return table == nullptr ? 1
                                : static_cast<int>(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a));
    });
    sim_reset();
    kit::library owner;
    ipv4mc_table_st *table = make_table();
    const uint32_t live = ipmc_shmwin_live_blocks(ipv4mc_desc->shmwin_info, IPMC_SHMWIN_ALLOC_INTF);
    ASSERT_EQ(add(table, 1, 1, ifh_a), 0U);
    client.tell();
    EXPECT_EQ(client.wait(), 0);
    EXPECT_EQ(ipmc_shmwin_live_blocks(ipv4mc_desc->shmwin_info, IPMC_SHMWIN_ALLOC_INTF), live);
    EXPECT_EQ(faults(table), "");
}

// Whoever posts while the table goes posts ahead of its end, and the signal goes with it, or finds
// no trie any more.
TEST(SignalProcesses, ATableThatGoesBesideAPosterTakesItsSignalsWithIt) {
    kit::run_dir dir;
    kit::child client([](const kit::post &parent) {
        parent.hear();
        if (attach() == nullptr)
            return 1;
        uint32_t reader = 0;
        if (shmwin_reader_enter(ipv4mc_desc->shmwin_id, &reader) != 0)
            return 2;
        parent.tell();
        for (uint32_t n = 1;; ++n) {
            shmwin_reader_quiescent(ipv4mc_desc->shmwin_id, reader);
            ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
            if (table != nullptr)
                add(table, n % 50 + 1, n % 7, ifh_a + n % 3);
        }
        return 0;
    });
    sim_reset();
    kit::start how;
    how.free_hook = [](void *block, int) {
        while (shmwin_defer(ipv4mc_desc->shmwin_id, block) != 0)
            shmwin_reclaim(ipv4mc_desc->shmwin_id, 0, nullptr, nullptr, nullptr);
    };
    kit::library owner(how);
    ip6mc_shmwin_buffer_status(0);
    ipv4mc_table_st *table = make_table();
    client.tell();
    ASSERT_EQ(client.hear(), '.');
    uint32_t with_signals = 0;
    for (uint32_t n = 0; n < 300; ++n) {
        usleep(200);
        with_signals += table->signal_route_count != 0 ? 1U : 0U;
        ipv4mc_table_st *vrf = table->vtable;
        ASSERT_EQ(ip6mc_table_operation(IPV4MC_ACTION_DELETE, tid, vrf->vrf_id, "red", &vrf, 16),
                  0U);
        shmwin_reclaim(ipv4mc_desc->shmwin_id, 0, nullptr, nullptr, nullptr);
        table = make_table();
        ASSERT_NE(table, nullptr);
    }
    EXPECT_GT(with_signals, 10U);
    client.kill();
    // Its last change is run back by whoever asks for the mutex next.
    EXPECT_EQ(add(table, 1, 1, ifh_a), 0U);
    EXPECT_EQ(faults(table), "");
    // The search key of the dead client, and nothing else.
    EXPECT_EQ(kit::window_leftovers(), texts{"orphan of type AVL"});
}

}  // namespace
