#include "services/objid/obj_id.h"

#include <cerrno>
#include <cstring>

#include "services/journal/journal.h"
#include "services/objid/domain.h"

namespace journal = mfwd6::journal;
using namespace mfwd6::objid;

namespace {

// Memory from the domain's allocate function, zeroed, not yet known to anybody.
template <class T>
T *zeroed(const functions &f, size_t count) {
    void *const block = f.alloc(count, sizeof(T));
    if (block != nullptr) {
        std::memset(block, 0, count * sizeof(T));
    }
    return static_cast<T *>(block);
}

// The directory page for a table, made if there is none. NULL: no memory.
page *page_for(fib_obj_id_domain_t *domain, const functions &f, uint64_t table) {
    page *&at = domain->pages[table / leaf_pages];
    if (at == nullptr) {
        page *const made = zeroed<page>(f, 1);
        if (made != nullptr) {
            journal::publish(at, made);
        }
    }
    return at;
}

// Adds the table that holds index `domain->room`. A page made for a table that then found no memory
// stays: the next try uses it.
cerrno add_table(fib_obj_id_domain_t *domain, const functions &f) {
    if (f.alloc == nullptr) {
        return fail(f, FIB_OBJ_ID_NOT_CONNECTED, "no allocate function", 0);
    }
    const uint64_t table = domain->room >> domain->table_shift;
    page *const p = page_for(domain, f, table);
    slot *const slots = p != nullptr ? zeroed<slot>(f, domain->table_size) : nullptr;
    if (slots == nullptr) {
        return fail(f, ENOMEM, "no memory for a table", table);
    }
    journal::publish(p->tables[table % leaf_pages], slots);
    const uint64_t room = domain->room + domain->table_size;
    journal::store(domain->room, room < domain->ids ? room : domain->ids);
    return 0;
}

// Takes an index that was never used, then the one freed the longest ago, then one of a new table.
cerrno take_index(fib_obj_id_domain_t *domain, uint64_t *index) {
    const bool none_free = domain->free_first == no_index;
    if (domain->fresh == domain->room && none_free) {
        const functions f = functions_of(domain);
        if (domain->room == domain->ids) {
            return fail(f, FIB_OBJ_ID_FULL, "all ids are in use", domain->ids);
        }
        if (const cerrno rc = add_table(domain, f); rc != 0) {
            return rc;
        }
    }
    if (domain->fresh < domain->room) {
        *index = domain->fresh;
        journal::store(domain->fresh, domain->fresh + 1);
        return 0;
    }
    *index = domain->free_first;
    const uint64_t next = slot_of(domain, *index)->word;
    journal::store(domain->free_first, next);
    if (next == no_index) {
        journal::store(domain->free_last, no_index);
    }
    return 0;
}

void put_index(fib_obj_id_domain_t *domain, uint64_t index) {
    if (domain->free_last == no_index) {
        journal::store(domain->free_first, index);
    } else {
        journal::store(slot_of(domain, domain->free_last)->word, index);
    }
    journal::store(domain->free_last, index);
}

// Tells what an id is that does not stand for a live object.
cerrno why_not(const fib_obj_id_domain_t *domain, const parts &p) {
    const slot *const s = slot_of(domain, p.index);
    const uint32_t state = s != nullptr ? journal::observe(s->state) : 0;
    const bool used_once = s != nullptr && p.index < journal::observe(domain->fresh);
    // The version at hand is not given out while the slot is free, so only another one can be
    // stale.
    const bool issued = used_once && p.instance == 0 && version_of(state) != p.version;
    return issued ? FIB_OBJ_ID_STALE : FIB_OBJ_ID_UNKNOWN;
}

bool stands_for(uint32_t state, const parts &p) {
    return p.instance == 0 && state == state_live(p.version, p.userdata);
}

}  // namespace

