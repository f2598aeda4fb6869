#include <cerrno>

#include "platforms/sim/hardware.h"

namespace mfwd6::sim {

namespace {

bool same(const intf_key &a, const intf_key &b) {
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

}  // namespace

uint32_t intf_table::find(const route_slot &route, const intf_key &key) const {
    if (route.intfs_indexed != 0) {
        return index_.find(hash_key(key), [&](uint32_t slot) { return same(at(slot).key, key); });
    }
    uint32_t slot = route.first_intf;
    while (slot != no_slot && !same(at(slot).key, key)) {
        slot = at(slot).next;
    }
    return slot;
}

cerrno intf_table::add(route_slot &route, const intf_key &key, uint32_t ifh, uint32_t state,
                       uint32_t *slot) {
    if (const cerrno failed = slots_.take(slot); failed != 0) {
        return failed;
    }
    at(*slot).key = key;
    at(*slot).ifh = ifh;
    at(*slot).obj_id = IPMC_OBJ_ID_NONE;
    if (const cerrno failed = link(route, *slot); failed != 0) {
        slots_.give_back(*slot);
        return failed;
    }
    slots_.keep(*slot, state);
    return 0;
}

cerrno intf_table::link(route_slot &route, uint32_t slot) {
    if (route.intfs_indexed == 0 && route.intf_count == most_listed) {
        if (const cerrno failed = index_all(route); failed != 0) {
            return failed;
        }
    }
    intf_slot &intf = at(slot);
    if (route.intfs_indexed != 0 && !index_.insert(hash_key(intf.key), slot)) {
        return ENOMEM;
    }
    intf.next = route.first_intf;
    intf.prev = no_slot;
    if (intf.next != no_slot) {
        at(intf.next).prev = slot;
    }
    route.first_intf = slot;
    ++route.intf_count;
    return 0;
}

// From here on for as long as the route has an interface.
cerrno intf_table::index_all(route_slot &route) {
    uint32_t slot = route.first_intf;
    while (slot != no_slot && index_.insert(hash_key(at(slot).key), slot)) {
        slot = at(slot).next;
    }
    if (slot == no_slot) {
        route.intfs_indexed = 1;
        return 0;
    }
    for (uint32_t undo = route.first_intf; undo != slot; undo = at(undo).next) {
        index_.erase(hash_key(at(undo).key), undo);
    }
    return ENOMEM;
}

void intf_table::unlink(route_slot &route, uint32_t slot) {
    const intf_slot &intf = at(slot);
    (intf.prev == no_slot ? route.first_intf : at(intf.prev).next) = intf.next;
    if (intf.next != no_slot) {
        at(intf.next).prev = intf.prev;
    }
    if (route.intfs_indexed != 0) {
        index_.erase(hash_key(intf.key), slot);
    }
    if (--route.intf_count == 0) {
        route.intfs_indexed = 0;
    }
}

void intf_table::remove(route_slot &route, uint32_t slot) {
    unlink(route, slot);
    slots_.give_back(slot);
}

}  // namespace mfwd6::sim
