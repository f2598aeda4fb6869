// The three locks of the window with their book-keeping, so that after a hang the header shows who
// held what. Order: packet client mutex, window mutex, tbl_rw_lock.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/assertion.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_books.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "services/diag/text.h"
#include "services/events/ptimer.h"
#include "services/locks/pak_client.h"
#include "services/locks/rrw_lock.h"
#include "services/window/inspect.h"
#include "services/window/window.h"

namespace {

constexpr time_t slow_seconds = 3;

// Line of the present writer of tbl_rw_lock in this process, 0 if none.
std::atomic<int> rrw_writer{0};

// A node of that role holds the same locks but leaves no trace of it and is not checked.
bool keeps_books() {
    return ipv4mc_desc->node_role != IPMC_NODE_ROLE_NO_LOCK_TRACE;
}

using mlib::lock_fn;

// Book-keeping is looked at by threads that do not hold the lock.
template <class T>
T peek(const T &field) {
    return mlib::lock_book(field);
}

template <class T>
void set(T &field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

template <size_t N>
void note_name(char (&field)[N], const char *name) {
    const size_t length = name != nullptr ? strnlen(name, N - 1) : 0;
    for (size_t i = 0; i < length; ++i) {
        set(field[i], name[i]);
    }
    set(field[length], '\0');
}

uint32_t this_thread() {
    return static_cast<uint32_t>(qv_gettid());
}

// time() is cheap and lags by up to a tick, so the end that it names may have passed. A wait that
// is repeated asks the exact clock, or it would turn and report until the tick.
timespec one_second_from_now(bool repeated) {
    timespec now = {repeated ? 0 : time(nullptr), 0};
    if (repeated) {
        clock_gettime(CLOCK_REALTIME, &now);
    }
    return {now.tv_sec + 1, 0};
}

// The header, or null while the window is closed in this process.
ipv4mc_shmwin_hdr_st *books() {
    return ipv4mc_desc->shmwin_init != 0 ? ipv4mc_desc->shmwin_info : nullptr;
}

// A holder that died never counted down. Called with the lock, when its count is not what the first
// hold finds; `behind` is how many deaths the count has left behind it already.
void forget_dead_holder(uint32_t &count, uint32_t &behind, uint32_t deaths) {
    if (peek(behind) != deaths) {
        set(behind, deaths);
        set(count, 0U);
    }
}

uint32_t window_mutex_deaths() {
    uint32_t deaths = 0;
    shmwin_get_mutex_deaths(ipv4mc_desc->shmwin_id, &deaths);
    return deaths;
}

bool is_open() {
    if (mlib::window_is_open()) {
        return true;
    }
    MLIB_ERR("Shared Memory Window Not Initialized");
    return false;
}

}  // namespace

extern "C" {

cerrno ip6mc_shmwin_mutex_lock(const char *fn, int line) {
    if (!is_open()) {
        return EBADF;
    }
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    if (keeps_books() && peek(hdr->shmwin_lock_count) != 0) {
        MLIB_ERR("Shmwin mtx dbl lock: prev (%s, %d, %d, 0x%x, %d) curr (%s, %d, 0x%x, %d)",
                 lock_fn(hdr->shmwin_lock_fn).text, peek(hdr->shmwin_lock_line),
                 peek(hdr->shmwin_lock_count), peek(hdr->shmwin_lock_pid),
                 peek(hdr->shmwin_lock_tid), fn, line, static_cast<unsigned>(getpid()),
                 this_thread());
    }
    const cerrno rc = shmwin_lock(ipv4mc_desc->shmwin_id);
    if (rc != 0) {
        MLIB_ERR("Cannot lock shmwin_mutex: %s", cerr_strerror(rc));
        return rc;
    }
    // The contents may have gone while this thread waited.
    if (!is_open()) {
        shmwin_unlock(ipv4mc_desc->shmwin_id);
        return EBADF;
    }
    if (keeps_books()) {
        if (peek(hdr->shmwin_lock_count) != 0) {
            forget_dead_holder(hdr->shmwin_lock_count, hdr->shmwin_lock_deaths,
                               window_mutex_deaths());
        }
        note_name(hdr->shmwin_lock_fn, fn);
        set(hdr->shmwin_lock_line, line);
        set(hdr->shmwin_lock_count, peek(hdr->shmwin_lock_count) + 1);
        set(hdr->shmwin_lock_pid, static_cast<uint32_t>(getpid()));
        set(hdr->shmwin_lock_tid, this_thread());
    }
    return 0;
}

cerrno ip6mc_shmwin_mutex_unlock(void) {
    // The mutex outlives a reset, and so must not stay with this thread.
    ipv4mc_shmwin_hdr_st *hdr = books();
    if (hdr == nullptr) {
        MLIB_ERR("Shared Memory Window Not Initialized");
        return EBADF;
    }
    const uint32_t count = peek(hdr->shmwin_lock_count);
    if (keeps_books() && count == 0) {
        MLIB_ERR("UNLOCK: No prior shmwin lock");
    }
    // Counted down while the mutex is still held, so that the next holder's count is not lost; a
    // failed unlock takes it back.
    const bool counts = keeps_books() && count != 0;
    if (counts) {
        set(hdr->shmwin_lock_count, count - 1);
    }
    const cerrno rc = shmwin_unlock(ipv4mc_desc->shmwin_id);
    if (rc != 0) {
        if (counts) {
            set(hdr->shmwin_lock_count, count);
        }
        MLIB_ERR("Cannot unlock shmwin_mutex: %s", cerr_strerror(rc));
        return rc;
    }
    return 0;
}

void ipv6_mlib_pak_client_mutex_lock(const char *fname, int line) {
    ipv4mc_shmwin_hdr_st *hdr = books();
    if (hdr != nullptr && peek(hdr->shmwin_lock_count) >= 1 &&
        peek(hdr->shmwin_lock_tid) == this_thread()) {
        MLIB_ERR("Pak mtx with shmwin : shmwin (%s, %d, %d, 0x%x, %d) pak (%s, %d, %d)",
                 lock_fn(hdr->shmwin_lock_fn).text, peek(hdr->shmwin_lock_line),
                 peek(hdr->shmwin_lock_count), peek(hdr->shmwin_lock_pid),
                 peek(hdr->shmwin_lock_tid), fname, line, this_thread());
    }

    timespec before{};
    timespec after{};
    timespec waited{};
    ptimer_gettime(&before);
    const cerrno rc = pak_client_mutex_lock();
    ptimer_gettime(&after);
    ptimer_diff_timespec(&after, &before, &waited);
    if (waited.tv_sec >= slow_seconds) {
        char text[256];
        snprintf(text, sizeof(text), "pak client mutex: waited %ld s (%s, %d)",
                 static_cast<long>(waited.tv_sec), fname, line);
        traceback_record traceback{};
        traceback_v2(&traceback, 5);
        _lstrace(ip6mc_mlib_warn_ltrace(), MLIB_TRACE_PAK_LOCK_SLOW, &traceback, text);
    }
    // The books are kept even when the lock failed, so that the unlock that follows finds its lock.
    if (rc != 0) {
        if (hdr != nullptr) {
            set(hdr->pak_lock_fails, peek(hdr->pak_lock_fails) + 1);
        }
        MLIB_ERR("LOCK: failed (%s, %d)", fname, line);
    }
    MLIB_ASSERT(fname != nullptr, "fname != ((void*)0)");
    if (hdr == nullptr) {
        return;
    }
    if (rc == 0 && peek(hdr->pak_lock_count) != 0) {
        forget_dead_holder(hdr->pak_lock_count, hdr->pak_lock_deaths, pak_client_mutex_deaths());
    }
    set(hdr->pak_lock_total, peek(hdr->pak_lock_total) + 1);
    set(hdr->pak_lock_count, peek(hdr->pak_lock_count) + 1);
    note_name(hdr->pak_lock_fn, fname);
    set(hdr->pak_lock_line, line);
    set(hdr->pak_lock_tid, this_thread());
}

void ipv6_mlib_pak_client_mutex_unlock(const char *fname, int line) {
    ipv4mc_shmwin_hdr_st *hdr = books();
    // Counted down while the mutex is still held, see ip6mc_shmwin_mutex_unlock.
    const uint32_t count = hdr != nullptr ? peek(hdr->pak_lock_count) : 0;
    if (count > 0) {
        set(hdr->pak_lock_count, count - 1);
    }
    if (pak_client_mutex_unlock() != 0) {
        if (hdr != nullptr) {
            set(hdr->pak_unlock_fails, peek(hdr->pak_unlock_fails) + 1);
        }
        MLIB_ERR("UNLOCK: failed (%s, %d)", fname, line);
    }
    if (hdr != nullptr && count == 0) {
        MLIB_ERR("UNLOCK: No prior lock (%s, %d)", fname, line);
    }
}

uint32_t ipv6_mlib_pak_client_mutex_get_count(void) {
    const ipv4mc_shmwin_hdr_st *hdr = books();
    return hdr != nullptr ? peek(hdr->pak_lock_count) : 0;
}

void ipv6_mlib_pak_client_recursive_mutex_lock(int count, const char *fname, int line) {
    for (; count > 0; --count) {
        ipv6_mlib_pak_client_mutex_lock(fname, line);
    }
}

void ipv6_mlib_pak_client_recursive_mutex_unlock(int *count_p, const char *fname, int line) {
    if (books() == nullptr) {
        MLIB_ERR("%s: Not able to access shared memory !!", __func__);
        *count_p = 0;
        return;
    }
    *count_p = static_cast<int>(ipv6_mlib_pak_client_mutex_get_count());
    for (int i = 0; i < *count_p; ++i) {
        ipv6_mlib_pak_client_mutex_unlock(fname, line);
    }
}

void ipmc_shmwin_rrw_lock_get_wrlock(rrw_lock_t *lock, int line) {
    if (!is_open()) {
        return;
    }
    if (keeps_books()) {
        const int previous = rrw_writer.load(std::memory_order_relaxed);
        if (previous != 0) {
            MLIB_ERR("wrlock: prev %d curr %d !!", previous, line);
        }
        rrw_writer.store(line, std::memory_order_relaxed);
    }
    // No upper limit: a stuck holder shows once a second in the error log while the wait goes on.
    for (bool repeated = false;; repeated = true) {
        const timespec deadline = one_second_from_now(repeated);
        const cerrno rc = rrw_lock_get_timedwrlock(lock, &deadline);
        if (rc == ETIMEDOUT) {
            MLIB_ERR("Timed out to get write lock [%d] - %s", line, cerr_strerror(rc));
            continue;
        }
        if (rc != 0) {
            MLIB_ERR("Failed to get write lock [%d] - %s", line, cerr_strerror(rc));
        }
        return;
    }
}

void ipmc_shmwin_rrw_lock_get_rdlock(rrw_lock_t *lock, int line) {
    if (!is_open()) {
        return;
    }
    for (bool repeated = false;; repeated = true) {
        const timespec deadline = one_second_from_now(repeated);
        const cerrno rc = rrw_lock_get_timedrdlock(lock, &deadline);
        if (rc == ETIMEDOUT) {
            MLIB_ERR("Timed out to get read lock [%d] - %s", line, cerr_strerror(rc));
            continue;
        }
        if (rc != 0) {
            MLIB_ERR("Failed to get read lock [%d] - %s", line, cerr_strerror(rc));
        }
        return;
    }
}

void ipmc_shmwin_rrw_lock_unlock(rrw_lock_t *lock, int line, int is_reader) {
    if (is_reader == 0 && keeps_books()) {
        rrw_writer.store(0, std::memory_order_relaxed);
    }
    const cerrno rc = rrw_lock_unlock(lock, line, is_reader);
    if (rc != 0) {
        MLIB_ERR("Failed to unlock RW lock [%d] - %s", line, cerr_strerror(rc));
    }
}

}  // extern "C"
