#include "platforms/linux/local_copies.h"

#include <cstdlib>

#include "platforms/linux/life.h"

namespace mfwd6::lnx {

namespace {

struct membership {
    uint32_t kernel_table;
    uint32_t mif;
    uint32_t holders;
    ip_maddr_st group;
};

// Few: routes of which this node is a receiver itself.
struct {
    membership *all = nullptr;
    uint32_t count = 0;
    uint32_t room = 0;
} memberships;

membership *find(const table &t, const ip_maddr_st &group, uint32_t mif) {
    for (uint32_t n = 0; n < memberships.count; ++n) {
        membership &m = memberships.all[n];
        if (m.kernel_table == t.kernel_table && m.mif == mif && same(m.group, group)) {
            return &m;
        }
    }
    return nullptr;
}

bool hold(const table &t, const ip_maddr_st &group, uint32_t mif) {
    if (membership *there = find(t, group, mif); there != nullptr) {
        ++there->holders;
        return true;
    }
    if (memberships.count == memberships.room) {
        const uint32_t room = memberships.room == 0 ? 16 : memberships.room * 2;
        void *bigger = std::realloc(memberships.all, room * sizeof(membership));
        if (bigger == nullptr) {
            return false;
        }
        memberships.all = static_cast<membership *>(bigger);
        memberships.room = room;
    }
    memberships.all[memberships.count++] = {t.kernel_table, mif, 1, group};
    return true;
}

void let_go(const table &t, const ip_maddr_st &group, uint32_t mif) {
    membership *there = find(t, group, mif);
    if (there != nullptr && --there->holders != 0) {
        return;
    }
    if (there != nullptr) {
        *there = memberships.all[--memberships.count];
    }
    if (mif_at(t, mif).ifindex != 0) {
        (void)noted(kernel_leave(t.fd, group, mif_at(t, mif).ifindex));
    }
}

}  // namespace

void set_local_copy(const table &t, const ip_maddr_st &group, uint8_t *mif_plus_1, uint32_t mif) {
    const uint32_t before = *mif_plus_1 == 0 ? no_mif : *mif_plus_1 - 1U;
    if (before == mif) {
        return;
    }
    if (before != no_mif) {
        let_go(t, group, before);
        *mif_plus_1 = 0;
    }
    if (mif == no_mif || mif_at(t, mif).ifindex == 0 || !hold(t, group, mif)) {
        return;
    }
    if (noted(kernel_join(t.fd, group, mif_at(t, mif).ifindex)) != 0) {
        let_go(t, group, mif);
        return;
    }
    *mif_plus_1 = static_cast<uint8_t>(mif + 1);
}

void recall_local_copy(const table &t, const ip_maddr_st &group, uint8_t mif_plus_1) {
    if (mif_plus_1 != 0 && hold(t, group, mif_plus_1 - 1U) &&
        mif_at(t, mif_plus_1 - 1U).ifindex != 0) {
        (void)noted(kernel_join(t.fd, group, mif_at(t, mif_plus_1 - 1U).ifindex));
    }
}

void renew_local_copies(const table &t, uint32_t mif) {
    for (uint32_t n = 0; n < memberships.count; ++n) {
        const membership &m = memberships.all[n];
        if (m.kernel_table == t.kernel_table && m.mif == mif) {
            (void)noted(kernel_join(t.fd, m.group, mif_at(t, mif).ifindex));
        }
    }
}

void forget_local_copies_of(const table &t) {
    for (uint32_t n = memberships.count; n-- > 0;) {
        if (memberships.all[n].kernel_table == t.kernel_table) {
            memberships.all[n] = memberships.all[--memberships.count];
        }
    }
}

void forget_local_copies() {
    std::free(memberships.all);
    memberships = {};
}

}  // namespace mfwd6::lnx
