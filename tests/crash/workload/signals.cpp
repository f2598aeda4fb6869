// Signals that the owner posts and removes itself, with and without the mutex in its hands.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "services/journal/journal.h"
#include "tests/crash/workload/step.h"

namespace crash {
namespace {

class window_mutex {
  public:
    window_mutex() : held_(ip6mc_shmwin_mutex_lock(__func__, __LINE__) == 0) {}
    ~window_mutex() {
        if (held_) {
            ip6mc_shmwin_mutex_unlock();
        }
    }
    window_mutex(const window_mutex &) = delete;
    window_mutex &operator=(const window_mutex &) = delete;

    bool held() const { return held_; }

  private:
    bool held_;
};

void drain_changed() {
    const window_mutex mutex;
    while (mutex.held() && ipv4mc_desc->shmwin_info->changed_route_head != nullptr) {
        ipv4mc_changelist_remove_route(ipv4mc_desc->shmwin_info->changed_route_head);
    }
}

// Posts a signal with its packet, as the packet path does. The packet is the data path's: here it
// is any address.
void preserve(ipv4mc_table_st *table, const route_key &k, ifhtype ifh) {
    const window_mutex mutex;
    ipv4mc_route_entry_st *route = nullptr;
    if (mutex.held() && ip6mc_signal_add(table, &k.source, &k.group, ifh, &route) == 0 &&
        route != nullptr && route->preserved_pak == nullptr) {
        mfwd6::journal::store(route->preserved_pak, static_cast<void *>(route));
        ip6mc_signal_incr_total_pkts_preserved();
    }
}

// Removes a new signal, or the interface that it added to one, by pointer: that is good only under
// the mutex that the post was made under, as posters remove signals too.
void post_and_remove(ipv4mc_table_st *table, const route_key &k, ifhtype ifh) {
    const window_mutex mutex;
    ipv4mc_route_entry_st *route = nullptr;
    ipv4mc_intf_entry_st *entry = nullptr;
    if (mutex.held() && ip6mc_signal_add(table, &k.source, &k.group, ifh, &route) == 0 &&
        route != nullptr && ip6mc_signal_intf_lookup(table, route, ifh, &entry) == 0 &&
        entry != nullptr) {
        ip6mc_signal_remove_signal_route(table, &route, &entry);
    }
}

}  // namespace

void step::own_signals() {
    ipv4mc_table_st *of = table();
    if (of == nullptr) {
        return add_route();
    }
    const route_key k = signal_key_of(number(signals));
    const ifhtype ifh = ifh_of(interface_);
    change(operation::other, 0, [&] {
        ipv4mc_route_entry_st *route = nullptr;
        switch (number(4)) {
            case 0:
                ip6mc_signal_rpf_alive(of, &k.group, ifh, &k.source);
                break;
            case 1:
                drain_changed();
                break;
            default:
                ip6mc_signal_add_mutex(of, &k.source, &k.group, ifh, &route, nullptr, nullptr);
        }
    });
}

void step::remove_signals() {
    ipv4mc_table_st *of = table();
    if (of == nullptr) {
        return add_route();
    }
    const route_key k = signal_key_of(number(signals));
    const ifhtype ifh = ifh_of(interface_);
    change(operation::other, 0, [&] {
        switch (number(4)) {
            case 0:
                ip6mc_signal_remove_mutex(of, &k.source, &k.group, ifh);
                break;
            case 1:
                ip6mc_signal_remove_all_mutex(of, &k.source, &k.group);
                break;
            case 2:
                post_and_remove(of, k, ifh);
                break;
            default:
                ip6mc_signal_remove_all_routes(of, 1 + number(3), number(2) * IPV4MC_FREE_PAK_ALL);
        }
    });
}

void step::preserved_packets() {
    ipv4mc_table_st *of = table();
    if (of == nullptr) {
        return add_route();
    }
    const route_key k = signal_key_of(number(signals));
    const ifhtype ifh = ifh_of(interface_);
    change(operation::other, 0, [&] {
        switch (number(4)) {
            case 0:
                ip6mc_signal_remove_route_pak_mutex(of, &k.source, &k.group, IPV4MC_FREE_PAK_ALL);
                break;
            case 1: {
                const window_mutex mutex;
                if (mutex.held()) {
                    ip6mc_signal_remove_route_pak(of, &k.source, &k.group, IPV4MC_FREE_PAK_ALL);
                }
                break;
            }
            default:
                preserve(of, k, ifh);
        }
    });
}

}  // namespace crash
