// show flows: entries of the kernel for single flows, which the platform made for routes that have
// none of their own, or to keep unwanted flows quiet. Read from the platform's ledger.
#include <fmt/format.h>

#include <map>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/window/records.h"
#include "apps/platform/platform_choice.h"
#include "platforms/linux/linux.h"
#include "services/diag/errors.h"

namespace ctl {
namespace {

using interface_numbers = std::map<std::pair<uint32_t, uint32_t>, std::string>;  // table, mif

cerrno note_interface(const linux_interface *i, void *context) {
    auto &names = *static_cast<interface_numbers *>(context);
    names[{i->kernel_table, i->mif}] = std::string(i->name, strnlen(i->name, sizeof(i->name)));
    return 0;
}

cerrno note_flow(const linux_flow_entry *entry, void *context) {
    static_cast<std::vector<linux_flow_entry> *>(context)->push_back(*entry);
    return 0;
}

void check(cerrno code) {
    if (code == ENOENT) {
        throw failure(exit_code::absent, "the platform has no ledger yet");
    }
    if (code != 0) {
        throw failure(exit_code::failed,
                      std::string("cannot read the platform's ledger: ") + cerr_strerror(code));
    }
}

template <class Function>
Function *must_have(const char *name) {
    auto *function = apps::loaded<Function>(name);
    if (function == nullptr) {
        throw failure(exit_code::usage, "this platform derives no flows");
    }
    return function;
}

struct flow_world {
    std::vector<linux_flow_entry> flows;
    interface_numbers names;
    std::map<uint32_t, std::string> tables;  // by table id
};

flow_world read_flows(const options &how) {
    const window w(how, need::library);
    flow_world world;
    check(must_have<decltype(linux_ledger_attach)>("linux_ledger_attach")(how.folder().c_str()));
    check(must_have<decltype(linux_walk_interfaces)>("linux_walk_interfaces")(note_interface,
                                                                              &world.names));
    check(must_have<decltype(linux_walk_flows)>("linux_walk_flows")(note_flow, &world.flows));
    for (const table_copy &t : read_tables(w)) {
        world.tables[t.tid] = t.name;
    }
    return world;
}

std::string interface_of(const flow_world &world, const linux_flow_entry &flow, uint32_t mif) {
    const auto found = world.names.find({flow.kernel_table, mif});
    return found != world.names.end() ? found->second : fmt::format("mif-{}", mif);
}

std::vector<std::string> outputs_of(const flow_world &world, const linux_flow_entry &flow) {
    std::vector<std::string> names;
    for (uint32_t mif = 0; mif < LINUX_MIFS; ++mif) {
        if (((flow.outputs >> mif) & 1U) != 0) {
            names.push_back(interface_of(world, flow, mif));
        }
    }
    return names;
}

uint64_t age_of(const linux_flow_entry &flow) {
    return seconds_since({static_cast<time_t>(flow.made_seconds), 0});
}

std::string table_of(const flow_world &world, const linux_flow_entry &flow) {
    const auto found = world.tables.find(flow.tid);
    return found != world.tables.end() ? found->second : "";
}

json to_json(const flow_world &world, const linux_flow_entry &flow) {
    json j;
    j["table"] = table_of(world, flow);
    j["table_id"] = flow.tid;
    j["kernel_table"] = flow.kernel_table;
    j["source"] = address_text(flow.source);
    j["group"] = address_text(flow.group);
    j["kind"] = flow.held != 0 ? "held" : "derived";
    j["from"] = interface_of(world, flow, flow.parent_mif);
    j["to"] = outputs_of(world, flow);
    if (flow.held != 0) {
        j["route"] = nullptr;
    } else {
        j["route"] = {{"source", is_any(flow.route_source) ? json(nullptr)
                                                           : json(address_text(flow.route_source))},
                      {"group", address_text(flow.route_group)},
                      {"group_length", std::min<uint32_t>(flow.route_pfx_len, 128)}};
    }
    j["age_seconds"] = age_of(flow);
    return j;
}

std::vector<std::string> row_of(const flow_world &world, const linux_flow_entry &flow) {
    const std::vector<std::string> to = outputs_of(world, flow);
    const std::string route = flow.held != 0
                                  ? "-"
                                  : fmt::format("({}, {})", source_text(flow.route_source),
                                                group_text(flow.route_group, flow.route_pfx_len));
    return {table_of(world, flow),
            address_text(flow.source),
            address_text(flow.group),
            flow.held != 0 ? "held" : "derived",
            interface_of(world, flow, flow.parent_mif),
            to.empty() ? "-" : joined(to, ","),
            route,
            duration_text(age_of(flow))};
}

void show_flows(const options &how) {
    const flow_world world = read_flows(how);
    if (how.json) {
        json_array list("flows");
        for (const linux_flow_entry &flow : world.flows) {
            list.add(to_json(world, flow));
        }
        list.end();
        return;
    }
    text_table table({"VRF", "SOURCE", "GROUP", "KIND", "FROM", "TO", "ROUTE", ">AGE"});
    for (const linux_flow_entry &flow : world.flows) {
        table.add(row_of(world, flow));
    }
    table.end();
}

}  // namespace

void add_show_flows(CLI::App &show, const options &how) {
    CLI::App *command =
        show.add_subcommand("flows", "Kernel entries of single flows (platform linux)");
    command->footer(
        "\"derived\" entries forward a flow for a route that has no entry of its own; \"held\" "
        "ones\n"
        "keep a flow that no route takes from the kernel's queue of unresolved flows.\n\n"
        "Examples:\n  mfwd6ctl show flows\n  mfwd6ctl show flows --json");
    command->callback([&how] { show_flows(how); });
}

}  // namespace ctl
