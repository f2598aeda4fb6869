#include "services/window/heap.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <bit>

#include "services/window/window_table.h"

namespace mfwd6::window {

namespace {

using journal::store;

constexpr std::array<uint8_t, largest_slot / 16 + 1> make_class_table() {
    std::array<uint8_t, largest_slot / 16 + 1> t{};
    uint8_t cls = 0;
    for (size_t i = 0; i < t.size(); ++i) {
        while (class_sizes[cls] < i * 16) {
            ++cls;
        }
        t[i] = cls;
    }
    return t;
}
constexpr auto class_table = make_class_table();

// Reciprocals: offset * r >> 32 is offset / size for every offset in a span.
constexpr std::array<uint32_t, class_count> make_reciprocals() {
    std::array<uint32_t, class_count> r{};
    for (uint32_t c = 0; c < class_count; ++c) {
        r[c] = static_cast<uint32_t>((uint64_t{1} << 32) / class_sizes[c] + 1);
    }
    return r;
}
constexpr auto reciprocals = make_reciprocals();

constexpr uint32_t slot_of_offset(uint32_t cls, uint32_t offset) {
    return static_cast<uint32_t>((uint64_t{offset} * reciprocals[cls]) >> 32);
}

constexpr bool reciprocals_exact() {
    for (uint32_t c = 0; c < class_count; ++c) {
        for (uint32_t k = 1; k <= slots_of(c); ++k) {
            const uint32_t first = k * class_sizes[c];
            if (slot_of_offset(c, first) != k || slot_of_offset(c, first - 1) != k - 1) {
                return false;
            }
        }
    }
    return true;
}
static_assert(reciprocals_exact());
static_assert(std::is_sorted(class_sizes.begin(), class_sizes.end()));
static_assert(std::all_of(class_sizes.begin(), class_sizes.end(),
                          [](uint16_t s) { return s % 16 == 0; }));

constexpr uint32_t kind_word(span_kind k) {
    return static_cast<uint32_t>(k);
}

span_kind kind_of(const span &s) {
    return static_cast<span_kind>(journal::observe(s.kind));
}

// Bins of free runs: exact up to 8 spans, then four per doubling.
uint32_t bin_of(uint32_t length) {
    if (length <= 8) {
        return length - 1;
    }
    const uint32_t log = static_cast<uint32_t>(std::bit_width(length)) - 1;
    return std::min(8 + (log - 3) * 4 + ((length >> (log - 2)) & 3U), bin_count - 1);
}

// Lock of the allocator, and a group on its log.
class section {
  public:
    explicit section(open_window &w)
        : w_(w),
          taken_(locks::is_taken(locks::lock(&w.super->allocator_lock, w.allocator_options))) {}
    ~section() {
        if (taken_) {
            locks::unlock(&w_.super->allocator_lock, w_.allocator_options);
        }
    }
    section(const section &) = delete;
    section &operator=(const section &) = delete;
    bool taken() const { return taken_; }

