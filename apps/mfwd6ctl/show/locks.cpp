// show locks, show clients: who has the window open, who holds what in it, who waits.
#include <fmt/format.h>

#include <fstream>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/window/lock_state.h"

namespace ctl {
namespace {

std::string text_of(const lock_user &user) {
    std::string text = user.pid != 0 ? fmt::format("{}[{}", user.name, user.pid) : "gone[";
    if (user.thread != 0 && user.thread != static_cast<uint32_t>(user.pid)) {
        text += fmt::format("/{}", user.thread);
    }
    text += "]";
    if (user.holds > 1) {
        text += fmt::format(" x{}", user.holds);
    }
    return user.alive ? text : text + " dead";
}

std::string text_of(const std::vector<lock_user> &users) {
    std::vector<std::string> words;
    for (const lock_user &user : users) {
        words.push_back(text_of(user));
    }
    return words.empty() ? "-" : joined(words, ", ");
}

json to_json(const std::vector<lock_user> &users) {
    json list = json::array();
    for (const lock_user &user : users) {
        list.push_back({{"pid", user.pid},
                        {"thread", user.thread},
                        {"name", user.name},
                        {"alive", user.alive},
                        {"holds", user.holds}});
    }
    return list;
}

void show_locks(const options &how) {
    const window w(how, need::header);
    const std::vector<lock_copy> locks = read_locks(w);
    if (how.json) {
        json_array list("locks");
        for (const lock_copy &lock : locks) {
            json j;
            j["name"] = lock.name;
            j["holders"] = to_json(lock.holders);
            j["readers"] = to_json(lock.readers);
            j["waiters"] = to_json(lock.waiters);
            j["contended"] = lock.contended;
            j["deaths"] = lock.deaths;
            j["taken_at"] = lock.where;
            list.add(j);
        }
        list.end();
        return;
    }
    text_table table({"LOCK", "HOLDER", "READERS", "WAITING", ">DEATHS", "LAST TAKEN AT"});
    for (const lock_copy &lock : locks) {
        const std::string waiting =
            lock.waiters.empty() && lock.contended ? "somebody" : text_of(lock.waiters);
        table.add({lock.name, text_of(lock.holders), text_of(lock.readers), waiting,
                   std::to_string(lock.deaths), lock.where.empty() ? "-" : lock.where});
    }
    table.end();
}

// What the kernel says that a process does: "running", "sleeping", "stopped", ...
std::string activity_of(const shmwin_process &p) {
    if (p.alive == 0) {
        return "dead";
    }
    std::ifstream file(fmt::format("/proc/{}/stat", p.pid));
    std::string stat;
    std::getline(file, stat);
    const size_t name_end = stat.rfind(')');
    switch (name_end != std::string::npos && name_end + 2 < stat.size() ? stat[name_end + 2]
                                                                        : '?') {
        case 'R':
            return "running";
        case 'T':
        case 't':
            return "stopped";
        case 'Z':
        case 'X':
            return "ending";
        case '?':
            return "unknown";  // of another pid namespace, perhaps
        default:
            return "sleeping";
    }
}

void show_clients(const options &how) {
    const window w(how, need::header);
    const std::vector<shmwin_process> processes = w.processes();
    if (how.json) {
        json_array list("clients");
        for (const shmwin_process &p : processes) {
            json j;
            j["pid"] = p.pid;
            j["name"] = p.name;
            j["role"] = p.owner != 0 ? "owner" : "client";
            j["alive"] = p.alive != 0;
            j["activity"] = activity_of(p);
            j["since"] = p.opened_at / 1'000'000'000;
            list.add(j);
        }
        list.end();
        return;
    }
    text_table table({">PID", "NAME", "ROLE", "ACTIVITY", "SINCE"});
    for (const shmwin_process &p : processes) {
        table.add({std::to_string(p.pid), p.name, p.owner != 0 ? "owner" : "client", activity_of(p),
                   wall_time_text(p.opened_at)});
    }
    table.end();
}

}  // namespace

void add_show_locks(CLI::App &show, const options &how) {
    CLI::App *command =
        show.add_subcommand("locks", "Locks of the window: holders, readers, waiters");
    command->footer(
        "Nothing is locked to look. Waiters of other users are seen by root only.\n\n"
        "Examples:\n  mfwd6ctl show locks\n  mfwd6ctl show locks --json");
    command->callback([&how] { show_locks(how); });
}

void add_show_clients(CLI::App &show, const options &how) {
    CLI::App *command = show.add_subcommand("clients", "Processes that have the window open");
    command->footer("Examples:\n  mfwd6ctl show clients\n  mfwd6ctl show clients --json");
    command->callback([&how] { show_clients(how); });
}

}  // namespace ctl
