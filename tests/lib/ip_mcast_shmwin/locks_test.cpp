#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/trace_ids.h"
#include "services/diag/errors.h"
#include "services/diag/text.h"
#include "services/events/ptimer.h"
#include "tests/kit/child.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"

namespace {
uint64_t pak_lock_takes = 0;  // nanoseconds of the test clock
cerrno pak_lock_fails_with = 0;
std::atomic<int> shmwin_locks_asked{0};
int timeouts_to_come = 0;  // of the reader-writer lock
bool deadlines_are_looked_at = false;
int deadlines_in_the_past = 0;

template <class Function>
Function real(const char *name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void look_at(const timespec &deadline) {
    if (deadlines_are_looked_at && timeouts_to_come == 0) {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        deadlines_in_the_past += deadline.tv_nsec != 0 || deadline.tv_sec <= now.tv_sec;
    }
}

bool times_out() {
    return timeouts_to_come > 0 && timeouts_to_come-- > 0;
}
}  // namespace

// These stand before the services' own: the library calls them.
extern "C" __attribute__((visibility("default"))) cerrno shmwin_lock(uint32_t id) {
    ++shmwin_locks_asked;
    return real<cerrno (*)(uint32_t)>("shmwin_lock")(id);
}
extern "C" __attribute__((visibility("default"))) cerrno rrw_lock_get_timedwrlock(
    rrw_lock_t *lock, const timespec *deadline) {
    using lock_ft = cerrno (*)(rrw_lock_t *, const timespec *);
    return times_out() ? ETIMEDOUT : real<lock_ft>("rrw_lock_get_timedwrlock")(lock, deadline);
}
extern "C" __attribute__((visibility("default"))) cerrno rrw_lock_get_timedrdlock(
    rrw_lock_t *lock, const timespec *deadline) {
    using lock_ft = cerrno (*)(rrw_lock_t *, const timespec *);
    look_at(*deadline);
    return times_out() ? ETIMEDOUT : real<lock_ft>("rrw_lock_get_timedrdlock")(lock, deadline);
}
extern "C" __attribute__((visibility("default"))) cerrno pak_client_mutex_lock() {
    if (pak_lock_takes != 0) {
        ptimer_test_clock_advance(pak_lock_takes);
    }
    return pak_lock_fails_with != 0 ? pak_lock_fails_with
                                    : real<cerrno (*)()>("pak_client_mutex_lock")();
}

namespace {

using texts = std::vector<std::string>;

class Locks : public testing::Test {
  protected:
    void start(uint32_t role = kit::line_card_role) {
        kit::start how;
        how.node_role = role;
        owner = std::make_unique<kit::library>(how);
        hdr = ipv4mc_desc->shmwin_info;
        heard.clear();
    }
    std::string me() { return std::to_string(qv_gettid()); }
    std::string pid() {
        char text[20];
        snprintf(text, sizeof(text), "0x%x", static_cast<unsigned>(getpid()));
        return text;
    }
    kit::run_dir dir;
    kit::listener heard;
    std::unique_ptr<kit::library> owner;
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
};

TEST_F(Locks, TheWindowMutexShowsWhoHoldsIt) {
    start();
    const std::string name(600, 'n');
    EXPECT_EQ(ip6mc_shmwin_mutex_lock(name.c_str(), 17), 0U);
    EXPECT_EQ(hdr->shmwin_lock_fn, name.substr(0, 511));
    EXPECT_EQ(hdr->shmwin_lock_line, 17);
    EXPECT_EQ(hdr->shmwin_lock_count, 1U);
    EXPECT_EQ(hdr->shmwin_lock_pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(hdr->shmwin_lock_tid, static_cast<uint32_t>(qv_gettid()));
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), 0U);
    EXPECT_EQ(hdr->shmwin_lock_count, 0U);
    EXPECT_TRUE(heard.errors().empty());
    EXPECT_EQ(ip6mc_shmwin_mutex_lock(nullptr, 17), 0U);
    EXPECT_STREQ(hdr->shmwin_lock_fn, "");
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), 0U);
}

