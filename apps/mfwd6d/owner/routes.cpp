#include "apps/mfwd6d/owner/routes.h"

#include <arpa/inet.h>

#include "apps/mfwd6d/config/scan.h"
#include "apps/mfwd6d/say.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "services/journal/journal.h"

namespace mfwd6::daemon {
namespace {

using journal::group;
using journal::store;

constexpr uint64_t port_bits = MRIB_INTF_ACCEPT | MRIB_INTF_FORWARD;

cerrno operate(ipv4mc_action_type action, const route_id &id, ipv4mc_route_entry_st **route,
               uint64_t old_attributes, int *is_new) {
    return ip6mc_route_operation(action, id.table, &id.source, &id.group, id.length, nullptr, route,
                                 old_attributes, 0, is_new);
}

cerrno operate(ipv4mc_action_type action, ipv4mc_route_entry_st *route, ifhtype ifh,
               ipv4mc_idb_st *idb, ipv4mc_intf_entry_st **entry, uint64_t old_attributes,
               int is_new) {
    return ip6mc_intf_operation(action, route->table, route, IPV4MC_INTF_ORDINARY, ifh, 0, 0, 0,
                                entry, idb, 0, old_attributes, is_new);
}

cerrno join(ipv4mc_route_entry_st *route, ifhtype ifh, ipv4mc_idb_st *idb, uint64_t attributes) {
    ipv4mc_intf_entry_st *entry = nullptr;
    cerrno rc = operate(IPV4MC_ACTION_CREATE, route, ifh, idb, &entry, 0, 1);
    if (rc != 0) {
        return rc;
    }
    entry->attributes = attributes;  // nobody sees the entry yet
    rc = operate(IPV4MC_ACTION_COMMIT, route, ifh, idb, &entry, 0, 1);
    // Refused before it joined: the entry is still the caller's.
    if (rc != 0 && entry != nullptr) {
        operate(IPV4MC_ACTION_CLEAR, route, ifh, idb, &entry, 0, 1);
    }
    return rc;
}

cerrno alter(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry, ipv4mc_idb_st *idb,
             uint64_t attributes) {
    const uint64_t old = entry->attributes;
    store(entry->attributes, attributes);
    const cerrno rc = operate(IPV4MC_ACTION_COMMIT, route, entry->ifh, idb, &entry, old, 0);
    if (rc != 0) {
        store(entry->attributes, old);
    }
    return rc;
}

cerrno leave(ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry) {
    return operate(IPV4MC_ACTION_DELETE, route, entry->ifh, nullptr, &entry, entry->attributes, 0);
}

// Ends a leaf that was never committed. DELETE is for routes that are found.
void undo_create(const route_id &id, ipv4mc_route_entry_st *route) {
    while (route->intf_list != nullptr) {
        if (leave(route, route->intf_list) != 0) {
            break;
        }
    }
    ipv4mc_route_entry_st *same = route;
    ip6mc_platform_route_operation_wrapper(IPV4MC_ACTION_DELETE, id.table, &id.source, &id.group,
                                           id.length, &same, 0, 0, 0);
    ipmc_object_ida_free(&route->obj_id);
    ip6mc_route_oper_create_fail_cleanup(id.table, &route, id.table->ingress_gtrie);
}

ipv4mc_intf_entry_st *entry_of(ipv4mc_route_entry_st *route, ifhtype ifh) {
    for (ipv4mc_intf_entry_st *entry = route->intf_list; entry != nullptr;
         entry = entry->next_intf) {
        if (entry->ifh == ifh && entry->intf_type == IPV4MC_INTF_ORDINARY) {
            return entry;
        }
    }
    return nullptr;
}

// One step back of a change of an existing route. Entries are found again by handle, as what a step
// touched may have gone and come since.
struct step {
    ifhtype ifh;
    uint64_t before;  // attributes; 0: the entry was not there
};

void take_back(ipv4mc_route_entry_st *route, const std::vector<step> &steps) {
    for (auto s = steps.rbegin(); s != steps.rend(); ++s) {
        ipv4mc_intf_entry_st *entry = entry_of(route, s->ifh);
        cerrno rc = 0;
        if (s->before == 0) {
            rc = entry != nullptr ? leave(route, entry) : 0;
        } else if (entry == nullptr) {
            rc = join(route, s->ifh, nullptr, s->before);
        } else {
            rc = alter(route, entry, nullptr, s->before);
        }
        if (rc != 0) {
            say(weight::error, "a failed change cannot be taken back entirely: {}",
                cerr_strerror(rc));
        }
    }
}

outcome refused(cerrno code, const route_id &id, const interface *i) {
    return i == nullptr
               ? failure_of(code, route_text(id))
               : intf_failure_of(code, fmt::format("{}, interface {}", route_text(id), i->name));
}

}  // namespace

route_id make_route_id(const table &t, const ip_maddr_st &source, const config::prefix &group) {
    const bool has_source = !config::is_any(source);
    return {t.record, source, group.address,
            has_source ? uint16_t{IPV4MC_ROUTE_PFX_LEN_SG} : uint16_t{group.length}};
}

std::string route_text(const route_id &id) {
    char source[INET6_ADDRSTRLEN] = "*";
    char group_text[INET6_ADDRSTRLEN];
    if (!config::is_any(id.source)) {
        inet_ntop(AF_INET6, id.source.bytes, source, sizeof(source));
    }
    inet_ntop(AF_INET6, id.group.bytes, group_text, sizeof(group_text));
    return id.length >= IPV4MC_ROUTE_PFX_LEN_STAR_G
               ? fmt::format("({},{})", source, group_text)
               : fmt::format("({},{}/{})", source, group_text, id.length);
}

uint64_t route_attributes(const route_id &id, uint8_t flags) {
    uint64_t word = id.length == IPV4MC_ROUTE_PFX_LEN_SG ? 0 : MRIB_ROUTE_IF;
    word |= (flags & config::line_inherit_accept) != 0 ? MRIB_ROUTE_IA : 0;
    word |= (flags & config::line_signal) != 0 ? MRIB_ROUTE_SIGNAL : 0;
    word |= (flags & config::line_drop) != 0 ? MRIB_ROUTE_DROP : 0;
    return word;
}

ipv4mc_route_entry_st *routes::find(const route_id &id) {
    ipv4mc_route_entry_st *route = nullptr;
    return operate(IPV4MC_ACTION_EXACT_LOOKUP, id, &route, 0, nullptr) == 0 ? route : nullptr;
}

outcome routes::make(const route_id &id, uint64_t attributes,
                     const std::vector<route_port> &ports) {
    // Records of interfaces are made ahead: the platform is asked for them apart from the route.
    for (const route_port &p : ports) {
        if (p.i->record == nullptr) {
            outcome made = interfaces_.need_record(*p.i);
            if (made.failed()) {
                return made;
            }
        }
    }
    // An owner that is killed before the end of this leaves nothing of it.
    const group whole;
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    const cerrno rc = operate(IPV4MC_ACTION_CREATE, id, &route, 0, &is_new);
    if (rc == EEXIST) {
        return change(id, route, attributes, ports);
    }
    return rc == 0 ? create(id, route, attributes, ports) : refused(rc, id, nullptr);
}

outcome routes::create(const route_id &id, ipv4mc_route_entry_st *route, uint64_t attributes,
                       const std::vector<route_port> &ports) {
    route->attributes = attributes;  // nobody sees the route yet
    cerrno rc = 0;
    const interface *at_fault = nullptr;
    for (const route_port &p : ports) {
        rc = join(route, p.i->ifh, p.i->record, p.attributes);
        if (rc != 0) {
            at_fault = p.i;
            break;
        }
    }
    int is_new = 1;
    if (rc == 0) {
        rc = operate(IPV4MC_ACTION_COMMIT, id, &route, 0, &is_new);
    }
    if (rc == 0) {
        return {};
    }
    undo_create(id, route);
    return refused(rc, id, at_fault);
}

outcome routes::change(const route_id &id, ipv4mc_route_entry_st *route, uint64_t attributes,
                       const std::vector<route_port> &ports) {
    std::vector<step> steps;
    const auto fail = [&](cerrno code, const interface *i) {
        take_back(route, steps);
        return refused(code, id, i);
    };
    for (const route_port &p : ports) {
        ipv4mc_intf_entry_st *entry = entry_of(route, p.i->ifh);
        const uint64_t before = entry != nullptr ? entry->attributes : 0;
        if (before == p.attributes) {
            continue;
        }
        const cerrno rc = entry == nullptr ? join(route, p.i->ifh, p.i->record, p.attributes)
                                           : alter(route, entry, p.i->record, p.attributes);
        if (rc != 0) {
            return fail(rc, p.i);
        }
        steps.push_back({p.i->ifh, before});
    }
    ipv4mc_intf_entry_st *next = nullptr;
    for (ipv4mc_intf_entry_st *entry = route->intf_list; entry != nullptr; entry = next) {
        next = entry->next_intf;
        bool wanted = false;
        for (const route_port &p : ports) {
            wanted = wanted || p.i->ifh == entry->ifh;
        }
        if (wanted) {
            continue;
        }
        const step s{entry->ifh, entry->attributes};
        const cerrno rc = leave(route, entry);
        if (rc != 0) {
            return fail(rc, nullptr);
        }
        steps.push_back(s);
    }
    const uint64_t old = route->attributes;
    if (old == attributes) {
        return {};
    }
    store(route->attributes, attributes);
    int is_new = 0;
    const cerrno rc = operate(IPV4MC_ACTION_COMMIT, id, &route, old, &is_new);
    if (rc != 0) {
        store(route->attributes, old);
        return fail(rc, nullptr);
    }
    return {};
}

outcome routes::erase(const route_id &id) {
    const group whole;
    ipv4mc_route_entry_st *route = find(id);
    if (route == nullptr) {
        return failure(ENOENT, "there is no route " + route_text(id));
    }
    const uint64_t old = route->attributes;
    // Routes that inherit from this one turn to the next parent.
    store(route->attributes, old & ~MRIB_ROUTE_IF);
    int is_new = 0;
    const cerrno rc = operate(IPV4MC_ACTION_DELETE, id, &route, old, &is_new);
    return rc == 0 ? outcome{} : refused(rc, id, nullptr);
}

outcome routes::add_ports(const route_id &id, const std::vector<route_port> &ports) {
    for (const route_port &p : ports) {
        outcome made = interfaces_.need_record(*p.i);
        if (made.failed()) {
            return made;
        }
    }
    const group whole;
    ipv4mc_route_entry_st *route = find(id);
    if (route == nullptr) {
        return failure(ENOENT, "there is no route " + route_text(id));
    }
    std::vector<step> steps;
    for (const route_port &p : ports) {
        ipv4mc_intf_entry_st *entry = entry_of(route, p.i->ifh);
        const uint64_t before = entry != nullptr ? entry->attributes : 0;
        const uint64_t wanted = before | p.attributes;
        if (wanted == before) {
            continue;
        }
        const cerrno rc = entry == nullptr ? join(route, p.i->ifh, p.i->record, wanted)
                                           : alter(route, entry, p.i->record, wanted);
        if (rc != 0) {
            take_back(route, steps);
            return refused(rc, id, p.i);
        }
        steps.push_back({p.i->ifh, before});
    }
    return {};
}

outcome routes::remove_ports(const route_id &id, const std::vector<route_port> &ports) {
    const group whole;
    ipv4mc_route_entry_st *route = find(id);
    if (route == nullptr) {
        return failure(ENOENT, "there is no route " + route_text(id));
    }
    std::vector<step> steps;
    for (const route_port &p : ports) {
        ipv4mc_intf_entry_st *entry = entry_of(route, p.i->ifh);
        if (entry == nullptr || (entry->attributes & p.attributes) == 0) {
            continue;
        }
        const step s{entry->ifh, entry->attributes};
        const uint64_t left = entry->attributes & ~p.attributes;
        const cerrno rc =
            (left & port_bits) == 0 ? leave(route, entry) : alter(route, entry, p.i->record, left);
        if (rc != 0) {
            take_back(route, steps);
            return refused(rc, id, p.i);
        }
        steps.push_back(s);
    }
    return {};
}

}  // namespace mfwd6::daemon
