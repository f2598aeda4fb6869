// The rows on model hardware, straight through the library: what the rows say does not depend on
// the platform.
#include <algorithm>
#include <map>

#include "tests/e2e/rows.h"
#include "tests/lib/routes/bed.h"

namespace {

const std::map<std::string, ifhtype> handles = {{"s1", 11}, {"s2", 12}, {"sred", 13}, {"r1", 21},
                                                {"r2", 22}, {"r3", 23}, {"rred", 24}};

bool in_red(const std::string &host) {
    return host == "sred" || host == "rred";
}

std::string name_of(ifhtype ifh) {
    return std::find_if(handles.begin(), handles.end(),
                        [ifh](const auto &entry) { return entry.second == ifh; })
        ->first;
}

bed::key key_of(const e2e::row_route &r) {
    const size_t slash = r.group.find('/');
    const bool range = slash != std::string::npos;
    const std::string group = r.group.substr(0, slash);
    if (!r.source.empty()) {
        return {bed::address(r.source.c_str()), bed::address(group.c_str()), 256};
    }
    return bed::star_g(group.c_str(),
                       range ? static_cast<uint16_t>(std::stoi(r.group.substr(slash + 1))) : 128);
}

// What the owner makes of a line: every (*,G/m) may be inherited from.
uint64_t attributes_of(const e2e::row_route &r) {
    uint64_t attributes = r.source.empty() ? MRIB_ROUTE_IF : 0;
    for (const std::string &flag : r.flags) {
        attributes |= flag == "inherit-accept" ? MRIB_ROUTE_IA : 0;
        attributes |= flag == "drop" ? MRIB_ROUTE_DROP : 0;
    }
    return attributes;
}

class RowsOnSim : public testing::Test {
  protected:
    void make(const e2e::row_route &r) {
        ipv4mc_route_entry_st *const route = bed::create(table(r.vrf == e2e::red_vrf), key_of(r));
        ASSERT_NE(route, nullptr);
        std::map<std::string, uint64_t> legs;
        for (const std::string &name : r.from) {
            legs[name] |= MRIB_INTF_ACCEPT;
        }
        for (const std::string &name : r.to) {
            legs[name] |= MRIB_INTF_FORWARD;
        }
        for (const auto &[name, attributes] : legs) {
            bed::join(route, {IPV4MC_INTF_ORDINARY, handles.at(name)}, attributes);
        }
        route->attributes = attributes_of(r);
        ASSERT_EQ(bed::commit(route->table, route, 1), 0U);
    }

    void remove(const e2e::row_route &r) {
        ipv4mc_route_entry_st *route = nullptr;
        int is_new = 0;
        EXPECT_EQ(bed::operate(IPV4MC_ACTION_DELETE, table(r.vrf == e2e::red_vrf), key_of(r),
                               &route, &is_new),
                  0U);
    }

    std::vector<std::string> send(const e2e::row_packet &p) {
        ifhtype out[8] = {};
        sim_packet packet = {};
        packet.tid = table(in_red(p.from))->tid;
        packet.ifh = handles.at(p.from);
        packet.source = bed::address(p.source.c_str());
        packet.group = bed::address(p.group.c_str());
        packet.room = 8;
        packet.out = out;
        sim_forward(&packet);
        std::vector<std::string> names;
        for (uint32_t i = 0; i < packet.copies; ++i) {
            names.push_back(name_of(out[i]));
        }
        return names;
    }

    ipv4mc_table_st *table(bool red) const { return red ? red_ : default_; }

  private:
    kit::run_dir dir_;
    kit::library owner_;
    ipv4mc_table_st *default_ = bed::make_table(kit::default_tid, kit::default_vrf_id, "default");
    ipv4mc_table_st *red_ = bed::make_table(100, 100, e2e::red_vrf);
};

TEST_F(RowsOnSim, EveryPacketGoesWhereItsRowSays) {
    bed::start_interfaces();
    for (const e2e::row &r : e2e::rows()) {
        SCOPED_TRACE(r.description);
        for (const e2e::row_route &route : r.routes) {
            make(route);
        }
        for (const e2e::row_packet &packet : r.packets) {
            SCOPED_TRACE("(" + packet.source + ", " + packet.group + ") from " + packet.from);
            EXPECT_EQ(send(packet), packet.out);
        }
        for (const e2e::row_route &route : r.routes) {
            remove(route);
        }
    }
    EXPECT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), 0U);
}

}  // namespace
