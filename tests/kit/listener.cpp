#include "tests/kit/listener.h"

#include <time.h>

#include <memory>
#include <string_view>

#include "services/diag/debug.h"
#include "services/diag/messages.h"

namespace kit {
namespace {

constexpr std::string_view error_prefix = "ERR: ipv4_mlib_buginf_err: ";

uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

listener::listener(uint64_t classes) : started_ns_(now_ns()) {
    ipv4_debug_set_sink(on_line, this);
    ipv4_debug_switch(nullptr, classes, ~classes);
    qv_syslog_set_sink(on_message, this);
    ltrace_open_handle(ip6mc_mlib_err_ltrace(), &errors_);
    errors();  // what was there before is not ours
}

listener::~listener() {
    ipv4_debug_switch(nullptr, 0, ~uint64_t{0});
    ipv4_debug_set_sink(nullptr, nullptr);
    qv_syslog_set_sink(nullptr, nullptr);
    ltrace_close(errors_);
}

std::vector<std::string> listener::errors() {
    std::vector<std::string> texts;
    const auto record = std::make_unique<ltrace_record>();
    while (ltrace_next(errors_, record.get()) == 1) {
        std::string_view text(record->text, record->length);
        if (text.starts_with(error_prefix)) {
            text.remove_prefix(error_prefix.size());
        }
        texts.emplace_back(text);
    }
    return texts;
}

std::vector<std::string> listener::lines(uint32_t debug_class) const {
    std::vector<std::string> texts;
    for (const debug_line &line : lines_) {
        if (line.debug_class == debug_class) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

void listener::clear() {
    lines_.clear();
    messages_.clear();
    errors();
}

std::vector<ltrace_record> listener::traces(ltrace_handle *handle, uint64_t id) const {
    std::vector<ltrace_record> found;
    ltrace_reader *reader = nullptr;
    if (ltrace_open_handle(handle, &reader) != 0) {
        return found;
    }
    const auto record = std::make_unique<ltrace_record>();
    while (ltrace_next(reader, record.get()) == 1) {
        // The trace's clock is coarse: a record of the same tick counts.
        if (record->id == id && record->time + 10'000'000 >= started_ns_) {
            found.push_back(*record);
        }
    }
    ltrace_close(reader);
    return found;
}

void listener::on_line(void *self, uint32_t debug_class, const char *header, const char *text) {
    static_cast<listener *>(self)->lines_.push_back({debug_class, header, text});
}

void listener::on_message(void *self, uint32_t severity, const char *line) {
    static_cast<listener *>(self)->messages_.push_back({severity, line});
}

}  // namespace kit
