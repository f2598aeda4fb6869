#include "apps/mfwd6ctl/show/picture.h"

#include <fmt/format.h>
#include <langinfo.h>

#include <clocale>
#include <cstring>
#include <map>
#include <set>

#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/show/route_output.h"

namespace ctl {
namespace {

// An edge that more groups take says how many.
constexpr size_t most_labels = 4;

std::string quoted(const std::string &text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
        }
        result += c;
    }
    return result + "\"";
}

std::string label_of(const std::set<std::string> &words) {
    if (words.size() > most_labels) {
        return fmt::format("{} groups", words.size());
    }
    std::string label;
    for (const std::string &word : words) {
        label += (label.empty() ? "" : ", ") + word;
    }
    return label;
}

// Nodes and edges of one VRF.
struct cluster {
    std::string name;
    std::set<std::string> in;
    std::set<std::string> out;
    std::map<std::pair<std::string, std::string>, std::set<std::string>> edges;

    void draw(const std::string &from, const std::string &to, const std::string &group) {
        edges[{from, to}].insert(group);
    }
};

using clusters = std::map<std::string, cluster>;

void draw(cluster &c, const std::string &prefix, const route_copy &route,
          std::set<std::string> &sources) {
    const std::string group = group_text(route.key.group, route.key.length);
    const std::string source =
        is_any(route.key.source) ? "any source" : address_text(route.key.source);
    const std::string router = prefix + "router";
    const std::vector<std::string> from = names_with(route, MRIB_INTF_ACCEPT);
    sources.insert(source);
    for (const std::string &name : from) {
        c.in.insert(name);
        c.draw("source " + source, prefix + "in " + name, group);
        c.draw(prefix + "in " + name, router, group);
    }
    if (from.empty()) {
        c.draw("source " + source, router, group);
    }
    for (const std::string &name : names_with(route, MRIB_INTF_FORWARD)) {
        c.out.insert(name);
        c.draw(router, prefix + "out " + name, group);
    }
}

std::string text_of(const cluster &c, const std::string &prefix, size_t number) {
    std::string text = fmt::format(
        "  subgraph cluster_{} {{\n    label={};\n    {} [label={}, "
        "shape=box, style=bold];\n",
        number, quoted("VRF " + c.name), quoted(prefix + "router"), quoted(c.name));
    for (const std::string &name : c.in) {
        text += fmt::format("    {} [label={}];\n", quoted(prefix + "in " + name), quoted(name));
    }
    for (const std::string &name : c.out) {
        text += fmt::format("    {} [label={}];\n", quoted(prefix + "out " + name), quoted(name));
    }
    text += "  }\n";
    for (const auto &[ends, groups] : c.edges) {
        text += fmt::format("  {} -> {} [label={}];\n", quoted(ends.first), quoted(ends.second),
                            quoted(label_of(groups)));
    }
    return text;
}

struct line_set {
    const char *branch;
    const char *last;
    const char *along;
    const char *blank;
    const char *output;
    const char *last_output;
    const char *into;
};
constexpr line_set unicode_lines = {"├─ ", "└─ ", "│  ", "   ", "├──▶ ", "└──▶ ", " ──▶ "};
constexpr line_set ascii_lines = {"|- ", "`- ", "|  ", "   ", "|--> ", "`--> ", " --> "};

// What one branch says about packets: "120 packets", or nothing.
std::string packets_of(const route_copy &route) {
    return route.counters ? fmt::format("  {} packets", route.counters->in_packets) : "";
}

std::string flags_of(const route_copy &route) {
    std::vector<std::string> flags = route_attribute_names(route.attributes);
    if (route.failed || route.out_of_resources) {
        flags.push_back(state_of(route));
    }
    return flags.empty() ? "" : fmt::format("  ({})", joined(flags, ", "));
}

std::string in_of(const route_copy &route) {
    const std::vector<std::string> from = names_with(route, MRIB_INTF_ACCEPT);
    if (!from.empty()) {
        return joined(from, " ");
    }
    return route.parent ? "as " + group_text(route.parent->group, route.parent->length) : "nowhere";
}

