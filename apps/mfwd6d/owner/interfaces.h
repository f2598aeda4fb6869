// The router's interfaces, by name, and the records that the window has of them.
//
// A name is what people mean; the window knows handles. The handle of an interface is the index
// that its link had when it was first seen; a link that is deleted and made again under its name
// keeps the handle. An interface that is named and was never seen has a handle from
// `absent_handles` on, so that routes can name it already. When it comes, the routes move to its
// new handle, one by one, each in one change; an owner that dies in between leaves the rest to the
// next one, which compares names and handles at its start. The same when a link is renamed: what
// named it waits for another of its name.
//
// An interface belongs to one table: that of the VRF which names it, else the default one.
#ifndef MFWD6_APPS_MFWD6D_OWNER_INTERFACES_H
#define MFWD6_APPS_MFWD6D_OWNER_INTERFACES_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "apps/mfwd6d/config/line.h"
#include "apps/mfwd6d/owner/outcome.h"
#include "apps/mfwd6d/owner/platform.h"
#include "apps/mfwd6d/owner/window.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"

namespace mfwd6::daemon {

inline constexpr ifhtype absent_handles = 0x40000000;

struct interface {
    std::string name;
    ifhtype ifh = 0;
    uint32_t index = 0;               // of the link in the kernel, 0: it is not there
    ipv4mc_idb_st *record = nullptr;  // null before the first use
    std::string vrf = config::default_vrf;
    uint32_t vrf_tid = 0;  // told to the platform; 0: none

    // Settings, as `phyint` and `boundary` make them.
    config::switch_word enabled = config::switch_word::none;
    uint8_t ttl = 0;
    std::vector<config::prefix> boundary;

    bool has_settings() const {
        return enabled != config::switch_word::none || ttl != 0 || !boundary.empty() ||
               vrf_tid != 0;
    }
};

class interfaces {
  public:
    explicit interfaces(const platform *p) : platform_(p) {}

    // Learns what the window has records of. Then the links are told with `appeared`.
    outcome start();

    // Null when no such interface is there or awaited.
    interface *find(std::string_view name);
    // The same, and one that is not there is awaited from now on.
    interface &find_or_await(std::string_view name);
    template <class Fn>
    void each(const Fn &fn) {
        for (const auto &[name, i] : by_name_) {
            fn(*i);
        }
    }

    // Makes sure that the window has a record.
    outcome need_record(interface &i);

    // News of the kernel: a link is there under this name; it is not there any more.
    void appeared(uint32_t index, std::string_view name);
    void disappeared(uint32_t index);

    // Moves the routes of records whose handle is not that of their name any more, at most `most`
    // entries. false when there may be more.
    bool move_routes(uint32_t most);
    bool routes_to_move() const { return !left_behind_.empty(); }

    // Tells the platform the settings of an interface, those that differ from none. The first
    // failure.
    outcome apply_settings(interface &i);
    outcome apply_boundary(interface &i);
    outcome set_enabled(interface &i, config::switch_word enabled);
    outcome set_ttl(interface &i, uint8_t ttl);
    outcome set_boundary(interface &i, std::vector<config::prefix> boundary);
    // `tid` 0: the default table.
    outcome set_table(interface &i, std::string_view vrf, uint32_t tid);

  private:
    interface &add(std::string_view name);
    void set_handle(interface &i, ifhtype ifh);
    bool is_told(const interface &i) const { return i.ifh < absent_handles; }
    bool release_record(ipv4mc_idb_st *record);
    ifhtype free_absent_handle();
    outcome tell(interface &i, ipv4mc_idb_op what, const char *text);

    const platform *platform_;
    std::unordered_map<std::string_view, std::unique_ptr<interface>> by_name_;
    std::unordered_map<ifhtype, interface *> by_handle_;
    std::unordered_map<uint32_t, interface *> by_index_;
    // Records that stand under a handle which is not that of their name any more.
    std::vector<ipv4mc_idb_st *> left_behind_;
    ifhtype next_absent_ = absent_handles;
    interface *last_[4] = {};  // asked for last
    uint32_t next_last_ = 0;
};

}  // namespace mfwd6::daemon

#endif
