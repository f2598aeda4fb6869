// All blocks of the heap as they stood when the walk began, and which of them were reached.
#ifndef MFWD6_APPS_CHECK_HEAP_MAP_H
#define MFWD6_APPS_CHECK_HEAP_MAP_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/multicast_alloc.h"

namespace mfwd6::check {

enum class block_state {
    live,      // belongs to the library
    pooled,    // in the pool of freed blocks
    kept,      // freed, kept for readers
    internal,  // of the allocators themselves: no guard
    broken,    // without a whole guard
};

struct block {
    uint64_t address;  // behind the guard; of an internal or broken block its first byte
    uint64_t bytes;    // that were asked for
    uint32_t type;
    block_state state;
    bool reached;
};

class heap_map {
  public:
    // Enumerates the blocks of the window by the heap's flat descriptors. `internal` is the array
    // of pool buckets.
    heap_map(uint32_t window, const void *internal);

    // The block whose memory behind the guard begins at `address`, or null.
    block *at(uint64_t address);

    // The block that stands at `address` with its guard, or null.
    block *with_guard(uint64_t address) { return at(address + sizeof(ipmc_shmwin_guard_st)); }

    std::vector<block> &blocks() { return blocks_; }

  private:
    std::vector<block> blocks_;  // by address
};

// What an address leads to, for a sentence: "a freed block of type ROUTE", "no block".
std::string describe(const block *found);

}  // namespace mfwd6::check

#endif
