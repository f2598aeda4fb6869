// Undo log for structures in shared memory.
//
// A structural change is a group. Inside a group every store to shared memory first saves the
// address and the old word in a log that lies in the window itself. Commit empties the log with one
// store, so a process killed at any instruction leaves either a finished change or a log that runs
// it backwards. Process death keeps memory coherent: compiler ordering is enough, no flush and no
// fence is needed.
//
// Thread-safety. A log belongs to one thread at a time. Which log a thread writes to is decided by
// the locks it holds (see `binding`), else by the process (the owner's operation thread). A thread
// with no log stores directly: structures in private memory use the same code and pay one branch.
//
// Readers need nothing from the log. What they follow without a lock must be whole after every
// single store, forwards and backwards; `publish` is the store that makes a prepared record
// visible.
#ifndef MFWD6_SERVICES_JOURNAL_H
#define MFWD6_SERVICES_JOURNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "services/export.h"

namespace mfwd6::journal {

// What a log entry asks for when the log is run backwards (or, for `free_on_commit`, finished).
enum class kind : uint8_t {
    word1,           // restore 1 byte
    word2,           // restore 2 bytes
    word4,           // restore 4 bytes
    word8,           // restore 8 bytes
    free_on_undo,    // give back a block that this group allocated
    free_on_commit,  // give back a block that this group freed
};

struct entry {
    uint64_t where;  // kind in the top 8 bits, address below
    uint64_t old;    // the word before the change; unused by the two free kinds
};
static_assert(sizeof(entry) == 16, "one 16-byte store per logged word");

// Head of a log; `capacity` entries follow it in memory. Lies in the window.
struct alignas(64) log {
    uint32_t magic;
    uint32_t capacity;    // entries
    uint32_t holder;      // peer id of the process with a group open, 0 when idle
    uint32_t committing;  // the change is final, its frees are being done
    uint64_t used;        // entries that count; `overflow_bit` when the group outgrew the log
    uint64_t frees;       // not 0 when there may be entries of kind free_on_commit
    uint64_t overflowed;  // groups that outgrew the log since it was made
    uint64_t commits;     // groups committed since the log was made
    uint64_t undone;      // groups run backwards since the log was made
    uint64_t reserved;    // zero
};
static_assert(sizeof(log) == 64 && std::is_trivially_copyable_v<log>);

inline constexpr uint32_t log_magic = 0x6a726e31;

// Set in `log::used` when the open group outgrew the log: it cannot be undone any more. It is part
// of that word so that the one store which commits the group settles this too.
inline constexpr uint64_t overflow_bit = uint64_t{1} << 63;

// Bytes of a log with room for `entries`.
constexpr size_t log_bytes(uint32_t entries) {
    return sizeof(log) + size_t{entries} * sizeof(entry);
}

// A log together with the identity under which this process writes to it.
struct binding {
    log *target;
    uint32_t peer;  // non-zero, see services/peers
};

// How blocks are given back for free_on_undo and free_on_commit. `release` must free `block` and
// drop the last entry of `outer` in one group of the allocator's own log, so that neither happens
// alone.
struct block_hooks {
    void (*release)(log *outer, void *block);
    // Whether `address` may be written on behalf of a dead holder of `l`: it lies in memory that
    // the log shares with other processes. Entries for private memory are passed over in `recover`.
    // Null: all may.
    bool (*covers)(const log *l, const void *address) = nullptr;
    // As `release`, for a block whose allocation is run back: readers without a lock may have found
    // it while it was there, so it may have to be kept from reuse. Null: `release` does.
    void (*retire)(log *outer, void *block) = nullptr;
};

// State of one thread. Treat as private; it is here so that the hot path can be inline.
struct thread_state {
    log *current;    // log of the open group, null outside groups
    uint32_t depth;  // nesting of groups on `current`
    uint32_t peer;   // identity used for `current`
    uint32_t bound_count;
    binding bound[6];              // pushed by locks, innermost last
    void (*after)(void *context);  // to be called once when no group is open any more
    void *after_context;
};

MFWD6_EXPORT extern constinit thread_local thread_state self
    __attribute__((tls_model("initial-exec")));

#ifdef MFWD6_CRASH_POINTS
// Called around every journaled store in builds that test crashes.
MFWD6_EXPORT extern void (*crash_hook)();
inline void crash_point() {
    if (crash_hook != nullptr) {
        crash_hook();
    }
}
#else
inline void crash_point() {}
#endif

inline entry *entries(log *l) {
    return reinterpret_cast<entry *>(l + 1);
}

// Makes an empty log in `bytes` of memory at `where` (64-byte aligned). Capacity follows from
// `bytes`.
MFWD6_EXPORT log *format(void *where, size_t bytes);

// The log of this process for threads that hold no lock with a log of its own; null unbinds. Set
// when a window is opened by its owner. `peer` is the identity of the process in explicit groups
// also when `target` is null.
MFWD6_EXPORT void bind_process(log *target, uint32_t peer);

// The innermost lock with a log of its own: called by lock and unlock on the locking thread, last
// in, first out. At most 6 deep: false when there is no room.
MFWD6_EXPORT bool bind_thread(log *target, uint32_t peer);
MFWD6_EXPORT void unbind_thread(log *target);

// In the child of a fork: forgets all bindings and open groups, which are the parent's.
MFWD6_EXPORT void forget_after_fork();

MFWD6_EXPORT void set_block_hooks(const block_hooks *hooks);

// What `recover` found.
enum class recovery { clean, undone, finished, damaged };

// Brings a log whose holder is dead to rest: runs an open group backwards, or finishes the frees of
// a committed one. May itself be killed and repeated. The caller has made sure that the holder is
// dead and that nobody else recovers the same log. `damaged`: the group had overflowed and cannot
// be undone. The allocator's log must be recovered before any other.
MFWD6_EXPORT recovery recover(log *l);

// Calls `then` when the calling thread's outermost group has committed; one such call at a time
// (false, and nothing is noted, while another is pending or when no group is open). For a lock that
// must cover the commit of a change that an outer group will make.
MFWD6_EXPORT bool after_commit(void (*then)(void *context), void *context);
MFWD6_EXPORT void run_after();

// Private to `group`: out of line because they are rare or long.
MFWD6_EXPORT void begin_slow(log *chosen);
MFWD6_EXPORT void commit_with_frees(log *l);
MFWD6_EXPORT bool undo_to(log *l, uint64_t mark);
MFWD6_EXPORT void overflow(log *l);
MFWD6_EXPORT log *choose();

// Appends one entry; the entry is complete before it counts.
inline void append(log *l, kind what, const volatile void *address, uint64_t old) {
    const uint64_t n = l->used;
    if (n >= l->capacity) [[unlikely]] {
        overflow(l);
        return;
    }
    entries(l)[n] = {(static_cast<uint64_t>(what) << 56) | reinterpret_cast<uint64_t>(address),
                     old};
    std::atomic_signal_fence(std::memory_order_seq_cst);
    crash_point();
    l->used = n + 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

// For an allocator, with a group on its own log open: `block` was taken for the group open on
// `outer` and goes back if that group does not commit. The note is part of the allocator's group.
MFWD6_EXPORT void note_allocation(log *outer, void *block);

// `block` was given up by the group open on `outer`; the hook frees it when that group commits.
MFWD6_EXPORT void note_free(log *outer, void *block);

template <class T>
constexpr kind kind_of() {
    static_assert(std::is_trivially_copyable_v<T>);
    static_assert(sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8);
    return sizeof(T) == 1   ? kind::word1
           : sizeof(T) == 2 ? kind::word2
           : sizeof(T) == 4 ? kind::word4
                            : kind::word8;
}

// Saves the present value of `field` in the log of the open group, if there is one.
template <class T>
inline void save(T &field) {
    if (self.current != nullptr) {
        uint64_t old = 0;
        std::memcpy(&old, &field, sizeof(T));
        append(self.current, kind_of<T>(), &field, old);
    }
}

// Journaled store of a word that no lock-free reader depends on the order of.
template <class T>
inline void store(T &field, std::type_identity_t<T> value) {
    crash_point();
    save(field);
    crash_point();
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
    crash_point();
}

// Journaled store that makes what was written before it visible to readers without a lock.
template <class T>
inline void publish(T &field, std::type_identity_t<T> value) {
    crash_point();
    save(field);
    crash_point();
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
    crash_point();
}

// Journaled store of `bytes` bytes at `to`, for texts and long keys: eight at a time where they are
// aligned, an entry for each. Whoever reads beside it may see a part of the change.
MFWD6_EXPORT void copy(void *to, const void *from, size_t bytes);

// The reader's side of `publish`.
template <class T>
inline T observe(const T &field) {
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_acquire);
}

// One structural change. The outermost group of a thread commits; inner ones join it, whatever
// locks were taken in between: take locks first, then open the group, and let it end before the
// lock goes.
class group {
  public:
    group() : group(self.current != nullptr ? self.current : choose()) {}

