// The small world in which the campaign works: tables, routes and interfaces by number, and what
// must be true of them. It lies in memory that supervisor, owners and clients share, so that it
// outlives them.
#ifndef MFWD6_TESTS_CRASH_UNIVERSE_H
#define MFWD6_TESTS_CRASH_UNIVERSE_H

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"

namespace crash {

constexpr uint32_t tables = 4;  // the first is the default table, whose routes feed the others
constexpr uint32_t routes = 40;
constexpr uint32_t interfaces = 6;
constexpr uint32_t signals = 12;

struct route_key {
    ip_maddr_st source;
    ip_maddr_st group;
    uint16_t length;
};

uint32_t tid_of(uint32_t table);
uint32_t vrf_id_of(uint32_t table);
const char *name_of(uint32_t table);
route_key key_of(uint32_t route);
route_key signal_key_of(uint32_t signal);
ifhtype ifh_of(uint32_t interface);

// Bits of an interface's word that its caller sets and clears on a committed entry, beside the
// model.
constexpr uint64_t mark_bits[] = {MRIB_INTF_EG, MRIB_INTF_COUNTED, MRIB_INTF_BVI};
constexpr uint64_t all_mark_bits = MRIB_INTF_EG | MRIB_INTF_COUNTED | MRIB_INTF_BVI;

// What can be seen of a route through the interface of the library.
struct route_state {
    uint32_t present = 0;
    uint32_t intfs = 0;  // bit per interface
    uint64_t attributes = 0;
    uint64_t words[interfaces] = {};

    bool operator==(const route_state &) const = default;
};

// The operation that is under way. Who dies leaves it set.
enum class operation : uint32_t {
    none,
    add_route,
    delete_route,
    clear_route,
    change_attributes,
    add_interface,
    delete_interface,
    create_table,
    deactivate_table,
    delete_table,
    clear_table,
    delete_all,
    clear_all,
    other,  // changes no route that the model knows
};

struct in_flight {
    operation what = operation::none;
    uint32_t table = 0;
    uint32_t route = 0;
    uint32_t interface = 0;
    uint64_t attributes = 0;
    uint32_t faults = 0;  // the platform or the window was told to fail
};

struct world {
    bool there[tables];  // the table exists and is active
    route_state route[tables][routes];
    in_flight now;
};

struct board {
    world known;
    std::atomic<uint32_t> stop;         // clients are to end
    std::atomic<uint32_t> hush;         // posters are to wait: a check is on
    std::atomic<uint32_t> stop_poster;  // a poster is to stop ahead of its next post
    std::atomic<uint32_t> stop_holder;  // a poster is to stop with the mutex in its hands
    std::atomic<uint64_t> operations;   // acknowledged
    std::atomic<uint64_t> lookups;      // by readers
    std::atomic<uint64_t> posts;        // by posters
    std::atomic<uint64_t> checks;
    std::atomic<uint64_t> resynced;  // things that hardware and window disagreed on after a start
    std::atomic<uint64_t> leftovers;
    std::atomic<uint64_t> reclaimed;
    uint32_t base[64];  // live blocks by type of the emptied window
    bool has_base;
    char failure[8192];
};

board &shared();  // made at first use; before the first fork

// Notes why this process fails; the first reason stays.
void fail(const std::string &why);
[[noreturn]] void give_up(const std::string &why);

ipv4mc_table_st *find_table(uint32_t table);
ipv4mc_route_entry_st *find_route(ipv4mc_table_st *table, uint32_t route);

// As the library shows it. Bits that the library itself writes are left out.
route_state observe(uint32_t table, uint32_t route);
std::string text_of(const route_state &state);

// The operation that is under way, for a failure.
std::string text_of(const in_flight &op);

// Whether `after` can be what an operation made of `before`, finished or not.
bool may_become(const in_flight &op, const route_state &before, const route_state &after);

// True when an operation may have touched this route.
bool touches(const in_flight &op, uint32_t table, uint32_t route);

// Compares the window with the model, forgives what the operation under way explains, and takes
// over what it finds. Empty, or what is wrong.
std::string compare_with_model();

}  // namespace crash

#endif
