#include "apps/mfwd6d/owner/state.h"

#include <unistd.h>

#include <algorithm>

#include "apps/mfwd6d/config/files.h"
#include "apps/mfwd6d/config/scan.h"
#include "apps/mfwd6d/say.h"

namespace mfwd6::daemon {
namespace {

std::string stamp() {
    return "# window " + std::to_string(window_generation()) + "\n";
}

bool has_stamp(const std::string &text) {
    return text.starts_with(stamp());
}

void tell_failure(const outcome &o) {
    if (o.failed()) {
        say(weight::error, "{}", o.text);
    }
}

config::vrf_wish vrf_wish_of(const table &t) {
    config::vrf_wish wish;
    wish.table_id = t.tid;
    return wish;
}

}  // namespace

// ---- start and files ----------------------------------------------------------------------------

outcome state::start(bool is_new_window) {
    if (is_new_window) {
        forget_files();
    }
    outcome o = tables_.start();
    if (!o.failed()) {
        o = interfaces_.start();
    }
    return o.failed() ? o : load_settings();
}

void state::forget_files() const {
    unlink((run_dir_ + "/" + settings_file).c_str());
    unlink((run_dir_ + "/" + applied_file).c_str());
}

// Files of another window, or that nobody can read, are passed over: everything is applied anew.
outcome state::load_settings() {
    std::string text;
    std::string error;
    if (config::read_file(run_dir_ + "/" + applied_file, &text).empty() && has_stamp(text) &&
        !config::parse_document(text, applied_file, &applied_, &error)) {
        say(weight::warning, "{}; the configuration is applied as if it were new", error);
        applied_ = {};
    }
    config::document settings;
    if (!config::read_file(run_dir_ + "/" + settings_file, &text).empty() || !has_stamp(text)) {
        return {};
    }
    if (!config::parse_document(text, settings_file, &settings, &error)) {
        say(weight::warning, "{}; settings of interfaces are lost", error);
        return {};
    }
    for (const auto &[vrf, wish] : settings.vrfs) {
        for (const std::string &name : wish.interfaces) {
            interface &i = interfaces_.find_or_await(name);
            i.vrf = vrf;
            i.vrf_tid = wish.table_id;
        }
    }
    for (const auto &[name, wish] : settings.interfaces) {
        interface &i = interfaces_.find_or_await(name);
        i.enabled = wish.enabled;
        i.ttl = wish.ttl;
        i.boundary = wish.boundary;
    }
    for (const std::string &text_of_line : settings.joins) {
        config::line l;
        if (config::parse_line(text_of_line, &l, &error)) {
            memberships_.add(l);  // no link is known yet: this notes the line
        }
    }
    return {};
}

// What decides the contents of entries comes before they are compared; the platform learns of its
// tables by the comparison, so what names them comes behind it.
void state::before_resync() {
    interfaces_.each([&](interface &i) { tell_failure(interfaces_.apply_boundary(i)); });
}

void state::after_resync() {
    interfaces_.each([&](interface &i) {
        if (i.index != 0) {
            memberships_.appeared(i);
        }
        if (i.index != 0 && i.has_settings()) {
            tell_failure(interfaces_.apply_settings(i));
        }
    });
    join_patterns_of_new_interfaces();
}

outcome state::save_settings() const {
    config::document settings;
    for (const auto &[vrf, t] : tables_.all()) {
        if (t.tid != default_tid) {
            settings.vrfs[vrf] = vrf_wish_of(t);
        }
    }
    auto &all = const_cast<interfaces &>(interfaces_);
    all.each([&](const interface &i) {
        if (i.vrf_tid != 0) {
            settings.vrfs[i.vrf].interfaces.insert(i.name);
        }
        if (i.enabled != config::switch_word::none || i.ttl != 0 || !i.boundary.empty()) {
            settings.interfaces[i.name] = {i.enabled, i.ttl, i.boundary};
        }
    });
    settings.joins = memberships_.lines();
    const std::string problem = config::replace_file(run_dir_ + "/" + settings_file,
                                                     stamp() + config::document_text(settings));
    return problem.empty() ? outcome{} : failure(EIO, problem);
}

// A change that the file must know of. What cannot be noted is done all the same, and said.
template <class Fn>
outcome state::and_save(const Fn &change) {
    outcome o = change();
    if (o.failed()) {
        return o;
    }
    outcome saved = save_settings();
    if (saved.failed()) {
        saved.text = "done, but it will not survive a restart of the owner: " + saved.text;
    }
    return saved;
}

// ---- links --------------------------------------------------------------------------------------

void state::appeared(uint32_t index, const char *name) {
    interfaces_.appeared(index, name);
    interface &i = *interfaces_.find(name);
    memberships_.appeared(i);
    join_patterns(i);
}

// Lines of the configuration with a '+' mean this interface too.
void state::join_patterns(interface &i) {
    for (const auto &[key, wish] : applied_.routes) {
        const table *t = tables_.find(key.vrf);
        for (const std::string &pattern : wish.from) {
            if (t == nullptr || pattern.back() != '+' || i.vrf != t->vrf ||
                !name_matches(pattern, i.name)) {
                continue;
            }
            const route_id id = make_route_id(*t, key.source, key.group);
            if (routes::find(id) != nullptr) {
                tell_failure(routes_.add_ports(id, {{&i, MRIB_INTF_ACCEPT}}));
            }
        }
    }
}

// An interface that came while there was no owner: nothing in the window knows it.
void state::join_patterns_of_new_interfaces() {
    bool has_patterns = false;
    for (const auto &[key, wish] : applied_.routes) {
        for (const std::string &name : wish.from) {
            has_patterns = has_patterns || name.back() == '+';
        }
    }
    if (has_patterns) {
        interfaces_.each([&](interface &i) {
            if (i.index != 0 && i.record == nullptr) {
                join_patterns(i);
            }
        });
    }
}

void state::disappeared(uint32_t index) {
    interfaces_.disappeared(index);
}

// ---- routes -------------------------------------------------------------------------------------

void state::add_bits(interface *i, uint64_t bit) {
    for (route_port &p : ports_) {
        if (p.i == i) {
            p.attributes |= bit;
            return;
        }
    }
    ports_.push_back({i, bit});
}

void state::add_ports_of_pattern(const table &t, std::string_view pattern) {
    interfaces_.each([&](interface &i) {
        if (i.index != 0 && i.vrf == t.vrf && name_matches(pattern, i.name)) {
            add_bits(&i, MRIB_INTF_ACCEPT);
        }
    });
}

outcome state::add_port(const table &t, std::string_view name, uint64_t bit, bool may_await) {
    if (name.back() == '+') {
        add_ports_of_pattern(t, name);
        return {};
    }
    interface *i = interfaces_.find(name);
    if (i == nullptr) {
        if (!may_await) {
            return failure(ENODEV, fmt::format("there is no interface {}", name));
        }
        i = &interfaces_.find_or_await(name);
    }
    if (i->vrf != t.vrf) {
        return failure(EINVAL, fmt::format("interface {} is in VRF {}, the route in VRF {}", name,
                                           i->vrf, t.vrf));
    }
    if (i->enabled == config::switch_word::disable) {
        return failure(EINVAL, fmt::format("interface {} is disabled", name));
    }
    add_bits(i, bit);
    return {};
}

outcome state::ports_of(const route_request &request, const table &t, bool may_await) {
    ports_.clear();
    for (const std::string_view name : request.from) {
        outcome o = add_port(t, name, MRIB_INTF_ACCEPT, may_await);
        if (o.failed()) {
            return o;
        }
    }
    for (const std::string_view name : request.to) {
        outcome o = add_port(t, name, MRIB_INTF_FORWARD, may_await);
        if (o.failed()) {
            return o;
        }
    }
    return {};
}

outcome state::make_route(const route_request &request, bool may_await) {
    const table *t = tables_.find(request.vrf);
    if (t == nullptr) {
        return failure(ENOENT, fmt::format("there is no VRF {}", request.vrf));
    }
    outcome o = ports_of(request, *t, may_await);
    if (o.failed()) {
        return o;
    }
    const route_id id = make_route_id(*t, request.source, request.group);
    return routes_.make(id, route_attributes(id, request.flags), ports_);
}

outcome state::delete_route(const route_request &request) {
    const table *t = tables_.find(request.vrf);
    if (t == nullptr) {
        return failure(ENOENT, fmt::format("there is no VRF {}", request.vrf));
    }
    return routes_.erase(make_route_id(*t, request.source, request.group));
}

outcome state::change_outputs(const route_request &request, bool add) {
    const table *t = tables_.find(request.vrf);
    if (t == nullptr) {
        return failure(ENOENT, fmt::format("there is no VRF {}", request.vrf));
    }
    outcome o = ports_of(request, *t, false);
    if (o.failed()) {
        return o;
    }
    const route_id id = make_route_id(*t, request.source, request.group);
    return add ? routes_.add_ports(id, ports_) : routes_.remove_ports(id, ports_);
}

// ---- tables -------------------------------------------------------------------------------------

outcome state::put_in_table(interface &i, const std::string &vrf, uint32_t tid) {
    if (i.vrf == vrf) {
        return {};
    }
    if (i.record != nullptr && i.record->route_count != 0) {
        return failure(EBUSY, fmt::format("interface {} is in routes of VRF {}", i.name, i.vrf));
    }
    if (tid != 0 && i.vrf_tid != 0) {
        return failure(EBUSY, fmt::format("interface {} is in VRF {}", i.name, i.vrf));
    }
    return interfaces_.set_table(i, vrf, tid);
}

outcome state::add_table(std::string_view vrf, uint32_t id,
                         const std::vector<std::string_view> &names) {
    const bool is_new = tables_.find(vrf) == nullptr;
    outcome o = tables_.add(vrf, id);
    if (o.failed()) {
        return o;
    }
    std::vector<interface *> joined;
    for (const std::string_view name : names) {
        interface &i = interfaces_.find_or_await(name);
        if (i.vrf == vrf) {
            continue;
        }
        o = put_in_table(i, std::string(vrf), id);
        if (o.failed()) {
            break;
        }
        joined.push_back(&i);
    }
    if (o.failed()) {
        for (interface *i : joined) {
            tell_failure(interfaces_.set_table(*i, config::default_vrf, 0));
        }
        if (is_new) {
            tell_failure(tables_.erase(vrf));
        }
    }
    return o;
}

outcome state::delete_table(std::string_view vrf) {
    outcome o = tables_.erase(vrf);
    if (!o.failed()) {
        interfaces_.each([&](interface &i) {
            if (i.vrf == vrf) {
                i.vrf = config::default_vrf;
                i.vrf_tid = 0;
            }
        });
    }
    return o;
}

// ---- interfaces ---------------------------------------------------------------------------------

outcome state::set_one(interface &i, const interface_request &request) {
    if (request.enabled != config::switch_word::none) {
        outcome o = interfaces_.set_enabled(i, request.enabled);
        if (o.failed()) {
            return o;
        }
    }
    if (request.ttl >= 0) {
        outcome o = interfaces_.set_ttl(i, static_cast<uint8_t>(request.ttl));
        if (o.failed()) {
            return o;
        }
    }
    return request.sets_boundary ? interfaces_.set_boundary(i, request.boundary) : outcome{};
}

outcome state::set_interface(const interface_request &request) {
    interface *i = interfaces_.find(request.name);
    if (i == nullptr) {
        return failure(ENODEV, fmt::format("there is no interface {}", request.name));
    }
    const config::switch_word enabled_before = i->enabled;
    const uint8_t ttl_before = i->ttl;
    return and_save([&] {
        outcome o = set_one(*i, request);
        if (o.failed()) {
            restore_interface(*i, enabled_before, ttl_before);
        }
        return o;
    });
}

// The boundary is set last: it needs no restoring.
void state::restore_interface(interface &i, config::switch_word enabled, uint8_t ttl) {
    if (i.enabled != enabled) {
        const bool was_none = enabled == config::switch_word::none;
        tell_failure(interfaces_.set_enabled(i, was_none ? config::switch_word::disable : enabled));
        i.enabled = enabled;
    }
    if (i.ttl != ttl) {
        tell_failure(interfaces_.set_ttl(i, ttl));
    }
}

outcome state::remove_phyint(interface &i, const config::line &l) {
    if (l.enabled != config::switch_word::none || l.ttl == 0) {
        if (i.enabled != config::switch_word::none) {
            outcome o = interfaces_.set_enabled(i, config::switch_word::disable);
            if (o.failed()) {
                return o;
            }
            i.enabled = config::switch_word::none;
        }
    }
    const bool all = l.enabled == config::switch_word::none && l.ttl == 0;
    return l.ttl != 0 || all ? interfaces_.set_ttl(i, 0) : outcome{};
}

outcome state::phyint_line(const config::line &l) {
    interface *i = interfaces_.find(l.from.front());
    if (i == nullptr) {
        return failure(ENODEV, fmt::format("there is no interface {}", l.from.front()));
    }
    if (l.remove) {
        return and_save([&] { return remove_phyint(*i, l); });
    }
    interface_request request;
    request.name = l.from.front();
    request.enabled = l.enabled;
    request.ttl = l.ttl == 0 ? -1 : l.ttl;
    return set_interface(request);
}

outcome state::boundary_line(const config::line &l) {
    interface *i = interfaces_.find(l.from.front());
    if (i == nullptr) {
        return failure(ENODEV, fmt::format("there is no interface {}", l.from.front()));
    }
    std::vector<config::prefix> boundary = i->boundary;
    const auto at = std::find(boundary.begin(), boundary.end(), l.group);
    if (l.remove && at == boundary.end()) {
        return failure(ENOENT, fmt::format("interface {} has no such boundary", i->name));
    }
    if (l.remove) {
        boundary.erase(at);
    } else if (at == boundary.end()) {
        boundary.push_back(l.group);
    }
    return and_save([&] { return interfaces_.set_boundary(*i, std::move(boundary)); });
}

// ---- lines --------------------------------------------------------------------------------------

outcome state::execute(const config::line &l) {
    switch (l.kind) {
        case config::line_kind::empty:
            return {};
        case config::line_kind::mroute: {
            static thread_local route_request request;
            request.vrf = l.vrf;
            request.source = l.source.address;
            request.group = l.group;
            request.flags = l.flags;
            request.from = l.from;
            request.to = l.to;
            return l.remove ? delete_route(request) : make_route(request, false);
        }
        case config::line_kind::mgroup:
            return and_save([&] { return l.remove ? memberships_.erase(l) : memberships_.add(l); });
        case config::line_kind::phyint:
            return phyint_line(l);
        case config::line_kind::boundary:
            return boundary_line(l);
        case config::line_kind::vrf:
            return and_save([&] {
                return l.remove ? delete_table(l.vrf) : add_table(l.vrf, l.table_id, l.to);
            });
        case config::line_kind::include:
            break;
    }
    return failure(EINVAL, "include is for files");
}

// ---- configuration ------------------------------------------------------------------------------

class state::application {
  public:
    application(state *s, const config::document &wanted,
                const std::function<void(const std::string &problem)> &problem)
        : s_(*s), old_(s->applied_), wanted_(wanted), now_(wanted), problem_(problem) {}

