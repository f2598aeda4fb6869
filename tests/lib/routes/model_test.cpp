// Random operations on routes of several tables beside a plain model. After each batch the records, the
// lists both ways, the counts, the references and the hardware must say what the model says.
#include <map>
#include <memory>
#include <random>
#include <set>
#include <tuple>

#include "services/gtrie/gtrie.h"
#include "tests/lib/routes/bed.h"

using namespace bed;

namespace {

using intf_id = std::tuple<uint32_t, ifhtype, uint32_t, uint16_t>;  // key of the tree
using route_id = std::pair<size_t, uint32_t>;                      // table, number

struct model_intf {
    ipv4mc_intf_entry_st *record;
    ifhtype ifh;
    bool on_interface;  // an AMT entry that moved is on none until its next COMMIT as a new one
    uint64_t attributes;
};

struct model_route {
    ipv4mc_route_entry_st *record;
    uint64_t attributes;
    std::map<intf_id, model_intf> intfs;
};

constexpr uint32_t routes_per_table = 60;
constexpr uint64_t plain_bits = 0x0f00;  // bits that the library only carries

class Model {
  public:
    Model(std::vector<ipv4mc_table_st *> tables, uint32_t seed) : tables_(std::move(tables)), random_(seed) {}

    void step() {
        arm_a_fault();
        const route_id id{pick(tables_.size()), static_cast<uint32_t>(pick(routes_per_table))};
        const auto found = routes_.find(id);
        if (found == routes_.end()) {
            make(id);
        } else {
            switch (pick(6)) {
                case 0: change(id, found->second); break;
                case 1: recreate(id, found->second); break;
                case 2: leave(found->second); break;
                default: enter(found->second); break;
            }
        }
        sim_clear_faults();
    }

    void check() {
        std::map<size_t, uint32_t> per_table;
        std::map<ifhtype, uint32_t> per_interface;
        uint64_t intfs = 0;
        for (const auto &[id, route] : routes_) {
            ++per_table[id.first];
            ASSERT_EQ(find(tables_[id.first], key_of(id)), route.record);
            ASSERT_EQ(route.record->attributes, route.attributes);
            ASSERT_EQ(check_interfaces(route.record), "");
            check_hardware(id, route);
            for (const auto &[name, intf] : route.intfs) {
                ++intfs;
                ASSERT_EQ(ip6mc_intf_route_lookup(route.record, std::get<0>(name), std::get<1>(name),
                                                  std::get<2>(name), std::get<3>(name)),
                          intf.record);
                ASSERT_EQ(intf.record->ifh, intf.ifh);
                ASSERT_EQ(intf.record->on_idb_list, intf.on_interface ? 1 : 0);
                if (intf.on_interface) ++per_interface[intf.ifh];
            }
            ASSERT_EQ(listed(route.record), route.intfs.size());
        }
        for (size_t t = 0; t < tables_.size(); ++t) {
            ASSERT_EQ(walked(tables_[t]), per_table[t]);
            ASSERT_EQ(tables_[t]->rate_route_count, static_cast<int32_t>(per_table[t]));
        }
        for (ifhtype ifh = 1; ifh <= interfaces; ++ifh) {
            ipv4mc_idb_st *idb = nullptr;
            ASSERT_EQ(ip6mc_idb_lookup(ifh, &idb), 0U);
            const uint32_t wanted = per_interface[ifh];
            ASSERT_EQ(idb != nullptr, wanted != 0) << ifh;
            if (idb != nullptr) {
                ASSERT_EQ(check_idb(idb), "") << ifh;
                ASSERT_EQ(idb->route_count, wanted);
                ASSERT_EQ(idb->refcount, wanted);
            }
        }
        ASSERT_EQ(ipv4mc_desc->shmwin_info->alloc_count[IPMC_SHMWIN_ALLOC_INTF], intfs);
        ASSERT_EQ(sim_count(IP6MC_PLATFORM_ROUTE), routes_.size());
    }

    size_t size() const { return routes_.size(); }

  private:
    static constexpr ifhtype interfaces = 12;

