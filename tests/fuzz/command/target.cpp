// One request line. What the reader of bulk requests makes of it is compared with what a library
// that reads all of JSON says.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "apps/mfwd6d/command/json_scan.h"

namespace daemon_ns = mfwd6::daemon;
using nlohmann::json;

namespace {

constexpr size_t id_bytes = 64;
constexpr size_t escape_bytes = 6;        // \uXXXX, the longest form of a byte of text
constexpr int number_out_of_range = 406;  // of the library: JSON, but more than a double holds
constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";

[[noreturn]] void complain(const char *what, std::string_view line) {
    fprintf(stderr, "DISAGREEMENT: %s:\n%.*s\n", what, static_cast<int>(line.size()), line.data());
    abort();
}

enum class verdict { json, no_json, too_large_number };

// What the library says of a line.
struct reading {
    verdict says = verdict::no_json;
    json value;
    size_t depth = 0;        // 1 for an object without others
    bool has_twins = false;  // a name twice in one object
};

reading read(std::string_view line) {
    reading r;
    // The library leaves out a byte order mark and ends at a 0, which are no JSON.
    if (line.starts_with(byte_order_mark) || line.find('\0') != std::string_view::npos) {
        return r;
    }
    std::vector<std::set<std::string>> names;
    const auto watch = [&](int, json::parse_event_t event, json &parsed) {
        switch (event) {
            case json::parse_event_t::object_start:
            case json::parse_event_t::array_start:
                names.emplace_back();
                r.depth = std::max(r.depth, names.size());
                break;
            case json::parse_event_t::object_end:
            case json::parse_event_t::array_end:
                names.pop_back();
                break;
            case json::parse_event_t::key:
                r.has_twins |= !names.back().insert(parsed.get<std::string>()).second;
                break;
            case json::parse_event_t::value:
                break;
        }
        return true;
    };
    try {
        r.value = json::parse(line, watch);
        r.says = verdict::json;
    } catch (const json::exception &e) {
        r.says = e.id == number_out_of_range ? verdict::too_large_number : verdict::no_json;
    }
    return r;
}

enum class answer { yes, no, either };

// A number may be written in more bytes than it needs, and a text with escapes.
answer id_is_short(const json &id) {
    if (id.is_string()) {
        const size_t bytes = id.get_ref<const std::string &>().size();
        return bytes * escape_bytes + 2 <= id_bytes ? answer::yes : answer::either;
    }
    return id.is_number_integer() ? answer::yes : answer::either;
}

answer wanted(const reading &r) {
    if (r.says != verdict::json) {
        return r.says == verdict::no_json ? answer::no : answer::either;
    }
    if (!r.value.is_object() || r.depth > daemon_ns::json_depth + 1 ||
        (r.value.contains("args") && !r.value["args"].is_object())) {
        return answer::no;
    }
    if (!r.value.contains("id") || r.value["id"].is_null()) {
        return answer::yes;
    }
    const json &id = r.value["id"];
    return id.is_number() || id.is_string() ? id_is_short(id) : answer::no;
}

void check_parts(const daemon_ns::request_parts &parts, const json &request,
                 std::string_view line) {
    const json id = request.contains("id") ? request["id"] : json();
    if (json::parse(parts.id) != id) {
        complain("another id", line);
    }
    const json args = request.contains("args") ? request["args"] : json::object();
    if (json::parse(parts.args) != args) {
        complain("other args", line);
    }
    const bool named = request.contains("action") && request["action"].is_string();
    std::string quoted(1, '"');
    quoted.append(parts.action).append(1, '"');
    if (json::parse(quoted) != (named ? request["action"] : json(""))) {
        complain("another action", line);
    }
}

void check_lines(std::string_view raw_args, const json &args, std::string_view line) {
    std::vector<std::string> texts;
    std::string buffer;
    const bool good =
        daemon_ns::each_string(raw_args, "lines", &buffer, [&](std::string_view text) {
            texts.emplace_back(text);
            return true;
        });
    const auto at = args.find("lines");
    const bool is_list =
        at != args.end() && at->is_array() &&
        std::all_of(at->begin(), at->end(), [](const json &text) { return text.is_string(); });
    if (good != is_list) {
        complain(good ? "\"lines\" is no list of texts" : "\"lines\" is a list of texts", line);
    }
    if (good && json(texts) != *at) {
        complain("other lines", line);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    const std::string_view line(reinterpret_cast<const char *>(bytes), size);
    const reading r = read(line);
    const answer expected = wanted(r);
    daemon_ns::request_parts parts;
    const bool good = daemon_ns::split_request(line, &parts);
    if (expected != answer::either && good != (expected == answer::yes)) {
        complain(good ? "taken, but no request" : "a request, but refused", line);
    }
    if (good && parts.id.size() > id_bytes) {
        complain("the id is too long to be repeated", line);
    }
    if (good && r.says == verdict::json && !r.has_twins) {
        check_parts(parts, r.value, line);
        check_lines(parts.args, json::parse(parts.args), line);
    }
    return 0;
}