TEST_F(Locks, AnUnlockWithoutALockIsReportedAndFails) {
    start();
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), EPERM);
    EXPECT_EQ(heard.errors(),
              (texts{"UNLOCK: No prior shmwin lock",
                     std::string("Cannot unlock shmwin_mutex: ") + cerr_strerror(EPERM)}));
    // A failed unlock leaves the count.
    hdr->shmwin_lock_count = 1;
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), EPERM);
    EXPECT_EQ(hdr->shmwin_lock_count, 1U);
    hdr->shmwin_lock_count = 0;
}

TEST_F(Locks, AnApparentlyHeldMutexIsReportedAndWaitedFor) {
    start();
    ASSERT_EQ(ip6mc_shmwin_mutex_lock("first", 11), 0U);
    const int asked = shmwin_locks_asked;
    std::string tid;
    std::thread second([&] {
        tid = me();
        EXPECT_EQ(ip6mc_shmwin_mutex_lock("second", 22), 0U);
        EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), 0U);
    });
    while (shmwin_locks_asked == asked) {
        std::this_thread::yield();
    }
    EXPECT_STREQ(hdr->shmwin_lock_fn, "first");  // it waits
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), 0U);
    second.join();
    EXPECT_EQ(heard.errors(), texts{"Shmwin mtx dbl lock: prev (first, 11, 1, " + pid() + ", " +
                                    me() + ") curr (second, 22, " + pid() + ", " + tid + ")"});
    EXPECT_EQ(hdr->shmwin_lock_count, 0U);
}

TEST_F(Locks, ASecondLockOfTheSameThreadReportsAndBlocks) {
    kit::child holder([](const kit::post &parent) {
        kit::library mine;
        kit::listener ears;
        ip6mc_shmwin_mutex_lock("first", 1);
        const int asked = shmwin_locks_asked;
        std::thread watcher([&] {
            while (shmwin_locks_asked == asked) {
                std::this_thread::yield();
            }
            const texts said = ears.errors();
            parent.tell(said.size() == 1 &&
                                said[0].starts_with("Shmwin mtx dbl lock: prev (first, 1, 1, ")
                            ? 'y'
                            : 'n');
        });
        watcher.detach();
        ip6mc_shmwin_mutex_lock("second", 2);
        parent.tell('!');  // never
        return 0;
    });
    EXPECT_EQ(holder.hear(), 'y');
    holder.kill();
    EXPECT_EQ(holder.hear(), 0);
}

TEST_F(Locks, ANodeOfRole5KeepsNoBooks) {
    start(IPMC_NODE_ROLE_NO_LOCK_TRACE);
    EXPECT_EQ(ip6mc_shmwin_mutex_lock("fn", 1), 0U);
    EXPECT_EQ(hdr->shmwin_lock_count, 0U);
    EXPECT_STREQ(hdr->shmwin_lock_fn, "");
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), 0U);
    EXPECT_EQ(hdr->shmwin_lock_count, 0U);
    EXPECT_TRUE(heard.errors().empty());
}

TEST_F(Locks, ThePacketMutexUnderTheWindowMutexIsReportedAndGranted) {
    start();
    ASSERT_EQ(ip6mc_shmwin_mutex_lock("window", 11), 0U);
    std::thread([] {
        ipv6_mlib_pak_client_mutex_lock("other", 1);
        ipv6_mlib_pak_client_mutex_unlock("other", 2);
    }).join();
    EXPECT_TRUE(heard.errors().empty());
    ipv6_mlib_pak_client_mutex_lock("packet", 22);
    EXPECT_EQ(heard.errors(), texts{"Pak mtx with shmwin : shmwin (window, 11, 1, " + pid() + ", " +
                                    me() + ") pak (packet, 22, " + me() + ")"});
    EXPECT_EQ(ipv6_mlib_pak_client_mutex_get_count(), 1U);
    EXPECT_EQ(hdr->pak_lock_total, 2U);
    EXPECT_STREQ(hdr->pak_lock_fn, "packet");
    EXPECT_EQ(hdr->pak_lock_line, 22);
    EXPECT_EQ(hdr->pak_lock_tid, static_cast<uint32_t>(qv_gettid()));
    ipv6_mlib_pak_client_mutex_unlock("packet", 23);
    ip6mc_shmwin_mutex_unlock();
}

