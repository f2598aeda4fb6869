#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/kit/child.h"
#include "tests/lib/removal/rig.h"

using namespace bed;

namespace {

class ChangedRoutes : public bed::Test {
  protected:
    ChangedRoutes() {
        for (uint32_t n = 0; n < 3; ++n)
            r[n] = add(table, sg(n));
        forget();
    }
    std::vector<ipv4mc_route_entry_st *> listed() {
        std::vector<ipv4mc_route_entry_st *> result;
        const ipv4mc_route_entry_st *before = nullptr;
        for (auto *route = rig::header()->changed_route_head; route != nullptr;
             route = route->change_next) {
            EXPECT_EQ(route->change_prev, before);
            before = route;
            result.push_back(route);
        }
        EXPECT_EQ(rig::header()->changed_route_tail, before);
        EXPECT_EQ(rig::header()->changed_route_count, result.size());
        return result;
    }
    using list = std::vector<ipv4mc_route_entry_st *>;
    ipv4mc_route_entry_st *r[3];
};

}  // namespace

TEST_F(ChangedRoutes, StandInTheOrderOfTheirChangeOnce) {
    for (auto *route : r)
        EXPECT_EQ(ip6mc_mark_route_changed(route), 0U);
    for (auto *route : r)
        EXPECT_EQ(ip6mc_mark_route_changed(route), 0U);
    EXPECT_EQ(listed(), (list{r[0], r[1], r[2]}));
}

TEST_F(ChangedRoutes, TheOnlyOneIsKnownByTheTail) {
    ip6mc_mark_route_changed(r[0]);
    ip6mc_mark_route_changed(r[0]);
    EXPECT_EQ(listed(), list{r[0]});
}

TEST_F(ChangedRoutes, LeaveFromAnyPlaceAndTheCountFollows) {
    for (auto *route : r)
        ip6mc_mark_route_changed(route);
    EXPECT_EQ(ipv4mc_changelist_remove_route(r[1]), 0U);
    EXPECT_EQ(listed(), (list{r[0], r[2]}));
    EXPECT_EQ(ipv4mc_changelist_remove_route(r[1]), 0U);  // on no list: no count changes
    EXPECT_EQ(listed(), (list{r[0], r[2]}));
    EXPECT_EQ(ipv4mc_changelist_remove_route(r[2]), 0U);
    EXPECT_EQ(listed(), list{r[0]});
    EXPECT_EQ(ipv4mc_changelist_remove_route(r[0]), 0U);
    EXPECT_EQ(listed(), list{});
    for (auto *route : r)
        ip6mc_mark_route_changed(route);
    ipv4mc_changelist_remove_route(r[0]);
    EXPECT_EQ(listed(), (list{r[1], r[2]}));
}

TEST_F(ChangedRoutes, TheCountStaysAtZero) {
    ip6mc_mark_route_changed(r[0]);
    rig::header()->changed_route_count = 0;
    ipv4mc_changelist_remove_route(r[0]);
    EXPECT_EQ(rig::header()->changed_route_count, 0U);
}

TEST_F(ChangedRoutes, NamesWhatIsMissing) {
    EXPECT_EQ(ip6mc_mark_route_changed(nullptr), 22U);
    EXPECT_EQ(ipv4mc_changelist_remove_route(nullptr), 22U);
    ipv4mc_update_state(1);
    EXPECT_EQ(ip6mc_mark_route_changed(r[0]), 9U);
    EXPECT_EQ(ipv4mc_changelist_remove_route(r[0]), 9U);
    ipv4mc_update_state(2);
    ipv4mc_shmwin_hdr_st *hdr = std::exchange(ipv4mc_desc->shmwin_info, nullptr);
    EXPECT_EQ(ip6mc_mark_route_changed(r[0]), 22U);
    ipv4mc_desc->shmwin_info = hdr;
    EXPECT_EQ(errors(),
              (texts{"Null route pointer", "Null Route entry", "Multicast library Not ready\n",
                     "Multicast library Not ready\n", "Null shared memory window pointer"}));
}