cerrno fib_obj_id_alloc(fib_obj_id_domain_t *domain, uint64_t *id, void *object,
                        uint32_t userdata) {
    if (!is_domain(domain)) {
        return domain == nullptr ? EINVAL : FIB_OBJ_ID_NO_DOMAIN;
    }
    if (id == nullptr || object == nullptr || userdata >= domain->userdata) {
        return fail(functions_of(domain), EINVAL, "allocation without id or object, or bad type",
                    userdata);
    }
    const journal::group change;
    uint64_t index = 0;
    if (const cerrno rc = take_index(domain, &index); rc != 0) {
        return rc;
    }
    slot *const s = slot_of(domain, index);
    const uint32_t version = version_of(s->state);
    // Published, as is every word: a reader that sees it must not find an older state around it.
    journal::publish(s->word, reinterpret_cast<uint64_t>(object));
    journal::publish(s->state, state_live(version, userdata));
    journal::store(domain->in_use, domain->in_use + 1);
    *id = compose(domain, {index, version, 0, userdata});
    return 0;
}

cerrno fib_obj_id_free(fib_obj_id_domain_t *domain, uint64_t id) {
    if (!is_domain(domain)) {
        return domain == nullptr ? EINVAL : FIB_OBJ_ID_NO_DOMAIN;
    }
    parts p{};
    if (!take_apart(domain, id, &p)) {
        return fail(functions_of(domain), FIB_OBJ_ID_MALFORMED, "free of a malformed id", id);
    }
    slot *const s = slot_of(domain, p.index);
    if (s == nullptr || !stands_for(s->state, p)) {
        return fail(functions_of(domain), why_not(domain, p), "free of an id not in use", id);
    }
    const journal::group change;
    const uint32_t next = p.version + 1 < domain->versions ? p.version + 1 : 0;
    journal::publish(s->state, state_free(next));
    journal::publish(s->word, no_index);
    put_index(domain, p.index);
    journal::store(domain->in_use, domain->in_use - 1);
    return 0;
}

cerrno fib_obj_id_get_object_from_id(const fib_obj_id_domain_t *domain, uint64_t id, void **object,
                                     uint32_t *userdata) {
    if (!is_domain(domain)) {
        return domain == nullptr ? EINVAL : FIB_OBJ_ID_NO_DOMAIN;
    }
    parts p{};
    if (object == nullptr) {
        return fail(functions_of(domain), EINVAL, "lookup without a place for the object", id);
    }
    if (!take_apart(domain, id, &p)) {
        return fail(functions_of(domain), FIB_OBJ_ID_MALFORMED, "lookup of a malformed id", id);
    }
    const slot *const s = slot_of(domain, p.index);
    uint64_t word = 0;
    bool found = s != nullptr && stands_for(journal::observe(s->state), p);
    if (found) {
        word = journal::observe(s->word);
        found = stands_for(journal::observe(s->state), p);
    }
    if (!found) {
        return fail(functions_of(domain), why_not(domain, p), "lookup of an id not in use", id);
    }
    *object = reinterpret_cast<void *>(word);
    if (userdata != nullptr) {
        *userdata = p.userdata;
    }
    return 0;
}

cerrno fib_obj_id_decode(const fib_obj_id_domain_t *domain, uint64_t id, uint64_t *index,
                         uint32_t *userdata, uint32_t *version, uint32_t *instance, uint32_t *table,
                         uint32_t *entry, uint32_t *live) {
    if (!is_domain(domain)) {
        return domain == nullptr ? EINVAL : FIB_OBJ_ID_NO_DOMAIN;
    }
    parts p{};
    if (!take_apart(domain, id, &p)) {
        return fail(functions_of(domain), FIB_OBJ_ID_MALFORMED, "decoding of a malformed id", id);
    }
    const auto give = [](auto *out, auto value) {
        if (out != nullptr) {
            *out = value;
        }
    };
    const slot *const s = slot_of(domain, p.index);
    give(index, p.index);
    give(userdata, p.userdata);
    give(version, p.version);
    give(instance, p.instance);
    give(table, static_cast<uint32_t>(p.index >> domain->table_shift));
    give(entry, static_cast<uint32_t>(p.index & (domain->table_size - 1)));
    give(live, s != nullptr && stands_for(journal::observe(s->state), p) ? 1U : 0U);
    return 0;
}

cerrno fib_obj_id_in_use(const fib_obj_id_domain_t *domain, uint64_t *count) {
    if (!is_domain(domain)) {
        return domain == nullptr ? EINVAL : FIB_OBJ_ID_NO_DOMAIN;
    }
    if (count == nullptr) {
        return EINVAL;
    }
    *count = journal::observe(domain->in_use);
    return 0;
}
