#include <thread>

#include "tests/lib/signal/model.h"

namespace {

using namespace signals;

class SignalThreads : public with_owner {};

cerrno pass(ipv4mc_table_st *, ipv4mc_route_entry_st *, void *) {
    return 0;
}

TEST_F(SignalThreads, PostRemoveAndWalkBesideEachOther) {
    heard.reset();  // its sink is for one thread
    constexpr uint32_t rounds = 400;
    std::vector<std::thread> posters;
    for (uint32_t t = 0; t < 3; ++t) {
        posters.emplace_back([this, t] {
            for (uint32_t i = 0; i < rounds; ++i) {
                const uint32_t n = 1 + (i * 7 + t) % 32;
                EXPECT_EQ(add(table, n, n, 0x100 + i % 3), 0U);
                EXPECT_EQ(probe(table, n, n, 0x200 + t), 0U);
                ip6mc_signal_incr_total_pkts_preserved();
            }
        });
    }
    uint32_t walks = 0;
    for (uint32_t i = 0; i < rounds; ++i) {
        const ip_maddr_st s = source(1 + i % 32);
        const ip_maddr_st g = group(1 + i % 32);
        EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, 0x100 + i % 3), 0U);
        EXPECT_EQ(ip6mc_signal_remove_all_mutex(table, &s, &g), 0U);
        if (i % 16 == 0) {
            EXPECT_EQ(ip6mc_signal_walk(table, 4, 0, pass, nullptr), 0U);
            ++walks;
        }
    }
    for (auto &p : posters)
        p.join();
    EXPECT_GT(walks, 0U);
    EXPECT_EQ(ip6mc_signal_get_total_pkts_preserved(), 3 * rounds);
    EXPECT_EQ(faults(table), "");
    while (table->signal_route_count != 0)
        ASSERT_EQ(ip6mc_signal_remove_all_routes(table, 8, 0), 0U);
    EXPECT_EQ(changed().size(), 0U);
    EXPECT_EQ(faults(table), "");
}

// Each thread on an interface of its own, all on the same routes: nobody's signal is lost.
TEST_F(SignalThreads, EveryThreadFindsItsSignals) {
    heard.reset();
    constexpr uint32_t threads = 4;
    own_signals of[threads] = {};
    std::vector<std::thread> posters;
    for (uint32_t t = 0; t < threads; ++t) {
        posters.emplace_back([&, t] {
            dice random(t);
            for (int i = 0; i < 300; ++i)
                EXPECT_EQ(of[t].step(table, 0x100 + t, random), 0U);
        });
    }
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(ip6mc_signal_walk(table, 2, 0, pass, nullptr), 0U);
        if (ip6mc_changed_routes_wait(1) == 0) {
            EXPECT_EQ(ip6mc_shmwin_mutex_lock("drain", 1), 0U);
            while (ipv4mc_desc->shmwin_info->changed_route_head != nullptr)
                ipv4mc_changelist_remove_route(ipv4mc_desc->shmwin_info->changed_route_head);
            EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), 0U);
        }
    }
    for (auto &p : posters)
        p.join();
    for (uint32_t t = 0; t < threads; ++t)
        EXPECT_EQ(of[t].differs(table, 0x100 + t), "");
    EXPECT_EQ(faults(table), "");
}

}  // namespace
