#include "services/objid/domain.h"

#include <bit>
#include <cerrno>
#include <cstring>

#include "services/journal/journal.h"

namespace mfwd6::objid {
namespace {

uint8_t bits_for(uint64_t count) {
    return static_cast<uint8_t>(std::bit_width(count - 1));
}

layout layout_of(const fib_obj_id_params &p) {
    return {bits_for(p.ids), bits_for(p.versions), bits_for(p.instances), bits_for(p.userdata)};
}

unsigned width(const layout &bits) {
    return unsigned{bits.index_bits} + bits.version_bits + bits.instance_bits + bits.userdata_bits;
}

// The mark keeps ids away from 0, and bit 63 clear keeps them below the reserved values.
unsigned mark_bit(const layout &bits) {
    return width(bits);
}

constexpr uint64_t low_bits(unsigned n) {
    return (uint64_t{1} << n) - 1;
}

bool complete(const fib_obj_id_params &p) {
    return p.ids != 0 && p.table_size != 0 && p.instances != 0 && p.versions != 0 &&
           p.userdata != 0;
}

bool fits(const fib_obj_id_params &p) {
    return width(layout_of(p)) <= 62 && (p.ids + p.table_size - 1) / p.table_size <= max_tables;
}

// Writes a new domain into fresh memory that nobody knows yet.
void fill(fib_obj_id_domain *d, const fib_obj_id_params &p) {
    std::memset(static_cast<void *>(d), 0, sizeof *d);
    d->magic = domain_magic;
    d->ids = p.ids;
    d->table_size = p.table_size;
    d->instances = p.instances;
    d->versions = p.versions;
    d->userdata = p.userdata;
    d->bits = layout_of(p);
    d->table_shift = static_cast<uint32_t>(std::countr_zero(p.table_size));
    d->free_first = no_index;
    d->free_last = no_index;
}

// A number that was not set agrees with anything.
bool agrees(uint64_t given, uint64_t stands) {
    return given == 0 || given == stands;
}

}  // namespace

bool is_domain(const fib_obj_id_domain *domain) {
    return domain != nullptr && domain->magic == domain_magic;
}

slot *slot_of(const fib_obj_id_domain *domain, uint64_t index) {
    const uint64_t table = index >> domain->table_shift;
    const page *const p = journal::observe(domain->pages[table / leaf_pages]);
    slot *const slots = p != nullptr ? journal::observe(p->tables[table % leaf_pages]) : nullptr;
    return slots != nullptr ? slots + (index & (domain->table_size - 1)) : nullptr;
}

uint64_t compose(const fib_obj_id_domain *domain, const parts &p) {
    const layout &b = domain->bits;
    uint64_t id = uint64_t{1} << b.userdata_bits | p.userdata;
    id = id << b.instance_bits | p.instance;
    id = id << b.version_bits | p.version;
    return id << b.index_bits | p.index;
}

bool take_apart(const fib_obj_id_domain *domain, uint64_t id, parts *p) {
    const layout &b = domain->bits;
    if (id >> mark_bit(b) != 1) {
        return false;
    }
    const auto next = [&id](unsigned n) {
        const uint64_t part = id & low_bits(n);
        id >>= n;
        return part;
    };
    p->index = next(b.index_bits);
    p->version = static_cast<uint32_t>(next(b.version_bits));
    p->instance = static_cast<uint32_t>(next(b.instance_bits));
    p->userdata = static_cast<uint32_t>(next(b.userdata_bits));
    return p->index < domain->ids && p->version < domain->versions &&
           p->instance < domain->instances && p->userdata < domain->userdata;
}

}  // namespace mfwd6::objid

using namespace mfwd6;
using namespace mfwd6::objid;

cerrno fib_obj_id_domain_init(const fib_obj_id_domain_params_t *domain_params,
                              const fib_obj_id_params_t *params, fib_obj_id_domain_t **domain) {
    if (domain == nullptr) {
        return EINVAL;
    }
    *domain = nullptr;
    if (domain_params == nullptr || params == nullptr) {
        return EINVAL;
    }
    const functions f = functions_from(domain_params, params);
    if (!complete(*params) || !fits(*params)) {
        return fail(f, EINVAL, "numbers of the domain are missing or too large", params->ids);
    }
    journal::group change;
    auto *const made =
        static_cast<fib_obj_id_domain *>(domain_params->alloc(1, sizeof(fib_obj_id_domain)));
    if (made == nullptr) {
        return fail(f, ENOMEM, "no memory for the domain", sizeof(fib_obj_id_domain));
    }
    if (!functions_set(made, f)) {
        domain_params->free(made);
        return fail(f, ENOMEM, "no memory for the functions of the domain", 0);
    }
    fill(made, *params);
    *domain = made;
    if (f.dbg != nullptr) {
        f.dbg("domain of %llu ids made", static_cast<unsigned long long>(made->ids));
    }
    return 0;
}

cerrno fib_obj_id_domain_reinit(const fib_obj_id_domain_params_t *domain_params,
                                const fib_obj_id_params_t *params, fib_obj_id_domain_t *domain) {
    if (domain_params == nullptr || params == nullptr || domain == nullptr) {
        return EINVAL;
    }
    const functions f = functions_from(domain_params, params);
    if (!is_domain(domain)) {
        return fail(f, FIB_OBJ_ID_NO_DOMAIN, "no domain here", reinterpret_cast<uint64_t>(domain));
    }
    if (!agrees(params->ids, domain->ids) || !agrees(params->table_size, domain->table_size) ||
        !agrees(params->instances, domain->instances) ||
        !agrees(params->versions, domain->versions) ||
        !agrees(params->userdata, domain->userdata)) {
        return fail(f, FIB_OBJ_ID_SHAPE, "the domain has other numbers", domain->ids);
    }
    if (!functions_set(domain, f)) {
        return fail(f, ENOMEM, "no memory for the functions of the domain", 0);
    }
    if (f.dbg != nullptr) {
        f.dbg("domain of %llu ids connected, %llu in use",
              static_cast<unsigned long long>(domain->ids),
              static_cast<unsigned long long>(domain->in_use));
    }
    return 0;
}

cerrno fib_obj_id_domain_destroy(fib_obj_id_domain_t *domain) {
    if (!is_domain(domain)) {
        return domain == nullptr ? EINVAL : FIB_OBJ_ID_NO_DOMAIN;
    }
    const functions f = functions_of(domain);
    if (f.free == nullptr) {
        return fail(f, FIB_OBJ_ID_NOT_CONNECTED, "no free function", 0);
    }
    const journal::group change;
    journal::store(domain->magic, uint64_t{0});
    for (page *const p : domain->pages) {
        for (uint32_t i = 0; p != nullptr && i < leaf_pages; ++i) {
            if (p->tables[i] != nullptr) {
                f.free(p->tables[i]);
            }
        }
        if (p != nullptr) {
            f.free(p);
        }
    }
    f.free(domain);
    functions_forget(domain);
    return 0;
}
