#include "services/events/event_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <thread>

#include "services/events/ptimer.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

class event_manager_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(event_manager_create(&evm), 0U);
        for (int &fd : fds) {
            fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
            ASSERT_GE(fd, 0);
        }
    }
    void TearDown() override {
        event_manager_destroy(evm);
        for (const int fd : fds) {
            close(fd);
        }
    }

    static void raise_fd(int fd) {
        const uint64_t one = 1;
        ASSERT_EQ(write(fd, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }

    uint32_t run_now() {
        uint32_t count = 0;
        EXPECT_EQ(event_manager_run_once(evm, 0, &count), 0U);
        return count;
    }

    event_manager_t *evm = nullptr;
    int fds[2] = {-1, -1};
};

struct seen {
    int calls = 0;
    uint32_t events = 0;
    std::function<void(event_manager_t *, int)> also = nullptr;
};

void note(event_manager_t *evm, int fd, uint32_t events, void *context) {
    auto *const s = static_cast<seen *>(context);
    ++s->calls;
    s->events = events;
    uint64_t value = 0;
    (void)!read(fd, &value, sizeof value);
    if (s->also) {
        s->also(evm, fd);
    }
}

TEST_F(event_manager_test, calls_the_handler_of_a_readable_descriptor) {
    seen s;
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &s), 0U);
    EXPECT_EQ(run_now(), 0U);
    raise_fd(fds[0]);
    EXPECT_EQ(run_now(), 1U);
    EXPECT_EQ(s.calls, 1);
    EXPECT_EQ(s.events, static_cast<uint32_t>(EPOLLIN));
    EXPECT_EQ(run_now(), 0U);
}

TEST_F(event_manager_test, a_second_watch_changes_events_and_handler) {
    seen first;
    seen second;
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &first), 0U);
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLOUT, note, &second), 0U);
    EXPECT_EQ(run_now(), 1U);
    EXPECT_EQ(first.calls, 0);
    EXPECT_EQ(second.calls, 1);
    EXPECT_EQ(second.events, static_cast<uint32_t>(EPOLLOUT));
}

TEST_F(event_manager_test, an_unwatched_descriptor_is_not_heard_of_again) {
    seen s;
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &s), 0U);
    raise_fd(fds[0]);
    ASSERT_EQ(event_fd_unwatch(evm, fds[0]), 0U);
    EXPECT_EQ(run_now(), 0U);
    EXPECT_EQ(event_fd_unwatch(evm, fds[0]), static_cast<cerrno>(ENOENT));
}

// Both events are fetched together; whichever handler runs first takes the other one away.
TEST_F(event_manager_test, a_handler_may_unwatch_what_is_about_to_be_called) {
    seen s[2];
    for (int i = 0; i < 2; ++i) {
        s[i].also = [this, i](event_manager_t *m, int) { event_fd_unwatch(m, fds[1 - i]); };
        ASSERT_EQ(event_fd_watch(evm, fds[i], EPOLLIN, note, &s[i]), 0U);
        raise_fd(fds[i]);
    }
    EXPECT_EQ(run_now(), 1U);
    EXPECT_EQ(s[0].calls + s[1].calls, 1);
}

TEST_F(event_manager_test, a_handler_may_unwatch_itself_and_watch_again) {
    seen s;
    s.also = [&s](event_manager_t *m, int fd) {
        EXPECT_EQ(event_fd_unwatch(m, fd), 0U);
        EXPECT_EQ(event_fd_watch(m, fd, EPOLLIN, note, &s), 0U);
    };
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &s), 0U);
    for (int i = 1; i <= 3; ++i) {
        raise_fd(fds[0]);
        EXPECT_EQ(run_now(), 1U);
        EXPECT_EQ(s.calls, i);
    }
}

TEST_F(event_manager_test, a_number_that_was_closed_and_opened_again_can_be_watched) {
    seen s;
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &s), 0U);
    close(fds[0]);
    ASSERT_EQ(dup2(fds[1], fds[0]), fds[0]);
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &s), 0U);
    raise_fd(fds[1]);
    EXPECT_EQ(run_now(), 1U);
}

