// show bvi: L2 states behind bridge virtual interfaces.
//
// Their trees are the owner's alone: nothing keeps them whole for a reader beside it. So the states
// are found among the live blocks of the window, by their type, and no tree is followed.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/interrupts.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/window/records.h"
#include "apps/mfwd6ctl/window/step.h"
#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/multicast_alloc.h"
#include "services/window/inspect.h"

namespace ctl {
namespace {

struct bvi_state {
    ifhtype ifh = 0;
    std::string name;
    ip_maddr_st source{};
    ip_maddr_st group{};
    uint32_t group_length = 0;
    uint32_t ties = 0;  // interfaces of routes
    bool stale = false;
    bool going = false;  // goes with its last tie
    std::string vrf;
};

struct bvi_world {
    std::vector<bvi_state> states;
    std::map<ifhtype, uint32_t> vrf_of;  // mapping of BVIs to VRF ids
};

// The record behind the guard of a live block, if it has this type and size and stands in a tree.
template <class Record>
bool copy_record(const shmwin_block &block, uint32_t type, Record *record) {
    ipmc_shmwin_guard_st guard;
    std::memcpy(&guard, block.words, sizeof(guard));
    if (guard.magic != IPMC_SHMWIN_MAGIC_LIVE || guard.type != type ||
        guard.size != sizeof(Record) || block.size < sizeof(guard) + sizeof(Record)) {
        return false;
    }
    std::memcpy(record, static_cast<const char *>(block.address) + sizeof(guard), sizeof(Record));
    return record->node.tree != 0;
}

int look_at(const shmwin_block *block, void *context) {
    auto &world = *static_cast<bvi_world *>(context);
    ipv4mc_bvi_entry_t entry;
    ipv4mc_bvi_intf_db_t mapping;
    if (copy_record(*block, IPMC_SHMWIN_ALLOC_BVI_ENTRY, &entry)) {
        bvi_state s;
        s.ifh = entry.bvi_ifh;
        s.source = entry.source;
        s.group = entry.group;
        s.group_length = entry.plen;
        s.ties = entry.ref_cnt;
        s.stale = entry.stale != 0;
        s.going = entry.del_pnd != 0;
        world.states.push_back(std::move(s));
    } else if (copy_record(*block, IPMC_SHMWIN_ALLOC_BVI_INTF_DB, &mapping)) {
        world.vrf_of[mapping.ifh] = mapping.vid;
    }
    return interrupted() ? 1 : 0;
}

std::vector<bvi_state> read_states(const window &w) {
    bvi_world world;
    std::map<uint32_t, std::string> vrf_names;
    for (const table_copy &t : read_tables(w)) {
        vrf_names[t.vrf_id] = t.name;
    }
    interface_names names;
    {
        const step now(w);
        shmwin_each_block(w.id(), 0, look_at, &world);
        for (bvi_state &s : world.states) {
            s.name = names.of(s.ifh);
        }
    }
    for (bvi_state &s : world.states) {
        const auto mapped = world.vrf_of.find(s.ifh);
        s.vrf = mapped != world.vrf_of.end() ? vrf_names[mapped->second] : "";
    }
    std::sort(world.states.begin(), world.states.end(), [](const bvi_state &a, const bvi_state &b) {
        return a.ifh != b.ifh ? a.ifh < b.ifh
                              : std::memcmp(&a.group, &b.group, sizeof(a.group)) < 0;
    });
    return world.states;
}

std::string group_of(const bvi_state &s) {
    return is_any(s.group) ? "*" : group_text(s.group, s.group_length);
}

json to_json(const bvi_state &s) {
    json j;
    j["interface"] = s.name;
    j["handle"] = s.ifh;
    j["vrf"] = !s.vrf.empty() ? json(s.vrf) : json(nullptr);
    j["source"] = is_any(s.source) ? json(nullptr) : json(address_text(s.source));
    j["group"] = is_any(s.group) ? json(nullptr) : json(address_text(s.group));
    j["group_length"] = s.group_length;
    j["ties"] = s.ties;
    j["stale"] = s.stale;
    j["going"] = s.going;
    return j;
}

void show_bvi(const options &how) {
    const window w(how, need::library);
    const std::vector<bvi_state> states = read_states(w);
    if (how.json) {
        json_array list("bvi");
        for (const bvi_state &s : states) {
            list.add(to_json(s));
        }
        list.end();
        return;
    }
    text_table table({"BVI", "VRF", "SOURCE", "GROUP", ">TIES", "STATE"});
    for (const bvi_state &s : states) {
        table.add({s.name, s.vrf.empty() ? "-" : s.vrf, source_text(s.source), group_of(s),
                   std::to_string(s.ties), s.going ? "going" : (s.stale ? "stale" : "good")});
    }
    table.end();
}

}  // namespace

void add_show_bvi(CLI::App &show, const options &how) {
    CLI::App *command = show.add_subcommand("bvi", "L2 states behind bridge virtual interfaces");
    command->footer("Examples:\n  mfwd6ctl show bvi\n  mfwd6ctl show bvi --json");
    command->callback([&how] { show_bvi(how); });
}

}  // namespace ctl
