// The layout of a trace ring, as writers and readers of different processes share it.
//
// A ring is a power of two of slots. A writer takes positions from `head` and owns a slot from the
// moment it has put `busy` there until it puts `done`; both carry the position, so that a reader
// knows which turn of the ring it sees. A writer that finds a slot in another's hands gives its
// record up.
#ifndef MFWD6_SERVICES_DIAG_TRACE_RING_H
#define MFWD6_SERVICES_DIAG_TRACE_RING_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "services/diag/trace.h"

namespace mfwd6::diag {

inline constexpr uint64_t ring_magic = 0x31676e6972343677;  // raised with the layout
inline constexpr size_t slot_words = 15;

struct ring_slot {
    std::atomic<uint64_t> state;
    std::atomic<uint64_t> word[slot_words];
};
static_assert(sizeof(ring_slot) == 128 && std::atomic<uint64_t>::is_always_lock_free);

constexpr uint64_t slot_busy(uint64_t position) {
    return 2 * position + 1;
}
constexpr uint64_t slot_done(uint64_t position) {
    return 2 * position + 2;
}

struct ring_header {
    std::atomic<uint64_t> magic;  // written last
    uint64_t slots;
    uint64_t monotonic;  // CLOCK_MONOTONIC and CLOCK_REALTIME nanoseconds of one instant
    uint64_t realtime;
    int32_t pid;
    uint32_t reserved;
    char program[ltrace_program_size];
    char kind[ltrace_kind_size];
    uint64_t spare[7];
    // Written by every record; away from what readers poll.
    alignas(128) std::atomic<uint64_t> head;
    std::atomic<uint64_t> dropped;
    uint64_t spare2[14];
};
static_assert(sizeof(ring_header) == 256 && offsetof(ring_header, head) == 128,
              "readers of other processes rely on the layout");

constexpr size_t ring_bytes(uint64_t slots) {
    return sizeof(ring_header) + slots * sizeof(ring_slot);
}

// What a slot holds. The first slot of a record: meta, time, id, then six words, or the traceback
// and the beginning of the text. Further slots: the position of the first, then text. The first
// word of either ends in the type, so that what a former record left in a slot is never taken for
// the beginning of one.
enum class slot_type : uint64_t { words = 1, text = 2, more = 3 };
inline constexpr size_t at_meta = 0;
inline constexpr size_t at_time = 1;
inline constexpr size_t at_id = 2;
inline constexpr size_t at_payload = 3;
inline constexpr size_t at_text = 8;
inline constexpr size_t at_more_text = 1;
inline constexpr size_t first_text_bytes = (slot_words - at_text) * 8;
inline constexpr size_t more_text_bytes = (slot_words - at_more_text) * 8;

constexpr uint64_t text_parts(size_t length) {
    return length <= first_text_bytes
               ? 1
               : 1 + (length - first_text_bytes + more_text_bytes - 1) / more_text_bytes;
}

// tid in 32 bits, length of the text in 16, parts in 8, words in 4, type in 4.
struct slot_meta {
    uint32_t tid;
    uint32_t length;
    uint32_t parts;
    uint32_t words;
    slot_type type;
};
constexpr uint64_t pack(const slot_meta &m) {
    return m.tid | uint64_t{m.length} << 32U | uint64_t{m.parts} << 48U | uint64_t{m.words} << 56U |
           static_cast<uint64_t>(m.type) << 60U;
}
constexpr slot_meta unpack(uint64_t v) {
    return {static_cast<uint32_t>(v), static_cast<uint32_t>(v >> 32U & 0xffffU),
            static_cast<uint32_t>(v >> 48U & 0xffU), static_cast<uint32_t>(v >> 56U & 0xfU),
            static_cast<slot_type>(v >> 60U)};
}

constexpr uint64_t pack_more(uint64_t first) {
    return first | static_cast<uint64_t>(slot_type::more) << 60U;
}

// One ring as mapped by this process.
struct ring {
    ring_header *header;
    ring_slot *slots;
    uint64_t mask;
    size_t length;
    int fd;      // -1 for private memory or a ring left behind; else holds the lock that proves the
                 // writer's life
    ring *next;  // among the rings left behind
};

// The ring of a handle, opened if it was not; NULL only when no memory of any kind is to be had.
ring *ring_of(ltrace_handle *handle);

}  // namespace mfwd6::diag

#endif
