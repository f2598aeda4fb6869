// Walks over a trie in steps: between two steps nothing of it is held, and it may change.
#ifndef MFWD6_APPS_MFWD6CTL_TRIE_WALK_H
#define MFWD6_APPS_MFWD6CTL_TRIE_WALK_H

#include <array>
#include <cstdint>

#include "services/gtrie/gtrie.h"

namespace ctl {

// Where a walk stands: at a key, of a leaf that may be gone by now.
class trie_place {
  public:
    using key = std::array<uint8_t, GTRIE_PREFIX_BYTES>;

    // A walk over the leaves that the first `bits` bits of `prefix` cover; all with 0.
    trie_place() = default;
    trie_place(const key &prefix, uint32_t bits) : prefix_(prefix), prefix_bits_(bits) {}

    // The leaf to go on with: the first one, or the first behind the place. NULL at the end. Within
    // a step, and with what else guards the trie. A leaf that was in the trie all the time is
    // neither left out nor given twice.
    void *resume(void *trie) const;

    // The walk has come as far as this key.
    void reach(const key &at, uint32_t bits);

    // Whether the walk ends ahead of this key.
    bool beyond(const key &at, uint32_t bits) const;

  private:
    key prefix_{};
    uint32_t prefix_bits_ = 0;
    key at_{};
    uint32_t at_bits_ = 0;
    bool begun_ = false;
};

}  // namespace ctl

#endif
