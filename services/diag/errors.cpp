#include "services/diag/errors.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

struct service {
    cerrno base;
    cerrno mask;
    cerr_text_ft text;
};

constexpr uint32_t most_services = 64;
constexpr cerrno errno_limit = 4096;
service services[most_services];
std::atomic<uint32_t> registered;  // entries below it never change
std::mutex registering;

const char *numbered(cerrno code) {
    constexpr size_t kept = 8;
    thread_local char texts[kept][32];
    thread_local size_t next = 0;
    char *text = texts[next];
    next = (next + 1) % kept;
    snprintf(text, sizeof(texts[0]), code < errno_limit ? "Unknown error %u" : "Unknown error 0x%x",
             code);
    return text;
}

}  // namespace

const char *cerr_strerror(cerrno code) {
    if (code < errno_limit) {
        // The table of the C library: static and not translated.
        const char *text = strerrordesc_np(static_cast<int>(code));
        return text != nullptr ? text : numbered(code);
    }
    const uint32_t count = registered.load(std::memory_order_acquire);
    for (uint32_t i = 0; i < count; ++i) {
        if ((code & services[i].mask) == services[i].base) {
            const char *text = services[i].text(code);
            if (text != nullptr) {
                return text;
            }
        }
    }
    return numbered(code);
}

cerrno cerr_register(cerrno base, cerrno mask, cerr_text_ft text) {
    if (base < errno_limit || (base & ~mask) != 0 || text == nullptr) {
        return EINVAL;
    }
    const std::lock_guard hold(registering);
    const uint32_t count = registered.load(std::memory_order_relaxed);
    for (uint32_t i = 0; i < count; ++i) {
        if (services[i].base == base && services[i].mask == mask) {
            return services[i].text == text ? 0 : EEXIST;
        }
    }
    if (count == most_services) {
        return ENOSPC;
    }
    services[count] = {base, mask, text};
    registered.store(count + 1, std::memory_order_release);
    return 0;
}
