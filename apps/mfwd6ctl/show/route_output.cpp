#include "apps/mfwd6ctl/show/route_output.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include "apps/mfwd6ctl/output/words.h"

namespace ctl {
namespace {

json interfaces_of(const route_copy &route) {
    json list = json::array();
    for (const intf_entry_copy &entry : route.interfaces) {
        json one;
        one["name"] = name_of(entry);
        one["handle"] = entry.ifh;
        one["attributes"] = intf_attribute_names(entry.attributes);
        one["age_seconds"] = seconds_since(entry.created);
        list.push_back(std::move(one));
    }
    return list;
}

json counters_of(const route_copy &route) {
    if (!route.counters) {
        return nullptr;
    }
    json counters;
    counters["packets"] = route.counters->in_packets;
    counters["bytes"] = route.counters->in_bytes;
    counters["out_packets"] = route.counters->out_packets;
    counters["out_bytes"] = route.counters->out_bytes;
    return counters;
}

}  // namespace

std::string state_of(const route_copy &route) {
    if (route.out_of_resources) {
        return "out-of-resources";
    }
    return route.failed ? "failed" : "programmed";
}

// The far end of a tunnel says more than what is underneath.
std::string name_of(const intf_entry_copy &entry) {
    if (entry.kind != IPV4MC_INTF_AMT) {
        return entry.name;
    }
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &entry.amt_addr, text, sizeof(text));
    return fmt::format("amt:{}:{}", text, entry.amt_port);
}

std::vector<std::string> names_with(const route_copy &route, uint64_t mask) {
    std::vector<std::string> names;
    for (const intf_entry_copy &entry : route.interfaces) {
        if ((entry.attributes & mask) != 0) {
            names.push_back(name_of(entry));
        }
    }
    return names;
}

std::string name_of(const table_copy &table) {
    return !table.name.empty() ? table.name : hex(table.tid);
}

json to_json(const route_key &key) {
    json j;
    j["source"] = is_any(key.source) ? json(nullptr) : json(address_text(key.source));
    j["group"] = address_text(key.group);
    j["group_length"] = key.group_length();
    return j;
}

json to_json(const table_copy &table, const route_copy &route) {
    json j;
    j["table"] = table.name;
    j["table_id"] = table.tid;
    j.update(to_json(route.key));
    j["attributes"] = route_attribute_names(route.attributes);
    j["state"] = state_of(route);
    j["age_seconds"] = seconds_since(route.created);
    j["from"] = names_with(route, MRIB_INTF_ACCEPT);
    j["to"] = names_with(route, MRIB_INTF_FORWARD);
    j["interfaces"] = interfaces_of(route);
    j["parent"] = route.parent ? to_json(*route.parent) : json(nullptr);
    j["counters"] = counters_of(route);
    return j;
}

}  // namespace ctl
