// show routes, show signals: one line or one object for each.
#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "apps/mfwd6ctl/arguments.h"
#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/show/picture.h"
#include "apps/mfwd6ctl/show/route_output.h"
#include "apps/mfwd6ctl/window/records.h"

namespace ctl {
namespace {

struct request {
    std::string vrf;
    std::string source;
    std::string group;
    std::string interface;
    bool count = false;
    bool dot = false;
    bool tree = false;
    bool ascii = false;
    bool no_counters = false;
};

route_wish wish_of(const request &r) {
    route_wish wish;
    if (!r.source.empty()) {
        wish.source = source_of(r.source);
    }
    if (!r.group.empty()) {
        const prefix group = group_of(r.group);
        wish.group = group.address;
        wish.group_length = group.length;
    }
    wish.with_counters = !r.no_counters && !r.count;
    return wish;
}

bool is_on(const route_copy &route, const std::string &interface) {
    return interface.empty() ||
           std::any_of(route.interfaces.begin(), route.interfaces.end(),
                       [&](const intf_entry_copy &e) { return name_of(e) == interface; });
}

using visit_route = std::function<void(const table_copy &, const route_copy &)>;

void each_route(const window &w, const request &r, route_kind kind, const visit_route &visit) {
    const route_wish wish = wish_of(r);
    interface_names names;
    for (const table_copy &table : read_tables(w, r.vrf)) {
        if (table.tid == 0) {
            continue;
        }
        walk_routes(w, table.tid, kind, wish, names, [&](const route_copy &route) {
            if (is_on(route, r.interface)) {
                visit(table, route);
            }
        });
    }
}

// Interfaces that neither take packets in nor send them out, with what they are for.
std::vector<std::string> other_interfaces(const route_copy &route) {
    std::vector<std::string> names;
    for (const intf_entry_copy &e : route.interfaces) {
        if ((e.attributes & (MRIB_INTF_ACCEPT | MRIB_INTF_FORWARD)) == 0) {
            names.push_back(
                fmt::format("{}[{}]", name_of(e), joined(intf_attribute_names(e.attributes), ",")));
        }
    }
    return names;
}

std::string or_dash(const std::string &text) {
    return text.empty() ? "-" : text;
}

std::vector<std::string> row_of(const table_copy &table, const route_copy &route) {
    std::vector<std::string> to = names_with(route, MRIB_INTF_FORWARD);
    const std::vector<std::string> others = other_interfaces(route);
    to.insert(to.end(), others.begin(), others.end());
    std::vector<std::string> flags = route_attribute_names(route.attributes);
    if (route.failed || route.out_of_resources) {
        flags.push_back(state_of(route));
    }
    const auto &counters = route.counters;
    return {name_of(table),
            source_text(route.key.source),
            group_text(route.key.group, route.key.length),
            or_dash(joined(names_with(route, MRIB_INTF_ACCEPT), ",")),
            or_dash(joined(to, ",")),
            or_dash(joined(flags, ",")),
            counters ? std::to_string(counters->in_packets) : "-",
            counters ? bytes_text(counters->in_bytes) : "-",
            duration_text(seconds_since(route.created))};
}

void write_count(const window &w, const request &r, route_kind kind, bool as_json) {
    uint64_t count = 0;
    each_route(w, r, kind, [&](const table_copy &, const route_copy &) { ++count; });
    if (as_json) {
        put_json({{"count", count}});
    } else {
        put(fmt::format("{}\n", count));
    }
}

void write_picture(const window &w, const request &r) {
    std::vector<drawn_route> routes;
    each_route(w, r, route_kind::routes, [&](const table_copy &table, const route_copy &route) {
        routes.push_back({table, route});
    });
    put(r.dot ? dot_of(routes) : tree_of(routes, !r.ascii && terminal_draws_lines()));
}

void write_routes(const window &w, const request &r, bool as_json) {
    if (as_json) {
        json_array list("routes");
        each_route(w, r, route_kind::routes, [&](const table_copy &table, const route_copy &route) {
            list.add(to_json(table, route));
        });
        list.end();
        return;
    }
    text_table table(
        {"VRF", "SOURCE", "GROUP", "FROM", "TO", "FLAGS", ">PACKETS", ">BYTES", ">AGE"});
    each_route(w, r, route_kind::routes,
               [&](const table_copy &t, const route_copy &route) { table.add(row_of(t, route)); });
    table.end();
}

void show_routes(const options &how, const request &r) {
    wish_of(r);  // what makes no sense is told of without a window
    const window w(how, need::library);
    if (r.count) {
        write_count(w, r, route_kind::routes, how.json);
    } else if (r.dot || r.tree) {
        write_picture(w, r);
    } else {
        write_routes(w, r, how.json);
    }
}

json signal_json(const table_copy &table, const route_copy &route) {
    json j;
    j["table"] = table.name;
    j["table_id"] = table.tid;
    j["source"] = address_text(route.key.source);
    j["group"] = address_text(route.key.group);
    std::vector<std::string> names;
    for (const intf_entry_copy &e : route.interfaces) {
        names.push_back(e.name);
    }
    j["interfaces"] = names;
    j["age_seconds"] = seconds_since(route.created);
    j["packet_kept"] = route.has_packet;
    return j;
}

std::vector<std::string> signal_row(const table_copy &table, const route_copy &route) {
    std::vector<std::string> names;
    for (const intf_entry_copy &e : route.interfaces) {
        names.push_back(e.name);
    }
    return {name_of(table),
            source_text(route.key.source),
            address_text(route.key.group),
            or_dash(joined(names, ",")),
            route.has_packet ? "yes" : "no",
            duration_text(seconds_since(route.created))};
}

void show_signals(const options &how, const request &r) {
    wish_of(r);
    const window w(how, need::library);
    if (r.count) {
        write_count(w, r, route_kind::signals, how.json);
        return;
    }
    if (how.json) {
        json_array list("signals");
        each_route(w, r, route_kind::signals,
                   [&](const table_copy &t, const route_copy &s) { list.add(signal_json(t, s)); });
        list.end();
        return;
    }
    text_table table({"VRF", "SOURCE", "GROUP", "CAME IN BY", "PACKET KEPT", ">AGE"});
    each_route(w, r, route_kind::signals,
               [&](const table_copy &t, const route_copy &s) { table.add(signal_row(t, s)); });
    table.end();
}

void add_filters(CLI::App *command, const std::shared_ptr<request> &r) {
    command->add_option("--vrf", r->vrf, "Only this VRF")->type_name("NAME");
    command->add_option("--source", r->source, "Only this source; \"any\" for routes of any source")
        ->type_name("ADDRESS");
    command->add_option("--group", r->group, "Only this group, or the groups of this prefix")
        ->type_name("GROUP[/LENGTH]");
    command->add_option("--interface", r->interface, "Only those that have this interface")
        ->type_name("NAME");
    command->add_flag("--count", r->count, "Only how many there are");
}

}  // namespace

void add_show_routes(CLI::App &show, const options &how) {
    auto r = std::make_shared<request>();
    CLI::App *command = show.add_subcommand("routes", "Routes, with their interfaces and counters");
    add_filters(command, r);
    command->add_flag("--no-counters", r->no_counters, "Do not ask the platform for counters");
    auto *dot = command->add_flag("--dot", r->dot, "A distribution tree for Graphviz");
    auto *tree = command->add_flag("--tree", r->tree, "A distribution tree in plain text");
    tree->excludes(dot);
    command->add_flag("--ascii", r->ascii, "Draw the tree with ASCII characters only")->needs(tree);
    command->footer(
        "Examples:\n"
        "  mfwd6ctl show routes --vrf red\n"
        "  mfwd6ctl show routes --group ff3e::/16 --json\n"
        "  mfwd6ctl show routes --tree\n"
        "  mfwd6ctl show routes --dot | dot -Tsvg > tree.svg");
    command->callback([r, &how] { show_routes(how, *r); });
}

void add_show_signals(CLI::App &show, const options &how) {
    auto r = std::make_shared<request>();
    CLI::App *command =
        show.add_subcommand("signals", "Packets that no route takes, or that a route signals");
    add_filters(command, r);
    command->footer(
        "Examples:\n"
        "  mfwd6ctl show signals\n"
        "  mfwd6ctl show signals --vrf red --json");
    command->callback([r, &how] { show_signals(how, *r); });
}

}  // namespace ctl