TEST_F(ChangedRoutes, OnlyTheFirstWakesTheReader) {
    ipv4mc_shmwin_hdr_st *hdr = rig::header();
    ip6mc_mark_route_changed(r[0]);
    EXPECT_EQ(hdr->changed_route_wake, 1);
    hdr->changed_route_wake = 0;
    ip6mc_mark_route_changed(r[1]);
    EXPECT_EQ(hdr->changed_route_wake, 0);
}

TEST_F(ChangedRoutes, AWakeUpThatCannotBeMadeIsToldAndTheChangeStands) {
    pthread_mutex_t *mutex = &rig::header()->changed_route_mutex;
    // Held by a thread that is gone, and given up by one that did not mend it.
    std::thread([mutex] { pthread_mutex_lock(mutex); }).join();
    ASSERT_EQ(pthread_mutex_lock(mutex), EOWNERDEAD);
    pthread_mutex_unlock(mutex);
    EXPECT_EQ(ip6mc_mark_route_changed(r[0]), 0U);
    EXPECT_EQ(errors(), texts{"pthread_cond_signal failed [0x83] : " +
                              std::string(cerr_strerror(ENOTRECOVERABLE))});
    EXPECT_EQ(listed(), list{r[0]});
}

namespace {

// A reader in a process of its own, made before this one opens the window, and an owner beside it.
struct pair {
    explicit pair(const std::function<int(const kit::post &)> &work)
        : reader([&work](const kit::post &up) {
              up.hear();
              kit::start how;
              how.attach_only = 1;
              how.with_callback = false;
              const kit::library attached(how);
              return work(up);
          }) {
        sim_reset();
        owner = std::make_unique<kit::library>();
        start_interfaces();
        table = make_table(5, 6, "red");
        route = add(table, sg(1));
        reader.tell();
    }
    ~pair() {
        reader.kill();
        ip6mc_idb_terminate(0, 0);
    }
    kit::run_dir dir;
    kit::child reader;
    std::unique_ptr<kit::library> owner;
    ipv4mc_table_st *table = nullptr;
    ipv4mc_route_entry_st *route = nullptr;
};

}  // namespace

TEST(ChangedRoutesReader, InAnotherProcessIsWoken) {
    pair both([](const kit::post &up) {
        ipv4mc_shmwin_hdr_st *hdr = rig::header();
        pthread_mutex_lock(&hdr->changed_route_mutex);
        up.tell();
        while (hdr->changed_route_wake == 0) {
            pthread_cond_wait(&hdr->changed_route_cond, &hdr->changed_route_mutex);
        }
        pthread_mutex_unlock(&hdr->changed_route_mutex);
        return 7;
    });
    ASSERT_EQ(both.reader.hear(), '.');
    EXPECT_EQ(ip6mc_mark_route_changed(both.route), 0U);
    EXPECT_EQ(both.reader.wait(), 7);
}

TEST(ChangedRoutesReader, ThatDiedWithTheMutexDoesNotStopTheNextChange) {
    pair both([](const kit::post &up) {
        pthread_mutex_lock(&rig::header()->changed_route_mutex);
        up.tell();
        up.hear();
        return 0;
    });
    ASSERT_EQ(both.reader.hear(), '.');
    both.reader.kill();
    EXPECT_EQ(ip6mc_mark_route_changed(both.route), 0U);
    EXPECT_EQ(rig::header()->changed_route_wake, 1);
}

