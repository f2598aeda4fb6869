// What the kernel really holds, read back from it.
//
// Routes that the kernel has no entry for, ranges above all, are held by the window itself: the
// answer to a report looks there. They are listed from there, when their table is in the kernel.
#include <cerrno>

#include "platforms/linux/interfaces.h"
#include "platforms/linux/life.h"
#include "platforms/linux/netlink.h"
#include "platforms/linux/program.h"

using namespace mfwd6::lnx;

namespace {

struct listing {
    ip6mc_platform_kind kind;
    ip6mc_platform_held_ft fn;
    void *context;
    uint32_t kernel_table;
    uint32_t slot;
    uint32_t tid;
};

bool lists(const listing &l, ip6mc_platform_kind kind) {
    return l.kind == kind || l.kind == IP6MC_PLATFORM_KINDS;
}

cerrno list_table(const listing &l) {
    ip6mc_platform_held_st held = {};
    held.kind = IP6MC_PLATFORM_TABLE;
    held.tid = l.tid;
    held.active = 1;
    return l.fn(&held, l.context);
}

// Handle of a link in the table; 0 for one that is no interface of it, as the register interface.
ifhtype handle_of(const listing &l, uint32_t link) {
    for (const mif_slot &m : book().table(l.slot).mifs) {
        if (link != 0 && m.state == mif_interface && m.ifindex == link) {
            return m.ifh;
        }
    }
    return 0;
}

ip6mc_platform_held_st route_held(const listing &l, const entry_key &key, uint32_t length) {
    ip6mc_platform_held_st held = {};
    held.kind = IP6MC_PLATFORM_ROUTE;
    held.tid = l.tid;
    held.active = 1;
    held.source = key.source;
    held.group = key.group;
    held.pfx_len = static_cast<uint16_t>(length);
    held.obj_id = IPMC_OBJ_ID_NONE;
    return held;
}

cerrno list_intf(const listing &l, ip6mc_platform_held_st held, ifhtype ifh, uint64_t attributes) {
    held.kind = IP6MC_PLATFORM_INTF;
    held.ifh = ifh;
    held.attributes = attributes;
    return ifh != 0 ? l.fn(&held, l.context) : 0;
}

cerrno list_intfs(const listing &l, const dumped_entry &entry, const ip6mc_platform_held_st &held) {
    const ifhtype in = handle_of(l, entry.in_link);
    cerrno result = list_intf(l, held, in, MRIB_INTF_ACCEPT);
    for (uint32_t n = 0; result == 0 && n < entry.outs; ++n) {
        const ifhtype out = handle_of(l, entry.out_links[n]);
        if (out != in) {
            result = list_intf(l, held, out, MRIB_INTF_FORWARD);
        }
    }
    return result;
}

cerrno list_entry(const dumped_entry &entry, void *context) {
    const listing &l = *static_cast<const listing *>(context);
    if (book().find_flow(l.kernel_table, entry.key) != no_slot) {
        return 0;
    }
    ip6mc_platform_held_st held = route_held(
        l, entry.key,
        is_any(entry.key.source) ? IPV4MC_ROUTE_PFX_LEN_STAR_G : IPV4MC_ROUTE_PFX_LEN_SG);
    for (uint32_t n = 0; n < entry.outs; ++n) {
        if (handle_of(l, entry.out_links[n]) == 0) {
            held.attributes |= MRIB_ROUTE_SIGNAL;
        }
    }
    cerrno result = lists(l, IP6MC_PLATFORM_ROUTE) ? l.fn(&held, l.context) : 0;
    held.attributes = 0;
    if (result == 0 && lists(l, IP6MC_PLATFORM_INTF)) {
        result = list_intfs(l, entry, held);
    }
    return result;
}

struct window_listing {
    const listing *l;
    cerrno result;
};

cerrno list_window_route(ipv4mc_route_entry_st *route, void *context) {
    auto &walk = *static_cast<window_listing *>(context);
    const listing &l = *walk.l;
    const route_extension &e = extension(*route);
    if (e.committed == 0 || (e.has_entry != 0 && e.epoch == book().table(l.slot).epoch)) {
        return 0;
    }
    ip6mc_platform_held_st held = route_held(l, key_of(*route), length_of(*route));
    held.attributes = route->attributes;
    held.obj_id = route->obj_id;
    walk.result = lists(l, IP6MC_PLATFORM_ROUTE) ? l.fn(&held, l.context) : 0;
    held.obj_id = IPMC_OBJ_ID_NONE;
    for (const ipv4mc_intf_entry_st *entry = route->intf_list;
         walk.result == 0 && entry != nullptr && lists(l, IP6MC_PLATFORM_INTF);
         entry = entry->next_intf) {
        walk.result = list_intf(l, held, entry->ifh, entry->attributes);
    }
    return walk.result;
}

cerrno list_routes(listing &l) {
    if (!lists(l, IP6MC_PLATFORM_ROUTE) && !lists(l, IP6MC_PLATFORM_INTF)) {
        return 0;
    }
    entry_dump dump;
    cerrno result = dump.start(l.kernel_table);
    while (result == 0 && dump.running()) {
        result = dump.next(list_entry, &l);
    }
    ipv4mc_table_st *record = self().descriptor->state == IPV4MC_LIB_STATE_READY
                                  ? ip6mc_table_lookup_by_tbl_id(l.tid)
                                  : nullptr;
    if (result == 0 && record != nullptr && record->ingress_gtrie != nullptr) {
        window_listing walk = {&l, 0};
        (void)ip6mc_route_walk(record, 0, list_window_route, &walk);
        result = walk.result;
    }
    return result;
}

cerrno list_idbs(const listing &l) {
    cerrno result = 0;
    for (uint32_t n = 0; result == 0 && interface_at(n) != nullptr; ++n) {
        const interface &i = *interface_at(n);
        ip6mc_platform_held_st held = {};
        held.kind = IP6MC_PLATFORM_IDB;
        held.ifh = i.ifh;
        held.active = i.enabled_tid != 0 ? 1 : 0;
        held.value = i.ttl;
        result = l.fn(&held, l.context);
    }
    return result;
}

template <class Fn>
cerrno each_table(listing &l, Fn fn) {
    cerrno result = 0;
    for (uint32_t slot = 0; result == 0 && slot < tables_max; ++slot) {
        if (book().table(slot).kernel_table != 0) {
            l.slot = slot;
            l.kernel_table = book().table(slot).kernel_table;
            l.tid = book().table(slot).tid;
            result = fn(l);
        }
    }
    return result;
}

cerrno remove_route(const ip6mc_platform_held_st &held) {
    table *t = find_table(held.tid);
    if (t == nullptr) {
        return 0;
    }
    const entry_key key = {held.source, held.group};
    const uint32_t length = is_any(key.source) ? held.pfx_len : uint32_t{IPV4MC_ROUTE_PFX_LEN_SG};
    ipv4mc_route_entry_st *route = exact_route(ip6mc_table_lookup_by_tbl_id(t->tid), key, length);
    if (route != nullptr) {
        return unprogram_route(*t, *route);
    }
    if (length != IPV4MC_ROUTE_PFX_LEN_SG && length != IPV4MC_ROUTE_PFX_LEN_STAR_G) {
        return 0;
    }
    book().note(t->kernel_table, key);
    return noted(kernel_delete_entry(t->fd, key));
}

}  // namespace

