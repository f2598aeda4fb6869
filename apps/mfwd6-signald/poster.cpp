#include "apps/mfwd6-signald/poster.h"

#include <chrono>

#include "apps/mfwd6-signald/log.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_table.h"

namespace mfwd6::signald {
namespace {

constexpr size_t room = 4096;
constexpr auto idle_wait = std::chrono::milliseconds(200);
constexpr auto attach_wait = std::chrono::milliseconds(10);
constexpr uint64_t ms = 1000000;
constexpr uint64_t ask_interval_ns = 10 * ms;
constexpr uint64_t ask_interval_attached_ns = 500 * ms;

// How long the window is kept without an owner: longer than a restart takes.
constexpr uint64_t keep_without_owner_ns = 3000 * ms;

// Packets of a route that signals come as fast as they are sent; the signal stands in the window
// after the first one.
constexpr uint64_t repeat_ns = 1000 * ms;
constexpr size_t most_remembered = 4096;

uint64_t now() {
    return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

}  // namespace

poster::poster(const std::string &run_dir) : window_(run_dir), run_dir_(run_dir), waiting_(room) {
    std::thread([this] { run(); }).detach();
}

void poster::take(const linux_flow &flow) {
    {
        const std::lock_guard hold(mutex_);
        waiting_.put(flow);
    }
    arrived_.notify_one();
}

poster_counts poster::counts() const {
    const std::lock_guard hold(mutex_);
    poster_counts counts = counts_;
    counts.dropped = waiting_.dropped();
    return counts;
}

void poster::run() {
    while (!should_restart()) {
        if (!ready_to_post()) {
            std::this_thread::sleep_for(attach_wait);
            continue;
        }
        linux_flow flow = {};
        if (next(&flow)) {
            window_.quiescent();
            post(flow);
            window_.idle();
        }
    }
}

void poster::ask_for_owner(uint64_t now_ns) {
    const uint64_t interval = window_.attached() ? ask_interval_attached_ns : ask_interval_ns;
    if (now_ns - owner_asked_ns_ >= interval) {
        owner_asked_ns_ = now_ns;
        owner_lives_ = owner_lives(run_dir_);
        owner_seen_ns_ = owner_lives_ ? now_ns : owner_seen_ns_;
    }
}

bool poster::ready_to_post() {
    const uint64_t now_ns = now();
    ask_for_owner(now_ns);
    if (!window_.attached()) {
        return owner_lives_ && window_.attach() == 0;
    }
    const bool outdated = window_.outdated();
    if (outdated || now_ns - owner_seen_ns_ > keep_without_owner_ns) {
        say(outdated ? "the window was made anew: starting again"
                     : "the owner stays away: letting go of the window");
        should_restart_.store(true, std::memory_order_release);
        return false;
    }
    return true;
}

bool poster::next(linux_flow *flow) {
    std::unique_lock hold(mutex_);
    if (!arrived_.wait_for(hold, idle_wait, [this] { return !waiting_.empty(); })) {
        return false;
    }
    *flow = waiting_.oldest();
    waiting_.take_oldest();
    return true;
}

// True for a packet of a flow whose signal was posted or found a moment ago.
bool poster::repeated(const linux_flow &flow) {
    if (flow.report != LINUX_REPORT_PACKET) {
        return false;
    }
    if (lately_.size() >= most_remembered) {
        lately_.clear();
    }
    const uint64_t now_ns = now();
    const std::string key(reinterpret_cast<const char *>(&flow), sizeof(flow));
    const auto [place, fresh] = lately_.try_emplace(key, now_ns);
    if (!fresh && now_ns - place->second < repeat_ns) {
        return true;
    }
    place->second = now_ns;
    return false;
}

// Which table and interface of the library the report is about.
bool poster::find_place(const linux_flow &flow, uint32_t *tid, ifhtype *ifh) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        cerrno code = linux_mif_handle(flow.kernel_table, flow.mif, ifh);
        if (code == 0) {
            code = linux_table_tid(flow.kernel_table, tid);
        }
        if (code != ESTALE) {
            return code == 0;
        }
        linux_ledger_attach(run_dir_.c_str());
    }
    return false;
}

void poster::post(const linux_flow &flow) {
    if (repeated(flow)) {
        return;
    }
    uint32_t tid = 0;
    ifhtype ifh = 0;
    ipv4mc_table_st *const table =
        find_place(flow, &tid, &ifh) ? ip6mc_table_lookup_by_tbl_id(tid) : nullptr;
    uint64_t poster_counts::*outcome = &poster_counts::failed;
    if (table != nullptr && linux_report_signals(table, &flow, ifh) == 0) {
        outcome = &poster_counts::unwanted;
    } else if (table != nullptr) {
        ipv4mc_route_entry_st *route = nullptr;
        int is_new = 0;
        int exists = 0;
        const cerrno code =
            ip6mc_signal_add_mutex(table, &flow.source, &flow.group, ifh, &route, &is_new, &exists);
        if (code == 0) {
            outcome = exists != 0 ? &poster_counts::there : &poster_counts::posted;
        }
    }
    const std::lock_guard hold(mutex_);
    ++(counts_.*outcome);
}

}  // namespace mfwd6::signald
