// trace: records of the trace rings of all processes, living and dead. No window is needed.
#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <memory>
#include <set>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/interrupts.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/trace_files.h"

namespace ctl {
namespace {

constexpr int follow_pause_ms = 100;

struct request {
    std::string program;
    std::string kind;
    int32_t pid = 0;
    std::vector<std::string> ids;
    std::string text;
    size_t last = 0;  // 0: all
    bool follow = false;
    bool list = false;
    bool traceback = false;
};

std::set<uint64_t> ids_of(const request &r) {
    std::set<uint64_t> ids;
    for (const std::string &text : r.ids) {
        const bool is_hex = text.rfind("0x", 0) == 0;
        const char *begin = text.data() + (is_hex ? 2 : 0);
        const char *end = text.data() + text.size();
        uint64_t id = 0;
        const auto [stop, error] = std::from_chars(begin, end, id, is_hex ? 16 : 10);
        if (error != std::errc() || stop != end) {
            throw CLI::ValidationError("--id", text + " is no number, such as 0x100000001");
        }
        ids.insert(id);
    }
    return ids;
}

struct event {
    uint64_t time;  // of the machine since its start: rings of all processes can be put in order
    std::string when;
    std::string from;
    std::string text;
    std::string traceback;
    json object;
};

std::string traceback_of(const ltrace_record &record) {
    std::string text;
    for (const uint64_t address : record.traceback.address) {
        if (address != 0) {
            text += " " + hex(address);
        }
    }
    return text;
}

json object_of(const ltrace_ring_info &info, const ltrace_record &record) {
    json j;
    j["time"] = time_of(record);
    j["nanoseconds"] = record.wall;
    j["program"] = info.program;
    j["pid"] = info.pid;
    j["thread"] = record.tid;
    j["kind"] = info.kind;
    j["sequence"] = record.sequence;
    j["id"] = record.id;
    j["words"] = std::vector<uint64_t>(record.word, record.word + record.words);
    j["text"] = std::string(record.text, record.length);
    j["traceback"] = json::array();
    for (const uint64_t address : record.traceback.address) {
        if (address != 0) {
            j["traceback"].push_back(hex(address));
        }
    }
    return j;
}

// Rings that were found, each with a place in it.
class rings {
  public:
    rings(std::string folder, const request &r, bool as_json)
        : folder_(std::move(folder)), request_(r), ids_(ids_of(r)), json_(as_json) {}

    // Opens those that have come since the last time.
    void look_for_more() {
        for (const std::string &path : ring_files(folder_)) {
            if (open_.count(path) != 0) {
                continue;
            }
            cerrno why = 0;
            ring opened = open_ring(path, &why);
            forbidden_ |= why == EACCES;
            // One that is being made is tried again; one that is none is left out for good.
            if (opened != nullptr) {
                open_.emplace(path, std::move(opened));
            }
        }
    }

    // What has come since the last time, of those that are wanted, in the order of time.
    std::vector<event> take() {
        std::vector<event> events;
        for (auto &[path, reader] : open_) {
            if (reader == nullptr) {
                continue;
            }
            ltrace_ring_info info{};
            ltrace_info(reader.get(), &info);
            if (is_wanted(info)) {
                each_record(reader.get(), [&](const ltrace_record &record) {
                    if (is_wanted(record)) {
                        events.push_back(event_of(info, record));
                    }
                });
            }
            if (info.alive == 0) {
                reader.reset();  // its end was read: nothing more comes
            }
        }
        std::stable_sort(events.begin(), events.end(),
                         [](const event &a, const event &b) { return a.time < b.time; });
        return events;
    }

    std::vector<ltrace_ring_info> list() const {
        std::vector<ltrace_ring_info> infos;
        for (const auto &[path, reader] : open_) {  // none was read yet
            ltrace_ring_info info{};
            ltrace_info(reader.get(), &info);
            if (is_wanted(info)) {
                infos.push_back(info);
            }
        }
        return infos;
    }

    bool empty() const { return open_.empty(); }
    bool forbidden() const { return forbidden_; }