TEST_F(Locks, AnUnlockOfThePacketMutexWithoutALockIsReported) {
    start();
    ipv6_mlib_pak_client_mutex_unlock("fn", 5);
    EXPECT_EQ(heard.errors(), (texts{"UNLOCK: failed (fn, 5)", "UNLOCK: No prior lock (fn, 5)"}));
    EXPECT_EQ(hdr->pak_unlock_fails, 1U);
    // The count moves whatever the service says.
    hdr->pak_lock_count = 1;
    ipv6_mlib_pak_client_mutex_unlock("fn", 6);
    EXPECT_EQ(heard.errors(), texts{"UNLOCK: failed (fn, 6)"});
    EXPECT_EQ(hdr->pak_lock_count, 0U);
    EXPECT_EQ(hdr->pak_unlock_fails, 2U);
}

TEST_F(Locks, AllHoldsAreGivenUpAndTakenBack) {
    start();
    for (int i = 0; i < 3; ++i)
        ipv6_mlib_pak_client_mutex_lock("fn", i);
    int count = -1;
    ipv6_mlib_pak_client_recursive_mutex_unlock(&count, "fn", 7);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(hdr->pak_lock_count, 0U);
    std::thread([] {  // free for others
        ipv6_mlib_pak_client_mutex_lock("other", 1);
        ipv6_mlib_pak_client_mutex_unlock("other", 1);
    })
        .join();
    ipv6_mlib_pak_client_recursive_mutex_lock(count, "fn", 8);
    EXPECT_EQ(hdr->pak_lock_count, 3U);
    ipv6_mlib_pak_client_recursive_mutex_unlock(&count, "fn", 9);
    ipv6_mlib_pak_client_recursive_mutex_lock(0, "fn", 10);
    ipv6_mlib_pak_client_recursive_mutex_lock(-1, "fn", 11);
    EXPECT_EQ(hdr->pak_lock_count, 0U);
    EXPECT_TRUE(heard.errors().empty());
}

// Its count goes with it, so that who holds the mutex is told truly from then on.
TEST_F(Locks, AHolderOfThePacketMutexThatDiesIsForgotten) {
    kit::child holder([](const kit::post &parent) {
        parent.hear();
        if (kit::start_library({.attach_only = 1}) != 0)
            return 1;
        ipv6_mlib_pak_client_mutex_lock("dead", 1);
        ipv6_mlib_pak_client_mutex_lock("dead", 2);
        parent.tell();
        parent.hear();
        return 2;
    });
    start();
    holder.tell();
    ASSERT_EQ(holder.hear(), '.');
    holder.kill();
    EXPECT_EQ(ipv6_mlib_pak_client_mutex_get_count(), 2U);
    ipv6_mlib_pak_client_mutex_lock("next", 1);
    EXPECT_EQ(ipv6_mlib_pak_client_mutex_get_count(), 1U);
    ipv6_mlib_pak_client_mutex_lock("next", 2);
    EXPECT_EQ(ipv6_mlib_pak_client_mutex_get_count(), 2U);
    ipv6_mlib_pak_client_mutex_unlock("next", 3);
    ipv6_mlib_pak_client_mutex_unlock("next", 4);
    EXPECT_EQ(ipv6_mlib_pak_client_mutex_get_count(), 0U);
    EXPECT_TRUE(heard.errors().empty());
}

TEST_F(Locks, APacketMutexWithoutANameEndsTheProcessBehindTheLock) {
    const auto lock_without_a_name = [] {
        kit::library mine;
        ipv6_mlib_pak_client_mutex_lock(nullptr, 1);
    };
    EXPECT_DEATH(lock_without_a_name(), "Assertion `fname != \\(\\(void\\*\\)0\\)' failed");
}