TEST_F(event_manager_test, refuses_bad_arguments) {
    seen s;
    EXPECT_EQ(event_manager_create(nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(event_fd_watch(nullptr, fds[0], EPOLLIN, note, &s), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, nullptr, &s), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(event_fd_watch(evm, -1, EPOLLIN, note, &s), static_cast<cerrno>(EBADF));
    EXPECT_EQ(event_fd_watch(evm, 1023, EPOLLIN, note, &s), static_cast<cerrno>(EBADF));
    EXPECT_EQ(event_fd_unwatch(evm, -1), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(event_fd_unwatch(nullptr, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(event_manager_run_once(nullptr, 0, nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(event_manager_run(nullptr), static_cast<cerrno>(EINVAL));
    event_manager_stop(nullptr);
    event_manager_destroy(nullptr);
}

TEST_F(event_manager_test, a_regular_file_cannot_be_watched) {
    seen s;
    const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    EXPECT_EQ(event_fd_watch(evm, file, EPOLLIN, note, &s), static_cast<cerrno>(EPERM));
    EXPECT_EQ(event_fd_unwatch(evm, file), static_cast<cerrno>(ENOENT));
    close(file);
}

TEST_F(event_manager_test, a_handler_cannot_run_the_loop_it_is_called_from) {
    seen s;
    cerrno once = 0;
    cerrno until = 0;
    s.also = [&](event_manager_t *m, int) {
        once = event_manager_run_once(m, 0, nullptr);
        until = event_manager_run(m);
    };
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &s), 0U);
    raise_fd(fds[0]);
    EXPECT_EQ(run_now(), 1U);
    EXPECT_EQ(once, static_cast<cerrno>(EINVAL));
    EXPECT_EQ(until, static_cast<cerrno>(EINVAL));
}

TEST_F(event_manager_test, run_once_returns_after_its_timeout) {
    timespec before{};
    timespec after{};
    timespec taken{};
    ptimer_gettime(&before);
    uint32_t count = 99;
    EXPECT_EQ(event_manager_run_once(evm, 20, &count), 0U);
    ptimer_gettime(&after);
    ptimer_diff_timespec(&after, &before, &taken);
    EXPECT_EQ(count, 0U);
    EXPECT_GE(taken.tv_sec * 1000000000 + taken.tv_nsec, 19'000'000);
}

TEST_F(event_manager_test, a_stop_before_the_run_ends_it_and_is_used_up) {
    event_manager_stop(evm);
    EXPECT_EQ(event_manager_run(evm), 0U);
    seen s;
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &s), 0U);
    raise_fd(fds[0]);
    EXPECT_EQ(run_now(), 1U);
}

TEST_F(event_manager_test, a_handler_may_stop_the_loop) {
    seen s;
    s.also = [](event_manager_t *m, int) { event_manager_stop(m); };
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &s), 0U);
    raise_fd(fds[0]);
    EXPECT_EQ(event_manager_run(evm), 0U);
    EXPECT_EQ(s.calls, 1);
}

TEST_F(event_manager_test, another_thread_stops_the_loop_again_and_again) {
    for (int i = 0; i < 200; ++i) {
        std::atomic<bool> running{false};
        std::thread loop([&] {
            running.store(true);
            EXPECT_EQ(event_manager_run(evm), 0U);
        });
        while (!running.load()) {
            std::this_thread::yield();
        }
        event_manager_stop(evm);
        loop.join();
    }
}

TEST_F(event_manager_test, what_a_thread_wrote_before_a_stop_is_seen_after_the_run) {
    int value = 0;
    std::thread other([&] {
        value = 42;
        event_manager_stop(evm);
    });
    EXPECT_EQ(event_manager_run(evm), 0U);
    EXPECT_EQ(value, 42);
    other.join();
}

event_manager_t *stopped_by_signal = nullptr;

TEST_F(event_manager_test, a_signal_handler_may_stop_the_loop) {
    stopped_by_signal = evm;
    struct sigaction action = {};
    struct sigaction old = {};
    action.sa_handler = [](int) { event_manager_stop(stopped_by_signal); };
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    seen s;
    s.also = [](event_manager_t *, int) { raise(SIGUSR1); };
    ASSERT_EQ(event_fd_watch(evm, fds[0], EPOLLIN, note, &s), 0U);
    raise_fd(fds[0]);
    EXPECT_EQ(event_manager_run(evm), 0U);
    sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(event_manager_test, watches_more_descriptors_than_one_wait_gives) {
    constexpr int many = 200;
    seen s;
    int more[many];
    for (int &fd : more) {
        fd = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
        ASSERT_EQ(event_fd_watch(evm, fd, EPOLLIN, note, &s), 0U);
    }
    uint32_t total = 0;
    while (const uint32_t n = run_now()) {
        total += n;
    }
    EXPECT_EQ(total, static_cast<uint32_t>(many));
    for (const int fd : more) {
        EXPECT_EQ(event_fd_unwatch(evm, fd), 0U);
        close(fd);
    }
}

TEST(event_manager, without_descriptors_left_it_is_not_made) {
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(next, 0);
    close(next);
    for (rlim_t room = 0; room < 3; ++room) {
        const rlimit tight{static_cast<rlim_t>(next) + room, old.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
        event_manager_t *evm = nullptr;
        EXPECT_EQ(event_manager_create(&evm), static_cast<cerrno>(EMFILE));
        EXPECT_EQ(evm, nullptr);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
        const int same = open("/dev/null", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(same, next) << "a descriptor leaked";
        close(same);
    }
}

TEST(event_manager, without_memory_nothing_is_made_or_watched) {
    SKIP_WITHOUT_FAILING_MALLOC();
    event_manager_t *evm = nullptr;
    {
        const failing_malloc::scope none(0);
        EXPECT_EQ(event_manager_create(&evm), static_cast<cerrno>(ENOMEM));
    }
    EXPECT_EQ(evm, nullptr);
    ASSERT_EQ(event_manager_create(&evm), 0U);
    const int fd = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
    seen s;
    for (long succeed = 0; succeed < 2; ++succeed) {
        const failing_malloc::scope few(succeed);
        EXPECT_EQ(event_fd_watch(evm, fd, EPOLLIN, note, &s), static_cast<cerrno>(ENOMEM));
    }
    EXPECT_EQ(event_fd_unwatch(evm, fd), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(event_fd_watch(evm, fd, EPOLLIN, note, &s), 0U);
    event_manager_destroy(evm);
    close(fd);
}

}  // namespace
