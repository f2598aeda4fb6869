#include <sched.h>

#include <cerrno>

#include "tests/lib/ipv4_mcast_tables/tables.h"

namespace {
int yields = 0;
}  // namespace

// Stands in for the C library's: the library calls this one.
extern "C" __attribute__((visibility("default"))) int sched_yield() noexcept {
    ++yields;
    return 0;
}

using namespace tables;

namespace {

ip_maddr_st address(uint8_t first, uint8_t last) {
    ip_maddr_st a{};
    auto *bytes = reinterpret_cast<uint8_t *>(&a);
    bytes[0] = first;
    bytes[15] = last;
    return a;
}
const ip_maddr_st none{};

class RouteWalk : public with_owner {
  protected:
    RouteWalk() {
        operate(9, 5, 6, "red", &red);
        operate(9, 7, 8, "blue", &blue);
        five = red->tid_table;
        seven = blue->tid_table;
        heard.clear();
    }
    ipv4mc_route_entry_st *add(ipv4mc_table_st *tid, uint8_t source, uint8_t group,
                               uint16_t length = 256) {
        const ip_maddr_st s = source != 0 ? address(0x20, source) : none;
        const ip_maddr_st g = address(0xff, group);
        ipv4mc_route_entry_st *route = nullptr;
        int is_new = 0;
        EXPECT_EQ(ip6mc_route_operation(IPV4MC_ACTION_CREATE, tid, &s, &g, length, nullptr, &route,
                                        0, 0, &is_new),
                  0U);
        EXPECT_EQ(ip6mc_route_operation(IPV4MC_ACTION_COMMIT, tid, &s, &g, length, nullptr, &route,
                                        0, 0, &is_new),
                  0U);
        return route;
    }
    ipv4mc_table_st *red = nullptr;
    ipv4mc_table_st *blue = nullptr;
    ipv4mc_table_st *five = nullptr;
    ipv4mc_table_st *seven = nullptr;
};
FOR_BOTH_KINDS_OF_TRIES(RouteWalk);

TEST_P(RouteWalk, TheFirstRouteOfATableOrOfAKey) {
    EXPECT_EQ(ip6mc_route_first_key(five, &none, &none, 0), nullptr);
    ipv4mc_route_entry_st *wild = add(five, 0, 1, 128);
    ipv4mc_route_entry_st *exact = add(five, 9, 1);
    add(seven, 9, 1);
    const ip_maddr_st group = address(0xff, 1);
    const ip_maddr_st source = address(0x20, 9);
    // Without addresses the length does not count.
    EXPECT_EQ(ip6mc_route_first_key(five, &none, &none, 200), wild);
    EXPECT_EQ(ip6mc_route_first_key(five, &none, &group, 128), wild);
    // With a source neither.
    EXPECT_EQ(ip6mc_route_first_key(five, &source, &group, 0), exact);
    const ip_maddr_st other = address(0xff, 2);
    EXPECT_EQ(ip6mc_route_first_key(five, &none, &other, 128), nullptr);
    EXPECT_TRUE(heard.errors().empty());
}

TEST_P(RouteWalk, BadArgumentsAreReported) {
    ipv4mc_route_entry_st *route = add(five, 1, 1);
    const auto nothing = [](ipv4mc_route_entry_st *, void *) -> cerrno { return 0; };
    heard.clear();
    EXPECT_EQ(ip6mc_route_first_key(nullptr, &none, &none, 0), nullptr);
    EXPECT_EQ(ip6mc_route_next(nullptr, route), nullptr);
    EXPECT_EQ(ip6mc_route_next(five, nullptr), nullptr);
    EXPECT_EQ(ip6mc_route_walk(nullptr, 0, nothing, nullptr), EINVAL);
    EXPECT_EQ(ip6mc_route_walk(five, 0, nullptr, nullptr), EINVAL);
    EXPECT_EQ(heard.errors(),
              (texts{"Null table pointer", "Null table pointer", "Null route pointer",
                     "Null table pointer.", "Null function pointer."}));
    sim_set_state(IPV4MC_PLATFORM_STATE_READY - 1);
    heard.clear();
    EXPECT_EQ(ip6mc_route_first_key(five, &none, &none, 0), nullptr);
    EXPECT_EQ(ip6mc_route_next(five, route), nullptr);
    EXPECT_EQ(ip6mc_route_walk(five, 0, nothing, nullptr), EBADF);
    EXPECT_EQ(heard.errors(), (texts{"Multicast library not ready", "Multicast library not ready",
                                     "Multicast library Not ready\n"}));
    sim_set_state(IPV4MC_PLATFORM_STATE_READY);
}

TEST_P(RouteWalk, ATrieThatFailsIsReported) {
    ipv4mc_route_entry_st *route = add(five, 1, 1);
    void *const trie = std::exchange(five->ingress_gtrie, nullptr);
    heard.clear();
    EXPECT_EQ(ip6mc_route_first_key(five, &none, &none, 0), nullptr);
    const ip_maddr_st group = address(0xff, 1);
    const ip_maddr_st source = address(0x20, 1);
    // The length that was searched for, not the one that was given.
    EXPECT_EQ(ip6mc_route_first_key(five, &source, &group, 3), nullptr);
    EXPECT_EQ(ip6mc_route_next(five, route), nullptr);
    const std::string code = cerr_strerror(GTRIE_E_BAD_HANDLE);
    EXPECT_EQ(heard.errors(),
              (texts{"0x5(red): Cannot find the first leaf for (*,::/0): " + code,
                     "0x5(red): Cannot find the first leaf for (2000::1,ff00::1/256): " + code,
                     "Error getting successor of (2000::1,ff00::1/256) table 0x5(red): " + code}));
    five->ingress_gtrie = trie;
}

TEST_P(RouteWalk, LeavesOfOtherTablesArePassedOver) {
    std::vector<ipv4mc_route_entry_st *> mine;
    for (uint8_t i = 1; i <= 20; ++i) {
        mine.push_back(add(five, i, 1));
        add(seven, i, 1);
    }
    std::vector<ipv4mc_route_entry_st *> seen;
    for (ipv4mc_route_entry_st *route = ip6mc_route_first_key(five, &none, &none, 0);
         route != nullptr; route = ip6mc_route_next(five, route)) {
        seen.push_back(route);
    }
    EXPECT_EQ(seen, mine);
    EXPECT_EQ(ip6mc_route_next(five, mine.back()), nullptr);
    // A foreign leaf in the first place ends the search.
    mine.front()->table = seven;
    EXPECT_EQ(ip6mc_route_first_key(five, &none, &none, 0), nullptr);
    mine.front()->table = five;
    EXPECT_TRUE(heard.errors().empty());
}

TEST_P(RouteWalk, TheWalkEndsWithItsFunction) {
    for (uint8_t i = 1; i <= 5; ++i)
        add(five, i, 1);
    int calls = 0;
    EXPECT_EQ(ip6mc_route_walk(
                  five, 0,
                  [](ipv4mc_route_entry_st *, void *context) -> cerrno {
                      return ++*static_cast<int *>(context) == 3 ? 5 : 0;
                  },
                  &calls),
              ECANCELED);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(ip6mc_route_walk(
                  seven, 0, [](ipv4mc_route_entry_st *, void *) -> cerrno { return 5; }, nullptr),
              0U);
}

TEST_P(RouteWalk, TheProcessorIsGivenUpAfterSoManyRoutes) {
    for (uint8_t i = 1; i <= 7; ++i)
        add(five, i, 1)->route_flags |= 0x04;
    const auto count = [](ipv4mc_route_entry_st *, void *context) -> cerrno {
        ++*static_cast<int *>(context);
        return 0;
    };
    for (const auto &[every, expected] :
         {std::pair{0U, 0}, {1U, 6}, {2U, 3}, {3U, 2}, {7U, 0}, {8U, 0}}) {
        int calls = 0;
        yields = 0;
        EXPECT_EQ(ip6mc_route_walk(five, every, count, &calls), 0U);
        EXPECT_EQ(calls, 7);
        EXPECT_EQ(yields, expected) << every;
    }
    // Routes that stay do not count towards it when a table is emptied.
    yields = 0;
    uint32_t stayed = 0;
    EXPECT_EQ(ip6mc_route_delete_all(five, 1, 2, 1, &stayed), 0U);
    EXPECT_EQ(stayed, 7U);
    EXPECT_EQ(yields, 0);

    for (const auto &[every, expected] : {std::pair{0U, 0}, {2U, 3}}) {
        for (uint8_t i = 1; i <= 7; ++i)
            add(seven, i, 1);
        yields = 0;
        EXPECT_EQ(ip6mc_route_delete_all(seven, every, 2, 1, &stayed), 0U);
        EXPECT_EQ(yields, expected) << every;
    }

    ipv6_mlib_pak_client_mutex_lock("holder", 42);
    heard.clear();
    EXPECT_EQ(ip6mc_route_delete_all(seven, 0, 2, 0, &stayed), 0U);
    const texts told = heard.errors();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_NE(told[0].find("] Mult lock count 1 (holder/42)"), std::string::npos) << told[0];
    heard.clear();
    int calls = 0;
    EXPECT_EQ(ip6mc_route_walk(five, 4, count, &calls), 0U);
    const texts all = heard.errors();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_NE(all[0].find("] Mult lock count 1 (holder/42)"), std::string::npos) << all[0];
    ipv6_mlib_pak_client_mutex_unlock("holder", 43);
}

TEST_P(RouteWalk, ATableWithoutTriesPostponesTheDeletion) {
    ipv4mc_table_st *green = nullptr;
    ASSERT_EQ(operate(3, 0, 9, "green", &green), 0U);
    heard.clear();
    uint32_t stayed = 7;
    EXPECT_EQ(ip6mc_route_delete_all(green, 0, 2, 0, &stayed), 0U);
    EXPECT_EQ(stayed, 0U);
    EXPECT_EQ(events(),
              (texts{"Rte_del_all: type 0x0 t0x0/v0x9/green", "Postpone deletion of routes"}));
    ipv4mc_table_st *orphan = nullptr;
    ASSERT_EQ(operate(3, 11, 0, nullptr, &orphan), 0U);
    heard.clear();
    EXPECT_EQ(ip6mc_route_delete_all(orphan, 0, 2, 0, &stayed), 0U);
    EXPECT_EQ(events(), texts{"Rte_del_all: type 0x1 t0xb/v0x0/**"});
    EXPECT_EQ(ip6mc_route_delete_all(nullptr, 0, 2, 0, &stayed), EINVAL);
    EXPECT_EQ(heard.errors(), texts{"Null table"});
}

}  // namespace