cerrno ip6mc_platform_enumerate(ip6mc_platform_kind kind, ip6mc_platform_held_ft fn,
                                void *context) {
    if (fn == nullptr || kind > IP6MC_PLATFORM_KINDS) {
        return EINVAL;
    }
    if (!owner_started()) {
        return EBADF;
    }
    listing l = {kind, fn, context, 0, 0, 0};
    cerrno result = lists(l, IP6MC_PLATFORM_TABLE) ? each_table(l, list_table) : 0;
    result = result != 0 ? result : each_table(l, list_routes);
    if (result == 0 && lists(l, IP6MC_PLATFORM_IDB)) {
        result = list_idbs(l);
    }
    return result;
}

cerrno ip6mc_platform_remove_held(const ip6mc_platform_held_st *held) {
    if (held == nullptr) {
        return EINVAL;
    }
    if (!owner_started()) {
        return EBADF;
    }
    switch (held->kind) {
        case IP6MC_PLATFORM_TABLE:
            if (table *t = held->tid != 0 ? find_table(held->tid) : nullptr; t != nullptr) {
                drop_table(t);
            }
            return 0;
        case IP6MC_PLATFORM_ROUTE:
        case IP6MC_PLATFORM_INTF:
            // An entry of the kernel is one thing: an interface that no record stands for goes with
            // it, and a record brings back what it says.
            return remove_route(*held);
        case IP6MC_PLATFORM_IDB:
            forget_interface(held->ifh);
            return 0;
        default:
            return 0;
    }
}
