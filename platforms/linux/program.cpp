#include "platforms/linux/program.h"

#include <bit>
#include <cerrno>

#include "platforms/linux/flows.h"
#include "platforms/linux/interfaces.h"
#include "platforms/linux/life.h"
#include "platforms/linux/local_copies.h"

namespace mfwd6::lnx {

namespace {

constexpr mrib_attrib_entry_type uses_mif = MRIB_INTF_ACCEPT | MRIB_INTF_FORWARD;

const ipv4mc_intf_entry_st *leaving = nullptr;

// The mif that an entry of a route stands for, no_mif when it has none.
uint32_t mif_of_entry(const table &t, ipv4mc_intf_entry_st &entry) {
    const intf_extension &e = extension(entry);
    return e.counted_by(self().run) ? e.mif() : mif_of(t, entry.ifh);
}

void add_inherited(const table &t, ipv4mc_route_entry_st &route, const ip_maddr_st &group,
                   legs *l) {
    ipv4mc_route_entry_st *parent = route.IF_parent;
    if ((route.attributes & MRIB_ROUTE_IA) == 0 || parent == nullptr) {
        return;
    }
    for (ipv4mc_intf_entry_st *entry = parent->intf_list; entry != nullptr;
         entry = entry->next_intf) {
        if ((entry->attributes & MRIB_INTF_ACCEPT) != 0 &&
            entry->intf_type == IPV4MC_INTF_ORDINARY && entry != leaving) {
            const uint32_t mif = mif_of_entry(t, *entry);
            if (mif != no_mif && !inside_boundary(entry->ifh, group)) {
                l->accepts |= mif_bit(mif);
            }
        }
    }
}

// What the kernel is to have for the route itself.
struct own_entry {
    bool wanted;
    uint32_t parent;
    mif_set outputs;
};

// The kernel takes packets of an entry from one interface, so a route has an entry of its own when
// it accepts from one. A (*,G) that drops has none: packets are to be taken from everywhere.
own_entry own_entry_of(const table &t, const ipv4mc_route_entry_st &route, const legs &l) {
    own_entry own = {};
    const bool one_group = exact_source(route) || (route.pfx_len == IPV4MC_ROUTE_PFX_LEN_STAR_G &&
                                                   (route.attributes & MRIB_ROUTE_DROP) == 0);
    if (!one_group || std::popcount(l.accepts) != 1) {
        return own;
    }
    own.wanted = true;
    own.parent = static_cast<uint32_t>(std::countr_zero(l.accepts));
    own.outputs = outputs_of(t, route, l, own.parent);
    return own;
}

void count_entry(table &t, mif_set outputs, int change) {
    const auto pairs = static_cast<uint64_t>(std::popcount(outputs));
    t.own_entries += static_cast<uint64_t>(change);
    self().output_pairs += change > 0 ? pairs : -pairs;
}

// What an entry of the route counted goes on counting for the route.
void carry(ipv4mc_route_entry_st &route, const counters &seen) {
    extension(route).packets += seen.packets;
    extension(route).bytes += seen.bytes;
}

cerrno remove_own(table &t, ipv4mc_route_entry_st &route) {
    route_extension &e = extension(route);
    set_local_copy(t, route.group, &e.local_mif_plus_1, no_mif);
    if (!has_entry(t, route)) {
        e.has_entry = 0;
        return 0;
    }
    book().note(t.kernel_table, key_of(route));
    carry(route, counted(t, key_of(route)));
    count_entry(t, e.outputs, -1);
    e.has_entry = 0;
    return noted(kernel_delete_entry(t.fd, key_of(route)));
}

// An (S,G) that accepts from several interfaces now: its entry becomes the flow that it is. The
// kernel reports packets from the wrong interface once in three seconds and entry; an entry that
// has seen some is made afresh, so that the first packet from the new way is reported. What comes
// between the two calls waits in the kernel's queue for the second.
cerrno turn_to_flow(table &t, ipv4mc_route_entry_st &route) {
    route_extension &e = extension(route);
    book().note(t.kernel_table, key_of(route));
    const counters seen = counted(t, key_of(route));
    set_local_copy(t, route.group, &e.local_mif_plus_1, no_mif);
    if (seen.wrong_interface != 0) {
        const cerrno failed = remove_own(t, route);
        return failed != 0 ? failed : make_flow(t, key_of(route), e.parent, &route);
    }
    count_entry(t, e.outputs, -1);
    e.has_entry = 0;
    return make_flow(t, key_of(route), e.parent, &route);
}

cerrno set_own(table &t, ipv4mc_route_entry_st &route, const own_entry &own, const legs &l,
               bool force) {
    route_extension &e = extension(route);
    const bool there = has_entry(t, route);
    if (there && !force && e.parent == own.parent && e.outputs == own.outputs) {
        return 0;
    }
    // A (*,G) is known by its parent, too: the old one goes behind the new one.
    const bool moves = there && !exact_source(route) && e.parent != own.parent;
    const entry_key key = key_of(route);
    book().note(t.kernel_table, key);
    const counters before = moves ? counted(t, key) : counters{};
    const cerrno failed = noted(kernel_set_entry(t.fd, key, own.parent, own.outputs));
    if (failed != 0) {
        return failed;
    }
    if (moves) {
        carry(route, before);
        (void)noted(kernel_delete_any_source(t.fd, key, e.parent));
    }
    if (there) {
        count_entry(t, e.outputs, -1);
    }
    if (exact_source(route)) {
        give_flow_to_route(t, route);
    }
    e.epoch = epoch_of(t);
    e.parent = static_cast<uint8_t>(own.parent);
    e.outputs = own.outputs;
    e.has_entry = 1;
    count_entry(t, own.outputs, 1);
    mark_lacking(t, own.outputs | mif_bit(own.parent));
    set_local_copy(t, route.group, &e.local_mif_plus_1, l.local_copy ? own.parent : no_mif);
    return 0;
}

cerrno need_register(table &t, const ipv4mc_route_entry_st &route, const legs &l) {
    if ((route.attributes & MRIB_ROUTE_SIGNAL) == 0 && l.negates == 0) {
        return 0;
    }
    uint32_t mif = no_mif;
    const cerrno failed = ensure_register(t, &mif);
    // A kernel that cannot copy packets for the control plane forwards all the same.
    return failed == EADDRNOTAVAIL ? 0 : failed;
}

void program_child(table &t, ipv4mc_route_entry_st &child) {
    if (extension(child).committed != 0) {
        (void)program_route(t, child, false);
    }
}

// Routes that inherit from this one. Some may still do when its flag is gone: an owner may die
// between taking the flag and turning them away.
void tell_children(table &t, ipv4mc_route_entry_st &route, const legs &l) {
    route_extension &e = extension(route);
    const bool is_parent = (route.attributes & MRIB_ROUTE_IF) != 0;
    if ((is_parent || e.has_children != 0) && (e.accepts != l.own_accepts || boundaries_set())) {
        const uint64_t children = each_child(t, route, program_child);
        e.has_children = is_parent || children != 0 ? 1 : 0;
    } else if (is_parent) {
        e.has_children = 1;
    }
    e.accepts = l.own_accepts;
}

bool names(const table &t, ipv4mc_route_entry_st &route, uint32_t mif) {
    const legs l = legs_of(t, route, route.group);
    return mif == no_mif || ((l.accepts | l.outputs) & mif_bit(mif)) != 0;
}

struct reprogram_request {
    table *t;
    uint32_t mif;
};

cerrno reprogram_one(ipv4mc_route_entry_st *route, void *context) {
    const auto &request = *static_cast<reprogram_request *>(context);
    if (extension(*route).committed != 0 && names(*request.t, *route, request.mif)) {
        (void)program_route(*request.t, *route, request.mif != no_mif);
    }
    return 0;
}

}  // namespace

leaving_entry::leaving_entry(const ipv4mc_intf_entry_st *entry) {
    leaving = entry;
}

leaving_entry::~leaving_entry() {
    leaving = nullptr;
}

legs legs_of(const table &t, ipv4mc_route_entry_st &route, const ip_maddr_st &group) {
    legs l = {};
    for (ipv4mc_intf_entry_st *entry = route.intf_list; entry != nullptr;
         entry = entry->next_intf) {
        if (entry == leaving || entry->intf_type != IPV4MC_INTF_ORDINARY) {
            continue;
        }
        l.local_copy = l.local_copy || (entry->attributes & MRIB_INTF_LOCAL_COPY) != 0;
        if ((entry->attributes & (uses_mif | MRIB_INTF_NEGATE_SIGNAL)) == 0) {
            continue;
        }
        const uint32_t mif = mif_of_entry(t, *entry);
        if (mif == no_mif) {
            continue;
        }
        const mif_set bit = mif_bit(mif);
        if ((entry->attributes & MRIB_INTF_NEGATE_SIGNAL) != 0) {
            l.negates |= bit;
        }
        if ((entry->attributes & MRIB_INTF_ACCEPT) != 0) {
            l.own_accepts |= bit;
        }
        if (inside_boundary(entry->ifh, group)) {
            continue;
        }
        l.accepts |= (entry->attributes & MRIB_INTF_ACCEPT) != 0 ? bit : 0;
        l.outputs |= (entry->attributes & MRIB_INTF_FORWARD) != 0 ? bit : 0;
    }
    add_inherited(t, route, group, &l);
    return l;
}

bool signals_from(const ipv4mc_route_entry_st &route, const legs &l, uint32_t parent) {
    const bool by_route = (route.attributes & MRIB_ROUTE_SIGNAL) != 0;
    return by_route != ((l.negates & mif_bit(parent)) != 0);
}

mif_set outputs_of(const table &t, const ipv4mc_route_entry_st &route, const legs &l,
                   uint32_t parent) {
    mif_set outputs = 0;
    if ((route.attributes & MRIB_ROUTE_DROP) == 0 && (l.accepts & mif_bit(parent)) != 0) {
        outputs = l.outputs & ~mif_bit(parent);
    }
    if (signals_from(route, l, parent)) {
        const uint32_t mif = register_of(t);
        outputs |= mif != no_mif ? mif_bit(mif) : 0;
    }
    return outputs;
}

cerrno program_route(table &t, ipv4mc_route_entry_st &route, bool force) {
    route_extension &e = extension(route);
    const legs l = legs_of(t, route, route.group);
    cerrno failed = need_register(t, route, l);
    if (failed != 0) {
        return failed;
    }
    const own_entry own = own_entry_of(t, route, l);
    if (own.wanted) {
        failed = set_own(t, route, own, l, force);
    } else if (has_entry(t, route) && exact_source(route) && l.accepts != 0) {
        failed = turn_to_flow(t, route);
    } else {
        failed = remove_own(t, route);
    }
    if (failed != 0) {
        return failed;
    }
    e.epoch = epoch_of(t);
    tell_children(t, route, l);
    turn_flows_of(t, route, &route, force);
    return 0;
}

cerrno unprogram_route(table &t, ipv4mc_route_entry_st &route) {
    const cerrno failed = remove_own(t, route);
    turn_flows_of(t, route, nullptr, false);
    // Children that it still had have turned to the next parent above, without a word.
    if (extension(route).has_children != 0) {
        each_inheriting(t, route, program_child);
    }
    extension(route) = {};
    return failed;
}

cerrno clear_route(table &t, ipv4mc_route_entry_st &route) {
    const cerrno failed = remove_own(t, route);
    end_flows_of(t, route);
    extension(route) = {};
    return failed;
}

void reprogram_table(table &t, uint32_t mif) {
    ipv4mc_table_st *record = ip6mc_table_lookup_by_tbl_id(t.tid);
    if (record == nullptr) {
        return;
    }
    reprogram_request request = {&t, mif};
    (void)ip6mc_route_walk(record, 0, reprogram_one, &request);
    turn_held_flows(t);
}

void reprogram_all() {
    for (uint32_t n = 0; self().resynced && table_at(n) != nullptr; ++n) {
        reprogram_table(*table_at(n), no_mif);
    }
}

void recall_entry(table &t, ipv4mc_route_entry_st &route) {
    if (has_entry(t, route)) {
        count_entry(t, extension(route).outputs, 1);
        recall_local_copy(t, route.group, extension(route).local_mif_plus_1);
    } else {
        extension(route).has_entry = 0;
        extension(route).local_mif_plus_1 = 0;
    }
}

counters counted(const table &t, const entry_key &key) {
    counters seen = {};
    if (kernel_counters(t.fd, key, &seen) != 0) {
        seen = {};
    }
    return seen;
}

void mark_lacking(const table &t, mif_set named) {
    for (mif_set left = named; left != 0; left &= left - 1) {
        mif_slot &m = mif_at(t, static_cast<uint32_t>(std::countr_zero(left)));
        if (m.state == mif_interface && m.ifindex == 0) {
            m.lacking = 1;
        }
    }
}

}  // namespace mfwd6::lnx