TEST_F(Locks, AreUsableWithoutAWindow) {
    EXPECT_EQ(ip6mc_shmwin_mutex_lock("fn", 1), EBADF);
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), EBADF);
    rrw_lock_t lock{};
    ipmc_shmwin_rrw_lock_get_wrlock(&lock, 1);
    ipmc_shmwin_rrw_lock_get_rdlock(&lock, 1);
    EXPECT_EQ(heard.errors(), texts(4, "Shared Memory Window Not Initialized"));
    EXPECT_EQ(ipv6_mlib_pak_client_mutex_get_count(), 0U);
    ipv6_mlib_pak_client_mutex_lock("fn", 1);
    EXPECT_EQ(ipv6_mlib_pak_client_mutex_get_count(), 0U);
    ipv6_mlib_pak_client_mutex_unlock("fn", 2);
    EXPECT_TRUE(heard.errors().empty());
    int count = 7;
    ipv6_mlib_pak_client_recursive_mutex_unlock(&count, "fn", 3);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(
        heard.errors(),
        texts{"ipv6_mlib_pak_client_recursive_mutex_unlock: Not able to access shared memory !!"});
}

TEST_F(Locks, AWaitIsReportedAtEachTimeoutAndGoesOn) {
    start();
    rrw_lock_t *lock = &hdr->tbl_rw_lock;
    const std::string timed_out = cerr_strerror(ETIMEDOUT);
    timeouts_to_come = 3;
    ipmc_shmwin_rrw_lock_get_rdlock(lock, 22);
    ipmc_shmwin_rrw_lock_unlock(lock, 23, 1);
    EXPECT_EQ(heard.errors(), texts(3, "Timed out to get read lock [22] - " + timed_out));
    timeouts_to_come = 2;
    ipmc_shmwin_rrw_lock_get_wrlock(lock, 33);
    ipmc_shmwin_rrw_lock_unlock(lock, 34, 0);
    EXPECT_EQ(heard.errors(), texts(2, "Timed out to get write lock [33] - " + timed_out));
}

TEST_F(Locks, AReaderIsHeldBackByAWriterForASecondAtATime) {
    start();
    rrw_lock_t *lock = &hdr->tbl_rw_lock;
    ipmc_shmwin_rrw_lock_get_wrlock(lock, 11);
    const timespec soon = {time(nullptr) + 1, 0};
    std::thread([&] { EXPECT_EQ(rrw_lock_get_timedrdlock(lock, &soon), ETIMEDOUT); }).join();
    ipmc_shmwin_rrw_lock_unlock(lock, 12, 0);
    ipmc_shmwin_rrw_lock_get_rdlock(lock, 13);
    ipmc_shmwin_rrw_lock_unlock(lock, 14, 1);
    EXPECT_TRUE(heard.errors().empty());
}

TEST_F(Locks, AWaitIsNeverRepeatedBehindItsEnd) {
    start();
    rrw_lock_t *lock = &hdr->tbl_rw_lock;
    timespec now = {};
    do {
        clock_gettime(CLOCK_REALTIME, &now);
    } while (now.tv_nsec < 999'000'000);
    // The first milliseconds of a second, in which the seconds of time() are still the old ones.
    const time_t before = now.tv_sec;
    deadlines_are_looked_at = true;
    do {
        timeouts_to_come = 1;
        ipmc_shmwin_rrw_lock_get_rdlock(lock, 11);
        ipmc_shmwin_rrw_lock_unlock(lock, 12, 1);
        clock_gettime(CLOCK_REALTIME, &now);
    } while (now.tv_sec == before || now.tv_nsec < 5'000'000);
    deadlines_are_looked_at = false;
    // A second may begin once between the library's reading of the clock and the test's.
    EXPECT_LE(deadlines_in_the_past, 1);
}

