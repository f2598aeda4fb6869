#include "apps/mfwd6d/config/document.h"

#include <algorithm>
#include <cstring>

#include "apps/mfwd6d/config/scan.h"

namespace mfwd6::config {
namespace {

// Reads the files and collects their lines.
class collector {
  public:
    collector(const file_reader *reader, document *out, std::string *error)
        : reader_(reader), out_(*out), error_(*error) {}

    bool file(const std::string &path, uint32_t depth);
    bool text(std::string_view all, std::shared_ptr<const std::string> name, uint32_t depth);
    // What can be said only when all lines are known.
    bool check() const;

  private:
    bool fail(const place &where, const std::string &reason) const {
        error_ = where.text() + ": " + reason;
        return false;
    }
    bool take(const line &l, const place &where, uint32_t depth);
    bool take_include(const line &l, const place &where, uint32_t depth);
    bool take_vrf(const line &l, const place &where);
    void take_phyint(const line &l);
    bool take_route(const line &l, const place &where);
    bool same_forwarding(const route_wish &first, const route_wish &second) const;

    const file_reader *reader_;
    document &out_;
    std::string &error_;
    line line_;
    uint32_t included_ = 0;
};

std::set<std::string> names(const std::vector<std::string_view> &list) {
    return {list.begin(), list.end()};
}

bool collector::file(const std::string &path, uint32_t depth) {
    std::string all;
    const std::string problem = reader_->read(path, &all);
    if (!problem.empty()) {
        error_ = path + ": " + problem;
        return false;
    }
    return text(all, std::make_shared<const std::string>(path), depth);
}

bool collector::text(std::string_view all, std::shared_ptr<const std::string> name,
                     uint32_t depth) {
    place where{std::move(name), 0};
    while (!all.empty()) {
        ++where.number;
        const size_t end = std::min(all.find('\n'), all.size());
        const std::string_view one = all.substr(0, end);
        all.remove_prefix(std::min(end + 1, all.size()));
        std::string reason;
        if (!parse_line(one, &line_, &reason)) {
            return fail(where, reason);
        }
        if (line_.remove) {
            return fail(where, "\"no\" is for commands; leave the line out instead");
        }
        // An include reads further lines into `line_`.
        if (line_.kind == line_kind::include) {
            const line copy = line_;
            if (!take_include(copy, where, depth)) {
                return false;
            }
        } else if (!take(line_, where, depth)) {
            return false;
        }
    }
    return true;
}

bool collector::take(const line &l, const place &where, uint32_t) {
    if (l.kind == line_kind::empty) {
        return true;
    }
    switch (l.kind) {
        case line_kind::vrf:
            return take_vrf(l, where);
        case line_kind::phyint:
            take_phyint(l);
            return true;
        case line_kind::boundary:
            out_.interfaces[std::string(l.from.front())].boundary.push_back(l.group);
            return true;
        case line_kind::mgroup:
            out_.joins.insert(line_text(l));
            return true;
        default:
            return take_route(l, where);
    }
}

bool collector::take_include(const line &l, const place &where, uint32_t depth) {
    if (reader_ == nullptr) {
        return fail(where, "include is for files");
    }
    if (depth == include_depth) {
        return fail(where, "more than 8 files include one another");
    }
    std::vector<std::string> paths;
    const std::string problem = reader_->expand(l.path, *where.file, &paths);
    if (!problem.empty()) {
        return fail(where, problem);
    }
    if (paths.empty()) {
        out_.warnings.push_back(where.text() + ": no file is named " + std::string(l.path));
    }
    for (const std::string &path : paths) {
        if (++included_ > includes_of_document) {
            return fail(where, "more than 4096 files are included");
        }
        if (!file(path, depth + 1)) {
            return false;
        }
    }
    return true;
}

bool collector::take_vrf(const line &l, const place &where) {
    const auto [at, is_new] = out_.vrfs.try_emplace(std::string(l.vrf));
    vrf_wish &vrf = at->second;
    if (!is_new && vrf.table_id != l.table_id) {
        return fail(where,
                    "VRF " + at->first + " has another table already (" + vrf.where.text() + ")");
    }
    if (is_new) {
        for (const auto &[name, other] : out_.vrfs) {
            if (&other != &vrf && other.table_id == l.table_id) {
                return fail(where, "table " + std::to_string(l.table_id) + " is that of VRF " +
                                       name + " already (" + other.where.text() + ")");
            }
        }
        vrf.table_id = l.table_id;
        vrf.where = where;
    }
    for (const std::string_view name : l.to) {
        for (const auto &[other_name, other] : out_.vrfs) {
            if (&other != &vrf && other.interfaces.contains(std::string(name))) {
                return fail(where, "interface " + std::string(name) + " is in VRF " + other_name +
                                       " already (" + other.where.text() + ")");
            }
        }
        vrf.interfaces.insert(std::string(name));
    }
    return true;
}

void collector::take_phyint(const line &l) {
    interface_wish &wish = out_.interfaces[std::string(l.from.front())];
    if (l.enabled != switch_word::none) {
        wish.enabled = l.enabled;
    }
    if (l.ttl != 0) {
        wish.ttl = l.ttl;
    }
}

// One route has one list of outputs for all its inbound interfaces, and never sends a packet back.
// Two lines for the same flows are one route if that comes to the same: each line's outputs are
// those of both but its own inbound interface.
bool collector::same_forwarding(const route_wish &first, const route_wish &second) const {
    std::set<std::string> all = first.to;
    all.insert(second.to.begin(), second.to.end());
    for (const route_wish *wish : {&first, &second}) {
        for (const std::string &in : wish->from) {
            std::set<std::string> wanted = wish->to;
            std::set<std::string> got = all;
            wanted.erase(in);
            got.erase(in);
            if (wanted != got) {
                return false;
            }
        }
    }
    return first.flags == second.flags;
}

bool collector::take_route(const line &l, const place &where) {
    route_wish wish{l.flags, names(l.from), names(l.to), where};
    const auto [at, is_new] = out_.routes.try_emplace(key_of(l), wish);
    if (is_new) {
        return true;
    }
    route_wish &there = at->second;
    if (!same_forwarding(there, wish)) {
        return fail(where, "the same source and group are routed otherwise already (" +
                               there.where.text() +
                               "), and one route has one list of outputs for all its inbound "
                               "interfaces");
    }
    there.from.merge(wish.from);
    there.to.merge(wish.to);
    return true;
}

bool collector::check() const {
    const route_wish *first = nullptr;
    const std::string *vrf = nullptr;
    for (const auto &[key, wish] : out_.routes) {
        const bool unknown = key.vrf != default_vrf && !out_.vrfs.contains(key.vrf);
        if (unknown && (first == nullptr || wish.where.number < first->where.number)) {
            first = &wish;
            vrf = &key.vrf;
        }
    }
    return first == nullptr || fail(first->where, "there is no VRF " + *vrf);
}

// A name that ends a list stands first.
std::vector<std::string_view> list_of(const std::set<std::string> &names) {
    std::vector<std::string_view> list(names.begin(), names.end());
    std::stable_partition(list.begin(), list.end(), ends_interfaces);
    return list;
}

bool is_list(const std::vector<std::string_view> &names) {
    return names.size() <= interfaces_of_line &&
           std::count_if(names.begin(), names.end(), ends_interfaces) <= 1;
}

// Lines that came together may be too much for one.
bool fits(const line &l) {
    return is_list(l.from) && is_list(l.to) && line_text(l).size() <= line_bytes;
}

// A line for each name of `list`, one of the lists of `l`.
std::string line_for_each(line &l, std::vector<std::string_view> *list) {
    std::string text;
    const std::vector<std::string_view> all = *list;
    for (const std::string_view name : all) {
        list->assign(1, name);
        text += line_text(l) + "\n";
    }
    return text;
}

}  // namespace

bool route_key::operator==(const route_key &other) const {
    return group.length == other.group.length &&
           std::memcmp(&group.address, &other.group.address, sizeof(ip_maddr_st)) == 0 &&
           std::memcmp(&source, &other.source, sizeof(ip_maddr_st)) == 0 && vrf == other.vrf;
}

size_t route_key_hash::operator()(const route_key &key) const {
    size_t hash = std::hash<std::string_view>()(key.vrf) + key.group.length;
    const auto add = [&hash](const ip_maddr_st &address) {
        hash = hash * 31 +
               std::hash<std::string_view>()({reinterpret_cast<const char *>(address.bytes), 16});
    };
    add(key.source);
    add(key.group.address);
    return hash;
}

std::string place::text() const {
    return (file != nullptr ? *file : std::string("?")) + ":" + std::to_string(number);
}

route_key key_of(const line &l) {
    return {std::string(l.vrf), l.source.address, l.group};
}

std::string route_lines(const route_key &key, const route_wish &wish) {
    line l;
    l.kind = line_kind::mroute;
    l.vrf = key.vrf;
    l.flags = wish.flags;
    l.from = list_of(wish.from);
    l.to = list_of(wish.to);
    if (!is_any(key.source)) {
        l.source = {key.source, 128};
    }
    l.group = key.group;
    if (fits(l)) {
        return line_text(l) + "\n";
    }
    if (wish.from.empty()) {
        return line_for_each(l, &l.to);
    }
    // Each without its own inbound interface among the outputs, as short as the line it came from.
    std::string text;
    for (const std::string &in : wish.from) {
        l.from = {in};
        l.to = list_of(wish.to);
        if (l.to.size() > 1) {
            std::erase(l.to, std::string_view(in));
        }
        text += line_text(l) + "\n";
    }
    return text;
}

std::string vrf_lines(const std::string &name, const vrf_wish &wish) {
    line l;
    l.kind = line_kind::vrf;
    l.vrf = name;
    l.table_id = wish.table_id;
    l.to = list_of(wish.interfaces);
    return fits(l) ? line_text(l) + "\n" : line_for_each(l, &l.to);
}

std::string interface_lines(const std::string &name, const interface_wish &wish) {
    line l;
    l.from = {name};
    std::string text;
    if (wish.enabled != switch_word::none || wish.ttl != 0 || wish.boundary.empty()) {
        l.kind = line_kind::phyint;
        l.enabled = wish.enabled;
        l.ttl = wish.ttl;
        text += line_text(l) + "\n";
    }
    l.kind = line_kind::boundary;
    for (const prefix &p : wish.boundary) {
        l.group = p;
        text += line_text(l) + "\n";
    }
    return text;
}

std::string document_text(const document &d) {
    std::string text;
    for (const auto &[name, wish] : d.vrfs) {
        text += vrf_lines(name, wish);
    }
    for (const auto &[name, wish] : d.interfaces) {
        text += interface_lines(name, wish);
    }
    for (const std::string &join : d.joins) {
        text += join + "\n";
    }
    for (const auto &[key, wish] : d.routes) {
        text += route_lines(key, wish);
    }
    return text;
}

bool document::is_empty() const {
    return routes.empty() && vrfs.empty() && interfaces.empty() && joins.empty();
}

bool document::same_but_routes(const document &other) const {
    const auto same_vrf = [](const auto &a, const auto &b) {
        return a.first == b.first && a.second.table_id == b.second.table_id &&
               a.second.interfaces == b.second.interfaces;
    };
    const auto same_interface = [](const auto &a, const auto &b) {
        return a.first == b.first && a.second.enabled == b.second.enabled &&
               a.second.ttl == b.second.ttl && a.second.boundary == b.second.boundary;
    };
    return joins == other.joins &&
           std::equal(vrfs.begin(), vrfs.end(), other.vrfs.begin(), other.vrfs.end(), same_vrf) &&
           std::equal(interfaces.begin(), interfaces.end(), other.interfaces.begin(),
                      other.interfaces.end(), same_interface);
}

bool read_document(const std::string &path, const file_reader &reader, document *out,
                   std::string *error) {
    *out = {};
    collector c(&reader, out, error);
    return c.file(path, 0) && c.check();
}

bool parse_document(std::string_view text, const std::string &name, document *out,
                    std::string *error) {
    *out = {};
    collector c(nullptr, out, error);
    return c.text(text, std::make_shared<const std::string>(name), 0) && c.check();
}

}  // namespace mfwd6::config