  private:
    open_window &w_;
    bool taken_;
};

// Links through descriptors, by index + 1.
void link(open_window &w, uint32_t &head, uint32_t index) {
    span &s = w.spans[index];
    store(s.next, head);
    store(s.prev, 0);
    if (head != 0) {
        store(w.spans[head - 1].prev, index + 1);
    }
    store(head, index + 1);
}

void unlink(open_window &w, uint32_t &head, uint32_t index) {
    span &s = w.spans[index];
    if (s.prev != 0) {
        store(w.spans[s.prev - 1].next, s.next);
    } else {
        store(head, s.next);
    }
    if (s.next != 0) {
        store(w.spans[s.next - 1].prev, s.prev);
    }
}

void insert_run(open_window &w, uint32_t index, uint32_t length) {
    heap_state &h = w.super->heap;
    span &s = w.spans[index];
    store(s.length, length);
    store(w.spans[index + length - 1].tail, length);
    store(s.kind, kind_word(span_kind::free));
    const uint32_t bin = bin_of(length);
    if (h.bins[bin] == 0) {
        store(h.bins_filled[bin / 64], h.bins_filled[bin / 64] | (uint64_t{1} << (bin % 64)));
    }
    link(w, h.bins[bin], index);
}

void remove_run(open_window &w, uint32_t index) {
    heap_state &h = w.super->heap;
    span &s = w.spans[index];
    const uint32_t bin = bin_of(s.length);
    unlink(w, h.bins[bin], index);
    if (h.bins[bin] == 0) {
        store(h.bins_filled[bin / 64], h.bins_filled[bin / 64] & ~(uint64_t{1} << (bin % 64)));
    }
    store(s.kind, kind_word(span_kind::none));
    store(w.spans[index + s.length - 1].tail, 0);
}

// A run of the bins with at least `length` spans: the first of its own bin if that fits, else any
// of a larger bin. Index + 1, or 0.
uint32_t find_run(const open_window &w, uint32_t length) {
    const heap_state &h = w.super->heap;
    const uint32_t own = bin_of(length);
    if (h.bins[own] != 0 && w.spans[h.bins[own] - 1].length >= length) {
        return h.bins[own];
    }
    for (uint32_t word = (own + 1) / 64; word < 2; ++word) {
        uint64_t filled = h.bins_filled[word];
        if (word == (own + 1) / 64) {
            filled &= ~uint64_t{0} << ((own + 1) % 64);
        }
        if (filled != 0) {
            return h.bins[word * 64 + static_cast<uint32_t>(std::countr_zero(filled))];
        }
    }
    return 0;
}

// Enters new memory into the page table at once: a fault for each page costs several times as much.
// Only a matter of speed, so failure (an old kernel) is no failure.
void enter_in_page_table(const open_window &w, const places &where, uint32_t from, uint32_t to) {
#ifdef MADV_POPULATE_WRITE
    char *base = reinterpret_cast<char *>(w.super);
    madvise(base + where.heap + uint64_t{from} * span_bytes, uint64_t{to - from} * span_bytes,
            MADV_POPULATE_WRITE);
#endif
}

// Makes sure that spans before `needed` have memory.
bool grow(open_window &w, uint64_t needed) {
    heap_state &h = w.super->heap;
    const uint32_t limit = h.limit != 0 ? std::min(h.limit, h.span_count) : h.span_count;
    if (needed <= h.committed) {
        return true;
    }
    if (needed > limit) {
        return false;
    }
    // Large steps, as the kernel is asked once for each; what is just enough if memory is short.
    const uint32_t wanted = std::clamp(h.committed / 8, 128U, 2048U);
    const uint64_t roomy =
        std::min<uint64_t>(limit, std::max<uint64_t>(needed, h.committed + wanted));
    const places where = place(w.super->id.header_bytes, w.super->id.max_bytes);
    for (const uint64_t to : {roomy, needed}) {
        if (heap_commit(w.env.fd, where, h.committed, static_cast<uint32_t>(to)) == 0) {
            enter_in_page_table(w, where, h.committed, static_cast<uint32_t>(to));
            journal::publish(h.committed, static_cast<uint32_t>(to));
            return true;
        }
    }
    return false;
}

// `length` spans that are nobody's: index + 1, or 0 with nothing changed.
uint32_t take_spans(open_window &w, uint32_t length) {
    heap_state &h = w.super->heap;
    if (const uint32_t found = find_run(w, length); found != 0) {
        const uint32_t index = found - 1;
        const uint32_t rest = w.spans[index].length - length;
        remove_run(w, index);
        if (rest != 0) {
            insert_run(w, index + length, rest);
        }
        return found;
    }
    const uint32_t before = h.top != 0 ? w.spans[h.top - 1].tail : 0;
    const uint32_t index = h.top - before;
    if (!grow(w, uint64_t{index} + length)) {
        return 0;
    }
    if (before != 0) {
        remove_run(w, index);
    }
    store(h.top, index + length);
    return index + 1;
}

void give_spans(open_window &w, uint32_t index, uint32_t length) {
    heap_state &h = w.super->heap;
    if (const uint32_t left = index != 0 ? w.spans[index - 1].tail : 0; left != 0) {
        remove_run(w, index - left);
        index -= left;
        length += left;
    }
    if (const uint32_t right = index + length;
        right < h.top && kind_of(w.spans[right]) == span_kind::free) {
        length += w.spans[right].length;
        remove_run(w, right);
    }
    if (index + length == h.top) {
        store(h.top, index);
    } else {
        insert_run(w, index, length);
    }
}

void add_used(open_window &w, uint64_t bytes) {
    heap_state &h = w.super->heap;
    store(h.used, h.used + bytes);
    if (h.used > h.peak) {
        std::atomic_ref<uint64_t>(h.peak).store(h.used, std::memory_order_relaxed);
    }
}

bool make_slab(open_window &w, uint32_t cls) {
    const uint32_t taken = take_spans(w, 1);
    if (taken == 0) {
        return false;
    }
    span &s = w.spans[taken - 1];
    store(s.cls, cls);
    store(s.live, 0);
    link(w, w.super->heap.partial[cls], taken - 1);
    journal::publish(s.kind, kind_word(span_kind::slab));
    return true;
}

void *take_slot(open_window &w, uint32_t cls) {
    uint32_t &head = w.super->heap.partial[cls];
    if (head == 0 && !make_slab(w, cls)) {
        return nullptr;
    }
    const uint32_t index = head - 1;
    span &s = w.spans[index];
    uint32_t word = 0;
    while (word + 1 < bitmap_words && s.bits[word] == ~uint64_t{0}) {
        ++word;
    }
    const auto bit = static_cast<uint32_t>(std::countr_one(s.bits[word]));
    store(s.bits[word], s.bits[word] | (uint64_t{1} << bit));
    store(s.live, s.live + 1);
    if (s.live == slots_of(cls)) {
        unlink(w, head, index);
    }
    add_used(w, class_sizes[cls]);
    return slot_address(w, index, word * 64 + bit);
}

void *take_large(open_window &w, size_t size) {
    if (size > w.super->id.max_bytes) {
        return nullptr;
    }
    const uint64_t length = (uint64_t{size} + span_bytes - 1) >> span_shift;
    const uint32_t taken = take_spans(w, static_cast<uint32_t>(length));
    if (taken == 0) {
        return nullptr;
    }
    span &s = w.spans[taken - 1];
    store(s.length, static_cast<uint32_t>(length));
    journal::publish(s.kind, kind_word(span_kind::large));
    add_used(w, length << span_shift);
    return slot_address(w, taken - 1, 0);
}

void reuse_slot(open_window &w, const located &l) {
    span &s = *l.of;
    uint32_t &head = w.super->heap.partial[s.cls];
    uint64_t &bits = s.bits[l.slot / 64];
    store(bits, bits & ~(uint64_t{1} << (l.slot % 64)));
    if (s.live == slots_of(s.cls)) {
        link(w, head, l.index);
    }
    store(s.live, s.live - 1);
    // The last empty slab of a class stays, so that one block coming and going costs no span each
    // time.
    if (s.live == 0 && (s.next != 0 || s.prev != 0)) {
        unlink(w, head, l.index);
        store(s.kind, kind_word(span_kind::none));
        give_spans(w, l.index, 1);
    }
}

// The memory of a block that is counted no more.
void reuse(open_window &w, const located &l) {
    if (kind_of(*l.of) == span_kind::slab) {
        reuse_slot(w, l);
        return;
    }
    store(l.of->kind, kind_word(span_kind::none));
    give_spans(w, l.index, l.of->length);
}

void count_no_more(open_window &w, const located &l) {
    store(w.super->heap.used, w.super->heap.used - block_bytes(l));
}

void give(open_window &w, const located &l) {
    count_no_more(w, l);
    reuse(w, l);
}

// The block is free and its memory stays as it is: a bit beside the descriptor, so that there is
// room for every block.
void hold(open_window &w, const located &l) {
    heap_state &h = w.super->heap;
    held_span &s = w.held[l.index];
    uint64_t &bits = s.bits[l.slot / 64];
    count_no_more(w, l);
    store(bits, bits | (uint64_t{1} << (l.slot % 64)));
    store(s.epoch, journal::observe(w.super->epochs.now));
    if (s.count == 0) {
        store(s.next, h.held_first);
        store(h.held_first, l.index + 1);
    }
    store(s.count, s.count + 1);
    store(h.held, h.held + 1);
}

uint32_t first_held_slot(const held_span &s) {
    uint32_t word = 0;
    while (word + 1 < bitmap_words && s.bits[word] == 0) {
        ++word;
    }
    return word * 64 + static_cast<uint32_t>(std::countr_zero(s.bits[word]));
}

// The group open on another log of the same window, which an allocation belongs to.
journal::log *outer_group(const open_window &w) {
    journal::log *l = journal::self.current;
    const auto at = reinterpret_cast<uintptr_t>(l);
    const auto base = reinterpret_cast<uintptr_t>(w.super);
    return l != nullptr && at - base < w.env.length ? l : nullptr;
}

journal::log *own_log(const open_window &w) {
    return w.env.logs[static_cast<uint32_t>(peers::domain::allocator)];
}

void drop_entry(journal::log *outer) {
    store(outer->used, outer->used - 1);
}

// One held block of the span that `link` leads to; with the last one the span leaves the list.
void reuse_first_held(open_window &w, uint32_t &link) {
    const journal::group g(own_log(w), w.env.self);
    const uint32_t index = link - 1;
    held_span &s = w.held[index];
    const uint32_t slot = first_held_slot(s);
    uint64_t &bits = s.bits[slot / 64];
    store(bits, bits & ~(uint64_t{1} << (slot % 64)));
    store(s.count, s.count - 1);
    store(w.super->heap.held, w.super->heap.held - 1);
    if (s.count == 0) {
        store(link, s.next);
    }
    reuse(w, {&w.spans[index], index, slot, false});
}

// How the last entry of `outer`, a block that goes back, is dropped.
void end_block(journal::log *outer, void *block, bool may_be_seen) {
    open_window *w = covering(block);
    if (w == nullptr) {
        --outer->used;
        return;
    }
    const section locked(*w);
    const journal::group g(own_log(*w), w->env.self);
    if (const located l = locate(*w, block, false); l.live) {
        if (may_be_seen && has_readers(*w)) {
            hold(*w, l);
        } else {
            give(*w, l);
        }
    }
    drop_entry(outer);
}

void *take(open_window &w, size_t size, journal::log *outer, const block_step &make) {
    const section locked(w);
    if (!locked.taken()) {
        return nullptr;
    }
    journal::group g(own_log(w), w.env.self);
    void *block =
        size <= largest_slot ? take_slot(w, class_table[(size + 15) / 16]) : take_large(w, size);
    if (block != nullptr && outer != nullptr) {
        journal::note_allocation(outer, block);
    } else if (block != nullptr) {
        make(block);
    }
    return block;
}

}  // namespace

void *slot_address(const open_window &w, uint32_t index, uint32_t slot) {
    const span &s = w.spans[index];
    const size_t at = slot != 0 ? size_t{slot} * class_sizes[s.cls % class_count] : 0;
    return w.heap + (size_t{index} << span_shift) + at;
}

size_t block_bytes(const located &l) {
    return kind_of(*l.of) == span_kind::slab ? class_sizes[l.of->cls % class_count]
                                             : size_t{l.of->length} << span_shift;
}

located locate(const open_window &w, const void *address, bool inside) {
    const uint64_t offset =
        reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(w.heap);
    uint64_t index = offset >> span_shift;
    if (index >= journal::observe(w.super->heap.top)) {
        return {};
    }
    auto within = static_cast<uint32_t>(offset & (span_bytes - 1));
    if (inside && kind_of(w.spans[index]) == span_kind::none) {
        uint64_t head = index;
        while (head != 0 && kind_of(w.spans[head]) == span_kind::none) {
            --head;
        }
        if (kind_of(w.spans[head]) != span_kind::large || index - head >= w.spans[head].length) {
            return {};
        }
        index = head;
        within = 0;
    }
    span &s = w.spans[index];
    located l{&s, static_cast<uint32_t>(index), 0, false};
    if (kind_of(s) == span_kind::slab) {
        const uint32_t cls = s.cls % class_count;
        l.slot = slot_of_offset(cls, within);
        l.live = l.slot < slots_of(cls) &&
                 ((journal::observe(s.bits[l.slot / 64]) >> (l.slot % 64)) & 1U) != 0 &&
                 (inside || within == l.slot * class_sizes[cls]) && !is_held(w, l.index, l.slot);
        return l;
    }
    l.live = kind_of(s) == span_kind::large && (inside || within == 0) && !is_held(w, l.index, 0);
    return l;
}

void heap_format(open_window &w, uint32_t committed) {
    heap_state &h = w.super->heap;
    h = heap_state{};
    h.committed = committed;
    h.span_count = place(w.super->id.header_bytes, w.super->id.max_bytes).span_count;
}

int heap_commit(int fd, const places &where, uint32_t from, uint32_t to) {
    const struct {
        uint64_t at, bytes;
    } parts[] = {
        {where.spans + uint64_t{from} * sizeof(span), uint64_t{to - from} * sizeof(span)},
        {where.held + uint64_t{from} * sizeof(held_span), uint64_t{to - from} * sizeof(held_span)},
        {where.heap + uint64_t{from} * span_bytes, uint64_t{to - from} * span_bytes}};
    for (const auto &p : parts) {
        while (fallocate(fd, 0, static_cast<off_t>(p.at), static_cast<off_t>(p.bytes)) != 0) {
            if (errno != EINTR) {
                return errno;
            }
        }
    }
    return 0;
}

namespace {

// The list of held blocks stays in the heap, ends, and counts what it counts.
bool held_plausible(const open_window &w) {
    const heap_state &h = w.super->heap;
    uint64_t blocks = 0;
    for (uint32_t i = h.held_first; i != 0; i = w.held[i - 1].next) {
        if (i > h.top) {
            return false;
        }
        const span &s = w.spans[i - 1];
        const uint32_t room = kind_of(s) == span_kind::slab    ? s.live
                              : kind_of(s) == span_kind::large ? 1
                                                               : 0;
        const held_span &held = w.held[i - 1];
        blocks += held.count;
        if (held.count == 0 || held.count > room || blocks > h.held) {
            return false;
        }
    }
    return blocks == h.held;
}

}  // namespace

bool heap_plausible(open_window &w) {
    // Attached processes may be in the middle of their own allocations.
    const section locked(w);
    const heap_state &h = w.super->heap;
    const places where = place(w.super->id.header_bytes, w.super->id.max_bytes);
    if (!locked.taken() || h.span_count != where.span_count || h.committed > h.span_count ||
        h.top > h.committed) {
        return false;
    }
    uint32_t at = 0;
    while (at < h.top) {
        const span &s = w.spans[at];
        const span_kind kind = kind_of(s);
        const bool run = kind == span_kind::free || kind == span_kind::large;
        const bool whole =
            run ? s.length != 0 && s.length <= h.top - at
                : kind == span_kind::slab && s.cls < class_count && s.live <= slots_of(s.cls);
        // A full slab and a large block are on no list: their links are old.
        const bool listed =
            kind == span_kind::free || (kind == span_kind::slab && s.live < slots_of(s.cls));
        if (!whole || (listed && (s.next > h.top || s.prev > h.top))) {
            return false;
        }
        at += run ? s.length : 1;
    }
    return held_plausible(w) &&
           std::all_of(std::begin(h.partial), std::end(h.partial),
                       [&](uint32_t i) { return i <= h.top; }) &&
           std::all_of(std::begin(h.bins), std::end(h.bins),
                       [&](uint32_t i) { return i <= h.top; });
}

void *heap_take(open_window &w, size_t size, const block_step &make) {
    journal::log *outer = outer_group(w);
    void *block = take(w, size, outer, make);
    if (block == nullptr && reuse_held(w) != 0) {
        block = take(w, size, outer, make);
    }
    if (block != nullptr && outer != nullptr) {
        make(block);
    }
    return block;
}

cerrno heap_give(open_window &w, void *block, const block_step &end) {
    journal::log *outer = outer_group(w);
    if (outer != nullptr) {
        if (!locate(w, block, false).live) {
            return SHMWIN_ERR_BAD_BLOCK;
        }
        end(block);
        if (outer->used < outer->capacity) {
            journal::note_free(outer, block);
            return 0;
        }
        // No room to note it: the group cannot be run back any more, so nothing is lost by freeing
        // now.
        journal::overflow(outer);
    }
    const section locked(w);
    if (!locked.taken()) {
        return EBADF;
    }
    const located l = locate(w, block, false);
    if (!l.live) {
        return SHMWIN_ERR_BAD_BLOCK;
    }
    const journal::group g(own_log(w), w.env.self);
    if (outer == nullptr) {
        end(block);
    }
    give(w, l);
    return 0;
}

void heap_release(journal::log *outer, void *block) {
    end_block(outer, block, false);
}

void heap_retire(journal::log *outer, void *block) {
    end_block(outer, block, true);
}

bool is_held(const open_window &w, uint32_t index, uint32_t slot) {
    return journal::observe(w.super->heap.held) != 0 &&
           ((journal::observe(w.held[index].bits[slot / 64]) >> (slot % 64)) & 1U) != 0;
}

uint32_t heap_reuse_held(open_window &w, uint64_t before, uint32_t most) {
    const section locked(w);
    uint32_t done = 0;
    uint32_t *link = &w.super->heap.held_first;
    while (locked.taken() && *link != 0 && (most == 0 || done < most)) {
        held_span &s = w.held[*link - 1];
        if (s.epoch < before) {
            reuse_first_held(w, *link);
            ++done;
        } else {
            link = &s.next;
        }
    }
    return done;
}

}  // namespace mfwd6::window