namespace {

// Attaches, and drains the list each time that it is woken, until it is killed; tells each time.
int drain_for_ever(const kit::post &up) {
    up.hear();
    const kit::library attached({.attach_only = 1, .with_callback = false});
    ipv4mc_shmwin_hdr_st *hdr = rig::header();
    up.tell();
    for (;;) {
        if (ip6mc_changed_routes_wait(60000) != 0 || ip6mc_shmwin_mutex_lock("reader", 1) != 0)
            return 1;
        const bool news = hdr->changed_route_head != nullptr;
        while (hdr->changed_route_head != nullptr)
            ipv4mc_changelist_remove_route(hdr->changed_route_head);
        if (ip6mc_shmwin_mutex_unlock() != 0)
            return 2;
        if (news)
            up.tell('d');
    }
}

cerrno mark_under_mutex(ipv4mc_route_entry_st *route) {
    EXPECT_EQ(ip6mc_shmwin_mutex_lock("poster", 1), 0U);
    const cerrno rc = ip6mc_mark_route_changed(route);
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), 0U);
    return rc;
}

}  // namespace

// A reader that is killed while it sleeps takes nothing with it: neither the next ones' wake-ups
// nor the posters' progress.
TEST(ChangedRoutesReader, ThatIsKilledInItsSleepStopsNobody) {
    kit::run_dir dir;
    std::vector<std::unique_ptr<kit::child>> readers;
    for (int i = 0; i < 6; ++i)
        readers.push_back(std::make_unique<kit::child>(drain_for_ever));
    sim_reset();
    const kit::library owner;
    start_interfaces();
    ipv4mc_route_entry_st *route = add(make_table(5, 6, "red"), sg(1));
    for (auto &reader : readers) {
        reader->tell();
        ASSERT_EQ(reader->hear(), '.');
        for (int round = 0; round < 3; ++round) {
            ASSERT_EQ(mark_under_mutex(route), 0U);
            ASSERT_EQ(reader->hear(), 'd');
        }
        usleep(20000);  // it is asleep by now, most likely
        reader->kill();
    }
    EXPECT_EQ(mark_under_mutex(route), 0U);
    ip6mc_idb_terminate(0, 0);
}

TEST_F(ChangedRoutes, AreWaitedForUpToALimit) {
    EXPECT_EQ(ip6mc_changed_routes_wait(0), unsigned{ETIMEDOUT});
    EXPECT_EQ(ip6mc_changed_routes_wait(20), unsigned{ETIMEDOUT});
    ip6mc_mark_route_changed(r[0]);
    EXPECT_EQ(ip6mc_changed_routes_wait(0), 0U);
    EXPECT_EQ(rig::header()->changed_route_wake, 0);
    EXPECT_EQ(ip6mc_changed_routes_wait(60000), 0U);  // as long as there are any
    ipv4mc_changelist_remove_route(r[0]);
    EXPECT_EQ(ip6mc_changed_routes_wait(0), unsigned{ETIMEDOUT});
    const int open = std::exchange(ipv4mc_desc->shmwin_init, 0);
    EXPECT_EQ(ip6mc_changed_routes_wait(0), unsigned{EBADF});
    ipv4mc_desc->shmwin_init = open;
    EXPECT_EQ(errors(), texts{"Shared Memory Window Not Initialized"});
}

TEST_F(ChangedRoutes, AWaitCanBeEnded) {
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop)
            EXPECT_EQ(ip6mc_changed_routes_wait(60000), 0U);
    });
    usleep(20000);
    stop = true;
    ip6mc_changed_routes_wake();
    reader.join();
    const int open = std::exchange(ipv4mc_desc->shmwin_init, 0);
    ip6mc_changed_routes_wake();
    ipv4mc_desc->shmwin_init = open;
}

// What a process leaves that was killed between its post and the wake-up.
TEST_F(ChangedRoutes, AWakeUpThatIsStillDueIsMadeByTheNext) {
    ipv4mc_shmwin_hdr_st *hdr = rig::header();
    ip6mc_mark_route_changed(r[0]);
    EXPECT_EQ(hdr->changed_route_due, 0);
    hdr->changed_route_wake = 0;
    hdr->changed_route_due = 1;
    ip6mc_mark_route_changed(r[1]);
    EXPECT_EQ(hdr->changed_route_wake, 1);
    EXPECT_EQ(hdr->changed_route_due, 0);
}
