#include "services/diag/text.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "services/diag/debug.h"

namespace {

const char *library_state(uint32_t state) {
    static const char *const texts[] = {"DOWN", "INIT", "READY"};
    return state < 3 ? texts[state] : "UNKNOWN";
}

const char *idb_state(uint32_t state) {
    static const char *const texts[] = {"DOWN", "WAITING FOR PLATFORM", "READY"};
    return state < 3 ? texts[state] : "UNKNOWN";
}

const char *action_word(uint32_t action) {
    switch (action) {
        case 0:
            return "LOOKUP";
        case 3:
            return "CREATE";
        case 4:
            return "DELETE";
        case 5:
            return "EXACT LOOKUP";
        case 6:
            return "CLEAR";
        case 8:
            return "COMMIT";
        case 11:
            return "ACCOUNTING ENABLE";
        case 12:
            return "ACCOUNTING DISABLE";
        case 13:
            return "FWD-ONLY ACCOUNTING ENABLE";
        case 14:
            return "FWD-ONLY ACCOUNTING DISABLE";
        case 15:
            return "RATE ENABLE";
        case 16:
            return "RATE DISABLE";
        case 22:
            return "AMT STAT CLEAR";
        default:
            return nullptr;
    }
}

void action_line(uint32_t debug_class, const char *what, const char *prefix, uint32_t action,
                 const void *record, uint64_t word) {
    if (!ipv4_debug_event_active(debug_class)) {
        return;
    }
    char buffer[ipv4_mlib_action_string_size];
    ipv4_mlib_buginf_adjust(
        debug_class, prefix == nullptr ? "" : prefix, "%s %s 0x%" PRIxPTR " 0x%" PRIx64,
        ipv4_mlib_action_string(action, buffer), what, reinterpret_cast<uintptr_t>(record), word);
}

thread_local pid_t thread_id;

}  // namespace

const char *ipv4_mlib_state_string(uint32_t state) {
    return library_state(state);
}
const char *ipv4_mlib_platform_state_string(uint32_t state) {
    return library_state(state);
}
const char *ipv4_mlib_idb_state_string(uint32_t state) {
    return idb_state(state);
}
const char *ipv4_mlib_platform_idb_state_string(uint32_t state) {
    return idb_state(state);
}

const char *ipv4_mlib_action_string(uint32_t action, char *buffer) {
    const char *word = action_word(action);
    if (buffer == nullptr) {
        return word == nullptr ? "UNKNOWN ACTION" : word;
    }
    if (word != nullptr) {
        snprintf(buffer, ipv4_mlib_action_string_size, "%s", word);
    } else {
        snprintf(buffer, ipv4_mlib_action_string_size, "ACTION %u", action);
    }
    return buffer;
}

void ipv4_mlib_buginf_route_action_(const char *prefix, uint32_t action, const void *route,
                                    uint64_t word) {
    action_line(IPV4_DEBUG_ROUTE, "route", prefix, action, route, word);
}

void ipv4_mlib_buginf_intf_action_(const char *prefix, uint32_t action, const void *intf,
                                   uint64_t word) {
    action_line(IPV4_DEBUG_INTF, "intf", prefix, action, intf, word);
}

const char *qv_inet_ntop(int family, const void *address, char *buffer, size_t size) {
    static_assert(AF_INET == 2 && AF_INET6 == 10);
    if (buffer == nullptr || size == 0) {
        errno = buffer == nullptr ? EINVAL : ENOSPC;
        return nullptr;
    }
    buffer[0] = '\0';
    if (address == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const socklen_t most =
        size > INET6_ADDRSTRLEN ? INET6_ADDRSTRLEN : static_cast<socklen_t>(size);
    return inet_ntop(family, address, buffer, most);
}

char *inet_ntoa_r(struct in_addr address, char *buffer, size_t size) {
    return qv_inet_ntop(AF_INET, &address, buffer, size) == nullptr ? nullptr : buffer;
}

int inet6_compare_masked(const void *left, const void *right, uint32_t length) {
    const uint32_t bits = length > 128 ? 128 : length;
    const uint32_t whole = bits / 8;
    const int order = memcmp(left, right, whole);
    if (order != 0 || bits % 8 == 0) {
        return order;
    }
    const unsigned mask = 0xffU << (8 - bits % 8) & 0xffU;
    const unsigned l = static_cast<const unsigned char *>(left)[whole] & mask;
    const unsigned r = static_cast<const unsigned char *>(right)[whole] & mask;
    return static_cast<int>(l) - static_cast<int>(r);
}

char *sstrncpy(char *target, const char *source, size_t size) {
    if (target == nullptr || size == 0) {
        return target;
    }
    const size_t length = source == nullptr ? 0 : strnlen(source, size - 1);
    if (length != 0) {
        memcpy(target, source, length);
    }
    target[length] = '\0';
    return target;
}

pid_t qv_gettid(void) {
    if (__builtin_expect(thread_id == 0, 0)) {
        // The thread that returns from fork(2) in the child has another id there.
        [[maybe_unused]] static const int once =
            pthread_atfork(nullptr, nullptr, [] { thread_id = 0; });
        thread_id = gettid();
    }
    return thread_id;
}
