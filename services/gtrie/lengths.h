// The lengths in use in a trie, as lookups read them: one word.
//
// From the lowest bits up, 9 bits each: the longest length in key bits plus 1, the next one, ...;
// 0 behind the last. With more than most_probes lengths only the longest stands there, with bit 63:
// one way down the ordered structure is then shorter than a probe for each.
#ifndef MFWD6_SERVICES_GTRIE_LENGTHS_H
#define MFWD6_SERVICES_GTRIE_LENGTHS_H

#include <bit>
#include <cstdint>

namespace mfwd6::gtrie {

inline constexpr uint32_t most_probes = 6;
inline constexpr uint64_t many_lengths = uint64_t{1} << 63;

// 2^32 - 1 when there is none.
inline uint32_t longest_length(uint64_t lengths) {
    return static_cast<uint32_t>(lengths & 511U) - 1;
}
inline uint64_t without_longest(uint64_t lengths) {
    return (lengths & many_lengths) | (lengths & ~many_lengths) >> 9;
}

// From a map of five words: bit 63 - length % 64 of word length / 64.
inline uint64_t pack_lengths(const uint64_t *map) {
    uint64_t packed = 0;
    uint32_t count = 0;
    for (uint32_t i = 5; i > 0; --i) {
        for (uint64_t left = map[i - 1]; left != 0; left &= left - 1) {
            const uint64_t length = i * 64 - 1 - static_cast<uint32_t>(std::countr_zero(left));
            if (count == most_probes) {
                return (packed & 511U) | many_lengths;
            }
            packed |= (length + 1) << 9 * count++;
        }
    }
    return packed;
}

}  // namespace mfwd6::gtrie

#endif
