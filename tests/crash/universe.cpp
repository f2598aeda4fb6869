#include "tests/crash/universe.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "tests/kit/library.h"
#include "tests/lib/routes/bed.h"

namespace crash {
namespace {

// Bits of a route's word that the library writes: DT and its like follow other routes.
constexpr uint64_t own_bits = MRIB_ROUTE_DT | MRIB_ROUTE_DT_REMOTE | MRIB_ROUTE_MOFRR_UPD |
                              MRIB_ROUTE_MT | MRIB_ROUTE_MH | MRIB_ROUTE_TID_DEMAND |
                              MRIB_ROUTE_TID_STICKY | MRIB_ROUTE_ENCAP | MRIB_ROUTE_RPF_ID |
                              MRIB_ROUTE_CLEAR_ATTR;

const char *const names[tables] = {"default", "red", "green", "blue"};

bool subset(const route_state &small, const route_state &large) {
    if ((small.intfs & ~large.intfs) != 0) {
        return false;
    }
    for (uint32_t i = 0; i < interfaces; ++i) {
        if ((small.intfs >> i & 1U) != 0 && small.words[i] != large.words[i]) {
            return false;
        }
    }
    return true;
}

bool same_interfaces(const route_state &a, const route_state &b) {
    return subset(a, b) && subset(b, a);
}

bool differ_in_one(const route_state &a, const route_state &b, uint32_t interface) {
    route_state without_a = a;
    route_state without_b = b;
    without_a.intfs &= ~(1U << interface);
    without_b.intfs &= ~(1U << interface);
    return same_interfaces(without_a, without_b) && a.attributes == b.attributes;
}

}  // namespace

uint32_t tid_of(uint32_t table) {
    return table == 0 ? kit::default_tid : 0xe0000010 + table;
}
uint32_t vrf_id_of(uint32_t table) {
    return table == 0 ? kit::default_vrf_id : 0x60000010 + table;
}
const char *name_of(uint32_t table) {
    return names[table];
}

// Exact routes, groups, and ranges that cover them.
route_key key_of(uint32_t route) {
    if (route < 24) {
        return {bed::address("2001:db8::1"), bed::numbered("ff3e::", route), 256};
    }
    if (route < 32) {
        return {{}, bed::numbered("ff3e::", route - 24), 128};
    }
    return {{}, bed::numbered("ff3e::", (route - 32) * 4), 126};
}
route_key signal_key_of(uint32_t signal) {
    return {bed::numbered("2001:db8:1::", signal % 4 + 1), bed::numbered("ff3e::", signal / 4),
            256};
}
ifhtype ifh_of(uint32_t interface) {
    return 0x101 + interface;
}

board &shared() {
    static board *const all = new (mmap(nullptr, sizeof(board), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0)) board{};
    return *all;
}

void fail(const std::string &why) {
    char *const text = shared().failure;
    if (text[0] == '\0') {
        snprintf(text, sizeof(shared().failure), "%s", why.c_str());
    }
}

void give_up(const std::string &why) {
    fail(why);
    _exit(3);
}

ipv4mc_table_st *find_table(uint32_t table) {
    return ip6mc_table_lookup_by_tbl_id(tid_of(table));
}

ipv4mc_route_entry_st *find_route(ipv4mc_table_st *table, uint32_t route) {
    if (table == nullptr || table->ingress_gtrie == nullptr) {
        return nullptr;
    }
    const route_key k = key_of(route);
    ipv4mc_route_entry_st *found = nullptr;
    ip6mc_route_operation(IPV4MC_ACTION_EXACT_LOOKUP, table, &k.source, &k.group, k.length, nullptr,
                          &found, 0, 0, nullptr);
    return found;
}

route_state observe(uint32_t table, uint32_t route) {
    route_state seen;
    const ipv4mc_route_entry_st *found = find_route(find_table(table), route);
    if (found == nullptr) {
        return seen;
    }
    seen.present = 1;
    seen.attributes = found->attributes & ~own_bits;
    for (const ipv4mc_intf_entry_st *entry = found->intf_list; entry != nullptr;
         entry = entry->next_intf) {
        const uint32_t i = entry->key_ifh - ifh_of(0);
        if (i < interfaces) {
            seen.intfs |= 1U << i;
            seen.words[i] = entry->attributes & ~all_mark_bits;
        }
    }
    return seen;
}

std::string text_of(const route_state &state) {
    char text[160];
    snprintf(text, sizeof(text), "%s attributes 0x%lx interfaces 0x%x",
             state.present != 0 ? "there" : "absent", state.attributes, state.intfs);
    return text;
}

std::string text_of(const in_flight &op) {
    return "operation " + std::to_string(static_cast<uint32_t>(op.what)) + " on " +
           std::to_string(op.table) + "/" + std::to_string(op.route) + "/" +
           std::to_string(op.interface) + (op.faults != 0 ? ", with faults" : "");
}

bool touches(const in_flight &op, uint32_t table, uint32_t route) {
    switch (op.what) {
        case operation::none:
        case operation::other:
            return false;
        case operation::clear_all:
            return true;
        case operation::create_table:
        case operation::deactivate_table:
        case operation::delete_table:
        case operation::clear_table:
        case operation::delete_all:
            return op.table == table;
        default:
            return op.table == table && op.route == route;
    }
}

// What the library promises: an operation on one interface, a publication, a change of a word, is
// done or not done. The end of a route takes its interfaces off one by one before it hides the
// route, so a death in it may leave the route with some of them; the ends of tables do so with each
// route.
bool may_become(const in_flight &op, const route_state &before, const route_state &after) {
    if (before == after) {
        return true;
    }
    switch (op.what) {
        case operation::add_route:
            return before.present == 0 && after.present != 0 && after.attributes == op.attributes;
        case operation::add_interface:
        case operation::delete_interface:
            return before.present == after.present && differ_in_one(before, after, op.interface);
        case operation::change_attributes:
            return before.present != 0 && after.present != 0 && same_interfaces(before, after) &&
                   after.attributes == op.attributes;
        case operation::delete_route:
            return before.present != 0 &&
                   (after.present == 0 ||
                    (subset(after, before) &&
                     (after.attributes & ~MRIB_ROUTE_IF) == (before.attributes & ~MRIB_ROUTE_IF)));
        case operation::clear_route:
            return before.present != 0 && after.present != 0 && subset(after, before);
        case operation::deactivate_table:
        case operation::delete_table:
        case operation::clear_table:
        case operation::delete_all:
        case operation::clear_all:
            return before.present != 0 && (after.present == 0 || subset(after, before));
        default:
            return false;
    }
}

std::string compare_with_model() {
    world &known = shared().known;
    const in_flight op = known.now;
    for (uint32_t t = 0; t < tables; ++t) {
        const ipv4mc_table_st *table = find_table(t);
        const bool there = table != nullptr && table->active != 0;
        const bool table_op =
            op.table == t && op.what >= operation::create_table && op.what <= operation::delete_all;
        if (there != known.there[t] && !table_op) {
            return std::string("table ") + name_of(t) + (there ? " is there" : " is gone");
        }
        known.there[t] = there;
        for (uint32_t r = 0; r < routes; ++r) {
            const route_state now = observe(t, r);
            const route_state before = known.route[t][r];
            const bool fits = touches(op, t, r) ? may_become(op, before, now) : now == before;
            if (!fits) {
                return std::string("table ") + name_of(t) + " route " + std::to_string(r) +
                       ": was " + text_of(before) + ", is " + text_of(now) + ", " + text_of(op);
            }
            known.route[t][r] = now;
        }
    }
    known.now = in_flight{};
    return "";
}

}  // namespace crash
