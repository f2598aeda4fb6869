#include "platforms/linux/neighbours.h"

#include <bit>
#include <cstdlib>
#include <cstring>

#include "platforms/linux/life.h"
#include "platforms/linux/messages.h"
#include "platforms/linux/netlink.h"
#include "platforms/linux/records.h"

namespace mfwd6::lnx {

namespace {

constexpr uint32_t seconds_between = 10;

// Groups with the devices that they leave by; open addressing.
struct cell {
    ip_maddr_st group;
    uint32_t kernel_table;
    mif_set outputs;  // 0: empty
};

struct group_set {
    cell *cells;
    uint64_t mask;
    uint64_t pairs;
};

uint64_t place_of(const group_set &set, const ip_maddr_st &group, uint32_t kernel_table) {
    uint64_t words[2];
    std::memcpy(words, &group, sizeof(group));
    // Groups differ in their last bytes, which are the high ones of a word: fold them down twice.
    uint64_t mixed = (words[0] ^ (words[1] * 3) ^ kernel_table) * 0x9e3779b97f4a7c15;
    mixed = (mixed ^ (mixed >> 32)) * 0x9e3779b97f4a7c15;
    return (mixed ^ (mixed >> 32)) & set.mask;
}

void add(group_set &set, uint32_t kernel_table, const ip_maddr_st &group, mif_set outputs) {
    if (outputs == 0) {
        return;
    }
    uint64_t n = place_of(set, group, kernel_table);
    while (set.cells[n].outputs != 0 &&
           (set.cells[n].kernel_table != kernel_table || !same(set.cells[n].group, group))) {
        n = (n + 1) & set.mask;
    }
    cell &c = set.cells[n];
    set.pairs += static_cast<uint64_t>(std::popcount(outputs & ~c.outputs));
    c.group = group;
    c.kernel_table = kernel_table;
    c.outputs |= outputs;
}

struct walk_context {
    group_set *set;
    table *t;
};

cerrno add_route(ipv4mc_route_entry_st *route, void *context) {
    auto &walk = *static_cast<walk_context *>(context);
    if (has_entry(*walk.t, *route)) {
        add(*walk.set, walk.t->kernel_table, route->group, extension(*route).outputs);
    }
    return 0;
}

void add_all(group_set &set) {
    for (uint32_t n = 0; table_at(n) != nullptr; ++n) {
        walk_context walk = {&set, table_at(n)};
        ipv4mc_table_st *record = ip6mc_table_lookup_by_tbl_id(walk.t->tid);
        if (record != nullptr && record->ingress_gtrie != nullptr) {
            (void)ip6mc_route_walk(record, 0, add_route, &walk);
        }
    }
    for (uint32_t slot = 0; slot < book().flows_used(); ++slot) {
        const flow_slot &flow = book().flow(slot);
        if (flow.state == flow_derived) {
            add(set, flow.kernel_table, flow.key.group, flow.outputs);
        }
    }
}

// Not more than `most` pairs; without memory the bound stands for the number.
uint64_t exact_pairs(uint64_t most) {
    const uint64_t size = std::bit_ceil(most * 2 + 16);
    group_set set = {static_cast<cell *>(std::calloc(size, sizeof(cell))), size - 1, 0};
    if (set.cells == nullptr) {
        return most;
    }
    add_all(set);
    std::free(set.cells);
    return set.pairs;
}

}  // namespace

void count_neighbours() {
    self().neighbour_limit = neighbour_limit();
    self().neighbours = self().output_pairs;
    if (self().neighbours > self().neighbour_limit) {
        self().neighbours = exact_pairs(self().output_pairs);
    }
    self().neighbours_short =
        self().neighbour_limit != 0 && self().neighbours > self().neighbour_limit;
    self().counted_pairs = self().output_pairs;
    self().counted_at = self().now;
}

void watch_neighbours() {
    if (self().output_pairs != self().counted_pairs &&
        self().now - self().counted_at >= seconds_between) {
        count_neighbours();
    }
    if (self().neighbours_short && !self().neighbours_told) {
        tell_neighbours_short(self().neighbours, self().neighbour_limit);
    }
    self().neighbours_told = self().neighbours_short;
}

}  // namespace mfwd6::lnx
