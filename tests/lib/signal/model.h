// Plain models of a table's signals, to compare the table with.
#ifndef MFWD6_TESTS_LIB_SIGNAL_MODEL_H
#define MFWD6_TESTS_LIB_SIGNAL_MODEL_H

#include <atomic>
#include <list>
#include <map>
#include <random>
#include <utility>

#include "tests/lib/signal/fixture.h"

namespace signals {

class dice {
  public:
    explicit dice(uint32_t seed) : engine_(seed) {}
    uint32_t operator()(uint32_t below) { return static_cast<uint32_t>(engine_() % below); }

  private:
    std::mt19937 engine_;
};

// The whole table, for who works on it alone.
class table_model {
  public:
    struct intf {
        ifhtype ifh;
        bool sp;
        bool operator==(const intf &) const = default;
    };
    struct route {
        std::list<intf> newest_first;
        bool sp = false;
    };
    using key = std::pair<uint32_t, uint32_t>;  // group, source: the order of the trie

    void add(uint32_t s, uint32_t g, ifhtype ifh) {
        if (find(s, g, ifh) == nullptr)
            post(s, g, {ifh, false});
    }
    void probe(uint32_t s, uint32_t g, ifhtype ifh) {
        const bool was_there = routes.contains({g, s});
        if (find(s, g, ifh) == nullptr)
            post(s, g, {ifh, true});
        else
            mark({g, s});
        if (was_there && !routes[{g, s}].sp) {
            routes[{g, s}].sp = true;
            find(s, g, ifh)->sp = true;
        }
    }
    void remove(uint32_t s, uint32_t g, ifhtype ifh) {
        const auto at = routes.find({g, s});
        if (at == routes.end())
            return;
        if (at->second.newest_first.remove_if([&](const intf &i) { return i.ifh == ifh; }) != 0 &&
            at->second.newest_first.empty()) {
            std::erase(changed, at->first);
            routes.erase(at);
        }
    }
    void remove_one(uint32_t s, uint32_t g) {
        const auto at = routes.find({g, s});
        if (at != routes.end())
            remove(s, g, at->second.newest_first.front().ifh);
    }

    // What the table shows, against what it should; empty when they agree.
    std::string differs(ipv4mc_table_st *table) const {
        auto want = routes.begin();
        for (auto *r = ip6mc_signal_first_key(table, &any, &any); r != nullptr;
             r = ip6mc_signal_next(table, r), ++want) {
            if (want == routes.end() || r != route_of(table, want->first.second, want->first.first))
                return "routes";
            std::list<intf> have;
            for (auto *i = r->intf_list; i != nullptr; i = i->next_intf)
                have.push_back({i->ifh, (i->attributes & MRIB_INTF_SP) != 0});
            if (have != want->second.newest_first)
                return "interfaces";
            if (((r->attributes & MRIB_INTF_SP) != 0) != want->second.sp)
                return "flag";
        }
        if (want != routes.end())
            return "a route is missing";
        std::vector<key> listed;
        for (auto *r : signals::changed())
            listed.emplace_back(r->group.bytes[15], r->source.bytes[15]);
        if (listed != changed)
            return "changed routes";
        if (table->signal_route_adds != adds || table->signal_route_count != routes.size())
            return "counts";
        return "";
    }

    std::map<key, route> routes;
    std::vector<key> changed;
    uint32_t adds = 0;

  private:
    intf *find(uint32_t s, uint32_t g, ifhtype ifh) {
        const auto at = routes.find({g, s});
        if (at == routes.end())
            return nullptr;
        for (intf &i : at->second.newest_first) {
            if (i.ifh == ifh)
                return &i;
        }
        return nullptr;
    }
    void post(uint32_t s, uint32_t g, intf with) {
        adds += routes.contains({g, s}) ? 0 : 1;
        routes[{g, s}].newest_first.push_front(with);
        mark({g, s});
    }
    void mark(const key &k) {
        if (std::find(changed.begin(), changed.end(), k) == changed.end())
            changed.push_back(k);
    }
};

// The signals of one interface on a set of routes that many work on. One thread posts and removes
// them; others know of each whether it must be there. All zero is none. May lie in shared memory.
struct own_signals {
    static constexpr uint32_t keys = 16;
    std::atomic<uint32_t> steps;
    std::atomic<uint8_t> there[keys];
    std::atomic<uint32_t> at_work;  // key + 1 while a call is made; whether it counts is not known

    // One random call on behalf of `ifh`; its code.
    cerrno step(ipv4mc_table_st *table, ifhtype ifh, dice &random) {
        const uint32_t k = random(keys);
        const ip_maddr_st s = source(k + 1);
        const ip_maddr_st g = group(k % 4 + 1);
        at_work = k + 1;
        cerrno rc = 0;
        const uint32_t what = random(4);
        switch (what) {
            case 0:
                rc = add(table, k + 1, k % 4 + 1, ifh);
                break;
            case 1:
                rc = signals::probe(table, k + 1, k % 4 + 1, ifh);
                break;
            default:
                rc = ip6mc_signal_remove_mutex(table, &s, &g, ifh);
        }
        there[k] = what < 2 ? 1 : 0;
        at_work = 0;
        ++steps;
        return rc;
    }

    // What the table shows of the interface, against this; empty when they agree.
    std::string differs(ipv4mc_table_st *table, ifhtype ifh) const {
        for (uint32_t k = 0; k < keys; ++k) {
            const bool shown = intf_of(route_of(table, k + 1, k % 4 + 1), ifh) != nullptr;
            if (shown != (there[k] != 0) && at_work != k + 1)
                return text("interface 0x%x, key %u: %s", ifh, k, shown ? "too many" : "missing");
        }
        return "";
    }
};

}  // namespace signals

#endif
