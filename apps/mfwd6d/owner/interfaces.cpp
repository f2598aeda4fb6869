#include "apps/mfwd6d/owner/interfaces.h"

#include <algorithm>
#include <iterator>

#include "apps/mfwd6d/say.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "services/journal/journal.h"

namespace mfwd6::daemon {
namespace {

using journal::group;
using journal::store;

std::string_view name_of(const ipv4mc_idb_st *record) {
    return {record->name, strnlen(record->name, sizeof(record->name))};
}

// One reference stands for the announcement, whoever has died in between.
cerrno announce(ifhtype ifh, const std::string &name, ipv4mc_idb_st **record) {
    const group change;
    const cerrno rc = ip6mc_idb_lock_v3(ifh, name.c_str(), record, nullptr);
    if (rc != 0) {
        return rc;
    }
    ipv4mc_idb_st *idb = *record;
    store(idb->im_create_rcvd, uint8_t{1});
    store(idb->create_state, uint32_t{IPV4MC_IDB_CREATED});
    store(idb->cfg_flags, static_cast<uint8_t>(idb->cfg_flags & ~IPV4MC_IDB_CFG_STALE));
    return 0;
}

// An owner died between taking the name away and giving it to another handle.
void name_again(ipv4mc_idb_st *record) {
    const group change;
    ip6mc_idb_insert_in_name_tree(record);
    store(record->tree_flags, static_cast<uint8_t>(record->tree_flags | IPV4MC_IDB_TREE_NAME));
}

// The route gets an entry like `entry` on `to`, or what `entry` has is added to the one that it has
// there; then `entry` goes.
cerrno move_entry(ipv4mc_intf_entry_st *entry, ipv4mc_idb_st *to) {
    const group change;
    ipv4mc_route_entry_st *route = entry->route;
    const uint64_t attributes = entry->attributes;
    ipv4mc_intf_entry_st *fresh = nullptr;
    cerrno rc = ip6mc_intf_operation(IPV4MC_ACTION_CREATE, route->table, route, entry->intf_type,
                                     to->ifh, 0, 0, 0, &fresh, to, 0, 0, 1);
    if (rc == 0) {
        fresh->attributes = attributes;
        rc = ip6mc_intf_operation(IPV4MC_ACTION_COMMIT, route->table, route, entry->intf_type,
                                  to->ifh, 0, 0, 0, &fresh, to, 0, 0, 1);
    } else if (rc == EEXIST) {
        const uint64_t old = fresh->attributes;
        store(fresh->attributes, old | attributes);
        rc = ip6mc_intf_operation(IPV4MC_ACTION_COMMIT, route->table, route, entry->intf_type,
                                  to->ifh, 0, 0, 0, &fresh, to, 0, old, 0);
    }
    if (rc != 0) {
        return rc;
    }
    return ip6mc_intf_operation(IPV4MC_ACTION_DELETE, route->table, route, entry->intf_type,
                                entry->ifh, 0, 0, 0, &entry, nullptr, 0, attributes, 0);
}

struct found_records {
    std::vector<ipv4mc_idb_st *> list;
};

cerrno note_record(ipv4mc_idb_st *record, void *context) {
    static_cast<found_records *>(context)->list.push_back(record);
    return 0;
}

}  // namespace

outcome interfaces::start() {
    found_records found;
    const cerrno rc = ip6mc_idb_walk(nullptr, note_record, &found, 0, 1);
    if (rc != 0) {
        return failure_of(rc, "the interfaces in the window");
    }
    for (ipv4mc_idb_st *record : found.list) {
        const std::string_view name = name_of(record);
        if (record->ifh >= absent_handles) {
            next_absent_ = std::max(next_absent_, record->ifh + 1);
        }
        interface *known = find(name);
        // Of two records with one name the one in the tree of names is the new one.
        const bool named = (record->tree_flags & IPV4MC_IDB_TREE_NAME) != 0;
        if (known == nullptr || (known->record != nullptr && named)) {
            interface &i = known != nullptr ? *known : add(name);
            if (i.record != nullptr) {
                left_behind_.push_back(i.record);
                by_handle_.erase(i.ifh);
            }
            i.ifh = record->ifh;
            i.record = record;
            by_handle_[i.ifh] = &i;
            if (!named) {
                name_again(record);
            }
        } else {
            left_behind_.push_back(record);
        }
    }
    return {};
}

interface &interfaces::add(std::string_view name) {
    auto fresh = std::make_unique<interface>();
    fresh->name = name;
    interface &i = *fresh;
    by_name_.emplace(i.name, std::move(fresh));
    return i;
}

interface *interfaces::find(std::string_view name) {
    for (interface *i : last_) {
        if (i != nullptr && i->name == name) {
            return i;
        }
    }
    const auto at = by_name_.find(name);
    if (at == by_name_.end()) {
        return nullptr;
    }
    last_[next_last_++ % std::size(last_)] = at->second.get();
    return at->second.get();
}

ifhtype interfaces::free_absent_handle() {
    while (by_handle_.contains(next_absent_)) {
        ++next_absent_;
    }
    return next_absent_++;
}

interface &interfaces::find_or_await(std::string_view name) {
    if (interface *i = find(name)) {
        return *i;
    }
    interface &i = add(name);
    i.ifh = free_absent_handle();
    by_handle_[i.ifh] = &i;
    return i;
}

outcome interfaces::need_record(interface &i) {
    if (i.record != nullptr) {
        return {};
    }
    const cerrno rc = announce(i.ifh, i.name, &i.record);
    if (rc != 0) {
        i.record = nullptr;
        return failure_of(rc, "interface " + i.name);
    }
    return i.has_settings() ? apply_settings(i) : outcome{};
}

void interfaces::set_handle(interface &i, ifhtype ifh) {
    if (i.ifh == ifh) {
        return;
    }
    if (i.record != nullptr) {
        ip6mc_idb_delete_from_name_tree(i.record);
        left_behind_.push_back(i.record);
        i.record = nullptr;
    }
    by_handle_.erase(i.ifh);
    i.ifh = ifh;
    by_handle_[ifh] = &i;
}

void interfaces::appeared(uint32_t index, std::string_view name) {
    const auto there = by_index_.find(index);
    if (there != by_index_.end() && there->second->name != name) {
        disappeared(index);
    }
    // The handle means the link of this index, which has another name now.
    const auto holder = by_handle_.find(index);
    if (holder != by_handle_.end() && holder->second->name != name) {
        interface &other = *holder->second;
        const bool elsewhere = other.index != 0 && !by_handle_.contains(other.index);
        set_handle(other, elsewhere ? other.index : free_absent_handle());
        while (!move_routes(UINT32_MAX)) {
        }
    }
    interface *known = find(name);
    interface &i = known != nullptr ? *known : add(name);
    i.index = index;
    by_index_[index] = &i;
    // Where nothing names the handle any more, the link's own index is as good as any.
    if (i.record == nullptr || i.ifh >= absent_handles) {
        set_handle(i, index);
        if (!left_behind_.empty() || i.has_settings()) {
            const outcome made = need_record(i);
            if (made.failed()) {
                say(weight::error, "{}", made.text);
            }
        }
    }
}

// The record stays while routes name the interface; they go on when it comes again.
void interfaces::disappeared(uint32_t index) {
    const auto at = by_index_.find(index);
    if (at == by_index_.end()) {
        return;
    }
    interface &i = *at->second;
    i.index = 0;
    by_index_.erase(at);
    if (i.record != nullptr && i.record->route_count == 0 && !i.has_settings()) {
        release_record(i.record);
        i.record = nullptr;
    }
}

// Gives the announcement's reference back; with the last one the record goes.
bool interfaces::release_record(ipv4mc_idb_st *record) {
    const group change;
    if (record->ttl != 0) {
        store(record->ttl, uint8_t{0});
    }
    if (record->im_create_rcvd == 0) {
        return record->refcount == 0;
    }
    store(record->im_create_rcvd, uint8_t{0});
    return ip6mc_idb_unlock(&record) == 0;
}

bool interfaces::move_routes(uint32_t most) {
    while (!left_behind_.empty()) {
        ipv4mc_idb_st *record = left_behind_.back();
        const std::string name(name_of(record));
        interface &i = find_or_await(name);
        const outcome made = need_record(i);
        while (!made.failed() && record->route_list != nullptr) {
            if (most == 0) {
                return false;
            }
            --most;
            const cerrno rc = move_entry(record->route_list, i.record);
            if (rc != 0) {
                say(weight::error, "a route cannot follow interface {}: {}", name,
                    cerr_strerror(rc));
                break;
            }
        }
        left_behind_.pop_back();
        if (record->route_list == nullptr) {
            release_record(record);
        }
    }
    return true;
}

outcome interfaces::tell(interface &i, ipv4mc_idb_op what, const char *text) {
    const cerrno rc = ip6mc_platform_idb_operation_wrapper(what, i.record, nullptr, nullptr);
    return rc == 0 ? outcome{} : intf_failure_of(rc, fmt::format("interface {}: {}", i.name, text));
}

outcome interfaces::apply_boundary(interface &i) {
    return i.boundary.empty() ? outcome{} : set_boundary(i, i.boundary);
}

outcome interfaces::apply_settings(interface &i) {
    if (i.record == nullptr) {
        return need_record(i);
    }
    outcome first = set_table(i, i.vrf, i.vrf_tid);
    const auto note = [&first](outcome o) {
        if (!first.failed()) {
            first = std::move(o);
        }
    };
    if (i.enabled != config::switch_word::none) {
        note(set_enabled(i, i.enabled));
    }
    if (i.ttl != 0) {
        note(set_ttl(i, i.ttl));
    }
    note(apply_boundary(i));
    return first;
}

outcome interfaces::set_enabled(interface &i, config::switch_word enabled) {
    const outcome made = need_record(i);
    if (made.failed()) {
        return made;
    }
    const bool on = enabled == config::switch_word::enable;
    const uint32_t before = i.record->mcast_enabled;
    {
        const group change;
        store(i.record->mcast_enabled, on ? 1U : 0U);
    }
    outcome told = tell(i, on ? IPV4MC_IDB_OP_ENABLE : IPV4MC_IDB_OP_DISABLE,
                        on ? "cannot be enabled" : "cannot be disabled");
    if (told.failed()) {
        const group change;
        store(i.record->mcast_enabled, before);
        return told;
    }
    i.enabled = enabled;
    return {};
}

outcome interfaces::set_ttl(interface &i, uint8_t ttl) {
    const outcome made = need_record(i);
    if (made.failed()) {
        return made;
    }
    const uint8_t before = i.record->ttl;
    {
        const group change;
        store(i.record->ttl, ttl);
    }
    outcome told = tell(i, IPV4MC_IDB_OP_TTL_SET, "cannot take a TTL threshold");
    if (told.failed()) {
        const group change;
        store(i.record->ttl, before);
        return told;
    }
    i.ttl = ttl;
    return {};
}

outcome interfaces::set_boundary(interface &i, std::vector<config::prefix> boundary) {
    if (platform_->set_boundary != nullptr && is_told(i)) {
        std::vector<linux_prefix> list;
        for (const config::prefix &p : boundary) {
            list.push_back({p.address, p.length});
        }
        const cerrno rc =
            platform_->set_boundary(i.ifh, list.data(), static_cast<uint32_t>(list.size()));
        if (rc != 0) {
            return failure_of(rc, "the boundary of interface " + i.name);
        }
    }
    i.boundary = std::move(boundary);
    return {};
}

outcome interfaces::set_table(interface &i, std::string_view vrf, uint32_t tid) {
    // Nothing to take back is not told: the platform's default is the default table.
    if (platform_->set_interface_table != nullptr && is_told(i) && (tid != 0 || i.vrf_tid != 0)) {
        const cerrno rc = platform_->set_interface_table(i.ifh, tid);
        if (rc != 0) {
            return failure_of(rc, fmt::format("interface {} in VRF {}", i.name, vrf));
        }
    }
    i.vrf = vrf;
    i.vrf_tid = tid;
    return {};
}

}  // namespace mfwd6::daemon