    // A group on a given log, joined if it is already the open one. Used by the allocator, whose
    // log may be opened inside a group on another log.
    explicit group(log *l)
        : log_(l), outer_(self.current), outer_depth_(self.depth), outer_peer_(self.peer) {
        if (l == nullptr) {
            return;
        }
        if (outer_ == l) {
            ++self.depth;
        } else {
            begin_slow(l);
        }
        mark_ = l->used;
    }

    // A group on the log of a lock that the caller holds and that nobody else can write to
    // meanwhile; never joins. `peer` is the identity under which the lock is held.
    group(log *l, uint32_t peer)
        : log_(l), outer_(self.current), outer_depth_(self.depth), outer_peer_(self.peer) {
        std::atomic_ref<uint32_t>(l->holder).store(peer, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        self.current = l;
        self.depth = 1;
        self.peer = peer;
        mark_ = l->used;
    }

    group(const group &) = delete;
    group &operator=(const group &) = delete;

    ~group() {
        // The second test is for the child of a fork: the open group is its parent's.
        if (log_ == nullptr || self.current != log_) {
            return;
        }
        if (self.depth > 1) {
            --self.depth;
            return;
        }
        crash_point();
        if (log_->frees != 0) {
            commit_with_frees(log_);
        } else {
            std::atomic_signal_fence(std::memory_order_seq_cst);
            log_->used = 0;
            std::atomic_signal_fence(std::memory_order_seq_cst);
            ++log_->commits;
        }
        crash_point();
        std::atomic_ref<uint32_t>(log_->holder).store(0, std::memory_order_release);
        self.current = outer_;
        self.depth = outer_depth_;
        self.peer = outer_peer_;
        if (self.after != nullptr && self.current == nullptr) [[unlikely]] {
            run_after();
        }
    }

    // Runs back what this group (and the groups inside it) stored and allocated so far. The group
    // stays usable. False, and nothing is changed, when the group outgrew its log or has none: the
    // caller must not rely on it there.
    bool undo() { return log_ != nullptr && undo_to(log_, mark_); }

    // True when `words` more stores or notes fit in the log. Always true without a log.
    bool room(uint64_t words) const {
        return log_ == nullptr ||
               (log_->used <= log_->capacity && words <= log_->capacity - log_->used);
    }

    bool journaled() const { return log_ != nullptr; }

  private:
    log *log_;
    log *outer_;
    uint32_t outer_depth_;
    uint32_t outer_peer_;
    uint64_t mark_ = 0;
};

}  // namespace mfwd6::journal

#endif
