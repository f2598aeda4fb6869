// add, delete, set, clear, shutdown: one request to the owner each.
#include <fmt/format.h>

#include <memory>

#include "apps/mfwd6ctl/arguments.h"
#include "apps/mfwd6ctl/command/socket.h"
#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/words.h"

namespace ctl {
namespace {

// A route, and interfaces of it, as the operator named them.
struct request {
    std::string vrf = "default";
    std::string source;
    std::string group;
    std::vector<std::string> from;
    std::vector<std::string> to;
    bool inherit_accept = false;
    bool signal = false;
    bool drop = false;
};

// Silence is success for people; programs get what the owner said.
void tell_owner(const options &how, const std::string &action, const json &args) {
    const json result = ask_owner(how, action, args);
    if (how.json) {
        put_json(result);
    }
}

json key_of(const request &r) {
    json args;
    args["table"] = r.vrf;
    const ip_maddr_st source = source_of(r.source);
    const prefix group = group_of(r.group);
    if (!is_any(source)) {
        if (group.length != 128) {
            throw CLI::ValidationError("GROUP", "a route with a source has a whole group");
        }
        args["source"] = address_text(source);
    }
    args["group"] = group_text(group.address, group.length);
    return args;
}

void add_key(CLI::App *command, const std::shared_ptr<request> &r) {
    command->add_option("source", r->source, "Source, or \"any\"")->required()->type_name("SOURCE");
    command->add_option("group", r->group, "Group, or range of groups for any source")
        ->required()
        ->type_name("GROUP[/LENGTH]");
    command->add_option("--vrf", r->vrf, "VRF of the route")
        ->capture_default_str()
        ->type_name("NAME");
}

// ---- routes

void add_route(const options &how, const request &r) {
    json args = key_of(r);
    args["from"] = r.from;
    args["to"] = r.to;
    args["flags"] = json::array();
    for (const auto &[set, name] : {std::pair{r.inherit_accept, "inherit-accept"},
                                    std::pair{r.signal, "signal"}, std::pair{r.drop, "drop"}}) {
        if (set) {
            args["flags"].push_back(name);
        }
    }
    tell_owner(how, "route.add", args);
}

void add_add_route(CLI::App &add, const options &how) {
    auto r = std::make_shared<request>();
    CLI::App *command = add.add_subcommand("route", "Add a route, or make one exactly as given");
    add_key(command, r);
    command->add_option("--from,-i", r->from, "Interfaces that packets may come in by")
        ->type_name("IFACE")
        ->delimiter(',');
    command->add_option("--to,-o", r->to, "Interfaces that packets leave by")
        ->type_name("IFACE")
        ->delimiter(',');
    command->add_flag("--inherit-accept", r->inherit_accept,
                      "Take packets from where the route's parent takes them");
    command->add_flag("--signal", r->signal, "Signal packets to the control plane");
    command->add_flag("--drop", r->drop, "Drop packets");
    command->footer(
        "Examples:\n"
        "  mfwd6ctl add route 2001:db8::1 ff3e::1234 --from eth0 --to eth1 eth2\n"
        "  mfwd6ctl add route any ff3e::/96 --from eth0 --to eth1 --vrf red\n"
        "  mfwd6ctl add route 2001:db8::66 ff3e::1 --from eth0 --drop");
    command->callback([r, &how] { add_route(how, *r); });
}

void change_outputs(const options &how, const request &r, const char *action) {
    json args = key_of(r);
    args["interfaces"] = r.to;
    tell_owner(how, action, args);
}

void add_outputs(CLI::App &parent, const options &how, const char *action, const char *what,
                 const char *verb) {
    auto r = std::make_shared<request>();
    CLI::App *command = parent.add_subcommand("output", what);
    add_key(command, r);
    command->add_option("interface", r->to, "Interfaces")->required()->type_name("IFACE");
    command->footer(fmt::format(
        "Example:\n  mfwd6ctl {} output 2001:db8::1 ff3e::1234 eth3 eth4 --vrf red", verb));
    command->callback([r, &how, action] { change_outputs(how, *r, action); });
}

void add_delete_route(CLI::App &parent, const options &how) {
    auto r = std::make_shared<request>();
    CLI::App *command = parent.add_subcommand("route", "Delete a route");
    add_key(command, r);
    command->footer(
        "Examples:\n"
        "  mfwd6ctl delete route 2001:db8::1 ff3e::1234\n"
        "  mfwd6ctl delete route any ff3e::/96 --vrf red");
    command->callback([r, &how] { tell_owner(how, "route.delete", key_of(*r)); });
}

// ---- VRFs

struct vrf_request {
    std::string name;
    uint32_t id = 0;
    std::vector<std::string> interfaces;
};

void add_add_vrf(CLI::App &add, const options &how) {
    auto r = std::make_shared<vrf_request>();
    CLI::App *command = add.add_subcommand("vrf", "Add a VRF, or interfaces to one");
    command->add_option("name", r->name, "Name of the VRF")->required()->type_name("NAME");
    command->add_option("--table", r->id, "Table id; that of the kernel's table as well")
        ->required()
        ->type_name("ID");
    command->add_option("--interface,-i", r->interfaces, "Interfaces of the VRF")
        ->type_name("IFACE")
        ->delimiter(',');
    command->footer("Example:\n  mfwd6ctl add vrf red --table 10 --interface eth3 eth4");
    command->callback([r, &how] {
        json args;
        args["name"] = r->name;
        args["id"] = r->id;
        args["interfaces"] = r->interfaces;
        tell_owner(how, "table.add", args);
    });
}

void add_delete_vrf(CLI::App &parent, const options &how) {
    auto r = std::make_shared<vrf_request>();
    CLI::App *command = parent.add_subcommand("vrf", "Delete a VRF with all its routes");
    command->add_option("name", r->name, "Name of the VRF")->required()->type_name("NAME");
    command->footer("Example:\n  mfwd6ctl delete vrf red");
    command->callback([r, &how] { tell_owner(how, "table.delete", {{"name", r->name}}); });
}

// ---- interfaces

struct interface_request {
    std::string name;
    bool enable = false;
    bool disable = false;
    uint32_t ttl = 0;
    std::vector<std::string> boundary;
    bool no_boundary = false;
};

json args_of(const interface_request &r, bool has_ttl) {
    json args;
    args["interface"] = r.name;
    if (r.enable || r.disable) {
        args["enabled"] = r.enable;
    }
    if (has_ttl) {
        args["ttl_threshold"] = r.ttl;
    }
    if (!r.boundary.empty() || r.no_boundary) {
        args["boundary"] = json::array();
        for (const std::string &text : r.boundary) {
            const prefix group = group_of(text);
            args["boundary"].push_back(
                fmt::format("{}/{}", address_text(group.address), group.length));
        }
    }
    if (args.size() == 1) {
        throw CLI::ValidationError("set interface", "nothing to set: see --help");
    }
    return args;
}

void add_set_interface(CLI::App &set, const options &how) {
    auto r = std::make_shared<interface_request>();
    CLI::App *command = set.add_subcommand("interface", "Multicast settings of an interface");
    command->add_option("name", r->name, "Name of the interface")->required()->type_name("IFACE");
    auto *enable = command->add_flag("--enable", r->enable, "Multicast on");
    command->add_flag("--disable", r->disable, "Multicast off")->excludes(enable);
    auto *ttl = command->add_option("--ttl", r->ttl, "Hop limit below which packets stay inside")
                    ->type_name("0-255")
                    ->check(CLI::Range(0U, 255U));
    auto *boundary = command
                         ->add_option("--boundary", r->boundary,
                                      "Groups that neither come in nor go out here; replaces those "
                                      "set before")
                         ->type_name("GROUP/LENGTH");
    command->add_flag("--no-boundary", r->no_boundary, "No such groups")->excludes(boundary);
    command->footer(
        "Examples:\n"
        "  mfwd6ctl set interface eth1 --enable --ttl 16\n"
        "  mfwd6ctl set interface eth1 --boundary ff05::/16 ff35::/32\n"
        "  mfwd6ctl set interface eth1 --no-boundary");
    command->callback(
        [r, ttl, &how] { tell_owner(how, "interface.set", args_of(*r, ttl->count() != 0)); });
}

// ---- signals

void clear_signals(const options &how, const request &r, bool with_vrf) {
    json args = json::object();
    if (with_vrf || !r.group.empty()) {
        args["table"] = r.vrf;
    }
    if (!r.group.empty()) {
        args["source"] = address_text(source_of(r.source));
        args["group"] = address_text(group_of(r.group).address);
    }
    tell_owner(how, "signal.clear", args);
}

}  // namespace

void add_add(CLI::App &program, const options &how) {
    CLI::App *add = program.add_subcommand("add", "Add a route, outputs of one, or a VRF");
    add->require_subcommand(1);
    add->footer("Example:\n  mfwd6ctl add route 2001:db8::1 ff3e::1234 --from eth0 --to eth1");
    add_add_route(*add, how);
    add_outputs(*add, how, "output.add", "Add outputs to a route", "add");
    add_add_vrf(*add, how);
}

void add_delete(CLI::App &program, const options &how) {
    CLI::App *del = program.add_subcommand("delete", "Delete a route, outputs of one, or a VRF");
    del->require_subcommand(1);
    del->footer("Example:\n  mfwd6ctl delete route 2001:db8::1 ff3e::1234");
    add_delete_route(*del, how);
    add_outputs(*del, how, "output.delete", "Take outputs off a route", "delete");
    add_delete_vrf(*del, how);
}

void add_set(CLI::App &program, const options &how) {
    CLI::App *set = program.add_subcommand("set", "Change settings of interfaces");
    set->require_subcommand(1);
    set->footer("Example:\n  mfwd6ctl set interface eth1 --enable");
    add_set_interface(*set, how);
}

void add_clear(CLI::App &program, const options &how) {
    CLI::App *clear = program.add_subcommand("clear", "Forget signals");
    clear->require_subcommand(1);
    clear->footer("Example:\n  mfwd6ctl clear signals");
    auto r = std::make_shared<request>();
    CLI::App *command =
        clear->add_subcommand("signals", "Forget the signals of a VRF, or one of them");
    auto *source = command->add_option("source", r->source, "Source")->type_name("SOURCE");
    auto *group = command->add_option("group", r->group, "Group")->type_name("GROUP");
    source->needs(group);
    auto *vrf = command->add_option("--vrf", r->vrf, "VRF of the signals")->type_name("NAME");
    command->footer(
        "Examples:\n"
        "  mfwd6ctl clear signals\n"
        "  mfwd6ctl clear signals 2001:db8::1 ff3e::1234 --vrf red");
    command->callback([r, vrf, &how] { clear_signals(how, *r, vrf->count() != 0); });
}

void add_shutdown(CLI::App &program, const options &how) {
    auto keep = std::make_shared<bool>(false);
    CLI::App *command = program.add_subcommand("shutdown", "End mfwd6d");
    command->add_flag("--keep", *keep, "Leave the state, and packets flowing");
    command->footer("Examples:\n  mfwd6ctl shutdown\n  mfwd6ctl shutdown --keep");
    command->callback([keep, &how] { tell_owner(how, "shutdown", {{"keep", *keep}}); });
}

}  // namespace ctl
