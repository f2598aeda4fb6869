#include <nlohmann/json.hpp>

#include "apps/check/check.h"
#include "apps/check/walk.h"

namespace mfwd6::check {
namespace {

struct named_type {
    uint32_t type;
    const char *name;
};

constexpr named_type type_names[] = {
    {IPMC_SHMWIN_ALLOC_IDB, "IDB"},
    {IPMC_SHMWIN_ALLOC_VLAN_RADIX, "VLAN_RADIX"},
    {IPMC_SHMWIN_ALLOC_BUNDLE, "BUNDLE"},
    {IPMC_SHMWIN_ALLOC_VLAN, "VLAN"},
    {IPMC_SHMWIN_ALLOC_BUNDLE_MEMBERS, "BUNDLE_MEMBERS"},
    {IPMC_SHMWIN_ALLOC_INTF_CHANGE, "INTF_CHANGE"},
    {IPMC_SHMWIN_ALLOC_INTF, "INTF"},
    {IPMC_SHMWIN_ALLOC_TABLE, "TABLE"},
    {IPMC_SHMWIN_ALLOC_ROUTE, "ROUTE"},
    {IPMC_SHMWIN_ALLOC_AVL, "AVL"},
    {IPMC_SHMWIN_ALLOC_WAVL, "WAVL"},
    {IPMC_SHMWIN_ALLOC_ENCAP_LEAF, "ENCAP_LEAF"},
    {IPMC_SHMWIN_ALLOC_REGDB, "REGDB"},
    {IPMC_SHMWIN_ALLOC_UNTYPED_COUNT, "UNTYPED"},
    {IPMC_SHMWIN_ALLOC_GTRIE_NODE, "GTRIE_NODE"},
    {IPMC_SHMWIN_ALLOC_GTRIE_INDEX, "GTRIE_INDEX"},
    {IPMC_SHMWIN_ALLOC_GTRIE_HANDLE, "GTRIE_HANDLE"},
    {IPMC_SHMWIN_ALLOC_BVI_ENTRY, "BVI_ENTRY"},
    {IPMC_SHMWIN_ALLOC_BVI_IF, "BVI_IF"},
    {IPMC_SHMWIN_ALLOC_BVI_INTF_DB, "BVI_INTF_DB"},
    {IPMC_SHMWIN_ALLOC_OBJ_ID, "OBJ_ID"},
    {IPMC_SHMWIN_ALLOC_RETRY_MSG, "RETRY_MSG"},
    {IPMC_SHMWIN_ALLOC_RETRY_QUEUE, "RETRY_QUEUE"},
    {IPMC_SHMWIN_ALLOC_UNTYPED, "UNTYPED"},
};

nlohmann::json orphans_of(const report &from) {
    nlohmann::json list = nlohmann::json::array();
    for (const orphan &each : from.orphans) {
        list.push_back({{"address", hex(each.address)},
                        {"bytes", each.bytes},
                        {"type", type_name(each.type)}});
    }
    return list;
}

nlohmann::json blocks_of(const report &from) {
    nlohmann::json by_type = nlohmann::json::object();
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        const blocks_of_type &of = from.blocks[type];
        if (of.live != 0 || of.pooled != 0 || of.kept != 0) {
            by_type[type_name(type)] = {{"live", of.live},
                                        {"pooled", of.pooled},
                                        {"kept", of.kept},
                                        {"orphans", of.orphans},
                                        {"orphan_bytes", of.orphan_bytes}};
        }
    }
    return by_type;
}

}  // namespace

std::string type_name(uint32_t type) {
    for (const named_type &each : type_names) {
        if (each.type == type) {
            return each.name;
        }
    }
    return "type " + std::to_string(type);
}

std::string to_string(const finding &what) {
    std::string line = what.record;
    if (what.address != 0) {
        line.append(" ").append(hex(what.address));
    }
    if (!what.name.empty()) {
        line.append(" (").append(what.name).append(")");
    }
    if (!what.field.empty()) {
        line.append(": ").append(what.field);
    }
    return line.append(": ").append(what.what);
}

void to_json(nlohmann::json &out, const finding &from) {
    out = {{"address", hex(from.address)},
           {"record", from.record},
           {"name", from.name},
           {"field", from.field},
           {"what", from.what}};
}

void to_json(nlohmann::json &out, const report &from) {
    out = {{"clean", from.clean()},
           {"findings", from.findings},
           {"more_findings", from.more_findings},
           {"leftovers", from.leftovers},
           {"more_leftovers", from.more_leftovers},
           {"orphans", orphans_of(from)},
           {"blocks", blocks_of(from)},
           {"search_keys", from.search_keys},
           {"walked", from.walked},
           {"owner", from.owner},
           {"processes", from.processes},
           {"rounds", from.rounds},
           {"quiet", from.quiet},
           {"open_changes", from.open_changes},
           {"ns", from.ns}};
}

}  // namespace mfwd6::check
