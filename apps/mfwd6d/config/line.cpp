#include "apps/mfwd6d/config/line.h"

#include <arpa/inet.h>

#include "apps/mfwd6d/config/scan.h"

namespace mfwd6::config {
namespace {

constexpr uint8_t whole_address = 128;
constexpr uint8_t least_group_length = 8;   // of ff00::/8
constexpr uint8_t scope_known_length = 16;  // the scope is in the second byte
// What the shortest form of an address may be longer than another: ::ffff:1 is ::255.255.0.1.
constexpr size_t address_growth = INET6_ADDRSTRLEN;
constexpr uint8_t link_scope = 2;  // RFC 4291, 2.7: what no router forwards

// Where errors are said. All functions give false when they have said one.
struct reader {
    words in;
    line *out;
    std::string *reason;

    bool fail(std::string text) const {
        *reason = std::move(text);
        return false;
    }
};

std::string quoted(std::string_view word) {
    constexpr size_t shown = 60;
    std::string text = "\"";
    for (const char c : word.substr(0, shown)) {
        text += c >= ' ' && c <= '~' ? c : '?';
    }
    return text + (word.size() > shown ? "...\"" : "\"");
}

bool is_name(std::string_view word, size_t most) {
    if (word.empty() || word.size() > most || word == "." || word == "..") {
        return false;
    }
    for (const char c : word) {
        if (c <= ' ' || c > '~' || c == '/' || c == '"' || c == '\\') {
            return false;
        }
    }
    return true;
}

bool read_interface(reader &r, bool may_be_pattern, std::string_view *name) {
    const std::string_view word = r.in.peek();
    if (word.empty()) {
        return r.fail("the name of an interface is missing");
    }
    if (!is_name(word, interface_name_bytes)) {
        return r.fail(quoted(word) + " is no name of an interface");
    }
    if (word.back() == '+' && !may_be_pattern) {
        return r.fail(quoted(word) + ": names with '+' stand for inbound interfaces only");
    }
    *name = r.in.take();
    return true;
}

// Names up to one of the words that end a list, which only the first name can be, or to the end.
bool read_interfaces(reader &r, bool may_be_pattern, std::vector<std::string_view> *list) {
    do {
        if (list->size() == interfaces_of_line) {
            return r.fail("more than 256 interfaces");
        }
        std::string_view name;
        if (!read_interface(r, may_be_pattern, &name)) {
            return false;
        }
        list->push_back(name);
    } while (!r.in.end() && !ends_interfaces(r.in.peek()));
    return true;
}

bool expect(reader &r, std::string_view word) {
    if (r.in.take_if(word)) {
        return true;
    }
    const std::string wanted = "expected " + quoted(word);
    return r.in.end() ? r.fail(wanted + " at the end of the line")
                      : r.fail(wanted + ", found " + quoted(r.in.peek()));
}

bool expect_end(reader &r) {
    return r.in.end() || r.fail("unexpected " + quoted(r.in.peek()));
}

bool read_prefix(reader &r, const char *what, prefix *p) {
    const std::string_view word = r.in.take();
    if (word.empty()) {
        return r.fail(std::string("the ") + what + " is missing");
    }
    const size_t slash = word.find('/');
    uint32_t length = whole_address;
    if (slash != std::string_view::npos &&
        !parse_number(word.substr(slash + 1), 0, whole_address, &length) &&
        !looks_like_ipv4(word)) {
        return r.fail(quoted(word) + ": the length must be a number from 0 to 128");
    }
    if (!parse_ipv6(word.substr(0, slash), &p->address)) {
        return r.fail(quoted(word) + (looks_like_ipv4(word)
                                          ? " is an IPv4 address: only IPv6 is routed here"
                                          : " is no IPv6 address"));
    }
    p->length = static_cast<uint8_t>(length);
    clear_behind(&p->address, length);
    return true;
}

bool read_group(reader &r) {
    const std::string_view word = r.in.peek();
    prefix *group = &r.out->group;
    if (!read_prefix(r, "group", group)) {
        return false;
    }
    if (!is_multicast(group->address) || group->length < least_group_length) {
        return r.fail(quoted(word) + " is not within ff00::/8, the multicast addresses");
    }
    if (group->length >= scope_known_length && (group->address.bytes[1] & 0xf) <= link_scope) {
        return r.fail(quoted(word) + " has interface or link scope: no router forwards it");
    }
    return true;
}

// `source S` may be left out. The address of all zero is any source.
bool read_source(reader &r, bool may_be_prefix) {
    if (!r.in.take_if("source")) {
        return true;
    }
    const std::string_view word = r.in.peek();
    prefix *source = &r.out->source;
    if (!read_prefix(r, "source", source)) {
        return false;
    }
    if (is_multicast(source->address)) {
        return r.fail(quoted(word) + " is a multicast address, which no source has");
    }
    if (is_any(source->address)) {
        *source = {};
        return true;
    }
    if (source->length != whole_address && !may_be_prefix) {
        return r.fail(quoted(word) +
                      ": a route has one source or any; give each source, or leave it out");
    }
    return true;
}

bool read_vrf_name(reader &r) {
    const std::string_view word = r.in.take();
    if (!is_name(word, vrf_name_bytes)) {
        return r.fail(word.empty() ? std::string("the name of the VRF is missing")
                                   : quoted(word) + " is no name of a VRF");
    }
    r.out->vrf = word;
    return true;
}

bool read_vrf_option(reader &r) {
    r.out->vrf = default_vrf;
    return !r.in.take_if("vrf") || read_vrf_name(r);
}

bool read_phyint(reader &r) {
    std::string_view name;
    if (!read_interface(r, false, &name)) {
        return false;
    }
    r.out->from.push_back(name);
    while (!r.in.end()) {
        if (r.in.take_if("enable")) {
            r.out->enabled = switch_word::enable;
        } else if (r.in.take_if("disable")) {
            r.out->enabled = switch_word::disable;
        } else if (r.in.take_if("mrdisc")) {
            continue;
        } else if (r.in.take_if("ttl-threshold")) {
            uint32_t ttl = 0;
            if (!parse_number(r.in.peek(), 1, UINT8_MAX, &ttl)) {
                return r.fail("ttl-threshold takes a number from 1 to 255");
            }
            r.in.take();
            r.out->ttl = static_cast<uint8_t>(ttl);
        } else {
            return expect_end(r);
        }
    }
    return true;
}

// Addresses that a prefix stands for, at most one more than a line may be expanded to.
uint32_t addresses_of(const prefix &p) {
    const uint32_t bits = p.length == 0 ? 0U : uint32_t{whole_address} - p.length;
    return bits > 12 ? joins_of_line + 1 : 1U << bits;
}

bool read_mgroup(reader &r) {
    std::string_view name;
    if (!read_vrf_option(r) || !expect(r, "from") || !read_interface(r, true, &name)) {
        return false;
    }
    r.out->from.push_back(name);
    if (!read_source(r, true) || !expect(r, "group") || !read_group(r)) {
        return false;
    }
    if (uint64_t{addresses_of(r.out->group)} * addresses_of(r.out->source) > joins_of_line) {
        return r.fail("that would be more than 4096 groups to join");
    }
    return expect_end(r);
}

bool read_route_flags(reader &r) {
    for (;;) {
        if (r.in.take_if("inherit-accept")) {
            r.out->flags |= line_inherit_accept;
        } else if (r.in.take_if("signal")) {
            r.out->flags |= line_signal;
        } else if (r.in.take_if("drop")) {
            r.out->flags |= line_drop;
        } else {
            return true;
        }
    }
}

bool read_mroute(reader &r) {
    line &l = *r.out;
    if (!read_vrf_option(r) || !read_route_flags(r)) {
        return false;
    }
    const bool inherits = (l.flags & line_inherit_accept) != 0;
    // A route that inherits its accepting interfaces, or that goes, need not name any.
    if (r.in.peek() == "from" || !(l.remove || inherits)) {
        if (!expect(r, "from") || !read_interfaces(r, true, &l.from)) {
            return false;
        }
    }
    if (!read_source(r, false) || !expect(r, "group") || !read_group(r)) {
        return false;
    }
    if (l.source.length != 0 && l.group.length != whole_address) {
        return r.fail("a route with a source needs a group without a length");
    }
    // A range without outputs is there for routes that inherit its accepting interfaces.
    const bool range = l.group.length != whole_address;
    if (r.in.end() && (l.remove || range || (l.flags & (line_drop | line_signal)) != 0)) {
        return true;
    }
    return expect(r, "to") && read_interfaces(r, false, &l.to) && expect_end(r);
}

bool read_vrf(reader &r) {
    line &l = *r.out;
    if (!read_vrf_name(r)) {
        return false;
    }
    if (l.vrf == default_vrf) {
        return r.fail("the VRF \"default\" is always there");
    }
    if (l.remove && r.in.end()) {
        return true;
    }
    if (!expect(r, "table")) {
        return false;
    }
    if (!parse_number(r.in.peek(), least_table_id, most_table_id, &l.table_id) ||
        (l.table_id >= first_kernel_table && l.table_id <= last_kernel_table)) {
        return r.fail("table takes a number from 1 to 8191 other than 253, 254 and 255");
    }
    r.in.take();
    if (r.in.end()) {
        return true;
    }
    return expect(r, "interface") && read_interfaces(r, false, &l.to) && expect_end(r);
}

bool read_boundary(reader &r) {
    std::string_view name;
    if (!read_interface(r, false, &name)) {
        return false;
    }
    r.out->from.push_back(name);
    return expect(r, "group") && read_group(r) && expect_end(r);
}

bool read_include(reader &r) {
    if (r.out->remove) {
        return r.fail("\"no\" does not go with include");
    }
    r.out->path = r.in.take();
    return r.out->path.empty() ? r.fail("the path is missing") : expect_end(r);
}

struct keyword {
    std::string_view word;
    line_kind kind;
    bool (*read)(reader &r);
};
constexpr keyword keywords[] = {
    {"mroute", line_kind::mroute, read_mroute},       {"mgroup", line_kind::mgroup, read_mgroup},
    {"phyint", line_kind::phyint, read_phyint},       {"vrf", line_kind::vrf, read_vrf},
    {"boundary", line_kind::boundary, read_boundary}, {"include", line_kind::include, read_include},
};

void clear(line *l) {
    l->kind = line_kind::empty;
    l->remove = false;
    l->flags = 0;
    l->enabled = switch_word::none;
    l->ttl = 0;
    l->table_id = 0;
    l->vrf = {};
    l->path = {};
    l->from.clear();
    l->to.clear();
    l->source = {};
    l->group = {};
}

std::string prefix_text(const prefix &p) {
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, p.address.bytes, text, sizeof(text));
    return p.length == whole_address ? text : std::string(text) + "/" + std::to_string(p.length);
}

void append_names(std::string *text, const char *keyword,
                  const std::vector<std::string_view> &names) {
    if (names.empty()) {
        return;
    }
    *text += keyword;
    for (const std::string_view name : names) {
        *text += ' ';
        *text += name;
    }
}

std::string phyint_text(const line &l) {
    std::string text = "phyint " + std::string(l.from.front());
    if (l.enabled != switch_word::none) {
        text += l.enabled == switch_word::enable ? " enable" : " disable";
    }
    return l.ttl == 0 ? text : text + " ttl-threshold " + std::to_string(l.ttl);
}

std::string flow_text(const line &l) {
    std::string text = l.kind == line_kind::mroute ? "mroute" : "mgroup";
    if (l.vrf != default_vrf) {
        text += " vrf " + std::string(l.vrf);
    }
    text += (l.flags & line_inherit_accept) != 0 ? " inherit-accept" : "";
    text += (l.flags & line_signal) != 0 ? " signal" : "";
    text += (l.flags & line_drop) != 0 ? " drop" : "";
    append_names(&text, " from", l.from);
    if (l.source.length != 0) {
        text += " source " + prefix_text(l.source);
    }
    text += " group " + prefix_text(l.group);
    append_names(&text, " to", l.to);
    return text;
}

std::string body_text(const line &l) {
    switch (l.kind) {
        case line_kind::phyint:
            return phyint_text(l);
        case line_kind::mgroup:
        case line_kind::mroute:
            return flow_text(l);
        case line_kind::vrf: {
            std::string text = "vrf " + std::string(l.vrf);
            if (l.table_id != 0) {
                text += " table " + std::to_string(l.table_id);
            }
            append_names(&text, " interface", l.to);
            return text;
        }
        case line_kind::boundary:
            return "boundary " + std::string(l.from.front()) + " group " + prefix_text(l.group);
        case line_kind::include:
            return "include " + std::string(l.path);
        case line_kind::empty:
            break;
    }
    return {};
}

}  // namespace

bool ends_interfaces(std::string_view word) {
    return word == "source" || word == "group";
}

bool parse_line(std::string_view text, line *out, std::string *reason) {
    clear(out);
    reader r{words(text), out, reason};
    constexpr char too_long[] = "the line is longer than 4096 bytes";
    if (text.size() > line_bytes) {
        return r.fail(too_long);
    }
    if (r.in.end()) {
        return true;
    }
    out->remove = r.in.take_if("no");
    for (const keyword &k : keywords) {
        if (r.in.take_if(k.word)) {
            out->kind = k.kind;
            if (!k.read(r)) {
                return false;
            }
            // What is accepted can be written and read again.
            return text.size() + address_growth <= line_bytes ||
                   line_text(*out).size() <= line_bytes || r.fail(too_long);
        }
    }
    return r.fail(r.in.end() ? std::string("\"no\" needs a line behind it")
                             : "unknown keyword " + quoted(r.in.peek()));
}

std::string line_text(const line &l) {
    return (l.remove ? "no " : "") + body_text(l);
}

}  // namespace mfwd6::config
