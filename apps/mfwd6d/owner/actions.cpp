// What commands ask for: arguments are taken out of JSON and checked, and handed on.
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "apps/mfwd6d/config/scan.h"
#include "apps/mfwd6d/monotonic.h"
#include "apps/mfwd6d/owner/owner_process.h"
#include "apps/mfwd6d/owner/window.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "services/window/epochs.h"
#include "services/window/inspect.h"

namespace mfwd6::daemon {
namespace {

using nlohmann::json;

// A request's argument that is not as it should be.
struct bad_argument {
    std::string text;
};

std::string text_of(const json &args, const char *name, const char *fallback = nullptr) {
    const auto at = args.find(name);
    if (at == args.end() || at->is_null()) {
        if (fallback == nullptr) {
            throw bad_argument{fmt::format("\"{}\" is missing", name)};
        }
        return fallback;
    }
    if (!at->is_string()) {
        throw bad_argument{fmt::format("\"{}\" is no text", name)};
    }
    return at->get<std::string>();
}

std::vector<std::string> texts_of(const json &args, const char *name) {
    const auto at = args.find(name);
    if (at == args.end() || at->is_null()) {
        return {};
    }
    std::vector<std::string> list;
    if (at->is_array()) {
        for (const json &one : *at) {
            if (!one.is_string()) {
                break;
            }
            list.push_back(one.get<std::string>());
        }
    }
    if (!at->is_array() || list.size() != at->size()) {
        throw bad_argument{fmt::format("\"{}\" is no array of texts", name)};
    }
    return list;
}

bool flag_of(const json &args, const char *name, bool fallback) {
    const auto at = args.find(name);
    if (at == args.end() || at->is_null()) {
        return fallback;
    }
    if (!at->is_boolean()) {
        throw bad_argument{fmt::format("\"{}\" is neither true nor false", name)};
    }
    return at->get<bool>();
}

std::string joined(const std::vector<std::string> &names) {
    std::string text;
    for (const std::string &name : names) {
        text += " " + name;
    }
    return text;
}

bool is_one_word(const std::string &text) {
    return !text.empty() && text.find_first_of(" \t\r\n#") == std::string::npos;
}

const std::string &one_word(const std::string &text, const char *name) {
    if (!is_one_word(text)) {
        throw bad_argument{fmt::format("\"{}\" is not one word", name)};
    }
    return text;
}

std::vector<std::string> words_of(const json &args, const char *name) {
    std::vector<std::string> list = texts_of(args, name);
    for (const std::string &word : list) {
        one_word(word, name);
    }
    return list;
}

// Arguments are checked as lines are: the action is written as one. Whoever changes the grammar
// changes both.
std::string route_text_of(const json &args, const char *outputs, bool with_ports) {
    std::string text =
        "mroute vrf " + one_word(text_of(args, "table", config::default_vrf), "table");
    if (with_ports) {
        for (const std::string &flag : words_of(args, "flags")) {
            if (flag != "inherit-accept" && flag != "signal" && flag != "drop") {
                throw bad_argument{"a flag is inherit-accept, signal or drop, not \"" + flag +
                                   "\""};
            }
            text += " " + flag;
        }
    }
    const std::vector<std::string> from =
        with_ports ? words_of(args, "from") : std::vector<std::string>();
    if (!from.empty()) {
        text += " from" + joined(from);
    }
    const std::string source = text_of(args, "source", "");
    if (!source.empty()) {
        text += " source " + one_word(source, "source");
    }
    text += " group " + one_word(text_of(args, "group"), "group");
    const std::vector<std::string> to = words_of(args, outputs);
    return to.empty() ? text : text + " to" + joined(to);
}

outcome parse(const std::string &text, config::line *l) {
    std::string reason;
    return config::parse_line(text, l, &reason) ? outcome{} : failure(EINVAL, reason);
}

json tables_json(const tables &all, uint64_t *routes) {
    json list = json::array();
    *routes = 0;
    for (const auto &[name, t] : all.all()) {
        const auto count = static_cast<uint64_t>(std::max(t.record->rate_route_count, 0));
        *routes += count;
        list.push_back({{"name", name},
                        {"id", t.tid == default_tid ? 0U : t.tid},
                        {"routes", count},
                        {"signals", t.record->signal_route_count}});
    }
    return list;
}

json kernel_json(const linux_status &s) {
    return {{"own_entries", s.own_entries},
            {"derived_entries", s.derived_entries},
            {"held_entries", s.held_entries},
            {"reports", s.reports},
            {"failures", s.kernel_failures},
            {"full", s.full},
            {"most_interfaces", s.most_interfaces},
            {"absent_interfaces", s.absent_interfaces},
            {"ttl_thresholds_not_enforced", s.ttl_thresholds},
            {"neighbours_wanted", s.neighbours_wanted},
            {"neighbour_limit", s.neighbour_limit},
            {"neighbours_short", s.neighbours_short != 0}};
}

}  // namespace

command_handler owner_process::handler() {
    return {[this](std::string_view text) { return run_line(text); },
            [this](const std::string &name, const json &args, json *result) {
                try {
                    return run_action(name, args, result);
                } catch (const bad_argument &bad) {
                    return failure(EINVAL, bad.text);
                }
            }};
}

outcome owner_process::run_line(std::string_view text) {
    ++commands_;
    std::string reason;
    if (!config::parse_line(text, &line_, &reason)) {
        return failure(EINVAL, std::move(reason));
    }
    routes_changed_ = true;
    return state_->execute(line_);
}

outcome owner_process::run_action(const std::string &name, const json &args, json *result) {
    if (name == "status") {
        return status(result);
    }
    if (name == "line") {
        return run_line(text_of(args, "line"));
    }
    if (name == "route.add") {
        return run_line(route_text_of(args, "to", true));
    }
    if (name == "route.delete") {
        return run_line("no " + route_text_of(args, "interfaces", false));
    }
    if (name == "output.add" || name == "output.delete") {
        return change_output(args, name == "output.add");
    }
    if (name == "table.add") {
        const auto id = args.find("id");
        if (id == args.end() || !id->is_number_unsigned()) {
            throw bad_argument{"\"id\" is no number"};
        }
        const std::vector<std::string> ports = words_of(args, "interfaces");
        return run_line("vrf " + one_word(text_of(args, "name"), "name") + " table " + id->dump() +
                        (ports.empty() ? "" : " interface" + joined(ports)));
    }
    if (name == "table.delete") {
        return run_line("no vrf " + one_word(text_of(args, "name"), "name"));
    }
    ++commands_;
    if (name == "interface.set") {
        return set_interface(args);
    }
    if (name == "signal.clear") {
        return clear_signals(args, result);
    }
    if (name == "shutdown") {
        return shut_down(args);
    }
    return failure(ENOSYS, "there is no action \"" + name + "\"");
}

outcome owner_process::change_output(const json &args, bool add) {
    if (texts_of(args, "interfaces").empty()) {
        throw bad_argument{"\"interfaces\" is empty"};
    }
    ++commands_;
    // As `no` the line need not name where packets come from.
    const std::string text = "no " + route_text_of(args, "interfaces", false);
    outcome o = parse(text, &line_);  // has parts of the text
    if (o.failed()) {
        return o;
    }
    routes_changed_ = true;
    state::route_request request;
    request.vrf = line_.vrf;
    request.source = line_.source.address;
    request.group = line_.group;
    request.to = line_.to;
    return state_->change_outputs(request, add);
}

outcome owner_process::set_interface(const json &args) {
    state::interface_request request;
    const std::string name = text_of(args, "interface");
    request.name = name;
    const auto enabled = args.find("enabled");
    if (enabled != args.end() && !enabled->is_null()) {
        request.enabled = flag_of(args, "enabled", false) ? config::switch_word::enable
                                                          : config::switch_word::disable;
    }
    const auto ttl = args.find("ttl_threshold");
    if (ttl != args.end() && !ttl->is_null()) {
        uint32_t number = 0;
        if (!ttl->is_number_unsigned() ||
            !config::parse_number(ttl->dump(), 0, UINT8_MAX, &number)) {
            throw bad_argument{"\"ttl_threshold\" is a number from 0 (none) to 255"};
        }
        request.ttl = static_cast<int>(number);
    }
    const auto boundary = args.find("boundary");
    if (boundary != args.end() && !boundary->is_null()) {
        request.sets_boundary = true;
        for (const std::string &prefix : words_of(args, "boundary")) {
            config::line l;
            const std::string text = "boundary x group " + prefix;
            outcome o = parse(text, &l);
            if (o.failed()) {
                return o;
            }
            request.boundary.push_back(l.group);
        }
    }
    return state_->set_interface(request);
}

outcome owner_process::clear_signals(const json &args, json *result) {
    const std::string vrf = text_of(args, "table", config::default_vrf);
    const table *t = state_->all_tables().find(vrf);
    if (t == nullptr) {
        return failure(ENOENT, "there is no VRF " + vrf);
    }
    ip_maddr_st source{};
    ip_maddr_st group{};
    for (const auto &[name, address] : {std::pair{"source", &source}, std::pair{"group", &group}}) {
        const std::string text = text_of(args, name, "::");
        if (!config::parse_ipv6(text, address)) {
            throw bad_argument{"\"" + text + "\" is no IPv6 address"};
        }
    }
    (*result)["ended"] = end_signals(*t, source, group);
    return {};
}

// The answer goes out first.
outcome owner_process::shut_down(const json &args) {
    shutdown_keeps_ = flag_of(args, "keep", false);
    shutdown_asked_ = true;
    return {};
}

outcome owner_process::status(json *result) {
    uint64_t routes = 0;
    json &r = *result;
    r["pid"] = getpid();
    r["version"] = fmt::format("{}.{}", IP6MC_VERSION_MAJOR, IP6MC_VERSION_MINOR);
    r["generation"] = window_generation();
    r["uptime_ms"] = (monotonic_ns() - started_ns_) / 1'000'000;
    r["platform"] = platform_.name;
    r["tables"] = tables_json(state_->all_tables(), &routes);
    r["routes"] = routes;
    uint32_t library_state = 0;
    uint32_t platform_state = 0;
    const cerrno rc = ip6mc_get_state(&library_state, &platform_state);
    r["platform_ready"] = rc == 0 && platform_state == IPV4MC_PLATFORM_STATE_READY;
    r["library_ready"] = rc == 0 && library_state == IPV4MC_LIB_STATE_READY;
    r["restart"] = {{"took_us", start_took_ns_ / 1000},
                    {"new_window", is_new_window_},
                    {"kept", resync_.kept},
                    {"programmed", resync_.programmed},
                    {"removed", resync_.removed},
                    {"failed", resync_.failed}};
    shmwin_usage usage{};
    shmwin_epoch_state epochs{};
    shmwin_get_usage(ipv4mc_desc->shmwin_id, &usage);
    shmwin_get_epochs(ipv4mc_desc->shmwin_id, &epochs);
    r["window"] = {{"used", usage.used},       {"peak", usage.peak},
                   {"limit", usage.limit},     {"owners", usage.opened},
                   {"undone", usage.undone},   {"waiting_blocks", epochs.deferred + epochs.held},
                   {"readers", epochs.readers}};
    r["connections"] = server_->connections();
    r["commands"] = commands_;
    r["flows_answered"] = flows_answered_;
    if (platform_.get_status != nullptr) {
        linux_status s{};
        platform_.get_status(&s);
        r["kernel"] = kernel_json(s);
    }
    return {};
}

}  // namespace mfwd6::daemon
