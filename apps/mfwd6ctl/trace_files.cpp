#include "apps/mfwd6ctl/trace_files.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "apps/mfwd6ctl/output/words.h"

namespace ctl {
namespace {

// Larger words are addresses, handles and bits: hexadecimal.
constexpr uint64_t readable_words = 65536;

}  // namespace

std::vector<std::string> ring_files(const std::string &folder) {
    std::vector<std::string> paths;
    std::error_code error;
    for (std::filesystem::directory_iterator at(folder + "/trace", error), end; !error && at != end;
         at.increment(error)) {
        paths.push_back(at->path());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

ring open_ring(const std::string &path, cerrno *why) {
    ltrace_reader *reader = nullptr;
    *why = ltrace_open(path.c_str(), &reader);
    return ring(*why == 0 ? reader : nullptr);
}

void each_record(ltrace_reader *reader, const std::function<void(const ltrace_record &)> &fn) {
    ltrace_ring_info info{};
    ltrace_info(reader, &info);
    ltrace_record record;
    for (uint64_t n = 0; n < info.slots && ltrace_next(reader, &record) == 1; ++n) {
        fn(record);
    }
}

std::string name_of(const ltrace_ring_info &info) {
    return fmt::format("{}.{} {}", info.program, info.pid, info.kind);
}

std::string time_of(const ltrace_record &record) {
    return fmt::format("{}.{:06}", wall_time_text(record.wall), record.wall / 1000 % 1'000'000);
}

std::string text_of(const ltrace_record &record) {
    std::string text = hex(record.id);
    for (uint32_t n = 0; n < record.words; ++n) {
        const uint64_t word = record.word[n];
        text += word < readable_words ? fmt::format(" {}", word) : fmt::format(" {:#x}", word);
    }
    if (record.length != 0) {
        text += " ";
        text.append(record.text, record.length);
    }
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

}  // namespace ctl
