#include "apps/check/walk.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

namespace mfwd6::check {
namespace {

bool fits(const block *found, uint64_t pointer, const kind &what) {
    if (found == nullptr || found->state != block_state::live ||
        found->address + what.offset != pointer) {
        return false;
    }
    const uint64_t needed = uint64_t{what.bytes} + what.offset;
    // The platform half may have its own part behind records in tries and behind entries.
    return (what.type == kinds::any_type || found->type == what.type) &&
           (what.or_more ? found->bytes >= needed : found->bytes == needed);
}

std::string text(const char *from, size_t room) {
    return std::string(from, strnlen(from, room));
}

std::string joined(std::initializer_list<std::string> parts) {
    std::string all;
    for (const std::string &part : parts) {
        all.append(part);
    }
    return all;
}

std::string address_text(const ip_maddr_st &address) {
    char buffer[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &address, buffer, sizeof(buffer));
    return buffer;
}

std::string source_text(const ip_maddr_st &source) {
    const ip_maddr_st any{};
    return std::memcmp(&source, &any, sizeof(any)) == 0 ? "*" : address_text(source);
}

std::string name_of_table(const void *record) {
    const auto *table = static_cast<const ipv4mc_table_st *>(record);
    return table->table_type == IPV4MC_TABLE_TID
               ? hex(table->tid)
               : text(table->vrf_name, sizeof(table->vrf_name)) + " " + hex(table->vrf_id);
}

std::string name_of_route(const void *record) {
    const auto *route = static_cast<const ipv4mc_route_entry_st *>(record);
    const std::string length = route->pfx_len < IPV4MC_ROUTE_PFX_LEN_STAR_G
                                   ? joined({"/", std::to_string(route->pfx_len)})
                                   : "";
    return joined({"(", source_text(route->source), ",", address_text(route->group), length, ")"});
}

std::string name_of_entry(const void *record) {
    const auto *entry = static_cast<const ipv4mc_intf_entry_st *>(record);
    return joined({"on interface ", hex(entry->ifh)});
}

std::string name_of_idb(const void *record) {
    const auto *idb = static_cast<const ipv4mc_idb_st *>(record);
    return text(idb->name, sizeof(idb->name)) + " " + hex(idb->ifh);
}

std::string name_of_encap(const void *record) {
    return std::to_string(static_cast<const ipv4mc_encap_entry_st *>(record)->encap_id);
}

std::string name_of_transport(const void *record) {
    const auto &key = static_cast<const ipv4mc_regdb_entry_st *>(record)->key;
    return joined({"type ", std::to_string(key.type), " ", hex(uint64_t{key.u.lsm_id})});
}

std::string name_of_bvi(const void *record) {
    const auto *bvi = static_cast<const ipv4mc_bvi_entry_t *>(record);
    return joined(
        {"(", source_text(bvi->source), ",", address_text(bvi->group), ") on ", hex(bvi->bvi_ifh)});
}

finding describe_finding(const subject &about, const char *field, const std::string &what) {
    return {reinterpret_cast<uint64_t>(about.address), about.record,
            about.name != nullptr ? about.name(about.address) : "", field, what};
}

}  // namespace

walk::walk(uint32_t window, const ipv4mc_shmwin_hdr_st *header, bool live, size_t most_findings)
    : window_(window),
      header_(header),
      live_(live),
      most_findings_(most_findings),
      heap_(window, load(header->buffer_pool)) {}

void walk::keep(std::vector<finding> &to, uint64_t *more, const subject &about, const char *field,
                const std::string &what) {
    if (to.size() < most_findings_) {
        to.push_back(describe_finding(about, field, what));
    } else {
        ++*more;
    }
}

void walk::wrong(const subject &about, const char *field, const std::string &what) {
    keep(result_.findings, &result_.more_findings, about, field, what);
}

void walk::missing(const subject &about, const char *field, const std::string &what) {
    wrong(about, field, what);
    if (!result_.findings.empty() && result_.more_findings == 0) {
        result_.findings.back().absence = true;
    }
}

void walk::leftover(const subject &about, const char *field, const std::string &what) {
    keep(result_.leftovers, &result_.more_leftovers, about, field, what);
}

bool walk::reach(const subject &about, const char *field, uint64_t pointer, const kind &what) {
    block *found = heap_.at(pointer - what.offset);
    if (!fits(found, pointer, what)) {
        wrong(about, field,
              joined({"names no ", what.record, ": at ", hex(pointer), " is ", describe(found)}));
        return false;
    }
    found->reached = true;
    return true;
}

bool walk::is(const void *pointer, const kind &what) {
    const auto address = reinterpret_cast<uint64_t>(pointer);
    return fits(heap_.at(address - what.offset), address, what);
}

bool walk::reach_any(const void *pointer) {
    block *found = heap_.at(reinterpret_cast<uint64_t>(pointer));
    if (found == nullptr || found->state != block_state::live) {
        return false;
    }
    found->reached = true;
    return true;
}

std::string hex(uint64_t value) {
    char buffer[24];
    snprintf(buffer, sizeof(buffer), "0x%llx", static_cast<unsigned long long>(value));
    return buffer;
}

std::string hex(const void *pointer) {
    return hex(reinterpret_cast<uint64_t>(pointer));
}

subject about(const ipv4mc_shmwin_hdr_st *header) {
    return {"window header", header};
}
subject about(const ipv4mc_table_st *table) {
    return {table->table_type == IPV4MC_TABLE_TID ? "table" : "VRF table", table, name_of_table};
}
subject about(const ipv4mc_route_entry_st *route) {
    return {"route", route, name_of_route};
}
subject about(const ipv4mc_intf_entry_st *entry) {
    return {"interface entry", entry, name_of_entry};
}
subject about(const ipv4mc_idb_st *idb) {
    return {"interface", idb, name_of_idb};
}
subject about(const ipv4mc_encap_entry_st *encap) {
    return {"encap", encap, name_of_encap};
}
subject about(const ipv4mc_regdb_entry_st *transport) {
    return {"transport", transport, name_of_transport};
}
subject about(const ipv4mc_bvi_entry_t *bvi) {
    return {"BVI entry", bvi, name_of_bvi};
}

}  // namespace mfwd6::check
