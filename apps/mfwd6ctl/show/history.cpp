#include "apps/mfwd6ctl/show/history.h"

#include <algorithm>

#include "apps/mfwd6ctl/command/socket.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/interrupts.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/trace_files.h"

namespace ctl {
namespace {

// The history is an extra: nobody waits long for it.
constexpr double owner_patience_s = 2;

bool is_address_letter(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0 || c == ':';
}

// Whether `word` stands in `text` and is not part of a longer address.
bool names(const std::string &text, const std::string &word) {
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
        const size_t end = at + word.size();
        const bool begins = at == 0 || !is_address_letter(text[at - 1]);
        const bool ends = end == text.size() || !is_address_letter(text[end]);
        if (begins && ends) {
            return true;
        }
    }
    return false;
}

struct timed_event {
    uint64_t wall;
    history_event event;
};

void search_ring(ltrace_reader *reader, const route_key &key, std::vector<timed_event> &found) {
    const std::string group = address_text(key.group);
    const std::string source = address_text(key.source);
    ltrace_ring_info info{};
    ltrace_info(reader, &info);
    each_record(reader, [&](const ltrace_record &record) {
        const std::string text(record.text, record.length);
        if (names(text, group) && (is_any(key.source) || names(text, source))) {
            found.push_back({record.wall, {time_of(record), name_of(info), text_of(record)}});
        }
    });
}

const char *event_text(uint32_t code) {
    switch (code) {
        case 1:
            return "put on the retry queue";
        case 2:
            return "retry begins";
        case 3:
            return "retry done";
        case 4:
            return "resources are there again";
        case 5:
            return "held back: the hardware is out of resources";
        default:
            return "event";
    }
}

}  // namespace

std::vector<history_event> traced_history(const options &how, const route_key &key, size_t most) {
    std::vector<timed_event> found;
    for (const std::string &path : ring_files(how.folder())) {
        stop_if_interrupted();
        cerrno why = 0;
        if (const ring reader = open_ring(path, &why)) {
            search_ring(reader.get(), key, found);
        }
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const timed_event &a, const timed_event &b) { return a.wall < b.wall; });
    const size_t first = found.size() > most ? found.size() - most : 0;
    std::vector<history_event> events;
    for (size_t n = first; n < found.size(); ++n) {
        events.push_back(std::move(found[n].event));
    }
    return events;
}

std::vector<history_event> owner_history(const options &how, const std::string &table,
                                         const route_key &key) {
    options patience = how;
    patience.timeout_s = std::min(how.timeout_s, owner_patience_s);
    json args;
    args["table"] = table;
    if (!is_any(key.source)) {
        args["source"] = address_text(key.source);
    }
    args["group"] = group_text(key.group, key.length);
    std::vector<history_event> events;
    try {
        command_socket socket(patience);
        const answer a = socket.ask("route.history", args);
        if (a.code != 0 || !a.result.contains("events")) {
            return {};
        }
        for (const json &e : a.result["events"]) {
            const auto code = e.value("code", 0U);
            events.push_back({e.value("time", std::string()), "owner", event_text(code)});
        }
    } catch (const failure &f) {
        if (f.code() == exit_code::interrupted) {
            throw;
        }
    }
    return events;
}

}  // namespace ctl
