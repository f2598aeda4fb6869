#include <set>

#include "services/gtrie/gtrie.h"
#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

class SignalWalk : public with_owner {};

struct visit {
    std::vector<uint32_t> seen;  // last byte of the group
    int remove_every = 0;        // 1: each route
    cerrno fail_at = 0;
    std::function<void(size_t)> then;
};

cerrno look(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, void *context) {
    auto *v = static_cast<visit *>(context);
    v->seen.push_back(route->group.bytes[15]);
    if (v->remove_every != 0) {
        ipv4mc_intf_entry_st *intf = route->intf_list;
        EXPECT_EQ(ip6mc_signal_remove_signal_route(table, &route, &intf), 0U);
        EXPECT_EQ(route, nullptr);
    }
    if (v->then)
        v->then(v->seen.size());
    return v->seen.size() == 2 ? v->fail_at : 0;
}

TEST_F(SignalWalk, FirstAndNextGiveAllRoutesOfTheTableInOrder) {
    EXPECT_EQ(ip6mc_signal_first_key(table, &any, &any), nullptr);
    ipv4mc_table_st *other = make_table(6, "blue");
    ASSERT_NE(other, nullptr);
    for (const uint32_t g : {9U, 3U, 7U})
        ASSERT_EQ(add(table, 1, g, ifh_a), 0U);
    ASSERT_EQ(add(table, 2, 3, ifh_a), 0U);
    ASSERT_EQ(add(other, 1, 4, ifh_a), 0U);
    std::vector<std::pair<uint32_t, uint32_t>> seen;
    for (auto *r = ip6mc_signal_first_key(table, &any, &any); r != nullptr;
         r = ip6mc_signal_next(table, r)) {
        seen.emplace_back(r->group.bytes[15], r->source.bytes[15]);
    }
    const std::vector<std::pair<uint32_t, uint32_t>> all{{3, 1}, {3, 2}, {7, 1}, {9, 1}};
    EXPECT_EQ(seen, all);
    const ip_maddr_st g = group(3);
    const ip_maddr_st s = source(2);
    auto *of_group = ip6mc_signal_first_key(table, &any, &g);
    ASSERT_NE(of_group, nullptr);
    EXPECT_EQ(of_group->source.bytes[15], 1);
    auto *exact = ip6mc_signal_first_key(table, &s, &g);
    ASSERT_NE(exact, nullptr);
    EXPECT_EQ(exact->source.bytes[15], 2);
    EXPECT_EQ(errors(), texts{});
}

TEST_F(SignalWalk, TablesThatShareATrieAreKeptApart) {
    ip6mc_gtrie_set_sharing(1);
    std::vector<ipv4mc_table_st *> tables{make_table(21, "a"), make_table(22, "b"),
                                          make_table(23, "c")};
    ip6mc_gtrie_set_sharing(0);
    for (auto *t : tables) {
        ASSERT_NE(t, nullptr);
        for (uint32_t g = 1; g <= 3; ++g)
            ASSERT_EQ(add(t, 1, g, ifh_a), 0U);
    }
    for (auto *t : tables) {
        visit v;
        EXPECT_EQ(ip6mc_signal_walk(t, 0, 0, look, &v), 0U);
        EXPECT_EQ(v.seen, (std::vector<uint32_t>{1, 2, 3}));
        EXPECT_EQ(t->signal_route_count, 3U);
    }
    visit v;
    v.remove_every = 1;
    EXPECT_EQ(ip6mc_signal_walk(tables[1], 1, 0, look, &v), 0U);
    EXPECT_EQ(tables[1]->signal_route_count, 0U);
    EXPECT_EQ(tables[2]->signal_route_count, 3U);
}

TEST_F(SignalWalk, AFunctionThatRemovesItsRouteLeavesTheWalkIntact) {
    for (uint32_t g = 1; g <= 20; ++g)
        ASSERT_EQ(add(table, 1, g, ifh_a), 0U);
    visit v;
    v.remove_every = 1;
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, look, &v), 0U);
    EXPECT_EQ(v.seen.size(), 20U);
    EXPECT_EQ(std::set<uint32_t>(v.seen.begin(), v.seen.end()).size(), 20U);
    EXPECT_EQ(ip6mc_signal_first_key(table, &any, &any), nullptr);
    EXPECT_EQ(table->signal_route_count, 0U);
    EXPECT_EQ(errors(), texts{});
}

