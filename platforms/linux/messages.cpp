#include "platforms/linux/messages.h"

#include "platforms/linux/kernel.h"
#include "services/diag/messages.h"

namespace mfwd6::lnx {

namespace {

constexpr uint32_t severity_error = 3;
constexpr uint32_t severity_warning = 4;

const orv_msg_limit once_a_minute = {60};
const orv_msg_limit once_an_hour = {3600};

const orv_msg_rec interfaces_full = {
    severity_error,
    "Table 0x%x has %u interfaces, the most that the kernel takes in one table",
    &once_a_minute,
    "IPV6_MFWD",
    "PLATFORM",
    "INTERFACES_FULL",
    1};
const orv_msg_rec neighbours_short = {
    severity_warning,
    "%llu groups and output devices need a neighbour entry each, the kernel keeps %llu: raise "
    "net.ipv6.neigh.default.gc_thresh3",
    &once_an_hour,
    "IPV6_MFWD",
    "PLATFORM",
    "NEIGHBOURS_SHORT",
    2};
const orv_msg_rec ttl_not_enforced = {
    severity_warning,
    "TTL threshold %u on %s is kept and not enforced: this kernel has none for IPv6 multicast",
    &once_a_minute,
    "IPV6_MFWD",
    "PLATFORM",
    "TTL_NOT_ENFORCED",
    3};
const orv_msg_rec no_room = {
    severity_error,
    "The room that the platform needs behind records was taken from it: %u and %u bytes are left",
    nullptr,
    "IPV6_MFWD",
    "PLATFORM",
    "NO_ROOM",
    4};

}  // namespace

void tell_interfaces_full(uint32_t tid) {
    orv_errmsg(&interfaces_full, severity_error, tid, mifs_of_table);
}

void tell_neighbours_short(uint64_t wanted, uint64_t limit) {
    orv_errmsg(&neighbours_short, severity_warning, static_cast<unsigned long long>(wanted),
               static_cast<unsigned long long>(limit));
}

void tell_ttl_not_enforced(const char *interface_name, uint32_t ttl) {
    orv_errmsg(&ttl_not_enforced, severity_warning, ttl, interface_name);
}

void tell_no_room(uint32_t route_bytes, uint32_t intf_bytes) {
    orv_errmsg(&no_room, severity_error, route_bytes, intf_bytes);
}

}  // namespace mfwd6::lnx
