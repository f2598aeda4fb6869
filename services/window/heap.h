// The allocator of a window. Private to the window service; the contract is in window.h and
// inspect.h.
//
// A small block is a slot of a slab, one span cut into slots of one size; a bit tells whether it is
// live. A large block is a run of spans. Every change is one group of the allocator's log under its
// lock.
#ifndef MFWD6_SERVICES_WINDOW_HEAP_H
#define MFWD6_SERVICES_WINDOW_HEAP_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "services/window/layout.h"

namespace mfwd6::window {

struct open_window;

inline constexpr size_t largest_slot = 16384;

// Sizes fill a span without much waste; none needs more bits than a descriptor has.
inline constexpr std::array<uint16_t, class_count> class_sizes = {
    48,   64,   80,   96,   112,  128,  144,  160,  176,  192,  208,   224,
    240,  256,  288,  320,  352,  384,  416,  448,  480,  512,  576,   640,
    704,  768,  832,  896,  960,  1024, 1168, 1248, 1360, 1488, 1632,  1808,
    2048, 2336, 2720, 3264, 3632, 4096, 4672, 5456, 6544, 8192, 10912, 16384};

constexpr uint32_t slots_of(uint32_t cls) {
    return static_cast<uint32_t>(span_bytes / class_sizes[cls]);
}
static_assert(slots_of(0) <= bitmap_words * 64);

// Prepares the heap of a new or reset window; the descriptors' memory up to `committed` is there.
void heap_format(open_window &w, uint32_t committed);

// Spans that the file must hold for a window just made.
inline constexpr uint32_t first_commit = 32;

// Gives `from` to `to` spans memory, heap and descriptors: 0 or an errno value. Nothing is lost if
// killed.
int heap_commit(int fd, const places &where, uint32_t from, uint32_t to);

// Bounds and counts that hold in every whole window; one look at each run of spans.
bool heap_plausible(open_window &w);

// What a look at one address tells.
struct located {
    span *of;        // null: no block
    uint32_t index;  // of its span
    uint32_t slot;   // in a slab
    bool live;
};

// The block that begins at, or covers, `address`; for a large block only its first span is
// recognised unless `inside`.
located locate(const open_window &w, const void *address, bool inside);

// A step of the caller's that belongs to an allocation or a free.
struct block_step {
    shmwin_block_ft fn = nullptr;
    void *context = nullptr;

    void operator()(void *block) const {
        if (fn != nullptr) {
            fn(block, context);
        }
    }
};

// shmwin_malloc, shmwin_free and journal::block_hooks::release and ::retire.
void *heap_take(open_window &w, size_t size, const block_step &make = {});
cerrno heap_give(open_window &w, void *block, const block_step &end = {});
void heap_release(journal::log *outer, void *block);
void heap_retire(journal::log *outer, void *block);

// Whether a block that looks live is held: free, and not to be handed out yet.
bool is_held(const open_window &w, uint32_t index, uint32_t slot);

// Lets up to `most` held blocks (0: no bound) that were run back ahead of epoch `before` be handed
// out again; how many there were. By any process.
uint32_t heap_reuse_held(open_window &w, uint64_t before, uint32_t most);

// In epochs.cpp: whether there are readers that may stand on what was visible a moment ago; and
// heap_reuse_held for all that every live reader has passed.
bool has_readers(const open_window &w);
uint32_t reuse_held(open_window &w);

void *slot_address(const open_window &w, uint32_t index, uint32_t slot);
size_t block_bytes(const located &l);

}  // namespace mfwd6::window

#endif
