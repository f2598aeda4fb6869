#include "apps/mfwd6ctl/output/words.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/multicast_alloc.h"

namespace ctl {
namespace {

struct bit_name {
    uint64_t bit;
    const char *name;
};

constexpr bit_name route_bits[] = {
    {MRIB_ROUTE_SIGNAL, "signal"},
    {MRIB_ROUTE_DROP, "drop"},
    {MRIB_ROUTE_CONNECTED_CHECK, "connected-check"},
    {MRIB_ROUTE_IA, "inherit-accept"},
    {MRIB_ROUTE_IF, "inherit-forward"},
    {MRIB_ROUTE_TID_DEMAND, "table-on-demand"},
    {MRIB_ROUTE_TID_STICKY, "table-sticky"},
    {MRIB_ROUTE_MT, "mt-update"},
    {MRIB_ROUTE_MH, "mdt-interface"},
    {MRIB_ROUTE_DT, "decapsulate"},
    {MRIB_ROUTE_DT_REMOTE, "decapsulate-remote"},
    {MRIB_ROUTE_CLEAR_ATTR, "cleared-with-route"},
    {MRIB_ROUTE_ENCAP, "encap"},
    {MRIB_ROUTE_RPF_ID, "rpf-id"},
    {MRIB_ROUTE_MOFRR_UPD, "mofrr-update"},
};

constexpr bit_name intf_bits[] = {
    {MRIB_INTF_ACCEPT, "accept"},
    {MRIB_INTF_FORWARD, "forward"},
    {MRIB_INTF_NEGATE_SIGNAL, "negate-signal"},
    {MRIB_INTF_LOCAL_COPY, "local-copy"},
    {MRIB_INTF_SP, "signal-present"},
    {MRIB_INTF_COUNTED, "counted"},
    {MRIB_INTF_EG, "local-egress"},
    {MRIB_INTF_MI, "mdt"},
    {MRIB_INTF_BVI, "bvi"},
    {MRIB_INTF_LMI, "label-mdt"},
    {MRIB_INTF_TMI, "tree-mdt"},
    {MRIB_INTF_IRMI, "replication-mdt"},
    {MRIB_INTF_REGDB, "next-hop"},
    {MRIB_INTF_TRMI, "segment-mdt"},
};

std::vector<std::string> names_of(uint64_t word, const bit_name *first, const bit_name *last) {
    std::vector<std::string> names;
    for (unsigned n = 0; n < 64; ++n) {
        const uint64_t bit = uint64_t{1} << n;
        if ((word & bit) == 0) {
            continue;
        }
        const auto *found =
            std::find_if(first, last, [&](const bit_name &b) { return b.bit == bit; });
        names.push_back(found != last ? found->name : fmt::format("bit-{}", n));
    }
    return names;
}

struct number_name {
    uint32_t number;
    const char *name;
};

constexpr number_name interface_types[] = {
    {idb_type_physical, "physical"},
    {idb_type_vlan_over_bundle, "vlan-over-bundle"},
    {idb_type_tunnel, "tunnel"},
    {idb_type_bundle, "bundle"},
    {idb_type_svi, "svi"},
    {idb_type_mdt, "mdt"},
    {idb_type_other, "other"},
    {idb_type_bvi, "bvi"},
    {idb_type_pppoe, "pppoe"},
    {idb_type_pw_ether, "pw-ether"},
    {idb_type_pw_ether_vlan, "pw-ether-vlan"},
    {idb_type_always_local, "always-local"},
};

constexpr number_name allocation_types[] = {
    {IPMC_SHMWIN_ALLOC_IDB, "interface"},
    {IPMC_SHMWIN_ALLOC_VLAN_RADIX, "bundle child node"},
    {IPMC_SHMWIN_ALLOC_BUNDLE, "bundle children"},
    {IPMC_SHMWIN_ALLOC_VLAN, "bundle child"},
    {IPMC_SHMWIN_ALLOC_BUNDLE_MEMBERS, "bundle members"},
    {IPMC_SHMWIN_ALLOC_INTF_CHANGE, "interface change"},
    {IPMC_SHMWIN_ALLOC_INTF, "route interface"},
    {IPMC_SHMWIN_ALLOC_TABLE, "vrf table"},
    {IPMC_SHMWIN_ALLOC_ROUTE, "route"},
    {IPMC_SHMWIN_ALLOC_AVL, "table and tree node"},
    {IPMC_SHMWIN_ALLOC_WAVL, "sorted tree node"},
    {IPMC_SHMWIN_ALLOC_ENCAP_LEAF, "encap leaf"},
    {IPMC_SHMWIN_ALLOC_REGDB, "transport"},
    {IPMC_SHMWIN_ALLOC_UNTYPED_COUNT, "untyped"},
    {IPMC_SHMWIN_ALLOC_GTRIE_NODE, "trie node"},
    {IPMC_SHMWIN_ALLOC_GTRIE_INDEX, "trie index"},
    {IPMC_SHMWIN_ALLOC_GTRIE_HANDLE, "trie"},
    {IPMC_SHMWIN_ALLOC_BVI_ENTRY, "bvi state"},
    {IPMC_SHMWIN_ALLOC_BVI_IF, "bvi tie"},
    {IPMC_SHMWIN_ALLOC_BVI_INTF_DB, "bvi mapping"},
    {IPMC_SHMWIN_ALLOC_OBJ_ID, "object id"},
    {IPMC_SHMWIN_ALLOC_RETRY_MSG, "retry"},
    {IPMC_SHMWIN_ALLOC_RETRY_QUEUE, "retry queue"},
    {IPMC_SHMWIN_ALLOC_UNTYPED, "untyped"},
};

template <size_t N>
std::string name_of(const number_name (&names)[N], uint32_t number) {
    const auto *found = std::find_if(std::begin(names), std::end(names),
                                     [&](const number_name &n) { return n.number == number; });
    return found != std::end(names) ? found->name : fmt::format("type-{}", number);
}

constexpr uint32_t whole_address = 128;

}  // namespace

std::vector<std::string> route_attribute_names(uint64_t attributes) {
    return names_of(attributes, std::begin(route_bits), std::end(route_bits));
}

std::vector<std::string> intf_attribute_names(uint64_t attributes) {
    return names_of(attributes, std::begin(intf_bits), std::end(intf_bits));
}

std::string interface_type_name(uint32_t type) {
    return name_of(interface_types, type);
}

std::string allocation_type_name(uint32_t type) {
    return name_of(allocation_types, type);
}

std::string address_text(const ip_maddr_st &address) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, &address, text, sizeof(text));
}

