#include <thread>

#include "tests/lib/signal/fixture.h"

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

}  // namespace
