// Printed addresses for messages and traces. Each file that includes this has a ring of its own, so
// that one format may hold up to five; the sixth reuses the first. Valid for a message only.
#ifndef IP6MC_SRC_DIAGNOSTICS_ADDRESS_TEXT_H
#define IP6MC_SRC_DIAGNOSTICS_ADDRESS_TEXT_H

#include <sys/socket.h>

#include <cstring>

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/diag/text.h"

namespace mlib {
namespace {

constexpr uint32_t address_ring_size = 5;
constexpr uint32_t address_text_size = 46;
constexpr ip_maddr_st any_address{};

[[maybe_unused]] bool is_any(const ip_maddr_st *address) {
    return std::memcmp(address, &any_address, sizeof(any_address)) == 0;
}

[[maybe_unused]] const char *address_text(const ip_maddr_st *address) {
    static thread_local char ring[address_ring_size][address_text_size];
    static thread_local uint32_t next = 0;
    char *text = ring[next];
    next = (next + 1) % address_ring_size;
    if (address == nullptr || qv_inet_ntop(AF_INET6, address, text, address_text_size) == nullptr) {
        text[0] = '\0';
    }
    return text;
}

// A wildcard source prints as "*".
[[maybe_unused]] const char *source_text(const ip_maddr_st *source) {
    return source != nullptr && is_any(source) ? "*" : address_text(source);
}

}  // namespace
}  // namespace mlib

#endif
