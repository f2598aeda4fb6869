// A flat array of slots in a region, and a hash index that finds them.
//
// The array is the truth: a slot counts when its state is not 0, and the state is written last. The
// index, the list of free slots and all links between slots are computed from it when a region that
// outlived its process is opened, so a process killed at any point leaves nothing to repair.
#ifndef MFWD6_PLATFORMS_SIM_SLOTS_H
#define MFWD6_PLATFORMS_SIM_SLOTS_H

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "platforms/sim/region.h"

namespace mfwd6::sim {

inline constexpr uint32_t no_slot = UINT32_MAX;

// First member `head` of every slot.
struct slot_head {
    uint32_t state;      // 0: free
    uint32_t next_free;  // while free
};

inline constexpr uint32_t slot_free = 0;
inline constexpr uint32_t slot_announced = 1;  // named by what hangs on it, not held itself
inline constexpr uint32_t slot_created = 2;
inline constexpr uint32_t slot_committed = 3;

template <class T>
class slot_array {
    static_assert(std::is_trivially_copyable_v<T> && std::is_standard_layout_v<T>);

  public:
    cerrno open(int folder_fd, const char *name, uint64_t most) {
        const cerrno failed = folder_fd < 0 ? memory_.open_memory(sizeof(T), most)
                                            : memory_.open_file(folder_fd, name, sizeof(T), most);
        if (failed == 0) {
            find_free();
        }
        return failed;
    }

    void close() {
        memory_.close();
        free_ = no_slot;
    }

    bool opened() const { return memory_.opened(); }

    // Slots are 0 to used() - 1.
    uint32_t used() const { return opened() ? static_cast<uint32_t>(memory_.head()->used) : 0; }

    T &at(uint32_t slot) const { return reinterpret_cast<T *>(memory_.elements())[slot]; }

    // A slot, all zero, still free: `keep` makes it count. ENOSPC, ENOMEM.
    cerrno take(uint32_t *slot) {
        if (!opened()) {
            return ENOMEM;
        }
        if (free_ != no_slot) {
            *slot = free_;
            free_ = at(free_).head.next_free;
        } else {
            if (const cerrno failed = memory_.grow_to(uint64_t{used()} + 1); failed != 0) {
                return failed;
            }
            *slot = used();
            at(*slot).head.state = slot_free;
            ++memory_.head()->used;
        }
        std::memset(static_cast<void *>(&at(*slot)), 0, sizeof(T));
        return 0;
    }

    // Makes a filled slot count, or changes how it counts.
    void keep(uint32_t slot, uint32_t state) {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        at(slot).head.state = state;
    }

    void give_back(uint32_t slot) {
        at(slot).head.state = slot_free;
        at(slot).head.next_free = free_;
        free_ = slot;
    }

    void clear() {
        for (uint32_t slot = 0; slot < used(); ++slot) {
            at(slot).head.state = slot_free;
        }
        if (opened()) {
            memory_.head()->used = 0;
        }
        free_ = no_slot;
    }

  private:
    void find_free() {
        free_ = no_slot;
        for (uint32_t slot = used(); slot-- > 0;) {
            if (at(slot).head.state == slot_free) {
                at(slot).head.next_free = free_;
                free_ = slot;
            }
        }
    }

    region memory_;
    uint32_t free_ = no_slot;
};

// Open addressing, linear probing, in process memory. Knows hashes and slots; what a slot's key is,
// the caller knows.
class slot_index {
  public:
    slot_index() = default;
    slot_index(const slot_index &) = delete;
    slot_index &operator=(const slot_index &) = delete;
    ~slot_index() { std::free(cells_); }

    // The slot with this hash for which `is_it(slot)` holds, or no_slot.
    template <class Test>
    uint32_t find(uint32_t hash, Test is_it) const {
        if (count_ == 0) {
            return no_slot;
        }
        for (uint64_t i = hash & mask_;; i = (i + 1) & mask_) {
            const cell &c = cells_[i];
            if (c.slot == no_slot) {
                return no_slot;
            }
            if (c.hash == hash && is_it(c.slot)) {
                return c.slot;
            }
        }
    }

    // The lowest slot with this hash for which `is_it(slot)` holds, or no_slot.
    template <class Test>
    uint32_t find_lowest(uint32_t hash, Test is_it) const {
        uint32_t lowest = no_slot;
        find(hash, [&](uint32_t slot) {
            if (slot < lowest && is_it(slot)) {
                lowest = slot;
            }
            return false;
        });
        return lowest;
    }

    // False: out of memory, nothing changed.
    bool insert(uint32_t hash, uint32_t slot) {
        if ((count_ + 1) * 5 > (mask_ + 1) * 3 || cells_ == nullptr) {
            if (!grow()) {
                return false;
            }
        }
        put(cells_, mask_, {hash, slot});
        ++count_;
        return true;
    }