    applied_counts run() {
        others_changed_ = !wanted_.same_but_routes(old_);
        forget_routes();
        change_tables();
        change_interfaces();
        change_joins();
        make_routes();
        return counts_;
    }

    // Whether the files of the run dir have to say something else now.
    bool changed_anything() const {
        return counts_.made + counts_.gone + counts_.failed != 0 || others_changed_;
    }

    // What is in force now: all that was asked for, but what failed.
    config::document &&result() { return std::move(now_); }

  private:
    bool failed(const outcome &o, const std::string &where) {
        if (!o.failed()) {
            return false;
        }
        ++counts_.failed;
        problem_(where + ": " + o.text);
        return true;
    }

    void forget_routes() {
        for (const auto &[key, wish] : old_.routes) {
            if (wanted_.routes.contains(key)) {
                continue;
            }
            const table *t = s_.tables_.find(key.vrf);
            if (t == nullptr) {
                continue;
            }
            const outcome o = s_.routes_.erase(make_route_id(*t, key.source, key.group));
            if (!o.failed()) {
                ++counts_.gone;
            } else if (o.code != ENOENT) {
                failed(o, wish.where.text());
                now_.routes.insert({key, wish});  // the next configuration tries again
            }
        }
    }

    // Interfaces leave before others come, so that one may change from VRF to VRF.
    void change_tables() {
        for (const auto &[name, vrf] : old_.vrfs) {
            const auto still = wanted_.vrfs.find(name);
            const bool same = still != wanted_.vrfs.end() && still->second.table_id == vrf.table_id;
            for (const std::string &port : vrf.interfaces) {
                interface &i = s_.interfaces_.find_or_await(port);
                if (i.vrf == name && (!same || !still->second.interfaces.contains(port))) {
                    failed(s_.put_in_table(i, config::default_vrf, 0), name);
                }
            }
            if (!same && s_.tables_.find(name) != nullptr) {
                failed(s_.delete_table(name), name);
            }
        }
        for (const auto &[name, vrf] : wanted_.vrfs) {
            const std::vector<std::string_view> names(vrf.interfaces.begin(), vrf.interfaces.end());
            if (failed(s_.add_table(name, vrf.table_id, names), vrf.where.text())) {
                now_.vrfs.erase(name);
            }
        }
    }

