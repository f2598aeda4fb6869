// Proof of the heap's invariants.
#include <bit>
#include <cstdio>
#include <cstring>

#include "services/window/heap.h"
#include "services/window/inspect.h"
#include "services/window/window_table.h"

namespace mfwd6::window {

namespace {

class checker {
  public:
    checker(const open_window &w, char *why, size_t size)
        : w_(w), h_(w.super->heap), why_(why), why_size_(size) {}

    bool run() { return size() && spans() && counts() && partial_lists() && bins() && held(); }

  private:
    bool fail(const char *text, uint64_t a = 0, uint64_t b = 0) {
        if (why_ != nullptr) {
            std::snprintf(why_, why_size_, text, static_cast<unsigned long>(a),
                          static_cast<unsigned long>(b));
        }
        return false;
    }

    static span_kind kind(const span &s) { return static_cast<span_kind>(s.kind); }

    bool size() {
        return h_.top <= h_.committed && h_.committed <= h_.span_count
                   ? true
                   : fail("%lu spans in use of %lu with memory", h_.top, h_.committed);
    }

    bool spans() {
        uint32_t at = 0;
        bool after_free = false;
        while (at < h_.top) {
            const span &s = w_.spans[at];
            const bool is_free = kind(s) == span_kind::free;
            if (is_free && after_free) {
                return fail("two free runs meet at span %lu", at);
            }
            after_free = is_free;
            switch (kind(s)) {
                case span_kind::slab:
                    if (!slab(at, s)) {
                        return false;
                    }
                    at += 1;
                    break;
                case span_kind::free:
                case span_kind::large:
                    if (!run_of(at, s)) {
                        return false;
                    }
                    at += s.length;
                    break;
                default:
                    return fail("span %lu belongs to no run", at);
            }
        }
        return !after_free ? true : fail("a free run ends the heap at span %lu", h_.top);
    }

    bool slab(uint32_t at, const span &s) {
        if (s.cls >= class_count || s.tail != 0) {
            return fail("slab %lu has class %lu", at, s.cls);
        }
        uint32_t live = 0;
        for (const uint64_t word : s.bits) {
            live += static_cast<uint32_t>(std::popcount(word));
        }
        const uint32_t slots = slots_of(s.cls);
        for (uint32_t slot = slots; slot < bitmap_words * 64; ++slot) {
            if (((s.bits[slot / 64] >> (slot % 64)) & 1U) != 0) {
                return fail("slab %lu has a bit past its %lu slots", at, slots);
            }
        }
        if (!held_among(at, s.bits)) {
            return false;
        }
        used_ += uint64_t{live - w_.held[at].count} * class_sizes[s.cls];
        listed_slabs_ += live < slots ? 1U : 0U;
        return live == s.live ? true : fail("slab %lu counts wrong, %lu are live", at, live);
    }

    bool run_of(uint32_t at, const span &s) {
        if (s.length == 0 || s.length > h_.top - at) {
            return fail("run at span %lu has %lu spans", at, s.length);
        }
        for (uint32_t i = 0; i < s.length; ++i) {
            const span &inner = w_.spans[at + i];
            const bool last = i + 1 == s.length;
            const uint32_t tail = kind(s) == span_kind::free && last ? s.length : 0;
            if ((i != 0 && kind(inner) != span_kind::none) || inner.tail != tail) {
                return fail("span %lu inside the run at %lu is marked wrong", at + i, at);
            }
            for (const uint64_t word : inner.bits) {
                if (word != 0) {
                    return fail("span %lu is no slab and has bits set", at + i);
                }
            }
        }
        const uint64_t one[bitmap_words] = {kind(s) == span_kind::large ? 1U : 0U};
        for (uint32_t i = 0; i < s.length; ++i) {
            static constexpr uint64_t none[bitmap_words] = {};
            if (!held_among(at + i, i == 0 ? one : none)) {
                return false;
            }
        }
        if (kind(s) == span_kind::large) {
            used_ += w_.held[at].count == 0 ? uint64_t{s.length} * span_bytes : 0;
        } else {
            ++free_runs_;
        }
        return true;
    }

