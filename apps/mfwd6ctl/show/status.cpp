// show status: what the owner says of itself, and what the window says of the owner.
#include <fmt/format.h>

#include <algorithm>

#include "apps/mfwd6ctl/command/socket.h"
#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/window/attach.h"
#include "services/window/inspect.h"

namespace ctl {
namespace {

// A status is asked for to see whether somebody answers: no reason to wait long.
constexpr double patience_s = 2;

json window_status(const options &how) {
    const window w(how, need::header);
    shmwin_usage usage{};
    shmwin_get_usage(w.id(), &usage);
    const std::vector<shmwin_process> processes = w.processes();
    const int32_t owner = w.owner_pid();
    json j;
    j["owner_alive"] = owner != 0;
    j["owner_pid"] = owner != 0 ? json(owner) : json(nullptr);
    j["clients"] = static_cast<uint32_t>(std::count_if(
        processes.begin(), processes.end(), [](const shmwin_process &p) { return p.alive != 0; }));
    j["layout_version"] = fmt::format("{}.{}", w.header().version_major, w.header().version_minor);
    j["generation"] = usage.generation;
    j["owners_ever"] = usage.opened;
    j["changes_run_back"] = usage.undone;
    j["used"] = usage.used;
    j["limit"] = usage.limit;
    j["damage_suspected"] = w.header().mlib_corrupted != 0;
    return j;
}

struct outcome {
    json report = nullptr;  // null: could not be had, and why
    std::string why;
    exit_code code = exit_code::good;
};

template <class Ask>
outcome attempt(Ask ask) {
    outcome o;
    try {
        o.report = ask();
    } catch (const failure &f) {
        if (f.code() == exit_code::interrupted) {
            throw;
        }
        o.why = f.what();
        o.code = f.code();
    }
    return o;
}

void write_value(const std::string &name, const json &value, int indent) {
    const std::string pad(static_cast<size_t>(indent), ' ');
    if (value.is_object()) {
        put(fmt::format("{}{}\n", pad, name));
        for (const auto &[key, inner] : value.items()) {
            write_value(key, inner, indent + 2);
        }
        return;
    }
    const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    const auto width = static_cast<size_t>(std::max(24 - indent, 1));
    put(fmt::format("{}{:<{}} {}\n", pad, name, width, value.is_null() ? "-" : text));
}

void write_part(const char *title, const outcome &o) {
    put(fmt::format("{}\n", title));
    if (o.report.is_null()) {
        put("  " + o.why + "\n");
        return;
    }
    for (const auto &[key, value] : o.report.items()) {
        write_value(key, value, 2);
    }
}

// Good when both answer, else the code of what did not: the owner's first.
exit_code code_of(const outcome &owner, const outcome &shared) {
    return owner.code != exit_code::good ? owner.code : shared.code;
}

void show_status(const options &how) {
    options patience = how;
    patience.timeout_s = std::min(how.timeout_s, patience_s);
    const outcome shared = attempt([&] { return window_status(how); });
    const outcome owner = attempt([&] { return ask_owner(patience, "status", json::object()); });
    if (how.json) {
        json j;
        j["owner"] = owner.report;
        j["window"] = shared.report;
        j["errors"] = json::array();
        for (const outcome *o : {&owner, &shared}) {
            if (o->report.is_null()) {
                j["errors"].push_back(o->why);
            }
        }
        put_json(j);
    } else {
        write_part("owner", owner);
        write_part("window", shared);
    }
    if (const exit_code code = code_of(owner, shared); code != exit_code::good) {
        throw failure(code, "");
    }
}

}  // namespace

void add_show_status(CLI::App &show, const options &how) {
    CLI::App *command =
        show.add_subcommand("status", "What the owner says of itself, and the window of its owner");
    command->footer(
        "The exit code is 0 only when owner and window both answer, so it serves as a probe.\n\n"
        "Examples:\n  mfwd6ctl show status\n  mfwd6ctl show status --json");
    command->callback([&how] { show_status(how); });
}

}  // namespace ctl