    void change_interfaces() {
        for (const auto &[name, wish] : old_.interfaces) {
            if (!wanted_.interfaces.contains(name)) {
                change_interface(name, wish, {});
            }
        }
        for (const auto &[name, wish] : wanted_.interfaces) {
            const auto before = old_.interfaces.find(name);
            change_interface(
                name, before == old_.interfaces.end() ? config::interface_wish{} : before->second,
                wish);
        }
    }

    void change_interface(const std::string &name, const config::interface_wish &before,
                          const config::interface_wish &wish) {
        interface &i = s_.interfaces_.find_or_await(name);
        if (before.enabled != wish.enabled && i.enabled != wish.enabled) {
            const bool none = wish.enabled == config::switch_word::none;
            failed(
                s_.interfaces_.set_enabled(i, none ? config::switch_word::disable : wish.enabled),
                name);
            i.enabled = wish.enabled;
        }
        if (before.ttl != wish.ttl && i.ttl != wish.ttl) {
            failed(s_.interfaces_.set_ttl(i, wish.ttl), name);
        }
        if (before.boundary != wish.boundary) {
            failed(s_.interfaces_.set_boundary(i, merged(i.boundary, before, wish)), name);
        }
    }

    // What commands added to the boundary stays.
    static std::vector<config::prefix> merged(std::vector<config::prefix> now,
                                              const config::interface_wish &before,
                                              const config::interface_wish &wish) {
        for (const config::prefix &p : before.boundary) {
            std::erase(now, p);
        }
        for (const config::prefix &p : wish.boundary) {
            if (std::find(now.begin(), now.end(), p) == now.end()) {
                now.push_back(p);
            }
        }
        return now;
    }