    size_t pick(size_t below) { return random_() % below; }

    static key key_of(const route_id &id) {
        const uint32_t n = id.second;
        // Sources, groups and nested ranges.
        if (n % 3 == 0) return star_g("ff3e::", static_cast<uint16_t>(16 + n));
        return n % 3 == 1 ? sg(n) : key{{}, numbered("ff3e::", n), 128};
    }

    void arm_a_fault() {
        if (pick(6) == 0) {
            const sim_op op = pick(2) == 0 ? SIM_OP_ROUTE : SIM_OP_INTF;
            sim_arm_fault(op, pick(2) == 0 ? IPV4MC_ACTION_CREATE : IPV4MC_ACTION_COMMIT, 0, 1,
                          pick(4) == 0 ? 63 : 5);
        }
    }

    void make(const route_id &id) {
        ipv4mc_table_st *table = tables_[id.first];
        ipv4mc_route_entry_st *record = create(table, key_of(id));
        ASSERT_EQ(find(table, key_of(id)), nullptr);
        record->attributes = pick(0x10) << 8;
        model_route route{record, record->attributes, {}};
        if (pick(2) == 0) enter(route);
        cerrno rc = commit(table, record, 1);
        if (rc != 0) {
            rc = commit(table, record, 1);  // the fault was for once
        }
        ASSERT_EQ(rc, 0U);
        routes_.emplace(id, std::move(route));
    }

    void change(const route_id &id, model_route &route) {
        const uint64_t old = route.attributes;
        route.attributes = route.record->attributes = (old & ~plain_bits) | (pick(0x10) << 8);
        if (commit(tables_[id.first], route.record, 0, old) != 0) {
            ASSERT_EQ(commit(tables_[id.first], route.record, 0, old), 0U);
        }
    }

    void recreate(const route_id &id, const model_route &route) {
        ipv4mc_route_entry_st *record = nullptr;
        int is_new = 1;
        const ip_maddr_st aux = numbered("2001:db8::", static_cast<uint32_t>(pick(1000)));
        ASSERT_EQ(operate(IPV4MC_ACTION_CREATE, tables_[id.first], key_of(id), &record, &is_new, 0, &aux), 17U);
        ASSERT_EQ(record, route.record);
        ASSERT_EQ(is_new, 0);
    }

    intf_key any_intf() {
        const auto ifh = static_cast<ifhtype>(1 + pick(interfaces));
        if (pick(4) != 0) return {IPV4MC_INTF_ORDINARY, ifh, 0, 0};
        return {IPV4MC_INTF_AMT, ifh, static_cast<uint32_t>(pick(3)), static_cast<uint16_t>(pick(3))};
    }

    void enter(model_route &route) {
        const intf_key k = any_intf();
        const intf_id id{k.type, k.type == IPV4MC_INTF_ORDINARY ? k.ifh : 0, k.amt_addr, k.amt_port};
        ipv4mc_intf_entry_st *entry = nullptr;
        const auto found = route.intfs.find(id);
        const cerrno rc = intf_operate(IPV4MC_ACTION_CREATE, route.record, k, &entry, found == route.intfs.end());
        if (found != route.intfs.end()) {
            ASSERT_TRUE(rc == 17 || rc == 5);
            ASSERT_EQ(entry, found->second.record);
            if (found->second.ifh != k.ifh) {
                found->second.ifh = k.ifh;
                found->second.on_interface = false;
            }
            intf_operate(IPV4MC_ACTION_COMMIT, route.record, k, &entry, 0, found->second.attributes,
                         static_cast<uint32_t>(pick(100)));
            return;
        }
        if (rc != 0) {
            ASSERT_TRUE(rc == 5 || rc == 63);
            ASSERT_EQ(entry, nullptr);
            return;
        }
        entry->attributes = pick(0x10) << 8;
        if (intf_operate(IPV4MC_ACTION_COMMIT, route.record, k, &entry, 1) != 0) {
            ASSERT_EQ(entry, nullptr);
            forget_in_hardware(route, k);
            return;
        }
        route.intfs.emplace(id, model_intf{entry, k.ifh, true, entry->attributes});
    }

