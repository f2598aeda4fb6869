// The list of routes that have changed since its reader last drained it, and the wake-up of that
// reader.
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_lists.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/journal/journal.h"
#include "services/locks/pak_client.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::publish;
using mfwd6::journal::store;

bool is_ready() {
    if (mlib::library_is_ready()) {
        return true;
    }
    MLIB_ERR("Multicast library Not ready\n");
    return false;
}

// The mutex guards one byte, which is whole whoever died with it.
int take_over(pthread_mutex_t *mutex, int rc) {
    return rc == EOWNERDEAD ? pthread_mutex_consistent(mutex) : rc;
}

int lock(pthread_mutex_t *mutex) {
    int rc = pthread_mutex_trylock(mutex);
    if (rc == EBUSY) {
        ptd_set_mutex_block();
        rc = pthread_mutex_lock(mutex);
        ptd_unset_mutex_block();
    }
    return take_over(mutex, rc);
}

std::atomic_ref<uint32_t> wakes(ipv4mc_shmwin_hdr_st *hdr) {
    return std::atomic_ref(hdr->changed_route_wakes);
}

long futex(uint32_t *word, int operation, uint32_t value, const timespec *time) {
    return syscall(SYS_futex, word, operation, value, time, nullptr, FUTEX_BITSET_MATCH_ANY);
}

int set_wake(ipv4mc_shmwin_hdr_st *hdr, uint8_t value) {
    const int rc = lock(&hdr->changed_route_mutex);
    if (rc == 0) {
        store(hdr->changed_route_wake, value);
        pthread_mutex_unlock(&hdr->changed_route_mutex);
    }
    return rc;
}

void end_waits(ipv4mc_shmwin_hdr_st *hdr) {
    wakes(hdr).fetch_add(1, std::memory_order_release);
    futex(&hdr->changed_route_wakes, FUTEX_WAKE, INT_MAX, nullptr);
}

// The condition has waiters only where a client sleeps on it by itself; the word beside it does not
// mind the death of a sleeper.
void wake_reader(ipv4mc_shmwin_hdr_st *hdr) {
    int rc = set_wake(hdr, 1);
    end_waits(hdr);
    rc = rc != 0 ? rc : pthread_cond_signal(&hdr->changed_route_cond);
    if (rc != 0) {
        MLIB_ERR("pthread_cond_signal failed [0x%x] : %s", static_cast<unsigned>(rc),
                 cerr_strerror(static_cast<cerrno>(rc)));
    }
}

timespec deadline_in(uint32_t milliseconds) {
    timespec at{};
    clock_gettime(CLOCK_MONOTONIC, &at);
    at.tv_sec += milliseconds / 1000;
    at.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
    if (at.tv_nsec >= 1000000000) {
        at.tv_nsec -= 1000000000;
        ++at.tv_sec;
    }
    return at;
}

int make_mutex(pthread_mutex_t *mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    const int rc = pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return rc;
}

int make_condition(pthread_cond_t *condition) {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    const int rc = pthread_cond_init(condition, &attributes);
    pthread_condattr_destroy(&attributes);
    return rc;
}

}  // namespace

// A window that has them keeps them: a reader may be waiting.
void ipmc_changed_routes_init(ipv4mc_shmwin_hdr_st *hdr) {
    if (hdr->changed_route_ready != 0) {
        return;
    }
    int rc = make_mutex(&hdr->changed_route_mutex);
    rc = rc != 0 ? rc : make_condition(&hdr->changed_route_cond);
    if (rc != 0) {
        MLIB_ERR("Cannot init wake-up of changed routes [%d] : %s", __LINE__,
                 cerr_strerror(static_cast<cerrno>(rc)));
        return;
    }
    publish(hdr->changed_route_ready, uint8_t{1});
}

cerrno mlib::list_changed_route(ipv4mc_route_entry_st *route) {
    if (!is_ready()) {
        return EBADF;
    }
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    if (hdr == nullptr) {
        MLIB_ERR("Null shared memory window pointer");
        return EINVAL;
    }
    if (route == nullptr) {
        MLIB_ERR("Null route pointer");
        return EINVAL;
    }
    // The only route on the list has no neighbours: the tail tells.
    if (route->change_next != nullptr || hdr->changed_route_tail == route) {
        return 0;
    }
    const group change;
    mlib::changed_routes(hdr->changed_route_head, hdr->changed_route_tail).push_back(route);
    store(hdr->changed_route_count, hdr->changed_route_count + 1);
    // Only the first entry wakes the reader, which drains the list before it sleeps. The debt
    // outlives a process that is killed before it has paid it: the next one does.
    if (hdr->changed_route_count == 1) {
        store(hdr->changed_route_due, uint8_t{1});
    }
    return 0;
}

void mlib::wake_changed_route_reader() {
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    if (hdr->changed_route_due != 0) {
        wake_reader(hdr);
        store(hdr->changed_route_due, uint8_t{0});
    }
}

extern "C" {

cerrno ip6mc_mark_route_changed(ipv4mc_route_entry_st *route) {
    const cerrno rc = mlib::list_changed_route(route);
    if (rc == 0) {
        mlib::wake_changed_route_reader();
    }
    return rc;
}

cerrno ip6mc_changed_routes_wait(uint32_t milliseconds) {
    if (!mlib::window_is_open()) {
        MLIB_ERR("Shared Memory Window Not Initialized");
        return EBADF;
    }
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    const timespec until = deadline_in(milliseconds);
    // Read ahead of the count: an entry that comes behind the look at it changes this.
    const uint32_t seen = wakes(hdr).load(std::memory_order_acquire);
    while (mfwd6::journal::observe(hdr->changed_route_count) == 0 &&
           wakes(hdr).load(std::memory_order_acquire) == seen) {
        if (futex(&hdr->changed_route_wakes, FUTEX_WAIT_BITSET, seen, &until) != 0 &&
            errno == ETIMEDOUT) {
            return ETIMEDOUT;
        }
    }
    set_wake(hdr, 0);
    return 0;
}

void ip6mc_changed_routes_wake(void) {
    if (mlib::window_is_open()) {
        end_waits(ipv4mc_desc->shmwin_info);
    }
}

cerrno ipv4mc_changelist_remove_route(ipv4mc_route_entry_st *route) {
    if (!is_ready()) {
        return EBADF;
    }
    if (route == nullptr) {
        MLIB_ERR("Null Route entry");
        return EINVAL;
    }
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    const group change;
    const bool was_tail = hdr->changed_route_tail == route;
    if (was_tail) {
        store(hdr->changed_route_tail, route->change_prev);
    }
    const bool was_on = mlib::leave_list<mlib::changed_route_links>(hdr->changed_route_head, route);
    if ((was_on || was_tail) && hdr->changed_route_count != 0) {
        store(hdr->changed_route_count, hdr->changed_route_count - 1);
    }
    return 0;
}

}  // extern "C"
