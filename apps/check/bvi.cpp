// L2 states of bridge virtual interfaces, the ties of route interfaces to them, and the mapping of
// interfaces to VRFs.
#include <cstring>

#include "apps/check/records.h"
#include "apps/check/trees.h"
#include "ipv4/multicast/lib/ip6mc_bvi.h"

namespace mfwd6::check {
namespace {

class bvi_walk {
  public:
    explicit bvi_walk(records &all) : all_(all), w_(all.w) {}

    void run() {
        for (const ipv4mc_table_st *table : all_.vrfs) {
            walk_radix(w_, about(table), "bvi_db_root",
                       static_cast<const rn_root_t *>(load(table->bvi_db_root)), kinds::bvi_tree,
                       kinds::bvi_entry, [&](const void *record) {
                           check_entry(static_cast<const ipv4mc_bvi_entry_t *>(record));
                       });
        }
        walk_mappings();
        for (const auto &[entry, facts] : all_.entries) {
            if (load(entry->bvi_if) != nullptr && !facts.tied) {
                w_.missing(about(entry), "bvi_if",
                           "names a tie that is in no tree: " + hex(load(entry->bvi_if)));
            }
        }
    }

  private:
    void check_entry(const ipv4mc_bvi_entry_t *bvi) {
        const subject self = about(bvi);
        w_.count("BVI entry");
        const uint64_t ties =
            walk_radix(w_, self, "if_tree", static_cast<const rn_root_t *>(load(bvi->if_tree)),
                       kinds::bvi_if_tree, kinds::bvi_if, [&](const void *record) {
                           check_tie(bvi, static_cast<const ipv4mc_bvi_if_t *>(record));
                       });
        w_.equal(self, "ref_cnt", load(bvi->ref_cnt), ties, "ties in the tree");
        w_.count("BVI tie", ties);
    }

    void check_tie(const ipv4mc_bvi_entry_t *bvi, const ipv4mc_bvi_if_t *tie) {
        const subject self = about("BVI tie", tie);
        if (load(tie->bvi_entry) != bvi) {
            w_.wrong(self, "bvi_entry", "is not the state in whose tree it stands");
        }
        const ipv4mc_route_entry_st *route = load(tie->route);
        if (route == nullptr || all_.routes.count(route) == 0) {
            return w_.missing(self, "route", "names no known route: " + hex(route));
        }
        for (const ipv4mc_intf_entry_st *entry = first_entry(route); entry != nullptr;
             entry = next_entry(entry)) {
            if (load(entry->bvi_if) == tie) {
                all_.entries[entry].tied = true;
                return;
            }
        }
        w_.missing(self, "route", "has no interface that is tied by it");
    }

    // The lists of routes were proved, as far as they are known.
    const ipv4mc_intf_entry_st *first_entry(const ipv4mc_route_entry_st *route) {
        return known(load(route->intf_list), route, nullptr);
    }
    const ipv4mc_intf_entry_st *next_entry(const ipv4mc_intf_entry_st *entry) {
        return known(load(entry->next_intf), all_.entries[entry].route, entry);
    }
    const ipv4mc_intf_entry_st *known(const ipv4mc_intf_entry_st *entry,
                                      const ipv4mc_route_entry_st *route,
                                      const ipv4mc_intf_entry_st *before) {
        const auto found = all_.entries.find(entry);
        return found != all_.entries.end() && found->second.route == route &&
                       load(entry->prev_intf) == before
                   ? entry
                   : nullptr;
    }

    void walk_mappings() {
        const uint64_t mappings =
            walk_radix(w_, about(&w_.header()), "bvi_intf_db_root",
                       static_cast<const rn_root_t *>(load(w_.header().bvi_intf_db_root)),
                       kinds::bvi_intf_tree, kinds::bvi_intf, [](const void *) {});
        w_.count("BVI mapping", mappings);
    }

    records &all_;
    walk &w_;
};

}  // namespace

void walk_bvi(records &all) {
    bvi_walk(all).run();
}

}  // namespace mfwd6::check