    void leave(model_route &route) {
        if (route.intfs.empty()) return;
        auto chosen = std::next(route.intfs.begin(), static_cast<long>(pick(route.intfs.size())));
        const auto &[type, key_ifh, addr, port] = chosen->first;
        ipv4mc_intf_entry_st *entry = pick(2) == 0 ? chosen->second.record : nullptr;
        ASSERT_EQ(intf_operate(IPV4MC_ACTION_DELETE, route.record, {type, chosen->second.ifh, addr, port}, &entry, 0),
                  0U);
        ASSERT_EQ(entry, nullptr);
        route.intfs.erase(chosen);
    }

    // A refused COMMIT leaves what CREATE told the hardware: the platform's to sweep. The library makes
    // no further call; the test takes it away as such a sweep would.
    void forget_in_hardware(const model_route &route, const intf_key &k) {
        ipv4mc_intf_entry_st *entry = ipv4mc_create_intf(k.ifh, k.type, 0, k.amt_addr, k.amt_port);
        ip6mc_platform_intf_operation(IPV4MC_ACTION_DELETE, route.record->table, route.record, k.ifh, 0, &entry,
                                      nullptr, 0, 0, 0);
        ipv4mc_clear_intf(&entry);
    }

    void check_hardware(const route_id &id, const model_route &route) {
        const key k = key_of(id);
        const uint32_t tid = tables_[id.first]->tid;
        ip6mc_platform_held_st held{};
        ASSERT_EQ(sim_find_route(tid, &k.source, &k.group, route.record->pfx_len, &held), 0U);
        ASSERT_EQ(held.attributes, route.attributes);
        for (const auto &[name, intf] : route.intfs) {
            if (std::get<0>(name) == IPV4MC_INTF_ORDINARY) {
                ASSERT_EQ(sim_find_intf(tid, &k.source, &k.group, route.record->pfx_len, intf.ifh, &held), 0U);
                ASSERT_EQ(held.attributes, intf.attributes);
            }
        }
        for (ifhtype ifh = 1; ifh <= interfaces; ++ifh) {
            const bool wanted = route.intfs.contains({IPV4MC_INTF_ORDINARY, ifh, 0, 0});
            ASSERT_EQ(sim_find_intf(tid, &k.source, &k.group, route.record->pfx_len, ifh, nullptr) == 0, wanted);
        }
    }

    static size_t listed(const ipv4mc_route_entry_st *route) {
        size_t count = 0;
        for (const ipv4mc_intf_entry_st *entry = route->intf_list; entry != nullptr; entry = entry->next_intf) ++count;
        return count;
    }

    static uint32_t walked(ipv4mc_table_st *table) {
        uint32_t count = 0;
        ip6mc_route_walk(
            table, 0,
            [](ipv4mc_route_entry_st *, void *context) -> cerrno {
                ++*static_cast<uint32_t *>(context);
                return 0;
            },
            &count);
        return count;
    }

    std::vector<ipv4mc_table_st *> tables_;
    std::mt19937 random_;
    std::map<route_id, model_route> routes_;
};

class RouteModel : public testing::TestWithParam<int> {};

}  // namespace

TEST_P(RouteModel, RecordsListsAndHardwareAgree) {
    ip6mc_gtrie_set_sharing(GetParam());
    for (const uint32_t seed : {1U, 2U, 3U}) {
        SCOPED_TRACE(seed);
        library lib;
        Model model({make_table(0xe0000005, 0x60000006, "red"), make_table(0xe0000007, 0x60000008, "blue"),
                     make_table(0xe0000009, 0x6000000a, "green")},
                    seed);
        for (int batch = 0; batch < 40; ++batch) {
            for (int n = 0; n < 100; ++n) model.step();
            model.check();
            if (HasFatalFailure()) break;
        }
        EXPECT_GT(model.size(), 100U);
    }
    ip6mc_gtrie_set_sharing(0);
}

INSTANTIATE_TEST_SUITE_P(Tries, RouteModel, testing::Values(0, 1));