TEST_F(Locks, ASecondWriterIsReportedWithBothLines) {
    start();
    rrw_lock_t *lock = &hdr->tbl_rw_lock;
    ipmc_shmwin_rrw_lock_get_wrlock(lock, 11);
    ipmc_shmwin_rrw_lock_get_rdlock(lock, 12);  // the writer may read
    ipmc_shmwin_rrw_lock_unlock(lock, 13, 1);   // and that leaves its line alone
    EXPECT_TRUE(heard.errors().empty());
    std::thread writer([&] {
        ipmc_shmwin_rrw_lock_get_wrlock(lock, 22);
        ipmc_shmwin_rrw_lock_unlock(lock, 23, 0);
    });
    // The writer has the gate only after this.
    ipmc_shmwin_rrw_lock_unlock(lock, 14, 0);
    writer.join();
    // Either it asked before the first one had done, or nothing is to be told. The end of a second
    // may fall into its wait.
    texts said = heard.errors();
    const size_t timed_out = std::erase_if(
        said, [](const std::string &text) { return text.starts_with("Timed out to get write"); });
    EXPECT_LE(timed_out, 1U);
    if (!said.empty()) {
        EXPECT_EQ(said, texts{"wrlock: prev 11 curr 22 !!"});
    }
    ipmc_shmwin_rrw_lock_get_wrlock(lock, 33);
    ipmc_shmwin_rrw_lock_unlock(lock, 34, 0);
    EXPECT_TRUE(heard.errors().empty());
    // On one thread, with a service that lets it pass.
    ipmc_shmwin_rrw_lock_get_wrlock(nullptr, 44);
    heard.clear();
    ipmc_shmwin_rrw_lock_get_wrlock(lock, 55);
    EXPECT_EQ(heard.errors(), texts{"wrlock: prev 44 curr 55 !!"});
    ipmc_shmwin_rrw_lock_unlock(lock, 56, 0);
}

TEST_F(Locks, FailuresOfTheServiceAreReportedAndNotTold) {
    start();
    ipmc_shmwin_rrw_lock_get_wrlock(nullptr, 1);
    ipmc_shmwin_rrw_lock_get_rdlock(nullptr, 2);
    ipmc_shmwin_rrw_lock_unlock(nullptr, 3, 0);
    ipmc_shmwin_rrw_lock_unlock(nullptr, 4, 1);
    const std::string invalid = cerr_strerror(EINVAL);
    EXPECT_EQ(heard.errors(), (texts{"Failed to get write lock [1] - " + invalid,
                                     "Failed to get read lock [2] - " + invalid,
                                     "Failed to unlock RW lock [3] - " + invalid,
                                     "Failed to unlock RW lock [4] - " + invalid}));
}

TEST_F(Locks, ALongWaitForThePacketMutexIsTraced) {
    start();
    ptimer_test_clock_on();
    for (const auto &[nanoseconds, traces] :
         {std::pair{uint64_t{2'900'000'000}, 0U}, {uint64_t{3'000'000'000}, 1U}}) {
        pak_lock_takes = nanoseconds;
        ipv6_mlib_pak_client_mutex_lock("waiter", 22);
        ipv6_mlib_pak_client_mutex_unlock("waiter", 23);
        const auto found = heard.traces(ip6mc_mlib_warn_ltrace(), MLIB_TRACE_PAK_LOCK_SLOW);
        EXPECT_EQ(found.size(), traces);
        if (!found.empty()) {
            EXPECT_STREQ(found[0].text, "pak client mutex: waited 3 s (waiter, 22)");
        }
    }
    pak_lock_takes = 0;
    ptimer_test_clock_off();
}

TEST_F(Locks, TheCountOfThePacketMutexMovesWhenTheLockFailed) {
    start();
    pak_lock_fails_with = EBADF;
    ipv6_mlib_pak_client_mutex_lock("fn", 1);
    pak_lock_fails_with = 0;
    EXPECT_EQ(heard.errors(), texts{"LOCK: failed (fn, 1)"});
    EXPECT_EQ(hdr->pak_lock_fails, 1U);
    EXPECT_EQ(hdr->pak_lock_count, 1U);
    EXPECT_EQ(hdr->pak_lock_total, 1U);
    ipv6_mlib_pak_client_mutex_unlock("fn", 2);
    EXPECT_EQ(heard.errors(), texts{"UNLOCK: failed (fn, 2)"});  // and no "No prior lock"
    EXPECT_EQ(hdr->pak_lock_count, 0U);
}

}  // namespace
