// Packets through the model hardware.
#include <algorithm>

#include "platforms/sim/hardware.h"
#include "platforms/sim/sim.h"

namespace {

using mfwd6::sim::hardware;
using mfwd6::sim::hw;
using mfwd6::sim::intf_slot;
using mfwd6::sim::make_route_key;
using mfwd6::sim::no_slot;
using mfwd6::sim::route_slot;
using mfwd6::sim::slot_committed;

// The committed entry of a route on an interface with one of these bits, or null.
const intf_slot *entry_with(const hardware &h, uint32_t route, ifhtype ifh, uint64_t bits) {
    for (uint32_t slot = h.routes.at(route).first_intf; slot != no_slot;) {
        const intf_slot &intf = h.intfs.at(slot);
        if (intf.ifh == ifh && intf.head.state == slot_committed && (intf.attributes & bits) != 0) {
            return &intf;
        }
        slot = intf.next;
    }
    return nullptr;
}

uint32_t parent_of(const hardware &h, const route_slot &route) {
    if ((route.attributes & MRIB_ROUTE_IA) == 0 || route.parent_len_plus_1 == 0) {
        return no_slot;
    }
    return h.find_route(make_route_key(route.key.tid, ip_maddr_st{}, route.parent_group,
                                       route.parent_len_plus_1 - 1));
}

bool accepts(const hardware &h, uint32_t route, ifhtype ifh) {
    if (entry_with(h, route, ifh, MRIB_INTF_ACCEPT) != nullptr) {
        return true;
    }
    const uint32_t parent = parent_of(h, h.routes.at(route));
    return parent != no_slot && entry_with(h, parent, ifh, MRIB_INTF_ACCEPT) != nullptr;
}

// A signal is wanted when the route says so, turned round by the interface that the packet came by.
bool signals(const hardware &h, uint32_t route, ifhtype ifh) {
    const bool by_route = (h.routes.at(route).attributes & MRIB_ROUTE_SIGNAL) != 0;
    return by_route != (entry_with(h, route, ifh, MRIB_INTF_NEGATE_SIGNAL) != nullptr);
}

void replicate(const hardware &h, uint32_t route, sim_packet &packet) {
    uint32_t written = 0;
    for (uint32_t slot = h.routes.at(route).first_intf; slot != no_slot;) {
        const intf_slot &intf = h.intfs.at(slot);
        slot = intf.next;
        if (intf.head.state != slot_committed) {
            continue;
        }
        if ((intf.attributes & MRIB_INTF_LOCAL_COPY) != 0) {
            packet.to_node = 1;
        }
        if ((intf.attributes & MRIB_INTF_FORWARD) != 0 && intf.ifh != packet.ifh) {
            ++packet.copies;
            if (written < packet.room) {
                packet.out[written++] = intf.ifh;
            }
        }
    }
    std::sort(packet.out, packet.out + written);
}

}  // namespace

void sim_forward(sim_packet *packet) {
    hardware &h = hw();
    packet->verdict = SIM_NO_ROUTE;
    packet->copies = 0;
    packet->signalled = 0;
    packet->to_node = 0;
    packet->pfx_len = 0;
    const uint32_t slot = h.match_route(packet->tid, packet->source, packet->group);
    if (slot == no_slot) {
        return;
    }
    route_slot &route = h.routes.at(slot);
    packet->pfx_len = static_cast<uint16_t>(route.key.pfx_len);
    ++route.in_packets;
    route.in_bytes += packet->bytes;
    packet->signalled = signals(h, slot, packet->ifh) ? 1 : 0;
    if ((route.attributes & MRIB_ROUTE_DROP) != 0) {
        packet->verdict = SIM_DROPPED;
    } else if (!accepts(h, slot, packet->ifh)) {
        packet->verdict = SIM_WRONG_INTF;
    } else {
        packet->verdict = SIM_FORWARDED;
        replicate(h, slot, *packet);
        route.out_packets += packet->copies;
        route.out_bytes += uint64_t{packet->copies} * packet->bytes;
    }
}

cerrno sim_set_route_stats(uint32_t tid, const ip_maddr_st *source, const ip_maddr_st *group,
                           uint16_t pfx_len, uint64_t in_packets, uint64_t in_bytes,
                           uint64_t out_packets, uint64_t out_bytes) {
    const uint32_t slot = hw().find_route(make_route_key(tid, *source, *group, pfx_len));
    if (!hw().route_held(slot)) {
        return ENOENT;
    }
    route_slot &route = hw().routes.at(slot);
    route.in_packets = in_packets;
    route.in_bytes = in_bytes;
    route.out_packets = out_packets;
    route.out_bytes = out_bytes;
    return 0;
}

cerrno sim_set_encap_stats(uint32_t encap_id, uint64_t packets, uint64_t bytes, uint64_t dropped) {
    const uint32_t slot = hw().encaps.find({encap_id, 0});
    if (slot == no_slot) {
        return ENOENT;
    }
    mfwd6::sim::encap_slot &encap = hw().encaps.at(slot);
    encap.packets = packets;
    encap.bytes = bytes;
    encap.dropped = dropped;
    return 0;
}