std::vector<std::string> out_of(const route_copy &route) {
    std::vector<std::string> out = names_with(route, MRIB_INTF_FORWARD);
    const std::vector<std::string> local = names_with(route, MRIB_INTF_LOCAL_COPY);
    if (!local.empty()) {
        out.push_back("this node");
    }
    if (out.empty()) {
        out.push_back("nowhere");
    }
    return out;
}

std::string branch_of(const route_copy &route, bool last, const std::string &indent,
                      const line_set &lines) {
    std::string text = fmt::format("{}{}{}{}[{}]{}{}\n", indent, last ? lines.last : lines.branch,
                                   source_text(route.key.source), lines.into, in_of(route),
                                   flags_of(route), packets_of(route));
    const std::string below = indent + (last ? lines.blank : lines.along);
    const std::vector<std::string> out = out_of(route);
    for (size_t n = 0; n < out.size(); ++n) {
        text += fmt::format("{}{}{}\n", below,
                            n + 1 == out.size() ? lines.last_output : lines.output, out[n]);
    }
    return text;
}

// The end of the run of routes that have the same group, or table, as the one at `first`.
template <class Same>
size_t end_of_run(const std::vector<drawn_route> &routes, size_t first, size_t end, Same same) {
    size_t n = first;
    while (n < end && same(routes[first], routes[n])) {
        ++n;
    }
    return n;
}

bool same_table(const drawn_route &a, const drawn_route &b) {
    return a.table.tid == b.table.tid;
}

bool same_group(const drawn_route &a, const drawn_route &b) {
    return a.route.key.group_length() == b.route.key.group_length() &&
           std::memcmp(&a.route.key.group, &b.route.key.group, sizeof(ip_maddr_st)) == 0;
}

std::string groups_of(const std::vector<drawn_route> &routes, size_t first, size_t end,
                      const line_set &lines) {
    std::string text;
    for (size_t at = first; at < end;) {
        const size_t next = end_of_run(routes, at, end, same_group);
        const bool last = next == end;
        const route_key &key = routes[at].route.key;
        text += fmt::format("{}{}\n", last ? lines.last : lines.branch,
                            group_text(key.group, key.length));
        for (size_t n = at; n < next; ++n) {
            text +=
                branch_of(routes[n].route, n + 1 == next, last ? lines.blank : lines.along, lines);
        }
        at = next;
    }
    return text;
}

}  // namespace

std::string dot_of(const std::vector<drawn_route> &routes) {
    clusters all;
    std::set<std::string> sources;
    for (const drawn_route &r : routes) {
        const std::string name = name_of(r.table);
        cluster &c = all[name];
        c.name = name;
        draw(c, name + " ", r.route, sources);
    }
    std::string text =
        "digraph mfwd6 {\n  rankdir=LR;\n  node [shape=ellipse, fontsize=10];\n"
        "  edge [fontsize=9];\n";
    for (const std::string &source : sources) {
        text += fmt::format("  {} [label={}, shape=plaintext];\n", quoted("source " + source),
                            quoted(source));
    }
    size_t number = 0;
    for (const auto &[name, c] : all) {
        text += text_of(c, name + " ", number++);
    }
    return text + "}\n";
}

std::string tree_of(const std::vector<drawn_route> &routes, bool draw_lines) {
    const line_set &lines = draw_lines ? unicode_lines : ascii_lines;
    std::string text;
    for (size_t at = 0; at < routes.size();) {
        const size_t next = end_of_run(routes, at, routes.size(), same_table);
        text += fmt::format("VRF {}\n", name_of(routes[at].table));
        text += groups_of(routes, at, next, lines);
        at = next;
    }
    return text.empty() ? "no routes\n" : text;
}

bool terminal_draws_lines() {
    std::setlocale(LC_CTYPE, "");
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

}  // namespace ctl
