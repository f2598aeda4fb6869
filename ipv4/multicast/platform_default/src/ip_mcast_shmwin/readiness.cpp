#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"

#include <pthread.h>

#include <atomic>
#include <cinttypes>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "services/journal/journal.h"
#include "services/window/inspect.h"

namespace {

// The word of the window in use; null in a child made by fork(2), which has no window.
std::atomic<const uint64_t *> generation_word{nullptr};
std::atomic<uint64_t> known_generation{0};
std::atomic<bool> told{false};

uint64_t generation_now() {
    const uint64_t *word = generation_word.load(std::memory_order_relaxed);
    return word != nullptr ? mfwd6::journal::observe(*word) : 0;
}

void watch_forks() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] {
        pthread_atfork(nullptr, nullptr,
                       [] { generation_word.store(nullptr, std::memory_order_relaxed); });
    });
}

void leave_old_contents(uint64_t now) {
    if (told.exchange(true)) {
        return;
    }
    table_search = nullptr;  // not given back: the heap that it lay in is gone
    MLIB_ERR("Shared mem window was reset: generation %" PRIu64 " now, %" PRIu64 " when opened",
             now, known_generation.load(std::memory_order_relaxed));
    if (ipv4mc_desc->state != IPV4MC_LIB_STATE_DOWN) {
        ipv4mc_update_state(IPV4MC_LIB_STATE_DOWN);
    }
}

bool contents_are_gone() {
    if (ipv4mc_desc->shmwin_init == 0) {
        return false;
    }
    const uint64_t now = generation_now();
    if (now == known_generation.load(std::memory_order_relaxed)) [[likely]] {
        return false;
    }
    leave_old_contents(now);
    return true;
}

}  // namespace

void mlib::note_window_contents() {
    watch_forks();
    generation_word.store(shmwin_generation_word(ipv4mc_desc->shmwin_id),
                          std::memory_order_relaxed);
    known_generation.store(generation_now(), std::memory_order_relaxed);
    told.store(false);
}

bool mlib::window_is_open() {
    return ipv4mc_desc->shmwin_init != 0 && !contents_are_gone();
}

bool mlib::library_is_ready() {
    return ipv4mc_desc->state == IPV4MC_LIB_STATE_READY && !contents_are_gone();
}
