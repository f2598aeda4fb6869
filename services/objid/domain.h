// Inside of the object-id service: the records in the window and what a process knows beside them.
#ifndef MFWD6_SERVICES_OBJID_DOMAIN_H
#define MFWD6_SERVICES_OBJID_DOMAIN_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "services/objid/obj_id.h"

struct fib_obj_id_domain_params {
    fib_obj_id_mem_alloc_fn alloc;
    fib_obj_id_mem_free_fn free;
};

struct fib_obj_id_params {
    uint64_t ids;
    uint32_t table_size;
    uint32_t instances;
    uint32_t versions;
    uint32_t userdata;
    fib_obj_id_mem_alloc_fn alloc;
    fib_obj_id_mem_free_fn free;
    fib_obj_id_dbg_fn dbg;
    fib_obj_id_dbg_fn err;
};

namespace mfwd6::objid {

// One id. `state` is its version, user data and whether it is live, in one word: a reader that
// finds the same state before and after it read `word` has read the object of that state.
struct slot {
    uint64_t
        word;  // live: address of the object; free: the index freed after this one, or no_index
    uint32_t state;
    uint32_t reserved;  // 0
};
static_assert(sizeof(slot) == 16 && std::is_trivially_copyable_v<slot>);

inline constexpr uint64_t no_index = UINT64_MAX;

// Tables hang on a directory of two levels; both levels grow on demand.
inline constexpr uint32_t leaf_pages = 1024;
inline constexpr uint32_t max_tables = 1024 * leaf_pages;

struct page {
    slot *tables[leaf_pages];
};

// Bits of an id, from the lowest: index, version, instance, user data, and the mark above all of
// them.
struct layout {
    uint8_t index_bits;
    uint8_t version_bits;
    uint8_t instance_bits;
    uint8_t userdata_bits;
};

// Parts of an id.
struct parts {
    uint64_t index;
    uint32_t version;
    uint32_t instance;
    uint32_t userdata;
};

inline constexpr uint64_t domain_magic = 0x6f626a2d69642d31;

}  // namespace mfwd6::objid

struct fib_obj_id_domain {
    uint64_t magic;
    uint64_t ids;
    uint32_t table_size;
    uint32_t instances;
    uint32_t versions;
    uint32_t userdata;
    mfwd6::objid::layout bits;
    uint32_t table_shift;  // log2 of table_size
    uint64_t fresh;        // indices from here on were never given out
    uint64_t room;         // indices that tables exist for
    uint64_t free_first;   // index freed the longest ago, or no_index
    uint64_t free_last;
    uint64_t in_use;
    uint64_t reserved[6];  // 0
    mfwd6::objid::page *pages[1024];
};
static_assert(std::is_trivially_copyable_v<fib_obj_id_domain> &&
                  std::is_standard_layout_v<fib_obj_id_domain>,
              "the domain outlives its process");
static_assert(offsetof(fib_obj_id_domain, pages) == 128 &&
                  sizeof(fib_obj_id_domain) == 128 + 1024 * 8,
              "a domain that an earlier process built is read by this one");

namespace mfwd6::objid {

// What this process was given for a domain.
struct functions {
    fib_obj_id_mem_alloc_fn alloc;
    fib_obj_id_mem_free_fn free;
    fib_obj_id_dbg_fn dbg;
    fib_obj_id_dbg_fn err;
};

// Functions of this process for a domain; all NULL when it gave none.
functions functions_of(const fib_obj_id_domain *domain);
// Replaces what was known. False: no memory.
bool functions_set(const fib_obj_id_domain *domain, const functions &given);
void functions_forget(const fib_obj_id_domain *domain);

// The functions that the two parameter records name together.
functions functions_from(const fib_obj_id_domain_params *domain_params,
                         const fib_obj_id_params *params);

// Tells the error function about a failure and gives back its code.
cerrno fail(const functions &f, cerrno code, const char *what, uint64_t number);

// The slot of an index, or NULL when no table covers it. For any thread and process.
slot *slot_of(const fib_obj_id_domain *domain, uint64_t index);

uint64_t compose(const fib_obj_id_domain *domain, const parts &p);
// False when `id` is not of this domain's layout.
bool take_apart(const fib_obj_id_domain *domain, uint64_t id, parts *p);

// State words of a slot.
inline constexpr uint32_t live_bit = 0x80000000U;
inline constexpr uint32_t version_shift = 8;
constexpr uint32_t state_live(uint32_t version, uint32_t userdata) {
    return live_bit | version << version_shift | userdata;
}
constexpr uint32_t state_free(uint32_t version) {
    return version << version_shift;
}
constexpr uint32_t version_of(uint32_t state) {
    return (state & ~live_bit) >> version_shift;
}

bool is_domain(const fib_obj_id_domain *domain);

}  // namespace mfwd6::objid

#endif
