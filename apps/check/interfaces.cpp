// Records of interfaces: their three threads, their holders, and the entries of routes on them.
#include <algorithm>

#include "apps/check/lists.h"
#include "apps/check/records.h"
#include "apps/check/trees.h"

namespace mfwd6::check {
namespace {

constexpr uint32_t node_offset = offsetof(ipv4mc_idb_st, node);

const list_shape<ipv4mc_intf_entry_st> routes_of_idb{
    kinds::entry,
    about,
    "route_list",
    "idb_next",
    "idb_prev",
    [](const ipv4mc_intf_entry_st *e) -> ipv4mc_intf_entry_st *const * { return &e->idb_next; },
    [](const ipv4mc_intf_entry_st *e) -> ipv4mc_intf_entry_st *const * { return &e->idb_prev; }};

class idb_walk {
  public:
    explicit idb_walk(records &all) : all_(all), w_(all.w) {}

    void run() {
        find_in_threads();
        find_in_tables();
        find_in_header();
        for (const auto &[idb, facts] : all_.idbs) {
            check(idb, facts);
        }
        w_.count("interface", all_.idbs.size());
    }

  private:
    void find_in_threads() {
        const auto by = [&](uint32_t thread, tree_compare_fn compare, bool idb_facts::*flag) {
            walk_thread(w_, about(&w_.header()), "idb_tree", &w_.header().idb_tree, thread,
                        kinds::idb, node_offset, compare, [&](const void *record) {
                            all_.idbs[static_cast<const ipv4mc_idb_st *>(record)].*flag = true;
                        });
        };
        by(IPV4MC_IDB_THREAD_GLOBAL, ipmc_idb_avl_compare_ifh_global, &idb_facts::global);
        by(IPV4MC_IDB_THREAD_NAME, ipmc_idb_avl_compare_ifh_name, &idb_facts::named);
    }

    void find_in_tables() {
        for (const ipv4mc_table_st *table : all_.vrfs) {
            uint64_t local = 0;
            walk_thread(w_, about(table), "idb_tree", &table->idb_tree, IPV4MC_IDB_THREAD_VRF,
                        kinds::idb, node_offset, ipmc_idb_avl_compare_ifh_vrf,
                        [&](const void *record) {
                            const auto *idb = static_cast<const ipv4mc_idb_st *>(record);
                            all_.idbs[idb].table = table;
                            local += load(idb->local_iftype_counted) != 0 ? 1U : 0U;
                        });
            w_.equal(about(table), "local_ifcount", load(table->local_ifcount), local,
                     "local interfaces");
        }
    }

    // A record that a killed owner was making or destroying is ended by the next one.
    void find_in_header() {
        const subject header = about(&w_.header());
        in_hand_ = w_.follow(header, "idb_in_hand",
                             static_cast<const ipv4mc_idb_st *>(load(w_.header().idb_in_hand)),
                             kinds::idb);
        if (in_hand_ != nullptr && all_.idbs.count(in_hand_) == 0) {
            all_.idbs.emplace(in_hand_, idb_facts{});
        }
        const ipv4mc_idb_st *fabric =
            w_.follow(header, "fint_idb",
                      static_cast<const ipv4mc_idb_st *>(load(w_.header().fint_idb)), kinds::idb);
        if (fabric != nullptr && all_.idbs.count(fabric) == 0) {
            w_.missing(header, "fint_idb", "names a record that is in no tree of interfaces");
        }
    }

    void check(const ipv4mc_idb_st *idb, const idb_facts &facts) {
        const subject self = about(idb);
        if (idb != in_hand_) {
            check_threads(idb, facts, self);
        }
        check_routes(idb, self);
        check_holders(idb, self);
        check_bundle(idb, self);
    }

    void check_threads(const ipv4mc_idb_st *idb, const idb_facts &facts, const subject &self) {
        if (!facts.global) {
            w_.missing(self, "node", "is in some tree, and not in the one by handle");
        }
        const bool flag = (load(idb->tree_flags) & IPV4MC_IDB_TREE_NAME) != 0;
        if (facts.named != flag) {
            w_.missing(self, "tree_flags",
                       flag ? "says that it is in the tree of names, and it is not"
                            : "does not say that it is in the tree of names");
        }
        const ipv4mc_table_st *table = all_.name_vrf(self, "vtable", load(idb->vtable));
        if (table != facts.table) {
            w_.missing(self, "vtable",
                       "names " + hex(table) + ", it stands in the tree of " + hex(facts.table));
        }
    }