TEST_F(SignalWalk, RoutesThatOthersRemoveWhileTheMutexIsGivenUpArePassedOver) {
    for (uint32_t g = 1; g <= 9; ++g)
        ASSERT_EQ(add(table, 1, g, ifh_a), 0U);
    visit v;
    // The function stands in for the others: it removes the route that the walk has taken as its
    // next, and the one behind that.
    v.then = [&](size_t n) {
        if (n == 3) {
            const ip_maddr_st s = source(1);
            for (const uint32_t gone : {4U, 5U}) {
                const ip_maddr_st g = group(gone);
                EXPECT_EQ(ip6mc_signal_remove(table, &s, &g, ifh_a), 0U);
            }
        }
    };
    EXPECT_EQ(ip6mc_signal_walk(table, 1, 0, look, &v), 0U);
    EXPECT_EQ(v.seen, (std::vector<uint32_t>{1, 2, 3, 6, 7, 8, 9}));
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalWalk, GivesTheMutexUpBehindEachBatch) {
    for (uint32_t g = 1; g <= 6; ++g)
        ASSERT_EQ(add(table, 1, g, ifh_a), 0U);
    // Whoever holds the packet mutex is told at each yield.
    ipv6_mlib_pak_client_mutex_lock("packet path", 77);
    for (const auto &[batch, yields] :
         {std::pair{0U, 0U}, {2U, 3U}, {4U, 1U}, {6U, 1U}, {7U, 0U}}) {
        errors();
        visit v;
        EXPECT_EQ(ip6mc_signal_walk(table, batch, 0, look, &v), 0U);
        EXPECT_EQ(v.seen.size(), 6U);
        const texts said = errors();
        EXPECT_EQ(static_cast<size_t>(std::count_if(said.begin(), said.end(),
                                                    [](const std::string &t) {
                                                        return t.ends_with(
                                                            "Mult lock count 1 (packet path/77)");
                                                    })),
                  yields)
            << batch;
    }
    ipv6_mlib_pak_client_mutex_unlock("packet path", 78);
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

TEST_F(SignalWalk, MoreThanOneHoldOfThePacketMutexIsReportedAtTheStart) {
    visit v;
    ipv4mc_desc->shmwin_info->pak_lock_count = 2;
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, look, &v), 0U);
    texts said = errors();
    ASSERT_EQ(said.size(), 1U);
    EXPECT_NE(said[0].find("] Multiple lock count 2 ("), std::string::npos) << said[0];
    ipv4mc_desc->shmwin_info->pak_lock_count = static_cast<uint32_t>(-1);
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, look, &v), 0U);
    said = errors();
    ASSERT_EQ(said.size(), 1U);
    EXPECT_TRUE(said[0].ends_with("] Negative lock count: -1")) << said[0];
    ipv4mc_desc->shmwin_info->pak_lock_count = 0;
}

TEST_F(SignalWalk, AskingForThePacketMutexInsideTheWalkIsReported) {
    ASSERT_EQ(add(table, 1, 1, ifh_a), 0U);
    visit v;
    v.then = [](size_t) {
        ipv6_mlib_pak_client_mutex_lock("wrong order", 5);
        ipv6_mlib_pak_client_mutex_unlock("wrong order", 6);
    };
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, look, &v), 0U);
    const texts said = errors();
    ASSERT_EQ(said.size(), 1U);
    EXPECT_TRUE(said[0].starts_with("Pak mtx with shmwin : shmwin (ip6mc_signal_walk, "))
        << said[0];
}

TEST_F(SignalWalk, AFailureOfTheFunctionEndsIt) {
    for (uint32_t g = 1; g <= 4; ++g)
        ASSERT_EQ(add(table, 1, g, ifh_a), 0U);
    visit v;
    v.fail_at = EIO;
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, look, &v), unsigned{EIO});
    EXPECT_EQ(v.seen.size(), 2U);
    EXPECT_EQ(errors(), texts{text("Error while walking signal table %s: %s", tag.c_str(),
                                   cerr_strerror(EIO))});
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

TEST_F(SignalWalk, LocksAreReported) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    visit v;
    {
        const no_lock full;
        EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, look, &v), unsigned{ENOLCK});
        EXPECT_TRUE(has(errors(), "Cannot lock shmwin_mutex: " + reason(ENOLCK)));
        EXPECT_EQ(ip6mc_signal_first_key(table, &s, &g), nullptr);
        EXPECT_TRUE(has_start(errors(), "Cannot lock shmwin_mutex " + tag));
        EXPECT_EQ(ip6mc_signal_next(table, route), nullptr);
        EXPECT_TRUE(has_start(errors(), "Cannot lock shmwin_mutex " + tag));
    }
    v.then = [](size_t) { ip6mc_shmwin_mutex_unlock(); };
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, look, &v), 0U);
    EXPECT_TRUE(has(errors(), "Cannot unlock shmwin_mutex: " + reason(EPERM)));
    // In the middle: the unlock fails, and the walk goes on under a mutex of its own.
    ASSERT_EQ(add(table, 1, 3, ifh_a), 0U);
    int times = 0;
    v.seen.clear();
    v.then = [&](size_t) {
        if (times++ == 0)
            ip6mc_shmwin_mutex_unlock();
    };
    EXPECT_EQ(ip6mc_signal_walk(table, 1, 0, look, &v), 0U);
    EXPECT_EQ(v.seen.size(), 2U);
    EXPECT_TRUE(has(errors(), "Cannot unlock shmwin_mutex: " + reason(EPERM)));
    // The mutex does not come back: the walk ends.
    no_lock full;
    full.release();
    std::unique_ptr<no_lock> late;
    v.seen.clear();
    v.then = [&](size_t) {
        ip6mc_shmwin_mutex_unlock();
        late = std::make_unique<no_lock>();
    };
    EXPECT_EQ(ip6mc_signal_walk(table, 1, 0, look, &v), unsigned{ENOLCK});
    EXPECT_EQ(v.seen.size(), 1U);
    late.reset();
    EXPECT_TRUE(has(errors(), "Cannot lock shmwin_mutex: " + reason(ENOLCK)));
}

