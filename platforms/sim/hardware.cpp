#include "platforms/sim/hardware.h"

#include <algorithm>

namespace mfwd6::sim {

namespace {

// Most things of each kind that fit, whatever the capacity: address space is reserved for them.
constexpr uint64_t most_tables = uint64_t{1} << 16;
constexpr uint64_t most_routes = uint64_t{1} << 25;
constexpr uint64_t most_intfs = uint64_t{1} << 27;
constexpr uint64_t most_others = uint64_t{1} << 23;

ip_maddr_st cut(const ip_maddr_st &address, uint32_t bits) {
    ip_maddr_st out = {};
    const uint32_t whole = std::min(bits / 8, 16U);
    std::memcpy(out.bytes, address.bytes, whole);
    if (whole < 16 && bits % 8 != 0) {
        out.bytes[whole] = static_cast<uint8_t>(address.bytes[whole] & (0xff00U >> (bits % 8)));
    }
    return out;
}

uint32_t hash_id(uint32_t vrf_id) {
    const uint64_t word = vrf_id;
    return hash_words(&word, 1);
}

uint32_t hash_name(const char *name) {
    uint64_t words[(IPV4MC_VRF_NAME_SIZE + 7) / 8] = {};
    std::memcpy(words, name, strnlen(name, IPV4MC_VRF_NAME_SIZE));
    return hash_words(words, std::size(words));
}

}  // namespace

hardware &hw() {
    static hardware the;
    if (!the.opened()) {
        // Only address space that is nowhere to be had makes this fail; then every change is
        // refused.
        (void)the.open(-1);
    }
    return the;
}

route_key make_route_key(uint32_t tid, const ip_maddr_st &source, const ip_maddr_st &group,
                         uint32_t pfx_len) {
    if (!is_wildcard(source)) {
        return {source, group, tid, IPV4MC_ROUTE_PFX_LEN_SG};
    }
    return {source, cut(group, pfx_len), tid, pfx_len};
}

cerrno hardware::open(int folder_fd) {
    close();
    const cerrno failed = open_all(folder_fd);
    if (failed != 0) {
        close_all();
        return failed;
    }
    const cerrno not_computed = compute();
    if (not_computed != 0) {
        close();
        return not_computed;
    }
    opened_ = true;
    return 0;
}

cerrno hardware::open_all(int folder_fd) {
    cerrno failed = tids.open(folder_fd, "tables", most_tables);
    failed = failed != 0 ? failed : vrfs.open(folder_fd, "vrfs", most_tables);
    failed = failed != 0 ? failed : routes.open(folder_fd, "routes", most_routes);
    failed = failed != 0 ? failed : intfs.open(folder_fd, "route-interfaces", most_intfs);
    failed = failed != 0 ? failed : idbs.open(folder_fd, "interfaces", most_others);
    failed = failed != 0 ? failed : members.open(folder_fd, "members", most_others);
    failed = failed != 0 ? failed : encaps.open(folder_fd, "encaps", most_others);
    failed = failed != 0 ? failed : leaves.open(folder_fd, "leaves", most_others);
    return failed != 0 ? failed : regdbs.open(folder_fd, "transports", most_others);
}

void hardware::close_all() {
    tids.close();
    vrfs.close();
    routes.close();
    intfs.close();
    idbs.close();
    members.close();
    encaps.close();
    leaves.close();
    regdbs.close();
}

void hardware::close() {
    close_all();
    opened_ = false;
    std::fill(std::begin(counts_), std::end(counts_), 0);
    std::fill(std::begin(lengths_), std::end(lengths_), 0);
    orphans_ = 0;
    vrfs_by_id_.clear();
    vrfs_by_name_.clear();
    latest_route_ = no_slot;
}

void hardware::clear() {
    tids.clear();
    vrfs.clear();
    routes.clear();
    intfs.clear();
    idbs.clear();
    members.clear();
    encaps.clear();
    leaves.clear();
    regdbs.clear();
    std::fill(std::begin(counts_), std::end(counts_), 0);
    std::fill(std::begin(lengths_), std::end(lengths_), 0);
    orphans_ = 0;
    vrfs_by_id_.clear();
    vrfs_by_name_.clear();
    latest_route_ = no_slot;
}

void hardware::unlimited() {
    std::fill(std::begin(capacity_), std::end(capacity_), UINT64_MAX);
    full_code_ = ENOSPC;
}

// ---- what is computed from the arrays
// ---------------------------------------------------------------

cerrno hardware::compute() {
    for (uint32_t slot = 0; slot < tids.used(); ++slot) {
        if (tids.live(slot)) {
            tids.at(slot).routes = 0;
            counted(IP6MC_PLATFORM_TABLE, 1);
        }
    }
    const cerrno failed = compute_routes();
    return failed != 0 ? failed : compute_others();
}

cerrno hardware::compute_routes() {
    for (uint32_t slot = 0; slot < routes.used(); ++slot) {
        if (routes.live(slot)) {
            routes.at(slot).first_intf = no_slot;
            routes.at(slot).intf_count = 0;
            routes.at(slot).intfs_indexed = 0;
            counted(IP6MC_PLATFORM_ROUTE, route_held(slot) ? 1 : 0);
            count_in_table(routes.at(slot).key.tid, 1);
            count_length(slot, 1);
        }
    }
    for (uint32_t slot = 0; slot < intfs.used(); ++slot) {
        if (!intfs.live(slot)) {
            continue;
        }
        const uint32_t route = intfs.at(slot).key.route;
        if (route >= routes.used() || !routes.live(route)) {
            intfs.forget(slot);  // its route went, and the process with it before this was done
            continue;
        }
        if (const cerrno failed = intfs.link(routes.at(route), slot); failed != 0) {
            return failed;
        }
        counted(IP6MC_PLATFORM_INTF, 1);
    }
    for (uint32_t slot = 0; slot < routes.used(); ++slot) {
        forget_route_if_bare(slot);
    }
    return 0;
}

cerrno hardware::compute_others() {
    for (uint32_t slot = 0; slot < vrfs.used(); ++slot) {
        const vrf_slot &vrf = vrfs.at(slot);
        if (vrf.head.state != slot_free) {
            counted(IP6MC_PLATFORM_TABLE, 1);
            if (!index_vrf(slot)) {
                return ENOMEM;
            }
        }
    }
    for (uint32_t slot = 0; slot < idbs.used(); ++slot) {
        if (idbs.live(slot)) {
            idbs.at(slot).members = 0;
            counted(IP6MC_PLATFORM_IDB, 1);
        }
    }
    for (uint32_t slot = 0; slot < members.used(); ++slot) {
        if (members.live(slot)) {
            const uint32_t parent = idbs.find({members.at(slot).key.parent, 0});
            if (parent != no_slot) {
                ++idbs.at(parent).members;
            }
        }
    }
    for (uint32_t slot = 0; slot < encaps.used(); ++slot) {
        if (encaps.live(slot)) {
            encaps.at(slot).leaves = 0;
            counted(IP6MC_PLATFORM_ENCAP, 1);
        }
    }
    for (uint32_t slot = 0; slot < leaves.used(); ++slot) {
        if (leaves.live(slot)) {
            const uint32_t encap = encaps.find({leaves.at(slot).key.encap_id, 0});
            if (encap != no_slot) {
                ++encaps.at(encap).leaves;
            }
            counted(IP6MC_PLATFORM_LEAF, 1);
        }
    }
    for (uint32_t slot = 0; slot < regdbs.used(); ++slot) {
        counted(IP6MC_PLATFORM_REGDB, regdbs.live(slot) ? 1 : 0);
    }
    return 0;
}

// ---- tables
// ---------------------------------------------------------------------------------------

cerrno hardware::hold_tid(uint32_t tid, uint32_t *slot) {
    *slot = tids.find({tid, 0});
    if (*slot != no_slot) {
        return 0;
    }
    cerrno failed = room(IP6MC_PLATFORM_TABLE);
    failed = failed != 0 ? failed : tids.add({tid, 0}, slot_committed, slot);
    if (failed != 0) {
        return failed;
    }
    counted(IP6MC_PLATFORM_TABLE, 1);
    for (uint32_t route = 0; orphans_ != 0 && route < routes.used(); ++route) {
        if (routes.live(route) && routes.at(route).key.tid == tid) {
            ++tids.at(*slot).routes;
            --orphans_;
        }
    }
    return 0;
}

// A VRF side whose keys another one has too is the one in the lower slot.
uint32_t hardware::find_vrf(uint32_t vrf_id, const char *name) const {
    uint32_t by_id = no_slot;
    uint32_t by_name = no_slot;
    if (vrf_id != 0) {
        by_id = vrfs_by_id_.find_lowest(
            hash_id(vrf_id), [&](uint32_t slot) { return vrfs.at(slot).vrf_id == vrf_id; });
    }
    if (name[0] != 0) {
        by_name = vrfs_by_name_.find_lowest(hash_name(name), [&](uint32_t slot) {
            return std::strncmp(vrfs.at(slot).vrf_name, name, sizeof(vrf_slot::vrf_name)) == 0;
        });
    }
    return std::min(by_id, by_name);
}

cerrno hardware::hold_vrf(uint32_t vrf_id, const char *name, bool make, uint32_t *slot) {
    *slot = find_vrf(vrf_id, name);
    if (*slot != no_slot) {
        return 0;
    }
    if (!make) {
        return ENOENT;
    }
    cerrno failed = room(IP6MC_PLATFORM_TABLE);
    failed = failed != 0 ? failed : vrfs.take(slot);
    if (failed != 0) {
        return failed;
    }
    // Named before it counts: hardware that outlives its process must not hold a table that nobody
    // can name.
    failed = name_vrf(*slot, vrf_id, name);
    if (failed != 0) {
        unindex_vrf(*slot);
        vrfs.give_back(*slot);
        return failed;
    }
    vrfs.keep(*slot, slot_committed);
    counted(IP6MC_PLATFORM_TABLE, 1);
    return 0;
}

bool hardware::index_vrf(uint32_t slot) {
    const vrf_slot &vrf = vrfs.at(slot);
    if (vrf.vrf_id != 0 && !vrfs_by_id_.insert(hash_id(vrf.vrf_id), slot)) {
        return false;
    }
    return vrf.vrf_name[0] == 0 || vrfs_by_name_.insert(hash_name(vrf.vrf_name), slot);
}

void hardware::unindex_vrf(uint32_t slot) {
    const vrf_slot &vrf = vrfs.at(slot);
    vrfs_by_id_.erase(hash_id(vrf.vrf_id), slot);
    vrfs_by_name_.erase(hash_name(vrf.vrf_name), slot);
}

cerrno hardware::name_vrf(uint32_t slot, uint32_t vrf_id, const char *name) {
    vrf_slot &vrf = vrfs.at(slot);
    const bool same_id = vrf_id == 0 || vrf.vrf_id == vrf_id;
    const bool same_name =
        name[0] == 0 || std::strncmp(vrf.vrf_name, name, sizeof(vrf.vrf_name)) == 0;
    if (same_id && same_name) {
        return 0;
    }
    unindex_vrf(slot);
    vrf.vrf_id = same_id ? vrf.vrf_id : vrf_id;
    if (!same_name) {
        std::memset(vrf.vrf_name, 0, sizeof(vrf.vrf_name));
        std::memcpy(vrf.vrf_name, name, strnlen(name, sizeof(vrf.vrf_name) - 1));
    }
    return index_vrf(slot) ? 0 : cerrno{ENOMEM};
}

void hardware::drop_tid(uint32_t slot) {
    const uint32_t tid = tids.at(slot).key.tid;
    for (uint32_t route = 0; tids.at(slot).routes != 0 && route < routes.used(); ++route) {
        if (routes.live(route) && routes.at(route).key.tid == tid) {
            drop_route(route);
        }
    }
    tids.remove(slot);
    counted(IP6MC_PLATFORM_TABLE, -1);
}

void hardware::drop_vrf(uint32_t slot) {
    unindex_vrf(slot);
    vrfs.give_back(slot);
    counted(IP6MC_PLATFORM_TABLE, -1);
}

// ---- routes
// ---------------------------------------------------------------------------------------

void hardware::count_in_table(uint32_t tid, int change) {
    const uint32_t slot = tids.find({tid, 0});
    uint64_t &count = slot == no_slot ? orphans_ : tids.at(slot).routes;
    count += static_cast<uint64_t>(static_cast<int64_t>(change));
}

void hardware::count_length(uint32_t slot, int change) {
    const route_slot &route = routes.at(slot);
    if (route.head.state == slot_committed) {
        lengths_[std::min<uint32_t>(route.key.pfx_len, IPV4MC_ROUTE_PFX_LEN_SG)] +=
            static_cast<uint64_t>(static_cast<int64_t>(change));
    }
}

uint32_t hardware::find_route(const route_key &key) const {
    const uint32_t latest = latest_route_;
    if (latest != no_slot && routes.live(latest) &&
        std::memcmp(&routes.at(latest).key, &key, sizeof(key)) == 0) {
        return latest;
    }
    return latest_route_ = routes.find(key);
}

cerrno hardware::announce_route(const route_key &key, uint32_t *slot) {
    *slot = find_route(key);
    if (*slot != no_slot) {
        return 0;
    }
    const cerrno failed = routes.add(key, slot_announced, slot);
    if (failed == 0) {
        count_in_table(key.tid, 1);
        routes.at(*slot).obj_id = IPMC_OBJ_ID_NONE;
        routes.at(*slot).first_intf = no_slot;
        latest_route_ = *slot;
    }
    return failed;
}

cerrno hardware::hold_route(uint32_t slot, uint32_t state) {
    const uint32_t before = routes.at(slot).head.state;
    if (before < slot_created) {
        if (const cerrno failed = room(IP6MC_PLATFORM_ROUTE); failed != 0) {
            forget_route_if_bare(slot);
            return failed;
        }
        counted(IP6MC_PLATFORM_ROUTE, 1);
    }
    if (state > before) {
        routes.set_state(slot, state);
        count_length(slot, 1);
    }
    return 0;
}

void hardware::drop_route(uint32_t slot) {
    count_length(slot, -1);
    if (route_held(slot)) {
        counted(IP6MC_PLATFORM_ROUTE, -1);
    }
    routes.set_state(slot, slot_announced);
    drop_intfs_of(slot);
    forget_route_if_bare(slot);
}

void hardware::forget_route_if_bare(uint32_t slot) {
    if (routes.live(slot) && !route_held(slot) && routes.at(slot).intf_count == 0) {
        count_in_table(routes.at(slot).key.tid, -1);
        routes.remove(slot);
    }
}

uint32_t hardware::match_route(uint32_t tid, const ip_maddr_st &source,
                               const ip_maddr_st &group) const {
    const auto committed = [this](uint32_t slot) {
        return slot != no_slot && routes.at(slot).head.state == slot_committed;
    };
    if (lengths_[IPV4MC_ROUTE_PFX_LEN_SG] != 0 && !is_wildcard(source)) {
        const uint32_t slot =
            find_route(make_route_key(tid, source, group, IPV4MC_ROUTE_PFX_LEN_SG));
        if (committed(slot)) {
            return slot;
        }
    }
    for (uint32_t length = IPV4MC_ROUTE_PFX_LEN_STAR_G + 1; length-- > 0;) {
        if (lengths_[length] == 0) {
            continue;
        }
        const uint32_t slot = find_route(make_route_key(tid, ip_maddr_st{}, group, length));
        if (committed(slot)) {
            return slot;
        }
    }
    return no_slot;
}

// ---- interfaces of routes
// -------------------------------------------------------------------------

cerrno hardware::hold_intf(const intf_key &key, uint32_t ifh, uint32_t *slot) {
    route_slot &route = routes.at(key.route);
    *slot = intfs.find(route, key);
    if (*slot != no_slot) {
        return 0;
    }
    cerrno failed = room(IP6MC_PLATFORM_INTF);
    failed = failed != 0 ? failed : intfs.add(route, key, ifh, slot_created, slot);
    if (failed != 0) {
        forget_route_if_bare(key.route);
        return failed;
    }
    counted(IP6MC_PLATFORM_INTF, 1);
    return 0;
}

void hardware::drop_intf(uint32_t slot) {
    const uint32_t route = intfs.at(slot).key.route;
    intfs.remove(routes.at(route), slot);
    counted(IP6MC_PLATFORM_INTF, -1);
    forget_route_if_bare(route);
}

void hardware::drop_intfs_of(uint32_t route) {
    while (routes.at(route).first_intf != no_slot) {
        intfs.remove(routes.at(route), routes.at(route).first_intf);
        counted(IP6MC_PLATFORM_INTF, -1);
    }
}

// ---- the rest
// -------------------------------------------------------------------------------------

cerrno hardware::hold_idb(uint32_t ifh, uint32_t *slot) {
    *slot = idbs.find({ifh, 0});
    if (*slot != no_slot) {
        return 0;
    }
    cerrno failed = room(IP6MC_PLATFORM_IDB);
    failed = failed != 0 ? failed : idbs.add({ifh, 0}, slot_committed, slot);
    counted(IP6MC_PLATFORM_IDB, failed == 0 ? 1 : 0);
    return failed;
}

void hardware::drop_idb(uint32_t slot) {
    const uint32_t ifh = idbs.at(slot).key.ifh;
    for (uint32_t member = 0; idbs.at(slot).members != 0 && member < members.used(); ++member) {
        if (members.live(member) && members.at(member).key.parent == ifh) {
            members.remove(member);
            --idbs.at(slot).members;
        }
    }
    idbs.remove(slot);
    counted(IP6MC_PLATFORM_IDB, -1);
}

cerrno hardware::add_member(uint32_t parent, uint32_t member) {
    uint32_t idb = no_slot;
    if (const cerrno failed = hold_idb(parent, &idb); failed != 0) {
        return failed;
    }
    if (members.find({parent, member}) != no_slot) {
        return 0;
    }
    uint32_t slot = no_slot;
    const cerrno failed = members.add({parent, member}, slot_committed, &slot);
    idbs.at(idb).members += failed == 0 ? 1U : 0U;
    return failed;
}

void hardware::drop_member(uint32_t parent, uint32_t member) {
    const uint32_t slot = members.find({parent, member});
    if (slot == no_slot) {
        return;
    }
    members.remove(slot);
    const uint32_t idb = idbs.find({parent, 0});
    if (idb != no_slot && idbs.at(idb).members != 0) {
        --idbs.at(idb).members;
    }
}

cerrno hardware::hold_encap(uint32_t encap_id, uint32_t state, uint32_t *slot) {
    *slot = encaps.find({encap_id, 0});
    if (*slot == no_slot) {
        cerrno failed = room(IP6MC_PLATFORM_ENCAP);
        failed = failed != 0 ? failed : encaps.add({encap_id, 0}, state, slot);
        counted(IP6MC_PLATFORM_ENCAP, failed == 0 ? 1 : 0);
        return failed;
    }
    encaps.set_state(*slot, std::max(state, encaps.at(*slot).head.state));
    return 0;
}

void hardware::drop_encap(uint32_t slot) {
    const uint32_t encap_id = encaps.at(slot).key.encap_id;
    for (uint32_t leaf = 0; encaps.at(slot).leaves != 0 && leaf < leaves.used(); ++leaf) {
        if (leaves.live(leaf) && leaves.at(leaf).key.encap_id == encap_id) {
            drop_leaf(leaf);
        }
    }
    encaps.remove(slot);
    counted(IP6MC_PLATFORM_ENCAP, -1);
}

cerrno hardware::hold_leaf(const leaf_key &key, uint32_t state, uint32_t *slot) {
    *slot = leaves.find(key);
    if (*slot != no_slot) {
        leaves.set_state(*slot, std::max(state, leaves.at(*slot).head.state));
        return 0;
    }
    cerrno failed = room(IP6MC_PLATFORM_LEAF);
    failed = failed != 0 ? failed : leaves.add(key, state, slot);
    if (failed != 0) {
        return failed;
    }
    const uint32_t encap = encaps.find({key.encap_id, 0});
    if (encap != no_slot) {
        ++encaps.at(encap).leaves;
    }
    counted(IP6MC_PLATFORM_LEAF, 1);
    return 0;
}

void hardware::drop_leaf(uint32_t slot) {
    const uint32_t encap = encaps.find({leaves.at(slot).key.encap_id, 0});
    if (encap != no_slot && encaps.at(encap).leaves != 0) {
        --encaps.at(encap).leaves;
    }
    leaves.remove(slot);
    counted(IP6MC_PLATFORM_LEAF, -1);
}

cerrno hardware::hold_regdb(const regdb_key &key, uint32_t *slot) {
    *slot = regdbs.find(key);
    if (*slot != no_slot) {
        return 0;
    }
    cerrno failed = room(IP6MC_PLATFORM_REGDB);
    failed = failed != 0 ? failed : regdbs.add(key, slot_committed, slot);
    counted(IP6MC_PLATFORM_REGDB, failed == 0 ? 1 : 0);
    return failed;
}

void hardware::drop_regdb(uint32_t slot) {
    regdbs.remove(slot);
    counted(IP6MC_PLATFORM_REGDB, -1);
}

}  // namespace mfwd6::sim
