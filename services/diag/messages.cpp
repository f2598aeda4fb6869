#include "services/diag/messages.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "services/events/ptimer.h"

namespace {

constexpr size_t line_size = 2048;
constexpr uint64_t second = 1'000'000'000;

// The limit of one record.
struct stretch {
    const orv_msg_rec *record;
    uint64_t begun;
    uint64_t suppressed;
};

constexpr size_t most_stretches = 256;
std::mutex guard;  // of all below
stretch stretches[most_stretches];
size_t used;
qv_syslog_sink_ft sink;
void *sink_context;

std::atomic<uint64_t (*)(void)> clock_function;
std::atomic<uint64_t> waiting;  // suppressed messages not told yet

uint64_t now() {
    if (uint64_t(*clock)(void) = clock_function.load(std::memory_order_acquire); clock != nullptr) {
        return clock();
    }
    timespec time = {};
    ptimer_gettime(&time);
    return static_cast<uint64_t>(time.tv_sec) * second + static_cast<uint64_t>(time.tv_nsec);
}

bool is_limited(const orv_msg_rec *record) {
    return record->limit != nullptr && record->limit->seconds != 0;
}

uint64_t limit_of(const orv_msg_rec *record) {
    return record->limit->seconds * second;
}

// NULL for a record beyond those that can be kept: it goes out without a limit rather than not at
// all.
stretch *find(const orv_msg_rec *record, bool add) {
    for (size_t i = 0; i < used; ++i) {
        if (stretches[i].record == record) {
            return &stretches[i];
        }
    }
    if (!add || used == most_stretches) {
        return nullptr;
    }
    stretches[used] = {record, 0, 0};
    return &stretches[used++];
}

const char *or_none(const char *text) {
    return text == nullptr ? "" : text;
}

void tell_suppressed(const orv_msg_rec *record, uint64_t count, uint64_t elapsed) {
    qv_syslog(record->severity, "%s-%s-%u-%s: %llu messages suppressed in the last %llu seconds",
              or_none(record->category), or_none(record->facility), record->severity,
              or_none(record->name), static_cast<unsigned long long>(count),
              static_cast<unsigned long long>(elapsed / second));
}

struct verdict {
    bool send;
    uint64_t suppressed;  // to be told before the message
    uint64_t elapsed;
};

verdict pass_limit(const orv_msg_rec *record) {
    if (!is_limited(record)) {
        return {true, 0, 0};
    }
    const uint64_t time = now();
    const std::lock_guard hold(guard);
    const stretch *known = find(record, false);
    stretch *entry = find(record, true);
    if (entry == nullptr) {
        return {true, 0, 0};
    }
    const uint64_t elapsed = time - entry->begun;
    if (known != nullptr && elapsed < limit_of(record)) {
        ++entry->suppressed;
        waiting.fetch_add(1, std::memory_order_relaxed);
        return {false, 0, 0};
    }
    const verdict passed = {true, entry->suppressed, elapsed};
    waiting.fetch_sub(entry->suppressed, std::memory_order_relaxed);
    entry->begun = time;
    entry->suppressed = 0;
    return passed;
}

void strip_line_end(char *text) {
    size_t length = strlen(text);
    while (length > 0 && text[length - 1] == '\n') {
        text[--length] = '\0';
    }
}

}  // namespace

void orv_errmsg(const orv_msg_rec *record, uint32_t severity, ...) {
    if (record == nullptr || record->format == nullptr) {
        return;
    }
    const verdict passed = pass_limit(record);
    if (!passed.send) {
        return;
    }
    if (passed.suppressed != 0) {
        tell_suppressed(record, passed.suppressed, passed.elapsed);
    }
    char text[line_size];
    va_list arguments;
    va_start(arguments, severity);
    vsnprintf(text, sizeof(text), record->format, arguments);
    va_end(arguments);
    strip_line_end(text);
    qv_syslog(severity, "%s-%s-%u-%s: %s", or_none(record->category), or_none(record->facility),
              severity, or_none(record->name), text);
}

void orv_msg_tick(void) {
    if (waiting.load(std::memory_order_relaxed) == 0) {
        return;
    }
    const uint64_t time = now();
    for (size_t i = 0; i < most_stretches; ++i) {
        stretch ended = {};
        {
            const std::lock_guard hold(guard);
            if (i >= used) {
                return;
            }
            const bool over = time - stretches[i].begun >= limit_of(stretches[i].record);
            if (!over || stretches[i].suppressed == 0) {
                continue;
            }
            ended = stretches[i];
            stretches[i].suppressed = 0;
            waiting.fetch_sub(ended.suppressed, std::memory_order_relaxed);
        }
        tell_suppressed(ended.record, ended.suppressed, time - ended.begun);
    }
}

uint64_t orv_msg_suppressed(const orv_msg_rec *record) {
    const std::lock_guard hold(guard);
    const stretch *entry = find(record, false);
    return entry == nullptr ? 0 : entry->suppressed;
}

void orv_msg_set_clock(uint64_t (*clock)(void)) {
    clock_function.store(clock, std::memory_order_release);
}

void qv_syslog(uint32_t severity, const char *format, ...) {
    if (format == nullptr) {
        return;
    }
    char line[line_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    qv_syslog_sink_ft to = nullptr;
    void *context = nullptr;
    {
        const std::lock_guard hold(guard);
        to = sink;
        context = sink_context;
    }
    const uint32_t priority = severity > LOG_DEBUG ? LOG_DEBUG : severity;
    if (to != nullptr) {
        to(context, priority, line);
    } else {
        syslog(static_cast<int>(priority), "%s", line);
    }
}

void qv_syslog_set_sink(qv_syslog_sink_ft to, void *context) {
    const std::lock_guard hold(guard);
    sink = to;
    sink_context = context;
}
