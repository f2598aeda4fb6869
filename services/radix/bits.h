// Bit strings as keys: bits most significant first, what lies behind the length does not count.
#ifndef MFWD6_SERVICES_RADIX_BITS_H
#define MFWD6_SERVICES_RADIX_BITS_H

#include <bit>
#include <cstdint>

namespace mfwd6::radix {

struct bits {
    const uint8_t *bytes;
    uint32_t length;
};

// Leading bits in which a and b agree, at most the shorter length.
inline uint32_t common_bits(const bits &a, const bits &b) {
    const uint32_t limit = a.length < b.length ? a.length : b.length;
    for (uint32_t i = 0; i * 8 < limit; ++i) {
        const auto differ = static_cast<uint8_t>(a.bytes[i] ^ b.bytes[i]);
        if (differ != 0) {
            const uint32_t same = i * 8 + static_cast<uint32_t>(std::countl_zero(differ));
            return same < limit ? same : limit;
        }
    }
    return limit;
}

inline bool bit_at(const bits &k, uint32_t i) {
    return (k.bytes[i / 8] >> (7 - i % 8) & 1) != 0;
}

// Pre-order: a prefix before what it covers, then by bits. Negative, 0 or positive.
inline int compare(const bits &a, const bits &b) {
    const uint32_t same = common_bits(a, b);
    if (same < a.length && same < b.length) {
        return bit_at(a, same) ? 1 : -1;
    }
    return a.length < b.length ? -1 : a.length > b.length ? 1 : 0;
}

}  // namespace mfwd6::radix

#endif
