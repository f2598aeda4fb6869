// Reports of the kernel: reading them, answering them, and the lifetimes of the answers.
#include <linux/mroute6.h>

#include <cerrno>
#include <cstring>

#include "platforms/linux/ageing.h"
#include "platforms/linux/flows.h"
#include "platforms/linux/interfaces.h"
#include "platforms/linux/life.h"
#include "platforms/linux/program.h"

namespace {

using namespace mfwd6::lnx;

// Held entries are a quarter of all at most: a flood of unwanted flows leaves room for wanted ones.
constexpr uint32_t held_most = flows_max / 4;

uint32_t answer_of(uint32_t slot) {
    const bool held = slot != no_slot && book().flow(slot).state == flow_held;
    return held ? uint32_t{LINUX_ANSWER_HELD} : uint32_t{LINUX_ANSWER_DERIVED};
}

// The kernel says that it has no entry for the flow.
cerrno answer_unknown(table &t, const entry_key &key, uint32_t mif, uint32_t *answer) {
    const uint32_t slot = book().find_flow(t.kernel_table, key);
    if (slot != no_slot) {
        // Answered before; the report is late, or somebody took the entry out.
        counters seen = {};
        const bool there = kernel_counters(t.fd, key, &seen) == 0;
        turn_flow(t, slot, !there);
        *answer = there ? uint32_t{LINUX_ANSWER_THERE} : answer_of(slot);
        return 0;
    }
    ipv4mc_route_entry_st *route = matching_route(ip6mc_table_lookup_by_tbl_id(t.tid), key);
    if (route != nullptr && exact_source(*route) && has_entry(t, *route)) {
        counters seen = {};
        *answer = LINUX_ANSWER_THERE;
        return kernel_counters(t.fd, key, &seen) == 0 ? 0 : program_route(t, *route, true);
    }
    if (route == nullptr && book().flows_of(flow_held) >= held_most) {
        end_oldest_held();
    }
    const cerrno failed = make_flow(t, key, mif, route);
    *answer = answer_of(book().find_flow(t.kernel_table, key));
    return failed;
}

}  // namespace

cerrno linux_answer_flow(const linux_flow *flow, uint32_t *answer_p) {
    uint32_t ignored = 0;
    uint32_t &answer = answer_p != nullptr ? *answer_p : ignored;
    answer = LINUX_ANSWER_THERE;
    if (!owner_started()) {
        return EBADF;
    }
    if (flow == nullptr) {
        return EINVAL;
    }
    table *t = find_kernel_table(flow->kernel_table);
    if (t == nullptr) {
        return ENOENT;
    }
    if (flow->mif >= mifs_of_table || mif_at(*t, flow->mif).state == mif_free) {
        return ENODEV;
    }
    self().now = seconds_now();
    ++self().reports;
    const entry_key key = {flow->source, flow->group};
    if (flow->report == LINUX_REPORT_UNKNOWN_FLOW) {
        return answer_unknown(*t, key, flow->mif, &answer);
    }
    const uint32_t slot = book().find_flow(t->kernel_table, key);
    if (flow->report == LINUX_REPORT_WRONG_INTERFACE && slot != no_slot &&
        move_flow(*t, slot, flow->mif)) {
        answer = LINUX_ANSWER_DERIVED;
    }
    return 0;
}

cerrno linux_parse_report(const void *bytes, size_t size, uint32_t kernel_table, linux_flow *flow) {
    if (bytes == nullptr || flow == nullptr || size < 1) {
        return EINVAL;
    }
    // Where an ICMPv6 message has its type, which is not 0, a report has 0.
    if (*static_cast<const uint8_t *>(bytes) != 0) {
        return EAGAIN;
    }
    mrt6msg message;
    if (size < sizeof(message)) {
        return EINVAL;
    }
    std::memcpy(&message, bytes, sizeof(message));
    linux_flow read = {};
    switch (message.im6_msgtype) {
        case MRT6MSG_NOCACHE:
            read.report = LINUX_REPORT_UNKNOWN_FLOW;
            break;
        case MRT6MSG_WRONGMIF:
            read.report = LINUX_REPORT_WRONG_INTERFACE;
            break;
        case MRT6MSG_WHOLEPKT:
            read.report = LINUX_REPORT_PACKET;
            break;
        default:
            return EAGAIN;
    }
    read.kernel_table = kernel_table;
    read.mif = message.im6_mif;
    std::memcpy(&read.source, &message.im6_src, sizeof(read.source));
    std::memcpy(&read.group, &message.im6_dst, sizeof(read.group));
    *flow = read;
    return 0;
}

// The interface that the packet of a report came in by. A copy for the control plane names the
// register interface: such a packet came the way that its entry takes packets from.
cerrno linux_report_interface(ipv4mc_table_st *record, const linux_flow *flow, ifhtype *ifh) {
    if (flow == nullptr || ifh == nullptr) {
        return EINVAL;
    }
    if (flow->report != LINUX_REPORT_PACKET) {
        return linux_mif_handle(flow->kernel_table, flow->mif, ifh);
    }
    if (!book().opened()) {
        return EBADF;
    }
    const entry_key key = {flow->source, flow->group};
    const uint32_t slot = book().find_flow(flow->kernel_table, key);
    if (slot != no_slot) {
        return linux_mif_handle(flow->kernel_table, book().flow(slot).parent, ifh);
    }
    ipv4mc_route_entry_st *route = matching_route(record, key);
    if (route == nullptr || extension(*route).has_entry == 0) {
        return ENOENT;
    }
    return linux_mif_handle(flow->kernel_table, extension(*route).parent, ifh);
}

int linux_report_signals(ipv4mc_table_st *record, const linux_flow *flow, ifhtype ifh) {
    if (record == nullptr || flow == nullptr) {
        return 0;
    }
    if (inside_published_boundary(ifh, flow->group)) {
        return 0;
    }
    const entry_key key = {flow->source, flow->group};
    ipv4mc_route_entry_st *route = matching_route(record, key);
    if (route == nullptr) {
        return flow->report == LINUX_REPORT_UNKNOWN_FLOW && !never_routed(flow->source) ? 1 : 0;
    }
    const ipv4mc_intf_entry_st *entry =
        ip6mc_intf_route_lookup(route, IPV4MC_INTF_ORDINARY, ifh, 0, 0);
    const bool negated = entry != nullptr && (entry->attributes & MRIB_INTF_NEGATE_SIGNAL) != 0;
    const bool by_route = (route->attributes & MRIB_ROUTE_SIGNAL) != 0;
    return by_route != negated ? 1 : 0;
}