TEST_F(SignalWalk, FailuresOfTheTrieAreReported) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    visit v;
    void *trie = std::exchange(table->signal_gtrie, nullptr);
    const std::string why = reason(GTRIE_E_BAD_HANDLE);
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, look, &v), unsigned{GTRIE_E_BAD_HANDLE});
    EXPECT_TRUE(
        has(errors(), "Cannot find first signal route for table " + tag + " Gtrie error " + why));
    EXPECT_EQ(ip6mc_signal_first_key(table, &s, &g), nullptr);
    EXPECT_TRUE(has(errors(), tag +
                                  ": Cannot find the first leaf for (2001:db8::1,ff0e::2/256) in "
                                  "signal_first_key : " +
                                  why));
    EXPECT_EQ(ip6mc_signal_next(table, route), nullptr);
    EXPECT_TRUE(has(errors(), "Error getting successor of (2001:db8::1,ff0e::2/256) signal table " +
                                  tag + ": " + why));
    table->signal_gtrie = trie;
}

TEST_F(SignalWalk, UnlockFailuresOfTheStepsAreReported) {
    // The report of the failed search is a line of class 0, in which the test lets go of the mutex.
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    void *trie = std::exchange(table->signal_gtrie, nullptr);
    {
        const unlock_at first(text("%s: Cannot find the first leaf", tag.c_str()));
        EXPECT_EQ(ip6mc_signal_first_key(table, &s, &g), nullptr);
        EXPECT_TRUE(first.done());
        EXPECT_TRUE(
            has(errors(), text("Cannot unlock shmwin_mutex %s: (2001:db8::1,ff0e::2/256) in "
                               "signal_first_key : %s",
                               tag.c_str(), cerr_strerror(EPERM))));
    }
    {
        const unlock_at next("Error getting successor of ");
        EXPECT_EQ(ip6mc_signal_next(table, route), nullptr);
        EXPECT_TRUE(next.done());
        EXPECT_TRUE(
            has(errors(), text("Cannot unlock shmwin_mutex %s: (2001:db8::1,ff0e::2/256) in "
                               "signal_next : %s",
                               tag.c_str(), cerr_strerror(EPERM))));
    }
    table->signal_gtrie = trie;
}

// To find its place again behind a route that others removed, a walk needs a leaf for a moment.
TEST_F(SignalWalk, NoMemoryToFindItsPlaceEndsIt) {
    failing_memory::into(table);
    for (uint32_t g = 1; g <= 4; ++g)
        ASSERT_EQ(add(table, 1, g, ifh_a), 0U);
    visit v;
    v.then = [&](size_t n) {
        if (n == 2) {
            const ip_maddr_st s = source(1);
            const ip_maddr_st g = group(3);
            EXPECT_EQ(ip6mc_signal_remove(table, &s, &g, ifh_a), 0U);
            failing_memory::refuse_type = GTRIE_ALLOC_LEAF;
        }
    };
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, look, &v), unsigned{ENOMEM});
    failing_memory::refuse_type = UINT32_MAX;
    EXPECT_EQ(v.seen, (std::vector<uint32_t>{1, 2}));
    EXPECT_TRUE(has(errors(), "Error getting successor of (2001:db8::1,ff0e::2/256) signal table " +
                                  tag + ": " + reason(ENOMEM)));
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalWalk, RefusesWhatIsMissing) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    const ip_maddr_st s = source(1);
    EXPECT_EQ(ip6mc_signal_first_key(nullptr, &s, &s), nullptr);
    EXPECT_EQ(errors(), texts{"Null table pointer"});
    EXPECT_EQ(ip6mc_signal_next(nullptr, route), nullptr);
    EXPECT_EQ(errors(), texts{"Null table pointer"});
    EXPECT_EQ(ip6mc_signal_next(table, nullptr), nullptr);
    EXPECT_EQ(errors(), texts{"Null route pointer"});
    EXPECT_EQ(ip6mc_signal_walk(table, 0, 0, nullptr, nullptr), unsigned{EINVAL});
    EXPECT_EQ(errors(), texts{"Null function pointer"});
    visit v;
    EXPECT_EQ(ip6mc_signal_walk(nullptr, 0, 0, look, &v), unsigned{EINVAL});
    EXPECT_EQ(errors(), texts{"Null table pointer"});
}

}  // namespace
