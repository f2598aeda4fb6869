// Keys of the trie engine: a table part of 18 bits, then up to 256 key bits.
//
// All tries use this one form, so that the table part costs nothing where it is not used: it is
// zero there. Positions and lengths inside the engine count from the first table bit. Strides are 6
// bits wide and begin at multiples of 6, and as 18 is one, no stride has bits of both parts.
#ifndef MFWD6_SERVICES_GTRIE_KEY_H
#define MFWD6_SERVICES_GTRIE_KEY_H

#include <bit>
#include <cstdint>
#include <cstring>

namespace mfwd6::gtrie {

inline constexpr uint32_t table_bits = 18;
inline constexpr uint32_t stride = 6;
inline constexpr uint32_t max_length = table_bits + 256;

struct key {
    uint64_t word[4];  // bits most significant first, zero behind the length
    uint32_t table;
    uint32_t length;  // table_bits to max_length; 0 stands for every table
};

inline uint64_t high_mask(uint32_t bits) {
    return bits == 0 ? 0 : ~uint64_t{0} << (64 - bits);
}

// Bits behind `length` to zero.
inline void cut(key &k, uint32_t length) {
    k.length = length;
    const uint32_t bits = length > table_bits ? length - table_bits : 0;
    for (uint32_t i = 0; i < 4; ++i) {
        const uint32_t from = i * 64;
        if (bits < from + 64) {
            k.word[i] &= bits <= from ? 0 : high_mask(bits - from);
        }
    }
}

inline uint64_t load_word(const uint8_t *bytes) {
    uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    return __builtin_bswap64(word);
}

// A key that is not full: reads as many bytes as `length` needs, and no byte more.
inline key load_prefix(const uint8_t *bytes, uint32_t table, uint32_t length) {
    key k{{0, 0, 0, 0}, table, length};
    const uint32_t bits = length > table_bits ? length - table_bits : 0;
    std::memcpy(k.word, bytes, (bits + 7) / 8);
    for (uint64_t &w : k.word) {
        w = __builtin_bswap64(w);
    }
    cut(k, length);
    return k;
}

inline key load_full(const uint8_t *bytes, uint32_t table) {
    return {{load_word(bytes), load_word(bytes + 8), load_word(bytes + 16), load_word(bytes + 24)},
            table,
            max_length};
}

inline key load_key(const uint8_t *bytes, uint32_t table, uint32_t length) {
    return length == max_length ? load_full(bytes, table) : load_prefix(bytes, table, length);
}

// The 6 bits from `pos` on, a multiple of 6; what lies behind the last key bit is zero.
inline uint32_t symbol_at(const uint64_t *word, uint32_t table, uint32_t pos) {
    if (pos < table_bits) {
        return (table >> (table_bits - stride - pos)) & 63U;
    }
    const uint32_t bit = pos - table_bits;
    const uint32_t i = bit >> 6;
    const uint32_t offset = bit & 63U;
    if (offset <= 64 - stride) {
        return static_cast<uint32_t>(word[i] >> (64 - stride - offset)) & 63U;
    }
    const uint64_t high = word[i] << (offset - (64 - stride));
    const uint64_t low = i + 1 < 4 ? word[i + 1] >> (128 - stride - offset) : 0;
    return static_cast<uint32_t>(high | low) & 63U;
}

// Number of leading bits in which two keys agree, at most `limit`.
inline uint32_t common_bits(const uint64_t *a, uint32_t table_a, const uint64_t *b,
                            uint32_t table_b, uint32_t limit) {
    if (table_a != table_b) {
        const uint32_t same =
            static_cast<uint32_t>(std::countl_zero(table_a ^ table_b)) - (32 - table_bits);
        return same < limit ? same : limit;
    }
    uint32_t same = table_bits;
    for (uint32_t i = 0; i < 4; ++i, same += 64) {
        const uint64_t differ = a[i] ^ b[i];
        if (differ != 0) {
            same += static_cast<uint32_t>(std::countl_zero(differ));
            break;
        }
    }
    return same < limit ? same : limit;
}

__extension__ using product128 = unsigned __int128;

inline uint64_t mix(uint64_t a, uint64_t b) {
    const product128 product = static_cast<product128>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

// Each factor has a secret word of its own in it: a sender who chooses addresses cannot make one
// zero, and with it all keys of that product the same.
inline uint64_t hash_of(const uint64_t *word, uint32_t table, uint32_t length,
                        const uint64_t *seed) {
    const uint64_t a = mix(word[0] ^ seed[0], word[1] ^ seed[1]);
    const uint64_t b = mix(word[2] ^ seed[2], word[3] ^ seed[3]);
    return mix(a ^ 0xaf251af3b0f025b5U, b ^ (uint64_t{table} << 32 | length));
}

}  // namespace mfwd6::gtrie

#endif
