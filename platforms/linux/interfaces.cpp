#include "platforms/linux/interfaces.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace mfwd6::lnx {

namespace {

// Interfaces are few, and looked up where something is configured: no index.
struct {
    interface **all = nullptr;
    uint32_t count = 0;
    uint32_t room = 0;
    uint32_t with_boundary = 0;
} known;

bool has_boundary(const interface &i) {
    return i.prefix_count != 0 || i.boundary_acl != nullptr;
}

void count_boundary(const interface &i, bool before) {
    known.with_boundary += (has_boundary(i) ? 1U : 0U) - (before ? 1U : 0U);
}

bool make_room() {
    if (known.count < known.room) {
        return true;
    }
    const uint32_t room = known.room == 0 ? 16 : known.room * 2;
    void *bigger = std::realloc(static_cast<void *>(known.all), room * sizeof(*known.all));
    if (bigger == nullptr) {
        return false;
    }
    known.all = static_cast<interface **>(bigger);
    known.room = room;
    return true;
}

void destroy(interface *i) {
    std::free(i->prefixes);
    std::free(i);
}

// A list denies a group when the first entry whose destination holds it does; what no entry holds
// is denied, as in all lists.
bool denied(ipv6_acl_handle_t acl, const ip_maddr_st &group) {
    for (const ipv6_acl_entry_t *entry = ipv6_acl_get_next(acl, nullptr); entry != nullptr;
         entry = ipv6_acl_get_next(acl, entry)) {
        // A list of one prefix names its groups there.
        const bool one_prefix = entry->destination_length == 0;
        ip_maddr_st prefix;
        std::memcpy(&prefix, one_prefix ? entry->source : entry->destination, sizeof(prefix));
        if (in_prefix(group, prefix,
                      one_prefix ? entry->source_length : entry->destination_length)) {
            return entry->action != IPV6_ACL_PERMIT;
        }
    }
    return true;
}

}  // namespace

interface *find_interface(uint32_t ifh) {
    for (uint32_t n = 0; n < known.count; ++n) {
        if (known.all[n]->ifh == ifh) {
            return known.all[n];
        }
    }
    return nullptr;
}

interface *make_interface(uint32_t ifh) {
    if (interface *there = find_interface(ifh); there != nullptr) {
        return there;
    }
    if (!make_room()) {
        return nullptr;
    }
    auto *made = static_cast<interface *>(std::calloc(1, sizeof(interface)));
    if (made != nullptr) {
        made->ifh = ifh;
        known.all[known.count++] = made;
    }
    return made;
}

void forget_interface(uint32_t ifh) {
    for (uint32_t n = 0; n < known.count; ++n) {
        if (known.all[n]->ifh == ifh) {
            known.with_boundary -= has_boundary(*known.all[n]) ? 1U : 0U;
            destroy(known.all[n]);
            known.all[n] = known.all[--known.count];
            return;
        }
    }
}

void forget_interfaces() {
    for (uint32_t n = 0; n < known.count; ++n) {
        destroy(known.all[n]);
    }
    std::free(static_cast<void *>(known.all));
    known = {};
}

interface *interface_at(uint32_t n) {
    return n < known.count ? known.all[n] : nullptr;
}

bool boundaries_set() {
    return known.with_boundary != 0;
}

cerrno set_prefixes(interface &i, const linux_prefix *prefixes, uint32_t count) {
    linux_prefix *copy = nullptr;
    for (uint32_t n = 0; n < count; ++n) {
        if (prefixes[n].length > 128) {
            return EINVAL;
        }
    }
    if (count != 0) {
        copy = static_cast<linux_prefix *>(std::calloc(count, sizeof(linux_prefix)));
        if (copy == nullptr) {
            return ENOMEM;
        }
        std::memcpy(copy, prefixes, count * sizeof(linux_prefix));
    }
    const bool before = has_boundary(i);
    std::free(i.prefixes);
    i.prefixes = copy;
    i.prefix_count = count;
    count_boundary(i, before);
    return 0;
}

void set_boundary_acl(interface &i, ipv6_acl_handle_t acl) {
    const bool before = has_boundary(i);
    i.boundary_acl = acl;
    count_boundary(i, before);
}

void publish_boundaries() {
    book().begin_boundaries();
    for (uint32_t n = 0; n < known.count; ++n) {
        const interface &i = *known.all[n];
        for (uint32_t prefix = 0; prefix < i.prefix_count; ++prefix) {
            book().add_boundary({i.ifh, i.prefixes[prefix].length, i.prefixes[prefix].group});
        }
    }
}

bool inside_published_boundary(uint32_t ifh, const ip_maddr_st &group) {
    for (uint32_t n = 0; book().opened() && n < book().boundaries(); ++n) {
        const boundary_slot &b = book().boundary(n);
        if (b.ifh == ifh && b.length <= 128 && in_prefix(group, b.group, b.length)) {
            return true;
        }
    }
    return false;
}

bool in_prefix(const ip_maddr_st &address, const ip_maddr_st &prefix, uint32_t length) {
    const uint32_t whole = length / 8;
    if (std::memcmp(address.bytes, prefix.bytes, whole) != 0) {
        return false;
    }
    const uint32_t rest = length % 8;
    const uint32_t mask = 0xff00U >> rest;
    return rest == 0 || ((address.bytes[whole] ^ prefix.bytes[whole]) & mask & 0xff) == 0;
}

bool inside_boundary(uint32_t ifh, const ip_maddr_st &group) {
    if (!boundaries_set()) {
        return false;
    }
    const interface *i = find_interface(ifh);
    if (i == nullptr) {
        return false;
    }
    for (uint32_t n = 0; n < i->prefix_count; ++n) {
        if (in_prefix(group, i->prefixes[n].group, i->prefixes[n].length)) {
            return true;
        }
    }
    return i->boundary_acl != nullptr && denied(i->boundary_acl, group);
}

}  // namespace mfwd6::lnx
