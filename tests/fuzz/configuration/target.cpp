// Configuration lines and documents. The bytes are files, parted by form feeds and named "0", "1"
// and so on; "0" is the one that is read, and the others are there to be included.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "apps/mfwd6d/config/document.h"
#include "apps/mfwd6d/config/scan.h"

namespace config = mfwd6::config;

namespace {

constexpr char between_files = '\f';

[[noreturn]] void complain(const char *what, const std::string &text) {
    fprintf(stderr, "DISAGREEMENT: %s:\n%s\n", what, text.c_str());
    abort();
}

std::vector<std::string> parts(std::string_view text, char separator) {
    std::vector<std::string> result;
    for (;;) {
        const size_t end = std::min(text.find(separator), text.size());
        result.emplace_back(text.substr(0, end));
        if (end == text.size()) {
            return result;
        }
        text.remove_prefix(end + 1);
    }
}

// A sentence has something in it, and nothing that a terminal would act on.
void check_sentence(const std::string &sentence) {
    const bool clean =
        std::all_of(sentence.begin(), sentence.end(), [](char c) { return c >= ' ' && c <= '~'; });
    if (sentence.empty() || !clean) {
        complain("this is no sentence", sentence);
    }
}

bool same_line(const config::line &a, const config::line &b) {
    return a.kind == b.kind && a.remove == b.remove && a.flags == b.flags &&
           a.enabled == b.enabled && a.ttl == b.ttl && a.table_id == b.table_id && a.vrf == b.vrf &&
           a.path == b.path && a.from == b.from && a.to == b.to && a.source == b.source &&
           a.group == b.group;
}

// An accepted line is written as a line that says the same and is written so itself.
void check_line(const std::string &text) {
    static config::line reused;
    config::line fresh;
    std::string reason;
    const bool good = config::parse_line(text, &fresh, &reason);
    if (config::parse_line(text, &reused, &reason) != good || (good && !same_line(reused, fresh))) {
        complain("the line before changes how this one is read", text);
    }
    if (!good) {
        check_sentence(reason);
        return;
    }
    const std::string written = config::line_text(fresh);
    config::line again;
    if (!config::parse_line(written, &again, &reason)) {
        complain("what was written is refused", written + "\n" + reason);
    }
    if (!same_line(fresh, again) || config::line_text(again) != written) {
        complain("what was written says something else", written);
    }
}

config::file_reader reader_of(const std::vector<std::string> &files) {
    const auto find = [&files](std::string_view name) -> const std::string * {
        uint32_t n = 0;
        const auto last = static_cast<uint32_t>(files.size() - 1);
        return config::parse_number(name, 0, last, &n) ? &files[n] : nullptr;
    };
    return {[find](const std::string &path, std::string *text) -> std::string {
                const std::string *file = find(path);
                if (file != nullptr) {
                    *text = *file;
                }
                return file != nullptr ? "" : "No such file";
            },
            [find](std::string_view pattern, const std::string &,
                   std::vector<std::string> *paths) -> std::string {
                if (find(pattern) != nullptr) {
                    paths->emplace_back(pattern);
                }
                return "";
            }};
}

bool same_routes(const config::document &a, const config::document &b) {
    return a.routes.size() == b.routes.size() &&
           std::all_of(a.routes.begin(), a.routes.end(), [&b](const auto &route) {
               const auto at = b.routes.find(route.first);
               return at != b.routes.end() && at->second.asks_the_same(route.second);
           });
}

bool same(const config::document &a, const config::document &b) {
    return a.vrfs.size() == b.vrfs.size() && a.interfaces.size() == b.interfaces.size() &&
           a.same_but_routes(b) && same_routes(a, b);
}

// What was read is written as a text that says the same, whatever `out` held before.
void check_document(const std::vector<std::string> &files) {
    static config::document used;
    config::document fresh;
    std::string error;
    const config::file_reader reader = reader_of(files);
    const bool good = config::read_document("0", reader, &fresh, &error);
    if (config::read_document("0", reader, &used, &error) != good || (good && !same(used, fresh))) {
        complain("the document before changes how this one is read", files[0]);
    }
    if (!good) {
        check_sentence(error);
        return;
    }
    const std::string written = config::document_text(fresh);
    config::document again;
    if (!config::parse_document(written, "written", &again, &error)) {
        complain("what was written is refused", written + "\n" + error);
    }
    if (!same(fresh, again)) {
        complain("what was written says something else", written);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    const std::vector<std::string> files =
        parts({reinterpret_cast<const char *>(bytes), size}, between_files);
    for (const std::string &file : files) {
        for (const std::string &line : parts(file, '\n')) {
            check_line(line);
        }
    }
    check_document(files);
    return 0;
}
