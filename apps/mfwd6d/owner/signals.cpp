#include "apps/mfwd6d/owner/signals.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "apps/mfwd6d/config/scan.h"
#include "apps/mfwd6d/say.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"

namespace mfwd6::daemon {
namespace {

constexpr uint32_t routes_between_yields = 256;
constexpr uint32_t longest_wait_ms = 1000;

ipv4mc_shmwin_hdr_st *header() {
    return ipv4mc_desc->shmwin_info;
}

struct flow {
    ip_maddr_st source;
    ip_maddr_st group;
    uint32_t interfaces;
};

struct search {
    std::vector<flow> found;
    bool (*wanted)(const search &s, ipv4mc_table_st *table, const ipv4mc_route_entry_st *route);
    ip_maddr_st source{};
    ip_maddr_st group{};
};

cerrno note_flow(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, void *context) {
    search &s = *static_cast<search *>(context);
    if (!s.wanted(s, table, route)) {
        return 0;
    }
    flow f{route->source, route->group, 0};
    for (const auto *entry = route->intf_list; entry != nullptr; entry = entry->next_intf) {
        ++f.interfaces;
    }
    s.found.push_back(f);
    return 0;
}

bool is_answered(const search &, ipv4mc_table_st *table, const ipv4mc_route_entry_st *signal) {
    ipv4mc_route_entry_st *route = nullptr;
    return ip6mc_lookup(table, &signal->source, &signal->group, 0, &route, nullptr) == 0 &&
           route != nullptr && (route->attributes & MRIB_ROUTE_SIGNAL) == 0;
}

bool is_named(const search &s, ipv4mc_table_st *, const ipv4mc_route_entry_st *signal) {
    const bool group_fits =
        config::is_any(s.group) || std::memcmp(&s.group, &signal->group, sizeof(s.group)) == 0;
    const bool source_fits =
        config::is_any(s.source) || std::memcmp(&s.source, &signal->source, sizeof(s.source)) == 0;
    return group_fits && source_fits;
}

// Found first and removed then: a removal gives the mutex up.
uint32_t end_found(const table &t, search *s) {
    if (t.record->signal_route_count == 0) {
        return 0;
    }
    cerrno first = ip6mc_signal_walk(t.record, routes_between_yields, 0, note_flow, s);
    uint32_t ended = 0;
    for (const flow &f : s->found) {
        cerrno rc = 0;
        // A call ends one interface of the signal at least; new ones may come meanwhile.
        for (uint32_t n = 0; n < f.interfaces && rc == 0; ++n) {
            rc = ip6mc_signal_remove_all_mutex(t.record, &f.source, &f.group);
        }
        ended += rc == 0 ? 1 : 0;
        first = first == 0 ? rc : first;
    }
    if (first != 0) {
        say(weight::error, "{} of {} signals of VRF {} ended: {}", ended, s->found.size(), t.vrf,
            cerr_strerror(first));
    }
    return ended;
}

}  // namespace

outcome changed_routes::start() {
    fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd_ < 0) {
        return failure_of(static_cast<cerrno>(errno), "the wake-up of signals");
    }
    // What is on the list from before this process was not announced to it.
    const uint64_t one = 1;
    if (write(fd_, &one, sizeof(one)) < 0) {
        return failure_of(static_cast<cerrno>(errno), "the wake-up of signals");
    }
    if (header()->changed_route_ready != 0) {
        waiter_ = std::thread([this] { wait_for_news(); });
    }
    return {};
}

void changed_routes::stop() {
    stopping_ = true;
    if (waiter_.joinable()) {
        ip6mc_changed_routes_wake();
        note_drain();
        waiter_.join();
    }
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

void changed_routes::note_drain() const {
    drains_.fetch_add(1, std::memory_order_release);
    drains_.notify_one();
}

// A wait has an end, as the one who was to wake us may have died before it. Between two waits the
// list is drained.
void changed_routes::wait_for_news() const {
    while (!stopping_) {
        const uint32_t drained = drains_.load(std::memory_order_acquire);
        const cerrno rc = ip6mc_changed_routes_wait(longest_wait_ms);
        if (rc == ETIMEDOUT) {
            continue;
        }
        const uint64_t one = 1;
        if (rc != 0 || (write(fd_, &one, sizeof(one)) < 0 && errno != EAGAIN)) {
            return;
        }
        if (!stopping_) {
            drains_.wait(drained, std::memory_order_acquire);
        }
    }
}

uint32_t changed_routes::drain() const {
    uint64_t ignored = 0;
    if (read(fd_, &ignored, sizeof(ignored)) < 0) {
    }
    if (ip6mc_shmwin_mutex_lock(__func__, __LINE__) != 0) {
        note_drain();
        return 0;
    }
    uint32_t drained = 0;
    while (ipv4mc_route_entry_st *route = header()->changed_route_head) {
        if (ipv4mc_changelist_remove_route(route) != 0 || header()->changed_route_head == route) {
            break;
        }
        ++drained;
    }
    ip6mc_shmwin_mutex_unlock();
    note_drain();
    return drained;
}

uint32_t end_answered_signals(const table &t) {
    search s{{}, is_answered, {}, {}};
    return end_found(t, &s);
}

uint32_t end_signals(const table &t, const ip_maddr_st &source, const ip_maddr_st &group) {
    search s{{}, is_named, source, group};
    return end_found(t, &s);
}

}  // namespace mfwd6::daemon
