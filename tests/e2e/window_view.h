// The window of a running router, as an attached client of this process sees it.
#ifndef MFWD6_TESTS_E2E_WINDOW_VIEW_H
#define MFWD6_TESTS_E2E_WINDOW_VIEW_H

#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "apps/mfwd6-signald/packet_store.h"
#include "apps/mfwd6-signald/window.h"
#include "apps/netlab/packet.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "services/diag/run_dir.h"
#include "services/window/setup.h"

namespace e2e {

inline ip_maddr_st address(const std::string &text) {
    const in6_addr a = netlab::parse_address(text);
    ip_maddr_st m = {};
    std::memcpy(m.bytes, &a, sizeof(m.bytes));
    return m;
}

// One in a process, for the life of the process at most: let go of it before the router ends.
class window_view {
  public:
    explicit window_view(const std::string &run_dir) : run_dir_(run_dir), window_(run_dir) {
        diag_set_run_dir(run_dir.c_str());
        shmwin_set_run_dir(run_dir.c_str());
        for (int i = 0; window_.attach() != 0; ++i) {
            if (i == 500) {
                throw std::runtime_error("cannot attach to the window in " + run_dir);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~window_view() { ip6mc_lib_terminate(1, IPV4MC_TERMINATE_END); }
    window_view(const window_view &) = delete;
    window_view &operator=(const window_view &) = delete;

    // The signal of this flow in the default table, or null.
    static ipv4mc_route_entry_st *signal(const std::string &source, const std::string &group) {
        ipv4mc_table_st *const table = ip6mc_table_tid_get_first();
        const ip_maddr_st s = address(source);
        const ip_maddr_st g = address(group);
        ipv4mc_route_entry_st *route = nullptr;
        if (table == nullptr || ip6mc_signal_lookup(table, &s, &g, 0, &route, nullptr) != 0) {
            return nullptr;
        }
        return route;
    }

    // The packet that was kept with it; empty for none.
    std::vector<uint8_t> packet(const std::string &source, const std::string &group) const {
        const ipv4mc_route_entry_st *const route = signal(source, group);
        std::vector<uint8_t> bytes;
        if (route != nullptr && route->preserved_pak != nullptr) {
            mfwd6::signald::read_kept_packet(run_dir_, route->preserved_pak, &bytes);
        }
        return bytes;
    }

  private:
    std::string run_dir_;
    mfwd6::signald::window window_;
};

}  // namespace e2e

#endif
