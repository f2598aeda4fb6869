// show tables, show interfaces.
#include <fmt/format.h>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/show/route_output.h"
#include "apps/mfwd6ctl/window/records.h"

namespace ctl {
namespace {

json to_json(const table_copy &t) {
    json j;
    j["name"] = t.name;
    j["table_id"] = t.tid != 0 ? json(t.tid) : json(nullptr);
    j["vrf_id"] = t.vrf_id;
    j["active"] = t.active;
    j["routes"] = t.routes;
    j["signals"] = t.signals;
    j["signals_ever"] = t.signals_ever;
    j["interfaces"] = t.interfaces;
    j["accounting"] = t.accounting;
    return j;
}

void show_tables(const options &how) {
    const window w(how, need::library);
    const std::vector<table_copy> tables = read_tables(w);
    if (how.json) {
        json_array list("tables");
        for (const table_copy &t : tables) {
            list.add(to_json(t));
        }
        list.end();
        return;
    }
    text_table table(
        {"VRF", ">TABLE ID", ">VRF ID", "ACTIVE", ">INTERFACES", ">ROUTES", ">SIGNALS", ">EVER"});
    for (const table_copy &t : tables) {
        table.add({t.name.empty() ? "-" : t.name, t.tid != 0 ? hex(t.tid) : "-", hex(t.vrf_id),
                   t.active ? "yes" : "no", std::to_string(t.interfaces), std::to_string(t.routes),
                   std::to_string(t.signals), std::to_string(t.signals_ever)});
    }
    table.end();
}

json to_json(const interface_copy &i) {
    json j;
    j["name"] = i.name;
    j["handle"] = i.ifh;
    j["type"] = interface_type_name(i.type);
    j["vrf"] = !i.vrf.empty() ? json(i.vrf) : json(nullptr);
    j["vrf_id"] = i.vrf_id;
    j["enabled"] = i.enabled;
    j["ttl_threshold"] = i.ttl;
    j["boundary"] = !i.boundary.empty() ? json(i.boundary) : json(nullptr);
    j["routes"] = i.routes;
    j["references"] = i.references;
    j["mtu"] = i.mtu;
    j["stale"] = i.stale;
    return j;
}

void show_interfaces(const options &how) {
    const window w(how, need::library);
    const std::vector<interface_copy> interfaces = read_interfaces(w);
    if (how.json) {
        json_array list("interfaces");
        for (const interface_copy &i : interfaces) {
            list.add(to_json(i));
        }
        list.end();
        return;
    }
    text_table table({"NAME", ">HANDLE", "TYPE", "VRF", "MULTICAST", ">TTL", "BOUNDARY", ">ROUTES",
                      ">REFERENCES"});
    for (const interface_copy &i : interfaces) {
        table.add({i.name.empty() ? "-" : i.name, hex(i.ifh), interface_type_name(i.type),
                   i.vrf.empty() ? "-" : i.vrf,
                   fmt::format("{}{}", i.enabled ? "on" : "off", i.stale ? " (stale)" : ""),
                   std::to_string(i.ttl), i.boundary.empty() ? "-" : i.boundary,
                   std::to_string(i.routes), std::to_string(i.references)});
    }
    table.end();
}

}  // namespace

void add_show_tables(CLI::App &show, const options &how) {
    CLI::App *command = show.add_subcommand("tables", "VRF tables, and how much is in them");
    command->footer("Examples:\n  mfwd6ctl show tables\n  mfwd6ctl show tables --json");
    command->callback([&how] { show_tables(how); });
}

void add_show_interfaces(CLI::App &show, const options &how) {
    CLI::App *command =
        show.add_subcommand("interfaces", "Interfaces that multicast state refers to");
    command->footer("Examples:\n  mfwd6ctl show interfaces\n  mfwd6ctl show interfaces --json");
    command->callback([&how] { show_interfaces(how); });
}

}  // namespace ctl
