#include "platforms/linux/flows.h"

#include <bit>
#include <cerrno>

#include "platforms/linux/interfaces.h"
#include "platforms/linux/life.h"
#include "platforms/linux/local_copies.h"
#include "platforms/linux/program.h"

namespace mfwd6::lnx {

namespace {

ipv4mc_table_st *record_of(const table &t) {
    return ip6mc_table_lookup_by_tbl_id(t.tid);
}

uint32_t flow_arrival(uint32_t slot) {
    return book().flow(slot).arrival;
}

struct derived {
    flow_slot content;
    bool local_copy;
};

// What the entry of a flow is to be, by the route; held with nullptr.
derived derive(const table &t, const flow_slot &flow, ipv4mc_route_entry_st *route) {
    derived d = {flow, false};
    d.content.state = flow_held;
    d.content.parent = flow.arrival;
    d.content.outputs = 0;
    d.content.route = {};
    d.content.route_len = 0;
    if (route == nullptr || never_routed(flow.key.source)) {
        return d;
    }
    const legs l = legs_of(t, *route, flow.key.group);
    d.content.state = flow_derived;
    d.content.route = key_of(*route);
    d.content.route_len = static_cast<uint16_t>(length_of(*route));
    // Packets from elsewhere are dropped by the entry, which stands for the way that is right.
    if ((l.accepts & mif_bit(flow.arrival)) == 0 && l.accepts != 0) {
        d.content.parent = static_cast<uint8_t>(std::countr_zero(l.accepts));
    }
    d.content.outputs = outputs_of(t, *route, l, d.content.parent);
    d.local_copy = l.local_copy && (l.accepts & mif_bit(d.content.parent)) != 0 &&
                   (route->attributes & MRIB_ROUTE_DROP) == 0;
    return d;
}

bool same_route(const flow_slot &a, const flow_slot &b) {
    return a.state == b.state && a.route_len == b.route_len &&
           same(a.route.source, b.route.source) && same(a.route.group, b.route.group);
}

// What the flow has counted so far stays with the route that it was derived from.
void settle_counters(const table &t, const flow_slot &flow, const counters &seen) {
    if (flow.state != flow_derived) {
        return;
    }
    ipv4mc_route_entry_st *route = exact_route(record_of(t), flow.route, flow.route_len);
    if (route != nullptr) {
        extension(*route).packets += seen.packets - flow.base_packets;
        extension(*route).bytes += seen.bytes - flow.base_bytes;
    }
}

void count_pairs(mif_set before, mif_set after) {
    self().output_pairs +=
        static_cast<uint64_t>(std::popcount(after)) - static_cast<uint64_t>(std::popcount(before));
}

void set_local(const table &t, flow_slot &flow, bool wanted) {
    set_local_copy(t, flow.key.group, &flow.local_mif_plus_1, wanted ? flow.parent : no_mif);
}

// Brings one flow to what `route` says, as one that comes in by `arrival`. True when the kernel had
// to be told.
bool turn_to(table &t, uint32_t slot, ipv4mc_route_entry_st *route, uint32_t arrival, bool force) {
    flow_slot &flow = book().flow(slot);
    flow_slot arriving = flow;
    arriving.arrival = static_cast<uint8_t>(arrival);
    derived d = derive(t, arriving, route);
    const bool routed_anew = !same_route(flow, d.content);
    const bool told = force || d.content.parent != flow.parent || d.content.outputs != flow.outputs;
    if (!routed_anew && !told) {
        flow.arrival = arriving.arrival;
        set_local(t, flow, d.local_copy);
        return false;
    }
    book().note(t.kernel_table, flow.key);
    if (routed_anew) {
        const counters seen = counted(t, flow.key);
        settle_counters(t, flow, seen);
        d.content.base_packets = seen.packets;
        d.content.base_bytes = seen.bytes;
        d.content.made = self().now;
    }
    count_pairs(flow.outputs, d.content.outputs);
    book().change_flow(slot, d.content);
    if (told) {
        (void)noted(kernel_set_entry(t.fd, flow.key, flow.parent, flow.outputs));
        mark_lacking(t, flow.outputs | mif_bit(flow.parent));
    }
    set_local(t, flow, d.local_copy);
    return told;
}

bool covers(const ipv4mc_route_entry_st &route, const entry_key &key) {
    return exact_source(route) ? same(route.source, key.source) && same(route.group, key.group)
                               : in_prefix(key.group, route.group, route.pfx_len);
}

// True when `route` is a longer match for the flow than what it was derived from.
bool better_for(const flow_slot &flow, const ipv4mc_route_entry_st &route) {
    return covers(route, flow.key) &&
           (flow.state == flow_held || flow.route_len <= length_of(route));
}

void adopt_from_group(table &t, ipv4mc_route_entry_st &route) {
    uint32_t steps = book().flows_used();
    for (uint32_t slot = book().first_of_group(t.kernel_table, route.group);
         slot != no_slot && steps-- > 0;) {
        const uint32_t next = book().next_in(by_group, slot);
        const flow_slot &flow = book().flow(slot);
        if (flow.kernel_table == t.kernel_table && better_for(flow, route)) {
            turn_to(t, slot, &route, flow_arrival(slot), false);
        }
        slot = next;
    }
}

void adopt_from_all(table &t, ipv4mc_route_entry_st &route) {
    for (uint32_t slot = 0; slot < book().flows_used(); ++slot) {
        const flow_slot &flow = book().flow(slot);
        if (flow.state != flow_free && flow.kernel_table == t.kernel_table &&
            better_for(flow, route)) {
            turn_to(t, slot, &route, flow_arrival(slot), false);
        }
    }
}

bool flow_of(const flow_slot &flow, uint32_t kernel_table, const ipv4mc_route_entry_st &route) {
    return flow.state == flow_derived && flow.kernel_table == kernel_table &&
           flow.route_len == length_of(route) && same(flow.route.group, route.group) &&
           same(flow.route.source, route.source);
}

}  // namespace

bool never_routed(const ip_maddr_st &source) {
    return source.bytes[0] == 0xfe && (source.bytes[1] & 0xc0) == 0x80;
}

cerrno make_flow(table &t, const entry_key &key, uint32_t parent, ipv4mc_route_entry_st *route) {
    flow_slot flow = {};
    flow.kernel_table = t.kernel_table;
    flow.key = key;
    flow.arrival = static_cast<uint8_t>(parent);
    flow.made = self().now;
    flow.checked = self().now;
    const derived d = derive(t, flow, route);
    uint32_t slot = no_slot;
    book().note(t.kernel_table, key);
    cerrno failed = book().add_flow(d.content, &slot);
    if (failed != 0) {
        self().full += failed == ENOSPC ? 1 : 0;
        return failed;
    }
    flow_slot &made = book().flow(slot);
    failed = noted(kernel_set_entry(t.fd, key, made.parent, made.outputs));
    if (failed != 0) {
        book().drop_flow(slot);
        return failed;
    }
    count_pairs(0, made.outputs);
    mark_lacking(t, made.outputs | mif_bit(made.parent));
    set_local(t, made, d.local_copy);
    return 0;
}

bool move_flow(table &t, uint32_t slot, uint32_t arrival) {
    ipv4mc_route_entry_st *route = matching_route(record_of(t), book().flow(slot).key);
    if (route == nullptr || arrival == book().flow(slot).parent ||
        (legs_of(t, *route, book().flow(slot).key.group).accepts & mif_bit(arrival)) == 0) {
        return false;
    }
    return turn_to(t, slot, route, arrival, false);
}

bool turn_flow(table &t, uint32_t slot, bool force) {
    const entry_key key = book().flow(slot).key;
    ipv4mc_route_entry_st *route = matching_route(record_of(t), key);
    if (route != nullptr && exact_source(*route) && has_entry(t, *route)) {
        give_flow_to_route(t, *route);
        return false;
    }
    return turn_to(t, slot, route, flow_arrival(slot), force);
}

void turn_flows_of(table &t, ipv4mc_route_entry_st &route, ipv4mc_route_entry_st *route_then,
                   bool force) {
    uint32_t steps = book().flows_used();
    for (uint32_t slot = book().first_of_route(t.kernel_table, key_of(route), length_of(route));
         slot != no_slot && steps-- > 0;) {
        const uint32_t next = book().next_in(by_route, slot);
        if (flow_of(book().flow(slot), t.kernel_table, route)) {
            if (route_then != nullptr) {
                turn_to(t, slot, route_then, flow_arrival(slot), force);
            } else {
                turn_flow(t, slot, force);
            }
        }
        slot = next;
    }
}

void adopt_flows(table &t, ipv4mc_route_entry_st &route) {
    if (book().flows_of(flow_derived) + book().flows_of(flow_held) == 0) {
        return;
    }
    if (exact_source(route)) {
        const uint32_t slot = book().find_flow(t.kernel_table, key_of(route));
        if (slot != no_slot) {
            turn_to(t, slot, &route, flow_arrival(slot), false);
        }
    } else if (route.pfx_len == IPV4MC_ROUTE_PFX_LEN_STAR_G) {
        adopt_from_group(t, route);
    } else {
        adopt_from_all(t, route);
    }
}

void end_flows_of(table &t, ipv4mc_route_entry_st &route) {
    uint32_t steps = book().flows_used();
    for (uint32_t slot = book().first_of_route(t.kernel_table, key_of(route), length_of(route));
         slot != no_slot && steps-- > 0;) {
        const uint32_t next = book().next_in(by_route, slot);
        if (flow_of(book().flow(slot), t.kernel_table, route)) {
            end_flow(t, slot);
        }
        slot = next;
    }
}

void turn_held_flows(table &t) {
    for (uint32_t slot = 0; slot < book().flows_used(); ++slot) {
        const flow_slot &flow = book().flow(slot);
        if (flow.state == flow_held && flow.kernel_table == t.kernel_table) {
            turn_flow(t, slot, false);
        }
    }
}

void give_flow_to_route(table &t, ipv4mc_route_entry_st &route) {
    const uint32_t slot = book().find_flow(t.kernel_table, key_of(route));
    if (slot == no_slot) {
        return;
    }
    flow_slot &flow = book().flow(slot);
    const counters seen = counted(t, flow.key);
    settle_counters(t, flow, seen);
    // Counters of an entry go on when it is replaced; what they say now is not this route's.
    extension(route).packets -= seen.packets;
    extension(route).bytes -= seen.bytes;
    count_pairs(flow.outputs, 0);
    set_local(t, flow, false);
    book().drop_flow(slot);
}

void end_flow(table &t, uint32_t slot) {
    flow_slot &flow = book().flow(slot);
    book().note(t.kernel_table, flow.key);
    settle_counters(t, flow, counted(t, flow.key));
    (void)noted(kernel_delete_entry(t.fd, flow.key));
    count_pairs(flow.outputs, 0);
    set_local(t, flow, false);
    book().drop_flow(slot);
}

counters counted_by_flows(int fd, uint32_t kernel_table, ipv4mc_route_entry_st &route) {
    counters sum = {};
    uint32_t steps = book().flows_used();
    for (uint32_t slot = book().first_of_route(kernel_table, key_of(route), length_of(route));
         slot != no_slot && steps-- > 0; slot = book().next_in(by_route, slot)) {
        const flow_slot &flow = book().flow(slot);
        counters seen = {};
        if (flow_of(flow, kernel_table, route) && kernel_counters(fd, flow.key, &seen) == 0) {
            sum.packets += seen.packets - flow.base_packets;
            sum.bytes += seen.bytes - flow.base_bytes;
        }
    }
    return sum;
}

}  // namespace mfwd6::lnx
