// What lies in a window file, from its first byte: superblock, journal logs, the caller's header,
// one descriptor per span, one word on held blocks per span, the heap. Private to the window
// service.
#ifndef MFWD6_SERVICES_WINDOW_LAYOUT_H
#define MFWD6_SERVICES_WINDOW_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "services/journal/journal.h"
#include "services/locks/robust_mutex.h"
#include "services/peers/peers.h"
#include "services/window/epochs.h"

namespace mfwd6::window {

inline constexpr uint64_t file_magic = 0x316e69773664666dULL;
// Raise it with every change of a record in this file.
inline constexpr uint32_t service_version = 3;

// The heap is cut into spans: a slab of equal slots, a piece of a large block, or free.
inline constexpr uint32_t span_shift = 15;
inline constexpr size_t span_bytes = size_t{1} << span_shift;
inline constexpr uint32_t bitmap_words = 12;

enum class span_kind : uint32_t {
    none,   // inside a run that begins earlier, or never used
    free,   // first span of a free run
    slab,   // slots of one size class
    large,  // first span of a large block
};

// One span. Flat and outside of the heap, so that what is in the heap can be found without
// following links, and so that neighbours share no cache set with every other span's book-keeping.
struct alignas(64) span {
    uint32_t kind;
    uint32_t length;  // spans in the run (free, large)
    uint32_t cls;     // size class of a slab
    uint32_t live;    // slots of a slab in use
    uint32_t
        next;  // list of slabs with room, or of free runs of like length: index + 1, 0 at the end
    uint32_t prev;
    uint32_t tail;  // on the last span of a free run: its length, else 0
    uint32_t reserved;
    uint64_t bits[bitmap_words];  // slots in use; all zero unless a slab
};
static_assert(sizeof(span) == 128 && std::is_trivially_copyable_v<span>);

// Blocks of one span that are free and must not be handed out yet: changes took them and were run
// back while readers might stand on them. Apart from the descriptors, which every allocation goes
// through.
struct alignas(64) held_span {
    uint64_t bits[bitmap_words];  // slots of a slab; bit 0 for a large block
    uint64_t epoch;               // of the window when the latest of them came
    uint32_t count;               // bits set; 0: not on the list
    uint32_t next;                // held span: index + 1, 0 at the end
    uint64_t reserved[2];
};
static_assert(sizeof(held_span) == 128 && std::is_trivially_copyable_v<held_span>);

inline constexpr uint32_t class_count = 48;
inline constexpr uint32_t bin_count = 96;

struct heap_state {
    uint32_t top;         // spans before this one are, or were, in use
    uint32_t committed;   // spans with memory behind them, descriptors included
    uint32_t limit;       // spans to which `committed` may grow; 0: all
    uint32_t span_count;  // spans of address space
    uint64_t used;        // bytes in live blocks
    uint32_t held;        // blocks that readers keep from reuse, see held_span
    uint32_t held_first;  // list of the spans that they are in: index + 1
    uint64_t peak;
    uint64_t bins_filled[2];        // bit b: bins[b] is not empty
    uint32_t partial[class_count];  // slabs with a free slot: index + 1
    uint32_t bins[bin_count];       // free runs: index + 1
};

// Where a reader stood when it last said that it holds no pointer.
struct alignas(64) reader_slot {
    uint32_t peer;  // 0: free
    uint32_t generation;
    uint64_t epoch;  // 0: idle
    uint64_t reserved[6];
};
static_assert(sizeof(reader_slot) == 64, "readers share no cache line");

struct deferred_entry {
    uint64_t block;
    uint64_t epoch;
};

inline constexpr uint32_t deferred_per_chunk = 254;

// Deferred blocks wait in a list of chunks, which are blocks of the heap themselves.
struct deferred_chunk {
    deferred_chunk *next;
    uint64_t reserved;
    deferred_entry entries[deferred_per_chunk];
};
static_assert(sizeof(deferred_chunk) <= 4096);

struct epoch_state {
    uint64_t now;  // at least 1; alone on its line, which every reader reads
    uint64_t reserved_line[7];
    uint64_t count;
    deferred_chunk *first;
    deferred_chunk *last;
    uint32_t taken;   // entries of `first` that are done
    uint32_t filled;  // entries of `last` that are in use
    uint32_t reserved[2];
};

// Constant from the making of the window on.
struct identity {
    uint64_t magic;
    uint32_t version;
    uint32_t superblock_bytes;
    char name[16];
    uint64_t base;
    uint64_t max_bytes;
    uint64_t header_bytes;
    uint64_t fingerprint;
    uint64_t header_offset;
    uint64_t spans_offset;
    uint64_t heap_offset;
    uint64_t boot;   // of the kernel that ran: what a machine's end tore apart is not trusted
    uint64_t check;  // over all fields before
};
static_assert(sizeof(identity) == 104);

enum class life : uint32_t {
    making = 0,  // as a file of zeros says
    ready = 0x59444552,
    resetting = 0x54455352,
    damaged = 0x44474d44,
};

struct superblock {
    identity id;
    uint32_t state;  // life
    uint32_t owner;  // peer id of the latest owner
    uint64_t generation;
    uint64_t opened;
    alignas(64) locks::robust_mutex allocator_lock;
    locks::robust_mutex recovery_lock;
    locks::robust_mutex window_mutex;
    locks::robust_mutex packet_mutex;
    alignas(64) heap_state heap;
    alignas(64) epoch_state epochs;
    peers::table peers;
    reader_slot readers[SHMWIN_READERS];
};
static_assert(std::is_standard_layout_v<superblock> && std::is_trivially_copyable_v<superblock>);
static_assert(offsetof(superblock, state) == 104, "read from the file before it is mapped");

// Entries of each log, by domain. A route operation logs some dozens of words; the ends of large
// tables may log thousands. The allocator's own changes are below 40.
inline constexpr uint32_t log_entries[peers::domains] = {1024, 8192, 8192, 32768};

constexpr uint64_t round_up(uint64_t value, uint64_t unit) {
    return (value + unit - 1) / unit * unit;
}

constexpr uint64_t log_offset(uint32_t domain) {
    uint64_t at = round_up(sizeof(superblock), 4096);
    for (uint32_t d = 0; d < domain; ++d) {
        at += round_up(journal::log_bytes(log_entries[d]), 4096);
    }
    return at;
}

// Where the parts lie; all follow from the size of the header and of the address space.
struct places {
    uint64_t header, spans, held, heap;
    uint32_t span_count;
};

constexpr places place(uint64_t header_bytes, uint64_t max_bytes) {
    places p{};
    p.header = log_offset(peers::domains);
    p.spans = round_up(p.header + header_bytes, 4096);
    const uint64_t room = max_bytes - p.spans;
    p.span_count = static_cast<uint32_t>(room / (span_bytes + sizeof(span) + sizeof(held_span)));
    p.held = p.spans + uint64_t{p.span_count} * sizeof(span);
    p.heap = round_up(p.held + uint64_t{p.span_count} * sizeof(held_span), span_bytes);
    p.span_count -= p.heap + uint64_t{p.span_count} * span_bytes > max_bytes ? 1U : 0U;
    return p;
}

// Byte of the file that is locked only: read lock while a process has the window mapped, write lock
// of an owner that makes it. The owner's lease and the slots' bytes are those of services/peers.
inline constexpr int64_t mapped_offset = peers::owner_lease_offset + 1;

}  // namespace mfwd6::window

#endif
