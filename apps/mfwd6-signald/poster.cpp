#include "apps/mfwd6-signald/poster.h"

#include <sys/eventfd.h>
#include <sys/poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "apps/mfwd6-signald/log.h"
#include "ipv4/multicast/lib/ip6mc_locks.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "services/diag/errors.h"

namespace mfwd6::signald {
namespace {

constexpr size_t room = 4096;
constexpr int idle_ms = 200;
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

// The signal route, or null. The window mutex is held.
ipv4mc_route_entry_st *find_signal(const ipv4mc_table_st *table, const linux_flow &flow) {
    uint8_t key[GTRIE_PREFIX_BYTES] = {};
    uint32_t length = IPV4MC_ROUTE_PFX_LEN_SG;
    cerrno code = ip6mc_gtrie_make_prefix(table->signal_gtrie, key, &flow.source, &flow.group);
    code = code != 0 ? code : ip6mc_gtrie_get_pfx_len_adjusted(table->signal_gtrie, &length);
    return code != 0 ? nullptr
                     : static_cast<ipv4mc_route_entry_st *>(
                           ip6mc_gtrie_lookup_exact(table->signal_gtrie, key, length, &code));
}

// Names the packet in the signal route if it names none. True if it does now.
bool name_packet(const ipv4mc_table_st *table, const linux_flow &flow, void *handle) {
    if (ip6mc_shmwin_mutex_lock(__func__, __LINE__) != 0) {
        return false;
    }
    ipv4mc_route_entry_st *const route = find_signal(table, flow);
    const bool wanted = route != nullptr && route->preserved_pak == nullptr;
    if (wanted) {
        route->preserved_pak = handle;
        ip6mc_signal_incr_total_pkts_preserved();
    }
    ip6mc_shmwin_mutex_unlock();
    return wanted;
}

}  // namespace

poster::poster(const std::string &run_dir)
    : run_dir_(run_dir),
      arrived_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      waiting_(room),
      window_(run_dir) {
    cerrno code = capture_.open();
    code = code != 0 ? code : store_.open(run_dir);
    if (code != 0) {
        say("packets are not kept with their signals: %s", cerr_strerror(code));
    }
    std::thread([this] { run(); }).detach();
}

void poster::take(const linux_flow &flow, const uint8_t *packet, size_t packet_bytes) {
    if (repeated(flow)) {
        return;
    }
    entry e = {flow, nullptr};
    if (packet_bytes > 0) {
        e.packet = std::make_shared<const std::vector<uint8_t>>(packet, packet + packet_bytes);
    }
    {
        const std::lock_guard hold(mutex_);
        waiting_.put(e);
    }
    eventfd_write(arrived_, 1);
}

// True for a packet of a flow that was taken a moment ago.
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

poster_counts poster::counts() const {
    const std::lock_guard hold(mutex_);
    poster_counts counts = counts_;
    counts.dropped = waiting_.dropped();
    return counts;
}

void poster::count(uint64_t poster_counts::*what) {
    const std::lock_guard hold(mutex_);
    ++(counts_.*what);
}

// ---- the thread

void poster::run() {
    while (!should_restart()) {
        if (!ready_to_post()) {
            std::this_thread::sleep_for(attach_wait);
            continue;
        }
        wait();
        window_.quiescent();
        entry e;
        while (next(&e)) {
            post(e);
        }
        capture_.read(now(), [this](const linux_flow &flow, const uint8_t *packet, size_t bytes) {
            keep(flow, packet, bytes);
        });
        window_.idle();
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
        say(outdated ? "the window was made anew, or is not sound: starting again"
                     : "the owner stays away: letting go of the window");
        should_restart_.store(true, std::memory_order_release);
        return false;
    }
    return true;
}

// Until a report or a packet is there, or it is time to look after the window.
void poster::wait() {
    pollfd list[] = {{arrived_, POLLIN, 0}, {capture_.fd(), POLLIN, 0}};
    poll(list, 2, idle_ms);
    eventfd_t ignored = 0;
    eventfd_read(arrived_, &ignored);
}

bool poster::next(entry *e) {
    const std::lock_guard hold(mutex_);
    if (waiting_.empty()) {
        return false;
    }
    *e = waiting_.oldest();
    waiting_.take_oldest();
    return true;
}

// What the report is about in the library's words; no table when it is there no more.
poster::subject poster::find_subject(const linux_flow &flow) {
    subject what;
    for (int attempt = 0; attempt < 2; ++attempt) {
        uint32_t tid = 0;
        cerrno code = linux_table_tid(flow.kernel_table, &tid);
        ipv4mc_table_st *const table = code == 0 ? ip6mc_table_lookup_by_tbl_id(tid) : nullptr;
        if (table != nullptr) {
            code = linux_report_interface(table, &flow, &what.ifh);
            what.table = code == 0 ? table : nullptr;
        }
        if (code != ESTALE) {
            break;
        }
        linux_ledger_attach(run_dir_.c_str());
    }
    return what;
}

void poster::post(const entry &e) {
    const subject what = find_subject(e.flow);
    if (what.table == nullptr) {
        return count(&poster_counts::failed);
    }
    if (linux_report_signals(what.table, &e.flow, what.ifh) == 0) {
        return count(&poster_counts::unwanted);
    }
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    int exists = 0;
    const cerrno code = ip6mc_signal_add_mutex(what.table, &e.flow.source, &e.flow.group, what.ifh,
                                               &route, &is_new, &exists);
    if (code != 0) {
        return count(&poster_counts::failed);
    }
    count(exists != 0 ? &poster_counts::there : &poster_counts::posted);
    if (e.packet != nullptr) {
        keep(e.flow, e.packet->data(), e.packet->size());
    } else if (is_new != 0) {
        capture_.want(e.flow, now());
    }
}

void poster::keep(const linux_flow &flow, const uint8_t *bytes, size_t size) {
    const subject what = find_subject(flow);
    void *const handle = what.table == nullptr ? nullptr : store_.keep(bytes, size);
    if (handle != nullptr && name_packet(what.table, flow, handle)) {
        count(&poster_counts::packets);
    }
}

}  // namespace mfwd6::signald
