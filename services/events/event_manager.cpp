#include "services/events/event_manager.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <new>

#include "services/events/manager.h"

namespace mfwd6::events {
namespace {

constexpr int batch = 64;

void wake(const event_manager *evm) {
    const uint64_t one = 1;
    // Fails only when the counter is full: then it is awake.
    [[maybe_unused]] const ssize_t n = write(evm->wake_fd, &one, sizeof one);
}

void drain(int fd) {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = read(fd, &count, sizeof count);
}

int add_own_fd(event_manager *evm, int *own) {
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.ptr = own;
    return *own >= 0 && epoll_ctl(evm->epoll_fd, EPOLL_CTL_ADD, *own, &e) == 0 ? 0 : errno;
}

int open_fds(event_manager *evm) {
    evm->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (evm->epoll_fd < 0) {
        return errno;
    }
    evm->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (const int rc = add_own_fd(evm, &evm->wake_fd); rc != 0) {
        return rc;
    }
    evm->timer_fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    return add_own_fd(evm, &evm->timer_fd);
}

void close_fds(event_manager *evm) {
    for (const int fd : {evm->timer_fd, evm->wake_fd, evm->epoll_fd}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

watch *watch_of(const event_manager *evm, int fd) {
    return fd >= 0 && static_cast<size_t>(fd) < evm->watch_count ? evm->watches[fd] : nullptr;
}

bool reserve_watch(event_manager *evm, int fd) {
    const size_t wanted = static_cast<size_t>(fd) + 1;
    if (wanted <= evm->watch_count) {
        return true;
    }
    const size_t count = wanted < 64 ? 64 : wanted * 2;
    void *const grown = realloc(evm->watches, count * sizeof(watch *));
    if (grown == nullptr) {
        return false;
    }
    evm->watches = static_cast<watch **>(grown);
    for (size_t i = evm->watch_count; i < count; ++i) {
        evm->watches[i] = nullptr;
    }
    evm->watch_count = count;
    return true;
}

void free_ended(event_manager *evm) {
    while (evm->ended != nullptr) {
        watch *const w = evm->ended;
        evm->ended = w->next_ended;
        free(w);
    }
}

// Calls the handler of one event. The manager's own descriptors only end the wait.
uint32_t dispatch(event_manager *evm, const epoll_event &e) {
    if (e.data.ptr == &evm->wake_fd || e.data.ptr == &evm->timer_fd) {
        drain(*static_cast<int *>(e.data.ptr));
        if (e.data.ptr == &evm->timer_fd) {
            evm->armed_ns = 0;
        }
        return 0;
    }
    const auto *const w = static_cast<const watch *>(e.data.ptr);
    if (w->ended) {
        return 0;
    }
    w->handler(evm, w->fd, e.events, w->context);
    return 1;
}

// Waits once and calls what is due. EINTR is a wait without events.
int turn(event_manager *evm, int timeout_ms, uint32_t *count) {
    if (const int rc = arm_timers(evm); rc != 0) {
        return rc;
    }
    epoll_event events[batch];
    const int n = epoll_wait(evm->epoll_fd, events, batch, timers_due(evm) ? 0 : timeout_ms);
    if (n < 0 && errno != EINTR) {
        return errno;
    }
    evm->dispatching = true;
    for (int i = 0; i < n; ++i) {
        *count += dispatch(evm, events[i]);
    }
    *count += fire_timers(evm);
    evm->dispatching = false;
    free_ended(evm);
    return 0;
}

bool take_stop(event_manager *evm) {
    return evm->stop_asked.exchange(false, std::memory_order_acq_rel);
}

// Milliseconds of real time, for timeouts only.
int64_t real_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Milliseconds until `end`, as epoll_wait takes them.
int left_ms(int64_t end) {
    const int64_t left = end - real_ms();
    return left <= 0 ? 0 : left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

void jumped(clock_listener *listener) {
    wake(static_cast<event_manager *>(listener));
}

}  // namespace
}  // namespace mfwd6::events

using namespace mfwd6::events;

cerrno event_manager_create(event_manager_t **evm) {
    if (evm == nullptr) {
        return EINVAL;
    }
    *evm = nullptr;
    auto *const made = new (std::nothrow) event_manager;
    if (made == nullptr) {
        return ENOMEM;
    }
    if (const int rc = open_fds(made); rc != 0) {
        close_fds(made);
        delete made;
        return static_cast<cerrno>(rc);
    }
    made->jumped = jumped;
    clock_listen(made);
    *evm = made;
    return 0;
}

void event_manager_destroy(event_manager_t *evm) {
    if (evm == nullptr) {
        return;
    }
    if (evm->at_end != nullptr) {
        evm->at_end(evm);
    }
    clock_unlisten(evm);
    free_timers(evm);
    for (size_t i = 0; i < evm->watch_count; ++i) {
        free(evm->watches[i]);
    }
    free(evm->watches);
    free_ended(evm);
    close_fds(evm);
    delete evm;
}

cerrno event_manager_run_once(event_manager_t *evm, int timeout_ms, uint32_t *dispatched) {
    if (evm == nullptr || evm->dispatching) {
        return EINVAL;
    }
    const int64_t end = timeout_ms < 0 ? INT64_MAX : real_ms() + timeout_ms;
    uint32_t count = 0;
    int rc = 0;
    while (!take_stop(evm)) {
        rc = turn(evm, timeout_ms < 0 ? -1 : left_ms(end), &count);
        if (rc != 0 || count != 0 || (timeout_ms >= 0 && left_ms(end) == 0)) {
            break;
        }
    }
    if (dispatched != nullptr) {
        *dispatched = count;
    }
    return static_cast<cerrno>(rc);
}

cerrno event_manager_run(event_manager_t *evm) {
    if (evm == nullptr || evm->dispatching) {
        return EINVAL;
    }
    uint32_t count = 0;
    while (!take_stop(evm)) {
        if (const int rc = turn(evm, -1, &count); rc != 0) {
            return static_cast<cerrno>(rc);
        }
    }
    return 0;
}

void event_manager_stop(event_manager_t *evm) {
    if (evm == nullptr) {
        return;
    }
    const int saved = errno;
    evm->stop_asked.store(true, std::memory_order_release);
    wake(evm);
    errno = saved;
}

cerrno event_fd_watch(event_manager_t *evm, int fd, uint32_t events, event_fd_fn handler,
                      void *context) {
    if (evm == nullptr || handler == nullptr) {
        return EINVAL;
    }
    if (fd < 0) {
        return EBADF;
    }
    watch *const known = watch_of(evm, fd);
    watch *const w = known != nullptr ? known : static_cast<watch *>(calloc(1, sizeof(watch)));
    if (w == nullptr || !reserve_watch(evm, fd)) {
        free(known == nullptr ? w : nullptr);
        return ENOMEM;
    }
    epoll_event e{};
    e.events = events;
    e.data.ptr = w;
    int rc = epoll_ctl(evm->epoll_fd, known != nullptr ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &e);
    if (rc != 0 && known != nullptr && errno == ENOENT) {
        // Closed without a word and opened again under the same number.
        rc = epoll_ctl(evm->epoll_fd, EPOLL_CTL_ADD, fd, &e);
    }
    if (rc != 0) {
        rc = errno;
        free(known == nullptr ? w : nullptr);
        return static_cast<cerrno>(rc);
    }
    w->fd = fd;
    w->handler = handler;
    w->context = context;
    evm->watches[fd] = w;
    return 0;
}

cerrno event_fd_unwatch(event_manager_t *evm, int fd) {
    if (evm == nullptr) {
        return EINVAL;
    }
    watch *const w = watch_of(evm, fd);
    if (w == nullptr) {
        return ENOENT;
    }
    // A descriptor that was closed has left the kernel's set by itself.
    epoll_ctl(evm->epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
    evm->watches[fd] = nullptr;
    w->ended = true;
    w->next_ended = evm->ended;
    evm->ended = w;
    if (!evm->dispatching) {
        free_ended(evm);
    }
    return 0;
}