    // Nothing where it is not in the index.
    void erase(uint32_t hash, uint32_t slot) {
        if (count_ == 0) {
            return;
        }
        uint64_t i = hash & mask_;
        while (cells_[i].slot != slot) {
            if (cells_[i].slot == no_slot) {
                return;
            }
            i = (i + 1) & mask_;
        }
        close_gap(i);
        --count_;
    }

    void clear() {
        std::free(cells_);
        cells_ = nullptr;
        mask_ = 0;
        count_ = 0;
    }

    uint64_t count() const { return count_; }

  private:
    struct cell {
        uint32_t hash;
        uint32_t slot;
    };

    static void put(cell *cells, uint64_t mask, cell what) {
        uint64_t i = what.hash & mask;
        while (cells[i].slot != no_slot) {
            i = (i + 1) & mask;
        }
        cells[i] = what;
    }

    // Moves back what was pushed over the cell that is now empty, so that no search ends early.
    void close_gap(uint64_t gap) {
        for (uint64_t i = (gap + 1) & mask_; cells_[i].slot != no_slot; i = (i + 1) & mask_) {
            const uint64_t wanted = cells_[i].hash & mask_;
            if (((i - wanted) & mask_) >= ((i - gap) & mask_)) {
                cells_[gap] = cells_[i];
                gap = i;
            }
        }
        cells_[gap].slot = no_slot;
    }

    bool grow() {
        const uint64_t size = cells_ == nullptr ? 64 : (mask_ + 1) * 2;
        auto *bigger = static_cast<cell *>(allocate_cells(size * sizeof(cell)));
        if (bigger == nullptr) {
            return false;
        }
        std::memset(bigger, 0xff, size * sizeof(cell));
        for (uint64_t i = 0; cells_ != nullptr && i <= mask_; ++i) {
            if (cells_[i].slot != no_slot) {
                put(bigger, size - 1, cells_[i]);
            }
        }
        std::free(cells_);
        cells_ = bigger;
        mask_ = size - 1;
        return true;
    }

    cell *cells_ = nullptr;
    uint64_t mask_ = 0;
    uint64_t count_ = 0;
};

// Hash of `words` 64-bit words.
inline uint32_t hash_words(const uint64_t *words, size_t count) {
    __extension__ typedef unsigned __int128 wide;
    uint64_t h = 0x9e3779b97f4a7c15;
    for (size_t i = 0; i < count; ++i) {
        const wide product = wide{h ^ words[i]} * 0xd6e8feb86659fd93;
        h = static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64) ^ (h >> 32);
    }
    return static_cast<uint32_t>(h ^ (h >> 32));
}

// Hash of a key without padding, a multiple of 8 bytes long.
template <class Key>
uint32_t hash_key(const Key &key) {
    static_assert(std::has_unique_object_representations_v<Key> && sizeof(Key) % 8 == 0);
    uint64_t words[sizeof(Key) / 8];
    std::memcpy(words, &key, sizeof(Key));
    return hash_words(words, sizeof(Key) / 8);
}

// Slots of one kind, found by a key of type T::key_type in the member `key`.
template <class T>
class slot_table {
  public:
    using key_type = decltype(T::key);

    cerrno open(int folder_fd, const char *name, uint64_t most) {
        index_.clear();
        cerrno failed = slots_.open(folder_fd, name, most);
        for (uint32_t slot = 0; failed == 0 && slot < slots_.used(); ++slot) {
            if (live(slot) && !index_.insert(hash_key(at(slot).key), slot)) {
                failed = ENOMEM;
            }
        }
        return failed;
    }

    void close() {
        slots_.close();
        index_.clear();
    }

    uint32_t used() const { return slots_.used(); }
    T &at(uint32_t slot) const { return slots_.at(slot); }
    bool live(uint32_t slot) const { return at(slot).head.state != slot_free; }

    uint32_t find(const key_type &key) const {
        return index_.find(hash_key(key), [&](uint32_t slot) {
            return std::memcmp(&at(slot).key, &key, sizeof(key)) == 0;
        });
    }

    // Makes a slot with this key, which must be new. All else in it is zero.
    cerrno add(const key_type &key, uint32_t state, uint32_t *slot) {
        if (const cerrno failed = slots_.take(slot); failed != 0) {
            return failed;
        }
        at(*slot).key = key;
        if (!index_.insert(hash_key(key), *slot)) {
            slots_.give_back(*slot);
            return ENOMEM;
        }
        slots_.keep(*slot, state);
        return 0;
    }

    void set_state(uint32_t slot, uint32_t state) { slots_.keep(slot, state); }

    void remove(uint32_t slot) {
        index_.erase(hash_key(at(slot).key), slot);
        slots_.give_back(slot);
    }

    void clear() {
        index_.clear();
        slots_.clear();
    }

  private:
    slot_array<T> slots_;
    slot_index index_;
};

}  // namespace mfwd6::sim

#endif
