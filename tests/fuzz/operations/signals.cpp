// Signals: posted, probed, removed, and the list of routes that have changed.
#include <algorithm>
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"

namespace fuzz {
namespace {

constexpr size_t most_signals = 12;

// The window mutex, for the forms that expect their caller to hold it.
class mutex {
  public:
    mutex() { expect_equal(ip6mc_shmwin_mutex_lock("fuzz", __LINE__), 0, "window mutex taken"); }
    ~mutex() { expect_equal(ip6mc_shmwin_mutex_unlock(), 0, "window mutex given back"); }
    mutex(const mutex &) = delete;
    mutex &operator=(const mutex &) = delete;
};

struct signal_key {
    ip_maddr_st source;
    ip_maddr_st group;
    ifhtype ifh;
    route_id id() const { return {group, source, IPV4MC_ROUTE_PFX_LEN_SG}; }
};

signal_key pick_signal_key(input &in) {
    const ip_maddr_st source = pick_source(in);
    const ip_maddr_st group = pick_group(in);
    return {source, group, static_cast<ifhtype>(1 + in.pick(last_ifh))};
}

tid_table *with_signals(std::map<uint32_t, std::unique_ptr<tid_table>> &all, input &in) {
    const size_t n = in.byte();
    if (all.empty()) {
        return nullptr;
    }
    tid_table *table = std::next(all.begin(), static_cast<long>(n % all.size()))->second.get();
    return table->has_tries ? table : nullptr;
}

std::string text(const signal_key &key) {
    return named_key{key.group, key.source, IPV4MC_ROUTE_PFX_LEN_SG}.text();
}

}  // namespace

// ---- the calls
// -----------------------------------------------------------------------------------

void world::post_signal(input &in) {
    tid_table *table = with_signals(tids_, in);
    signal_key key = pick_signal_key(in);
    const uint8_t shape = in.byte();
    if (table == nullptr) {
        return;
    }
    note("signal %s on %u", text(key).c_str(), key.ifh);
    ipv4mc_route_entry_st *record = nullptr;
    int is_new = -1;
    int exists = -1;
    if ((shape & 0x0f) == 0x0f) {
        key.source = {};
        expect_equal(ip6mc_signal_add_mutex(table->record, &key.source, &key.group, key.ifh,
                                            &record, &is_new, &exists),
                     EINVAL, "result of a signal without a source");
        return;
    }
    const signal *before = find_signal(*table, key.id());
    const bool has_intf = before != nullptr && before->find(key.ifh) != nullptr;
    if (before == nullptr && table->signals.size() >= most_signals) {
        return;
    }
    cerrno rc = 0;
    if ((shape & 0x10) != 0) {
        const mutex held;
        rc = ip6mc_signal_add(table->record, &key.source, &key.group, key.ifh, &record);
    } else {
        rc = ip6mc_signal_add_mutex(table->record, &key.source, &key.group, key.ifh, &record,
                                    &is_new, &exists);
        expect_equal(is_new, before == nullptr ? 1 : 0, "is_new of a signal");
        expect_equal(exists, has_intf ? 1 : -1, "exists of a signal");
    }
    expect_equal(rc, 0, "result of a signal");
    if (has_intf) {
        expect_same<ipv4mc_route_entry_st>(record, nullptr, "route of a signal that is there");
        return;
    }
    signal *s = model_post(*table, key.id(), key.ifh, 0);
    learn_signal(*s);
    expect_same(record, s->record, "route of a signal");
    model_mark_changed(s);
}

void world::probe_signal(input &in) {
    tid_table *table = with_signals(tids_, in);
    const signal_key key = pick_signal_key(in);
    if (table == nullptr) {
        return;
    }
    signal *s = find_signal(*table, key.id());
    if (s == nullptr && table->signals.size() >= most_signals) {
        return;
    }
    note("probe %s on %u", text(key).c_str(), key.ifh);
    expect_equal(ip6mc_signal_rpf_alive(table->record, &key.group, key.ifh, &key.source), 0,
                 "result of a probe");
    const bool was_there = s != nullptr;
    if (s == nullptr || s->find(key.ifh) == nullptr) {
        s = model_post(*table, key.id(), key.ifh, MRIB_INTF_SP);
        learn_signal(*s);
    }
    if (was_there && (s->attributes & MRIB_INTF_SP) == 0) {
        s->attributes |= MRIB_INTF_SP;
        for (signal_intf &each : s->intfs) {
            each.attributes |= each.ifh == key.ifh ? MRIB_INTF_SP : 0;
        }
    }
    model_mark_changed(s);
}

void world::remove_signal(input &in) {
    tid_table *table = with_signals(tids_, in);
    const signal_key key = pick_signal_key(in);
    const uint8_t shape = in.byte();
    if (table == nullptr) {
        return;
    }
    note("remove signal %s on %u", text(key).c_str(), key.ifh);
    signal *s = find_signal(*table, key.id());
    const bool is_there = s != nullptr && s->find(key.ifh) != nullptr;
    cerrno rc = 0;
    if (is_there && (shape & 3) >= 2) {
        ipv4mc_route_entry_st *record = s->record;
        ipv4mc_intf_entry_st *entry = ip6mc_intf_route_lookup(record, 0, key.ifh, 0, 0);
        const bool last = s->intfs.size() == 1;
        if ((shape & 3) == 2) {
            rc = ip6mc_signal_remove_signal_route_mutex(table->record, &record, &entry);
        } else {
            const mutex held;
            rc = ip6mc_signal_remove_signal_route(table->record, &record, &entry);
        }
        expect_same<ipv4mc_intf_entry_st>(entry, nullptr, "interface of a removed signal");
        expect_same(record, last ? nullptr : s->record, "route of a removed signal");
    } else if ((shape & 1) != 0) {
        const mutex held;
        rc = ip6mc_signal_remove(table->record, &key.source, &key.group, key.ifh);
    } else {
        rc = ip6mc_signal_remove_mutex(table->record, &key.source, &key.group, key.ifh);
    }
    expect_equal(rc, 0, "result of the removal of a signal");
    if (is_there) {
        model_remove_signal(s, key.ifh);
    }
}

// Of a route with several interfaces only the newest goes: known, and kept so.
void world::remove_signals_of_route(input &in) {
    tid_table *table = with_signals(tids_, in);
    const signal_key key = pick_signal_key(in);
    const uint8_t shape = in.byte();
    if (table == nullptr) {
        return;
    }
    note("remove signals %s", text(key).c_str());
    cerrno rc = 0;
    switch (shape % 4) {
        case 0:
            rc = ip6mc_signal_remove_all_mutex(table->record, &key.source, &key.group);
            break;
        case 1: {
            const mutex held;
            rc = ip6mc_signal_remove_all(table->record, &key.source, &key.group);
            break;
        }
        case 2:
            rc = ip6mc_signal_remove_route_pak_mutex(table->record, &key.source, &key.group,
                                                     shape >> 4);
            break;
        default: {
            const mutex held;
            rc = ip6mc_signal_remove_route_pak(table->record, &key.source, &key.group, shape >> 4);
            break;
        }
    }
    expect_equal(rc, 0, "result of the removal of a route's signals");
    if (signal *s = find_signal(*table, key.id()); s != nullptr) {
        model_remove_signal(s, s->intfs.front().ifh);
    }
}

void world::remove_all_signals(input &in) {
    tid_table *table = with_signals(tids_, in);
    const uint8_t shape = in.byte();
    if (table == nullptr) {
        return;
    }
    note("remove all signals of 0x%x", table->tid);
    model_remove_all_signals(*table);
    expect_equal(ip6mc_signal_remove_all_routes(table->record, shape & 3, shape >> 6), 0,
                 "result of the removal of all signals");
}

// As the control plane does: takes routes off the front.
void world::drain_changed_routes(input &in) {
    const size_t most = in.pick(4);
    note("drain %zu changed routes", most);
    const mutex held;
    for (size_t n = 0; n < most && !changed_.empty(); ++n) {
        ipv4mc_route_entry_st *first = ipv4mc_desc->shmwin_info->changed_route_head;
        expect_same(first, changed_.front()->record, "first changed route");
        expect_equal(ipv4mc_changelist_remove_route(first), 0, "result of the drain");
        changed_.pop_front();
    }
    ipv4mc_desc->shmwin_info->changed_route_wake = 0;
}

void world::look_up_signal(input &in) {
    tid_table *table = with_signals(tids_, in);
    const signal_key key = pick_signal_key(in);
    const uint8_t shape = in.byte();
    if (table == nullptr) {
        return;
    }
    const signal *s = find_signal(*table, key.id());
    const signal_intf *on = s == nullptr ? nullptr : s->find(key.ifh);
    ipv4mc_route_entry_st *record = nullptr;
    ipv4mc_intf_entry_st *entry = nullptr;
    expect_equal(
        ip6mc_signal_lookup(table->record, &key.source, &key.group, key.ifh, &record, &entry), 0,
        "result of a signal lookup");
    expect_same(record, s == nullptr ? nullptr : s->record, "signal route");
    expect_equal(entry != nullptr, on != nullptr, "signal interface is there");

    // The first of all, of a group, of a key.
    const ip_maddr_st none{};
    const bool any_source = (shape & 1) != 0;
    const bool any_group = any_source && ((shape & 2) != 0 || is_wildcard(key.group));
    const signal *first = nullptr;
    for (const auto &each : table->signals) {
        const bool fits = any_group || (any_source ? named_key{each.first.group, none, 128}.id() ==
                                                         named_key{key.group, none, 128}.id()
                                                   : each.first == key.id());
        if (fits) {
            first = each.second.get();
            break;
        }
    }
    expect_same(ip6mc_signal_first_key(table->record, any_source ? &none : &key.source,
                                       any_group ? &none : &key.group),
                first == nullptr ? nullptr : first->record, "first signal route");
}

// ---- the model
// -----------------------------------------------------------------------------------

signal *world::find_signal(tid_table &table, const route_id &id) {
    const auto found = table.signals.find(id);
    return found == table.signals.end() ? nullptr : found->second.get();
}

signal *world::model_post(tid_table &table, const route_id &id, ifhtype ifh, uint64_t attributes) {
    auto &s = table.signals[id];
    if (s == nullptr) {
        s = std::make_unique<signal>();
        s->table = &table;
        s->id = id;
        ++table.signal_adds;
    }
    s->intfs.push_front({ifh, attributes});
    return s.get();
}

void world::learn_signal(signal &s) {
    ipv4mc_route_entry_st *record = nullptr;
    ip6mc_signal_lookup(s.table->record, &s.id.source, &s.id.group, 0, &record, nullptr);
    if (record == nullptr || (s.record != nullptr && s.record != record)) {
        complain("signal route is not found, or another one than before");
    }
    s.record = record;
}

void world::model_mark_changed(signal *s) {
    if (std::find(changed_.begin(), changed_.end(), s) == changed_.end()) {
        changed_.push_back(s);
    }
}

void world::model_remove_signal(signal *s, ifhtype ifh) {
    s->intfs.remove_if([&](const signal_intf &each) { return each.ifh == ifh; });
    if (s->intfs.empty()) {
        changed_.remove(s);
        s->table->signals.erase(s->id);
    }
}

// One interface of each route.
void world::model_remove_all_signals(tid_table &table) {
    std::vector<signal *> all;
    for (const auto &each : table.signals) {
        all.push_back(each.second.get());
    }
    for (signal *s : all) {
        model_remove_signal(s, s->intfs.front().ifh);
    }
}

}  // namespace fuzz