    // Only what is taken can be held.
    bool held_among(uint32_t at, const uint64_t (&taken)[bitmap_words]) {
        const held_span &h = w_.held[at];
        uint32_t count = 0;
        for (uint32_t i = 0; i < bitmap_words; ++i) {
            count += static_cast<uint32_t>(std::popcount(h.bits[i]));
            if ((h.bits[i] & ~taken[i]) != 0) {
                return fail("span %lu holds a block that is not taken", at);
            }
        }
        held_ += count;
        held_spans_ += count != 0 ? 1U : 0U;
        return count == h.count ? true : fail("span %lu counts %lu held blocks wrong", at, count);
    }

    bool held() {
        uint32_t listed = 0;
        for (uint32_t i = h_.held_first; i != 0; i = w_.held[i - 1].next) {
            if (i > h_.top || w_.held[i - 1].count == 0 || ++listed > held_spans_) {
                return fail("the list of held blocks goes wrong at span %lu", i - 1);
            }
        }
        if (listed != held_spans_) {
            return fail("%lu spans hold blocks, %lu are listed", held_spans_, listed);
        }
        return held_ == h_.held ? true : fail("%lu blocks are held, %lu counted", held_, h_.held);
    }

    bool counts() {
        return used_ == h_.used ? true
                                : fail("%lu bytes are live, %lu are counted", used_, h_.used);
    }

    // Follows one list both ways. `fits` tells whether a span may be on it.
    template <class F>
    bool list(uint32_t head, uint32_t *count, F fits) {
        uint32_t before = 0;
        for (uint32_t i = head; i != 0; i = w_.spans[i - 1].next) {
            if (i > h_.top || ++*count > h_.top) {
                return fail("a list runs out of the heap at span %lu", i - 1);
            }
            const span &s = w_.spans[i - 1];
            if (s.prev != before || !fits(s)) {
                return fail("span %lu is on the wrong list, or linked wrong", i - 1);
            }
            before = i;
        }
        return true;
    }

    bool partial_lists() {
        uint32_t count = 0;
        for (uint32_t c = 0; c < class_count; ++c) {
            const auto fits = [&](const span &s) {
                return kind(s) == span_kind::slab && s.cls == c && s.live < slots_of(c);
            };
            if (!list(h_.partial[c], &count, fits)) {
                return false;
            }
        }
        return count == listed_slabs_
                   ? true
                   : fail("%lu slabs have room, %lu are listed", listed_slabs_, count);
    }

    bool bins() {
        uint32_t count = 0;
        for (uint32_t b = 0; b < bin_count; ++b) {
            const bool filled = ((h_.bins_filled[b / 64] >> (b % 64)) & 1U) != 0;
            if (filled != (h_.bins[b] != 0)) {
                return fail("bin %lu is marked wrong", b);
            }
            if (!list(h_.bins[b], &count,
                      [](const span &s) { return kind(s) == span_kind::free; })) {
                return false;
            }
        }
        return count == free_runs_ ? true
                                   : fail("%lu runs are free, %lu are listed", free_runs_, count);
    }

    const open_window &w_;
    const heap_state &h_;
    char *why_;
    size_t why_size_;
    uint64_t used_ = 0;
    uint32_t listed_slabs_ = 0;
    uint32_t free_runs_ = 0;
    uint32_t held_ = 0;
    uint32_t held_spans_ = 0;
};

}  // namespace

}  // namespace mfwd6::window

using namespace mfwd6::window;

extern "C" cerrno shmwin_check_heap(uint32_t id, char *why, size_t size) {
    const open_window *w = find(id);
    if (w == nullptr) {
        return SHMWIN_ERR_BAD_ID;
    }
    return checker(*w, why, size).run() ? 0 : SHMWIN_ERR_DAMAGED;
}
