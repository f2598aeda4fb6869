// show route: all that is known of one.
#include <fmt/format.h>

#include <memory>

#include "apps/mfwd6ctl/arguments.h"
#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/show/history.h"
#include "apps/mfwd6ctl/show/route_output.h"
#include "apps/mfwd6ctl/window/records.h"

namespace ctl {
namespace {

constexpr uint64_t no_object_id = IPMC_OBJ_ID_NONE;
constexpr size_t most_history = 50;

struct request {
    std::string vrf = "default";
    std::string source;
    std::string group;
    bool match = false;
    bool no_history = false;
};

route_key key_of(const request &r) {
    route_key key;
    key.source = source_of(r.source);
    const prefix group = group_of(r.group);
    key.group = group.address;
    key.length = static_cast<uint16_t>(group.length);
    if (!is_any(key.source)) {
        if (group.has_length && group.length != 128) {
            throw CLI::ValidationError("GROUP", "a route with a source has a whole group");
        }
        key.length = IPV4MC_ROUTE_PFX_LEN_SG;
    } else if (r.match) {
        throw CLI::ValidationError("SOURCE", "--match needs the source of a packet");
    }
    return key;
}

void line(const char *name, const std::string &value) {
    put(fmt::format("  {:<12} {}\n", name, value));
}

std::string or_none(const std::vector<std::string> &words) {
    return words.empty() ? "none" : joined(words, ", ");
}

void write_interfaces(const route_copy &route) {
    put("\n");
    text_table table({"INTERFACE", "ATTRIBUTES", ">HANDLE", ">AGE"});
    for (const intf_entry_copy &e : route.interfaces) {
        table.add({name_of(e), or_none(intf_attribute_names(e.attributes)), hex(e.ifh),
                   duration_text(seconds_since(e.created))});
    }
    table.end();
}

void write_history(const std::vector<history_event> &events) {
    put("\n");
    if (events.empty()) {
        put("No history: neither the owner nor any trace names this route.\n");
        return;
    }
    text_table table({"TIME", "FROM", "EVENT"});
    for (const history_event &e : events) {
        table.add({e.time, e.from, e.text});
    }
    table.end();
}

void write_text(const table_copy &table, const route_copy &route) {
    put(fmt::format("({}, {}) in VRF {}\n", source_text(route.key.source),
                    group_text(route.key.group, route.key.length), name_of(table)));
    line("table id", hex(table.tid));
    line("attributes", or_none(route_attribute_names(route.attributes)));
    line("state", state_of(route));
    line("age", duration_text(seconds_since(route.created)));
    if (route.obj_id < no_object_id) {
        line("object id", hex(route.obj_id));
    }
    if (route.parent) {
        line("inherits", fmt::format("({}, {})", source_text(route.parent->source),
                                     group_text(route.parent->group, route.parent->length)));
    }
    if (route.encap_id != 0) {
        line("encap", std::to_string(route.encap_id));
    }
    if (route.rpf_id != 0) {
        line("rpf id", std::to_string(route.rpf_id));
    }
    if (route.counters) {
        line("came in", fmt::format("{} packets, {} bytes", route.counters->in_packets,
                                    route.counters->in_bytes));
        line("went out", fmt::format("{} packets, {} bytes", route.counters->out_packets,
                                     route.counters->out_bytes));
    } else {
        line("counters", "the platform has none");
    }
    write_interfaces(route);
}

json detail_json(const table_copy &table, const route_copy &route,
                 const std::vector<history_event> &events) {
    json j = to_json(table, route);
    j["object_id"] = route.obj_id < no_object_id ? json(route.obj_id) : json(nullptr);
    j["encap"] = route.encap_id != 0 ? json(route.encap_id) : json(nullptr);
    j["rpf_id"] = route.rpf_id != 0 ? json(route.rpf_id) : json(nullptr);
    j["history"] = json::array();
    for (const history_event &e : events) {
        j["history"].push_back({{"time", e.time}, {"from", e.from}, {"event", e.text}});
    }
    return j;
}

std::vector<history_event> history_of(const options &how, const request &r, const route_key &key) {
    if (r.no_history) {
        return {};
    }
    std::vector<history_event> events = traced_history(how, key, most_history);
    const std::vector<history_event> kept = owner_history(how, r.vrf, key);
    events.insert(events.end(), kept.begin(), kept.end());
    return events;
}

struct found_route {
    table_copy table;
    route_copy route;
};

// The window is closed again when the history is looked for.
found_route find(const options &how, const request &r, const route_key &key) {
    const window w(how, need::library);
    const table_copy table = read_tables(w, r.vrf).front();
    interface_names names;
    std::optional<route_copy> route = find_route(w, table.tid, key, r.match, names);
    if (!route) {
        throw failure(
            exit_code::failed,
            r.match
                ? fmt::format("no route takes ({}, {}) in VRF {}", r.source, r.group, r.vrf)
                : fmt::format("there is no route ({}, {}) in VRF {}", r.source, r.group, r.vrf));
    }
    return {table, *route};
}

void show_route(const options &how, const request &r) {
    const route_key key = key_of(r);
    const found_route found = find(how, r, key);
    const std::vector<history_event> events = history_of(how, r, found.route.key);
    if (how.json) {
        put_json(detail_json(found.table, found.route, events));
        return;
    }
    write_text(found.table, found.route);
    if (!r.no_history) {
        write_history(events);
    }
}

}  // namespace

void add_show_route(CLI::App &show, const options &how) {
    auto r = std::make_shared<request>();
    CLI::App *command = show.add_subcommand("route", "One route in detail, with its history");
    command->add_option("source", r->source, "Source, or \"any\"")->required()->type_name("SOURCE");
    command->add_option("group", r->group, "Group, or range of groups")
        ->required()
        ->type_name("GROUP[/LENGTH]");
    command->add_option("--vrf", r->vrf, "VRF of the route")
        ->capture_default_str()
        ->type_name("NAME");
    command->add_flag("--match", r->match, "The route that a packet from SOURCE to GROUP takes");
    command->add_flag("--no-history", r->no_history, "Do not search traces for the route");
    command->footer(
        "Examples:\n"
        "  mfwd6ctl show route 2001:db8::1 ff3e::1234\n"
        "  mfwd6ctl show route any ff3e::/96 --vrf red\n"
        "  mfwd6ctl show route --match 2001:db8::7 ff3e::99 --json");
    command->callback([r, &how] { show_route(how, *r); });
}

}  // namespace ctl
