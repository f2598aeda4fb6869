#include "services/acl/prefix.h"

#include <cstring>

void ipv6_prefix_only(const void *address, uint32_t length, void *prefix) {
    uint8_t bytes[16];
    std::memcpy(bytes, address, sizeof bytes);
    for (uint32_t i = 0; i < sizeof bytes; ++i) {
        const uint32_t bits = length <= 8 * i ? 0 : length - 8 * i;
        if (bits < 8) {
            bytes[i] &= static_cast<uint8_t>(0xff00U >> bits);
        }
    }
    std::memcpy(prefix, bytes, sizeof bytes);
}

namespace mfwd6::acl {

bool is_prefix(const uint8_t (&address)[16], uint32_t length) {
    uint8_t only[16];
    ipv6_prefix_only(address, length, only);
    return length <= 128 && std::memcmp(only, address, sizeof only) == 0;
}

}  // namespace mfwd6::acl
