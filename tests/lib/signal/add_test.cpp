#include <pthread.h>
#include <unistd.h>

#include <thread>

#include "services/locks/rrw_lock.h"
#include "services/window/setup.h"
#include "tests/kit/service_faults.h"
#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

class SignalAdd : public with_owner {};

constexpr const char *key = "(2001:db8::1,ff0e::2/256)";

TEST_F(SignalAdd, MakesARouteWithTheInterfaceAndMarksItChanged) {
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 7;
    int exists = 7;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route, &is_new, &exists), 0U);
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(is_new, 1);
    EXPECT_EQ(exists, 7);
    EXPECT_EQ(route->pfx_len, 256);
    EXPECT_EQ(route->table, table);
    EXPECT_NE(route->create_time.tv_sec + route->create_time.tv_nsec, 0);
    EXPECT_EQ(route->attributes & MRIB_INTF_SP, 0U);
    ASSERT_NE(intf_of(route, ifh_a), nullptr);
    EXPECT_EQ(intf_of(route, ifh_a)->attributes, 0U);
    EXPECT_EQ(route_of(table, 1, 2), route);
    EXPECT_EQ(changed(), std::vector{route});
    EXPECT_EQ(table->signal_route_count, 1U);
    EXPECT_EQ(table->signal_route_adds, 1U);
    EXPECT_TRUE(
        has(event_lines(), text("Processing signal %s: %s intf=%s", tag.c_str(), key, name_a)));
    EXPECT_TRUE(has(signal_lines(), text("%s: Signaled %s %s route %p", tag.c_str(), name_a, key,
                                         static_cast<void *>(route))));
    EXPECT_EQ(errors(), texts{});
    EXPECT_EQ(faults(table), "");
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

TEST_F(SignalAdd, ASecondSignalOnTheSameInterfaceChangesNothing) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    auto *const first = route;
    const auto before = counts();
    int is_new = 7;
    int exists = 7;
    EXPECT_EQ(add(table, 1, 2, ifh_a, &route, &is_new, &exists), 0U);
    EXPECT_EQ(is_new, 0);
    EXPECT_EQ(exists, 1);
    EXPECT_EQ(route, nullptr);
    EXPECT_EQ(interfaces(first), 1U);
    EXPECT_EQ(counts(), before);
    EXPECT_EQ(table->signal_route_adds, 1U);
    EXPECT_TRUE(has(signal_lines(), text("%s: Signal on %s %s already exists route %p", tag.c_str(),
                                         name_a, key, static_cast<void *>(first))));
}

TEST_F(SignalAdd, ASecondInterfaceJoinsTheSameRoute) {
    ipv4mc_route_entry_st *first = nullptr;
    ipv4mc_route_entry_st *second = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &first), 0U);
    int is_new = 7;
    int exists = 7;
    EXPECT_EQ(add(table, 1, 2, ifh_b, &second, &is_new, &exists), 0U);
    EXPECT_EQ(second, first);
    EXPECT_EQ(is_new, 0);
    EXPECT_EQ(exists, 7);
    EXPECT_EQ(interfaces(first), 2U);
    EXPECT_EQ(table->signal_route_count, 1U);
    EXPECT_EQ(changed().size(), 1U);
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalAdd, TheFormForAHolderOfTheMutexDoesTheSame) {
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(ip6mc_shmwin_mutex_lock("test", 1), 0U);
    EXPECT_EQ(ip6mc_signal_add(table, &s, &g, ifh_a, &route), 0U);
    EXPECT_NE(route, nullptr);
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 1U);
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), 0U);
    EXPECT_EQ(errors(), texts{});
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalAdd, RefusesAnAllZeroSourceAndWhatIsMissing) {
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
    ipv4mc_route_entry_st *route = nullptr;
    EXPECT_EQ(ip6mc_signal_add_mutex(table, &any, &g, ifh_a, &route, nullptr, nullptr),
              unsigned{EINVAL});
    const std::string zero = text(
        "%s:S is Zero but pfx_len is 256 greater than 128, group=ff0e::2 %s", tag.c_str(), name_a);
    EXPECT_EQ(errors(), texts{zero});
    EXPECT_EQ(ip6mc_signal_rpf_alive(table, &g, ifh_a, &any), unsigned{EINVAL});
    EXPECT_EQ(errors(), texts{zero});
    EXPECT_EQ(ip6mc_signal_add_mutex(table, &s, &g, ifh_a, nullptr, nullptr, nullptr),
              unsigned{EINVAL});
    EXPECT_EQ(errors(),
              texts{text("Null Signal route for %s:%s intf %s", tag.c_str(), key, name_a)});
    EXPECT_EQ(ip6mc_signal_add_mutex(nullptr, &s, &g, ifh_a, &route, nullptr, nullptr),
              unsigned{EINVAL});
    EXPECT_EQ(ip6mc_signal_rpf_alive(table, nullptr, ifh_a, &s), unsigned{EINVAL});
    EXPECT_EQ(ip6mc_signal_add(table, nullptr, &g, ifh_a, &route), unsigned{EINVAL});
    EXPECT_EQ(table->signal_route_adds, 0U);
}