bool is_any(const ip_maddr_st &address) {
    return std::all_of(std::begin(address.bytes), std::end(address.bytes),
                       [](uint8_t b) { return b == 0; });
}

std::string source_text(const ip_maddr_st &source) {
    return is_any(source) ? "*" : address_text(source);
}

std::string group_text(const ip_maddr_st &group, uint32_t length) {
    return length >= whole_address ? address_text(group)
                                   : fmt::format("{}/{}", address_text(group), length);
}

std::string duration_text(uint64_t seconds) {
    constexpr uint64_t minute = 60;
    constexpr uint64_t hour = 60 * minute;
    constexpr uint64_t day = 24 * hour;
    if (seconds < minute) {
        return fmt::format("{}s", seconds);
    }
    if (seconds < hour) {
        return fmt::format("{}m{:02}s", seconds / minute, seconds % minute);
    }
    if (seconds < day) {
        return fmt::format("{}h{:02}m", seconds / hour, seconds % hour / minute);
    }
    return fmt::format("{}d{:02}h", seconds / day, seconds % day / hour);
}

std::string bytes_text(uint64_t bytes) {
    constexpr uint64_t step = 1024;
    if (bytes < 10 * step) {
        return fmt::format("{} B", bytes);
    }
    static constexpr const char *units[] = {"KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes) / step;
    size_t unit = 0;
    while (value >= step && unit + 1 < std::size(units)) {
        value /= step;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string wall_time_text(uint64_t ns) {
    const auto seconds = static_cast<time_t>(ns / 1'000'000'000);
    tm parts{};
    localtime_r(&seconds, &parts);
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

uint64_t seconds_since(const struct timespec &then) {
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > then.tv_sec ? static_cast<uint64_t>(now.tv_sec - then.tv_sec) : 0;
}

std::string hex(uint64_t number) {
    return fmt::format("{:#x}", number);
}

std::string joined(const std::vector<std::string> &words, std::string_view between) {
    return fmt::format("{}", fmt::join(words, between));
}

}  // namespace ctl