  private:
    bool is_wanted(const ltrace_ring_info &info) const {
        return (request_.program.empty() || request_.program == info.program) &&
               (request_.kind.empty() || request_.kind == info.kind) &&
               (request_.pid == 0 || request_.pid == info.pid);
    }
    bool is_wanted(const ltrace_record &record) const {
        return (ids_.empty() || ids_.count(record.id) != 0) &&
               (request_.text.empty() ||
                std::string_view(record.text, record.length).find(request_.text) !=
                    std::string_view::npos);
    }
    event event_of(const ltrace_ring_info &info, const ltrace_record &record) const {
        event e{record.time, "", "", "", "", nullptr};
        if (json_) {
            e.object = object_of(info, record);
            return e;
        }
        e.when = time_of(record);
        e.from = name_of(info);
        e.text = text_of(record);
        e.traceback = traceback_of(record);
        return e;
    }

    std::string folder_;
    const request &request_;
    std::set<uint64_t> ids_;
    bool json_;
    bool forbidden_ = false;
    std::map<std::string, ring> open_;  // null: read to the end of a dead process
};

void write(const std::vector<event> &events, size_t last, const request &r, bool as_json) {
    const size_t first = last != 0 && events.size() > last ? events.size() - last : 0;
    for (size_t n = first; n < events.size(); ++n) {
        const event &e = events[n];
        if (as_json) {
            put(e.object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n");
            continue;
        }
        put(fmt::format("{}  {}  {}\n", e.when, e.from, e.text));
        if (r.traceback && !e.traceback.empty()) {
            put("      called from" + e.traceback + "\n");
        }
    }
    flush_output();
}

void write_list(const std::vector<ltrace_ring_info> &infos, bool as_json) {
    if (as_json) {
        json_array list("rings");
        for (const ltrace_ring_info &info : infos) {
            json j;
            j["program"] = info.program;
            j["pid"] = info.pid;
            j["kind"] = info.kind;
            j["alive"] = info.alive != 0;
            j["written"] = info.written;
            j["slots"] = info.slots;
            j["dropped"] = info.dropped;
            list.add(j);
        }
        list.end();
        return;
    }
    text_table table({"PROGRAM", ">PID", "KIND", "WRITER", ">WRITTEN", ">SLOTS", ">DROPPED"});
    for (const ltrace_ring_info &info : infos) {
        table.add({info.program, std::to_string(info.pid), info.kind,
                   info.alive != 0 ? "alive" : "dead", std::to_string(info.written),
                   std::to_string(info.slots), std::to_string(info.dropped)});
    }
    table.end();
}

void follow(rings &all, const request &r, bool as_json) {
    for (;;) {
        stop_if_interrupted();
        poll(nullptr, 0, follow_pause_ms);
        all.look_for_more();
        write(all.take(), 0, r, as_json);
    }
}

void trace(const options &how, const request &r) {
    const std::string folder = how.folder();
    rings all(folder, r, how.json);
    all.look_for_more();
    if (all.empty() && !r.follow) {
        throw all.forbidden()
            ? failure(exit_code::forbidden, "not permitted to read the traces in " + folder)
            : failure(exit_code::absent, "no traces in " + folder + "/trace");
    }
    if (r.list) {
        write_list(all.list(), how.json);
        return;
    }
    write(all.take(), r.last, r, how.json);
    if (r.follow) {
        follow(all, r, how.json);
    }
}

}  // namespace

void add_trace(CLI::App &program, const options &how) {
    auto r = std::make_shared<request>();
    CLI::App *command =
        program.add_subcommand("trace", "Trace records of all processes, also of those that died");
    command->add_flag("--follow,-f", r->follow, "Go on with what comes, until ^C");
    command->add_option("--last,-n", r->last, "Only the latest so many")->type_name("COUNT");
    command->add_option("--id", r->ids, "Only records with this id; may be repeated")
        ->type_name("NUMBER");
    command->add_option("--text", r->text, "Only records whose text contains this")
        ->type_name("TEXT");
    command->add_option("--program", r->program, "Only processes of this program")
        ->type_name("NAME");
    command->add_option("--pid", r->pid, "Only this process")->type_name("PID");
    command->add_option("--kind", r->kind, "Only rings of this kind, as --list names them")
        ->type_name("KIND");
    command->add_flag("--traceback", r->traceback, "With the addresses that a record came from");
    command->add_flag("--list", r->list, "The rings instead of what is in them");
    command->footer(
        "With --json every record is a line of its own.\n\n"
        "Examples:\n"
        "  mfwd6ctl trace --last 50\n"
        "  mfwd6ctl trace --follow --program mfwd6d\n"
        "  mfwd6ctl trace --kind err --traceback\n"
        "  mfwd6ctl trace --id 0x100000001 --json");
    command->callback([r, &how] { trace(how, *r); });
}

}  // namespace ctl