TEST_F(SignalAdd, LocksAreReported) {
    ipv4mc_route_entry_st *route = nullptr;
    {
        const no_lock full;
        EXPECT_EQ(add(table, 1, 2, ifh_a, &route), unsigned{ENOLCK});
        EXPECT_TRUE(has(errors(), text("Cannot lock shmwin_mutex %s: %s intf %s: %s", tag.c_str(),
                                       key, name_a, cerr_strerror(ENOLCK))));
    }
    const unlock_at once(tag + ": Signaled");
    EXPECT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    EXPECT_NE(route, nullptr);
    EXPECT_TRUE(has(errors(), text("Cannot Unlock shmwin_mutex %s: %s intf %s: %s", tag.c_str(),
                                   key, name_a, cerr_strerror(EPERM))));
}

TEST_F(SignalAdd, AFailedSearchIsReported) {
    void *trie = std::exchange(table->signal_gtrie, nullptr);
    EXPECT_EQ(add(table, 1, 2, ifh_a), unsigned{GTRIE_E_BAD_HANDLE});
    table->signal_gtrie = trie;
    EXPECT_TRUE(has(errors(), text("Cannot search in signal table for %s:%s %s Error %d %s",
                                   tag.c_str(), key, name_a, static_cast<int>(GTRIE_E_BAD_HANDLE),
                                   cerr_strerror(GTRIE_E_BAD_HANDLE))));
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

TEST_F(SignalAdd, NoMemoryForTheLeafLeavesNothingBehind) {
    failing_memory::into(table);
    const auto before = counts();
    failing_memory::refuse_type = GTRIE_ALLOC_LEAF;
    EXPECT_EQ(add(table, 1, 2, ifh_a), unsigned{ENOMEM});
    EXPECT_TRUE(has(errors(), text("Cannot create in a signal for %s: %s Error: %s ", tag.c_str(),
                                   key, cerr_strerror(ENOMEM))));
    EXPECT_EQ(counts(), before);
    EXPECT_EQ(table->signal_route_adds, 0U);
    EXPECT_EQ(faults(table), "");
}

TEST_F(SignalAdd, NoMemoryForTheInterfaceLeavesNothingBehind) {
    const auto before = counts();
    const auto extension = std::exchange(plat_params.intf_extension_size, 0x7fffff00);
    uint32_t id = 0;
    ip6mc_shmwin_get_id(&id);
    ASSERT_EQ(shmwin_set_growth_limit(id, 16U << 20), 0U);
    EXPECT_EQ(add(table, 1, 2, ifh_a), unsigned{ENOMEM});
    EXPECT_TRUE(has(errors(),
                    text("Failed to create signal interface %s: %s %s", tag.c_str(), key, name_a)));
    EXPECT_EQ(probe(table, 1, 2, ifh_a), unsigned{ENOMEM});
    plat_params.intf_extension_size = extension;
    EXPECT_EQ(counts(), before);
    EXPECT_EQ(table->signal_route_count, 0U);
    EXPECT_EQ(table->signal_route_adds, 0U);
    EXPECT_EQ(changed().size(), 0U);
    EXPECT_EQ(route_of(table, 1, 2), nullptr);
    EXPECT_EQ(faults(table), "");
    EXPECT_EQ(add(table, 1, 2, ifh_a), 0U);
}

TEST_F(SignalAdd, ARouteThatCannotBeFilledGoesAgain) {
    failing_memory::into(table);
    const auto before = counts();
    failing_memory::close_window = true;
    EXPECT_EQ(add(table, 1, 2, ifh_a), unsigned{EFAULT});
    EXPECT_TRUE(has(errors(), text("Failed to initialize signal route %s: %s %s", tag.c_str(), key,
                                   cerr_strerror(EFAULT))));
    EXPECT_EQ(probe(table, 1, 2, ifh_a), unsigned{EFAULT});
    EXPECT_TRUE(
        has_start(errors(), text("Failed to initialize signal route %s: %s ", tag.c_str(), key)));
    failing_memory::close_window = false;
    EXPECT_EQ(counts(), before);
    EXPECT_EQ(table->signal_route_adds, 0U);
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
}

TEST_F(SignalAdd, ARouteThatRefusesTheInterfaceKeepsItsOwn) {
    ipv4mc_route_entry_st *route = nullptr;
    ASSERT_EQ(add(table, 1, 2, ifh_a, &route), 0U);
    // The pool gives back what it got last: the address of the next entry is known.
    ipv4mc_intf_entry_st *next = ipv4mc_create_intf(ifh_b, 0, 0, 0, 0);
    auto *const address = next;
    ASSERT_EQ(ipv4mc_clear_intf(&next), 0U);
    auto *const list = std::exchange(route->intf_list, address);
    auto *const untyped = ip6mc_shmwin_malloc(16);
    const auto before = counts();
    ipv4mc_route_entry_st *result = nullptr;
    EXPECT_EQ(add(table, 1, 2, ifh_b, &result), unsigned{EINVAL});
    route->intf_list = list;
    EXPECT_EQ(result, nullptr);
    EXPECT_TRUE(has(errors(), text("Failed to add on new I/F%s to %s: %s: %s", name_b, tag.c_str(),
                                   key, cerr_strerror(EINVAL))));
    // Freed as an untyped block: the count of its type stays up by one, that of untyped blocks
    // falls.
    EXPECT_EQ(counts()[IPMC_SHMWIN_ALLOC_INTF], before[IPMC_SHMWIN_ALLOC_INTF] + 1);
    EXPECT_EQ(counts()[IPMC_SHMWIN_ALLOC_UNTYPED_COUNT],
              before[IPMC_SHMWIN_ALLOC_UNTYPED_COUNT] - 1);
    EXPECT_EQ(interfaces(route), 1U);
    ip6mc_shmwin_free(untyped);
}

TEST_F(SignalAdd, ANewRouteThatRefusesTheInterfaceGoesAgain) {
    const auto before = counts();
    for (const bool probed : {false, true}) {
        kit::fail_service("avl_insert", EINVAL);
        EXPECT_EQ(probed ? probe(table, 1, 2, ifh_a) : add(table, 1, 2, ifh_a), unsigned{EINVAL});
        kit::heal_services();
        EXPECT_TRUE(has(errors(), text("Failed to add on new I/F%s to %s: %s: %s", name_a,
                                       tag.c_str(), key, cerr_strerror(EINVAL))));
        EXPECT_EQ(route_of(table, 1, 2), nullptr);
    }
    EXPECT_EQ(table->signal_route_count, 0U);
    EXPECT_EQ(table->signal_route_adds, 0U);
    EXPECT_EQ(changed().size(), 0U);
    EXPECT_EQ(counts()[IPMC_SHMWIN_ALLOC_ROUTE], before[IPMC_SHMWIN_ALLOC_ROUTE]);
}

// The trees' lock is the innermost: a poster that waits for the reader's mutex does not hold it, so
// that a reader may look something up with its mutex held.
TEST_F(SignalAdd, WaitsForTheReadersMutexWithoutTheTreesLock) {
    heard.reset();  // its sink is for one thread
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    for (const bool probed : {false, true}) {
        ASSERT_EQ(pthread_mutex_lock(&hdr->changed_route_mutex), 0);
        std::thread poster(
            [&] { EXPECT_EQ(probed ? probe(table, 3, 3, ifh_a) : add(table, 2, 2, ifh_a), 0U); });
        while (mfwd6::journal::observe(hdr->changed_route_count) == 0)
            std::this_thread::yield();
        usleep(20000);
        const timespec soon{time(nullptr) + 3, 0};
        EXPECT_EQ(rrw_lock_get_timedrdlock(&hdr->tbl_rw_lock, &soon), 0U);
        rrw_lock_unlock(&hdr->tbl_rw_lock, __LINE__, 1);
        pthread_mutex_unlock(&hdr->changed_route_mutex);
        poster.join();
        EXPECT_EQ(hdr->changed_route_wake, 1);
        ipv4mc_changelist_remove_route(hdr->changed_route_head);
    }
}

}  // namespace
