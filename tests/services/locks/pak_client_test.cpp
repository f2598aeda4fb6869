#include "services/locks/pak_client.h"

#include <pthread.h>

#include <thread>

#include "tests/services/locks/shared_page.h"

namespace mfwd6 {
namespace {

using test::child;
using test::shared_page;

constexpr cerrno eperm = EPERM;

TEST(PakClientMutex, IsRecursive) {
    EXPECT_EQ(pak_client_mutex_lock(), 0U);
    EXPECT_EQ(pak_client_mutex_lock(), 0U);
    EXPECT_EQ(pak_client_mutex_unlock(), 0U);
    EXPECT_EQ(pak_client_mutex_unlock(), 0U);
    EXPECT_EQ(pak_client_mutex_unlock(), eperm);
}

TEST(PakClientMutex, UnlockByAnotherThreadIsRefused) {
    ASSERT_EQ(pak_client_mutex_lock(), 0U);
    std::thread([] { EXPECT_EQ(pak_client_mutex_unlock(), eperm); }).join();
    EXPECT_EQ(pak_client_mutex_unlock(), 0U);
}

TEST(PakClientMutex, IsSharedOnceBoundAndRobust) {
    shared_page p;
    child holder([&](child &c) {
        p.open();
        locks::pak_client_mutex_bind(&p.at->packets);
        pak_client_mutex_lock();
        pak_client_mutex_lock();
        c.tell_and_hang('h');
    });
    ASSERT_EQ(holder.hear(), 'h');
    ASSERT_EQ(p.open(), 0);
    locks::pak_client_mutex_bind(&p.at->packets);
    EXPECT_EQ(locks::try_lock(&p.at->packets, {.window = p.env}), locks::outcome::busy);
    EXPECT_EQ(pak_client_mutex_unlock(), eperm);
    holder.kill();
    EXPECT_EQ(pak_client_mutex_lock(), 0U);
    EXPECT_EQ(p.at->recovered, 1U);
    EXPECT_EQ(pak_client_mutex_unlock(), 0U);
    EXPECT_EQ(pak_client_mutex_unlock(), eperm);
    locks::pak_client_mutex_bind(nullptr);
}

TEST(PakClientMutex, HoldFromBeforeTheBindingIsGivenUp) {
    shared_page p;
    ASSERT_EQ(p.open(), 0);
    ASSERT_EQ(pak_client_mutex_lock(), 0U);
    locks::pak_client_mutex_bind(&p.at->packets);
    EXPECT_EQ(pak_client_mutex_unlock(), 0U);
    EXPECT_EQ(pak_client_mutex_unlock(), eperm);
    locks::pak_client_mutex_bind(nullptr);
    EXPECT_EQ(pak_client_mutex_lock(), 0U);
    EXPECT_EQ(pak_client_mutex_unlock(), 0U);
}

TEST(PakClientMutex, ChildOfAForkIsToldThatTheWindowIsClosed) {
    shared_page p;
    ASSERT_EQ(p.open(), 0);
    locks::pak_client_mutex_bind(&p.at->packets);
    child c([](child &) { _exit(pak_client_mutex_lock() == EBADF ? 0 : 1); });
    EXPECT_TRUE(test::exited_with(c.wait(), 0));
    EXPECT_EQ(p.at->packets.word, 0U);
    locks::pak_client_mutex_bind(nullptr);
}

int cancel_state() {
    int now;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &now);
    pthread_setcancelstate(now, nullptr);
    return now;
}

TEST(MutexBlock, KeepsCancellationAwayUntilTheLastUnset) {
    EXPECT_EQ(cancel_state(), PTHREAD_CANCEL_ENABLE);
    ptd_set_mutex_block();
    ptd_set_mutex_block();
    EXPECT_EQ(cancel_state(), PTHREAD_CANCEL_DISABLE);
    ptd_unset_mutex_block();
    EXPECT_EQ(cancel_state(), PTHREAD_CANCEL_DISABLE);
    ptd_unset_mutex_block();
    EXPECT_EQ(cancel_state(), PTHREAD_CANCEL_ENABLE);
    ptd_unset_mutex_block();
    EXPECT_EQ(cancel_state(), PTHREAD_CANCEL_ENABLE);
}

TEST(MutexBlock, PutsBackADisabledState) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    ptd_set_mutex_block();
    ptd_unset_mutex_block();
    EXPECT_EQ(cancel_state(), PTHREAD_CANCEL_DISABLE);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

}  // namespace
}  // namespace mfwd6