    void check_routes(const ipv4mc_idb_st *idb, const subject &self) {
        uint64_t length = 0;
        walk_list(w_, self, routes_of_idb,
                  static_cast<const ipv4mc_intf_entry_st *>(load(idb->route_list)),
                  [&](const ipv4mc_intf_entry_st *entry) {
                      ++length;
                      note_entry(idb, entry);
                  });
        w_.equal(self, "route_count", load(idb->route_count), length, "entries on its list");
    }

    void note_entry(const ipv4mc_idb_st *idb, const ipv4mc_intf_entry_st *entry) {
        const subject self = about(entry);
        entry_facts &facts = all_.entries[entry];
        if (facts.idb != nullptr) {
            return w_.wrong(self, "idb_next", "is on the lists of two interfaces");
        }
        facts.idb = idb;
        if (load(entry->on_idb_list) != 1) {
            w_.wrong(self, "on_idb_list", "is 0 on the list of an interface");
        }
        if (load(entry->ifh) != load(idb->ifh)) {
            w_.wrong(self, "ifh", "is on the list of interface " + hex(load(idb->ifh)));
        }
        if (load(entry->route) == nullptr) {
            return w_.wrong(self, "route", "is null on the list of an interface");
        }
        all_.name_route(self, "route", load(entry->route));
    }

    // What can be seen of its holders. More references than these may belong to callers.
    void check_holders(const ipv4mc_idb_st *idb, const subject &self) {
        uint64_t seen = load(idb->route_count);
        seen += (load(idb->cfg_flags) & IPV4MC_IDB_CFG_EXPLICIT) != 0 ? 1U : 0U;
        seen += load(idb->boundary_name[0]) != '\0' ? 1U : 0U;
        if (load(idb->refcount) < seen) {
            w_.wrong(self, "refcount",
                     "is " + std::to_string(load(idb->refcount)) + ", it has " +
                         std::to_string(seen) + " holders");
        }
    }

    void check_bundle(const ipv4mc_idb_st *idb, const subject &self) {
        check_members(idb, self);
        const rt_head_t *head =
            w_.follow(self, "vlan_tree", static_cast<const rt_head_t *>(load(idb->vlan_tree)),
                      kinds::bundle_tree);
        if (head == nullptr) {
            return;
        }
        w_.reach_any(load(head->aux));
        const uint64_t children =
            walk_radix_at(w_, self, "vlan_tree", &head->root, kinds::vlan, [&](const void *record) {
                const auto *child = static_cast<const ipmc_vlan_node_st *>(record);
                if (load(child->head.head) != head) {
                    w_.wrong(about("bundle child", child), "head", "names another tree");
                }
            });
        w_.equal(self, "vlan_count", load(idb->vlan_count), children, "children in the tree");
        w_.count("bundle child", children);
    }

    void check_members(const ipv4mc_idb_st *idb, const subject &self) {
        const ipmc_bundle_member_st *members = w_.follow(
            self, "bundle_members",
            static_cast<const ipmc_bundle_member_st *>(load(idb->bundle_members)), kinds::members);
        const uint32_t count = load(idb->bundle_member_count);
        if (members == nullptr) {
            return;
        }
        if (count > IPMC_BUNDLE_MEMBERS_MAX) {
            return w_.wrong(self, "bundle_member_count", "is more than a bundle can have");
        }
        const auto greater = [](const ipmc_bundle_member_st &a, const ipmc_bundle_member_st &b) {
            return a.ul_ifh_member > b.ul_ifh_member;
        };
        if (std::adjacent_find(members, members + count, greater) != members + count) {
            w_.wrong(self, "bundle_members", "are not sorted by handle");
        }
    }

    records &all_;
    walk &w_;
    const ipv4mc_idb_st *in_hand_ = nullptr;
};

}  // namespace

void walk_interfaces(records &all) {
    idb_walk(all).run();
}

}  // namespace mfwd6::check