    void change_joins() {
        config::line l;
        std::string ignored;
        for (const std::string &text : old_.joins) {
            if (!wanted_.joins.contains(text) && config::parse_line(text, &l, &ignored)) {
                s_.memberships_.erase(l);
            }
        }
        for (const std::string &text : wanted_.joins) {
            if (!old_.joins.contains(text) && config::parse_line(text, &l, &ignored) &&
                failed(s_.memberships_.add(l), "mgroup")) {
                now_.joins.erase(text);
            }
        }
    }

    void make_routes() {
        for (const auto &[key, wish] : wanted_.routes) {
            const auto before = old_.routes.find(key);
            if (before != old_.routes.end() && before->second.asks_the_same(wish)) {
                ++counts_.same;
                continue;
            }
            route_request request;
            request.vrf = key.vrf;
            request.source = key.source;
            request.group = key.group;
            request.flags = wish.flags;
            request.from = {wish.from.begin(), wish.from.end()};
            request.to = {wish.to.begin(), wish.to.end()};
            tell_of_absent(wish);
            if (failed(s_.make_route(request, true), wish.where.text())) {
                now_.routes.erase(key);
            } else {
                ++counts_.made;
            }
        }
    }

    void tell_of_absent(const config::route_wish &wish) {
        for (const auto *names : {&wish.from, &wish.to}) {
            for (const std::string &name : *names) {
                const interface *i = s_.interfaces_.find(name);
                if (name.back() != '+' && (i == nullptr || i->index == 0) &&
                    told_.insert(name).second) {
                    problem_(wish.where.text() + ": interface " + name +
                             " is not there yet; its routes wait for it");
                }
            }
        }
    }

    state &s_;
    const config::document &old_;
    const config::document &wanted_;
    config::document now_;
    const std::function<void(const std::string &problem)> &problem_;
    applied_counts counts_;
    bool others_changed_ = false;
    std::set<std::string> told_;
};

state::applied_counts state::apply(const config::document &wanted,
                                   const std::function<void(const std::string &problem)> &problem) {
    const bool is_first = applied_.is_empty();
    application run(this, wanted, problem);
    const applied_counts counts = run.run();
    applied_ = run.result();
    if (!is_first && !run.changed_anything()) {
        return counts;
    }
    const outcome saved = save_settings();
    const std::string written = config::replace_file(run_dir_ + "/" + applied_file,
                                                     stamp() + config::document_text(applied_));
    if (saved.failed() || !written.empty()) {
        problem("a restart of the owner will apply this again: " +
                (saved.failed() ? saved.text : written));
    }
    return counts;
}

}  // namespace mfwd6::daemon
