// Tables of both roles, the trees that find them, and their tries.
#include <algorithm>
#include <cstring>

#include "apps/check/lists.h"
#include "apps/check/records.h"
#include "apps/check/trees.h"

namespace mfwd6::check {
namespace {

// As the tree service lays its head out.
struct tid_tree_head {
    uint32_t magic;
    uint32_t threads;
    uint64_t count;
    tree_node head;
    uint64_t reserved;
};
static_assert(sizeof(tid_tree_head) == kinds::tid_tree.bytes);

const list_shape<ipmc_intf_change_req_st> requests{
    kinds::intf_request,
    [](const ipmc_intf_change_req_st *r) { return about("interface request", r); },
    "intf_req_head",
    "next",
    "prev",
    [](const ipmc_intf_change_req_st *r) -> ipmc_intf_change_req_st *const * { return &r->next; },
    [](const ipmc_intf_change_req_st *r) -> ipmc_intf_change_req_st *const * { return &r->prev; }};

// Which threads of the tree of names hold a VRF table.
struct threads {
    bool by_name = false;
    bool by_id = false;
};

class table_walk {
  public:
    explicit table_walk(records &all) : all_(all), w_(all.w) {}

    void run() {
        find_vrf_tables();
        find_tid_tables();
        for (const ipv4mc_table_st *table : all_.vrfs) {
            check_vrf(table);
        }
        for (auto &[table, facts] : all_.tables) {
            check_tid(table, facts);
        }
    }

  private:
    void find_vrf_tables() {
        const wavl_tree *tree = &w_.header().table_name_tree;
        const auto by = [&](uint32_t thread, tree_compare_fn compare, bool threads::*flag) {
            walk_thread(w_, about(&w_.header()), "table_name_tree", tree, thread, kinds::vrf_table,
                        0, compare, [&](const void *record) {
                            const auto *table = static_cast<const ipv4mc_table_st *>(record);
                            all_.vrfs.insert(table);
                            threads_[table].*flag = true;
                        });
        };
        by(IPV4MC_TABLE_THREAD_NAME, ipmc_tbl_wavl_compare_vrf_name, &threads::by_name);
        by(IPV4MC_TABLE_THREAD_VRF_ID, ipmc_tbl_wavl_compare_vrf_id, &threads::by_id);
        w_.count("VRF table", all_.vrfs.size());
    }

    void find_tid_tables() {
        const subject header = about(&w_.header());
        const shm_avl_tree *tree = w_.follow(
            header, "table_tid_tree",
            static_cast<const shm_avl_tree *>(load(w_.header().table_tid_tree)), kinds::tid_tree);
        if (tree == nullptr) {
            return;
        }
        const auto *head = reinterpret_cast<const tid_tree_head *>(tree);
        const uint64_t met = walk_tree(
            w_, header, "table_tid_tree", &head->head, kinds::tid_table, 0,
            ipmc_tbl_avl_compare_tbl_id, [&](const void *record) {
                all_.tables.emplace(static_cast<const ipv4mc_table_st *>(record), table_facts{});
            });
        w_.equal(header, "table_tid_tree", load(head->count), met, "tables in the tree");
        w_.count("table", met);
    }

    // Of two tables with one name the tree has the first.
    bool is_taken(const char *name) const {
        return std::any_of(threads_.begin(), threads_.end(), [&](const auto &each) {
            return each.second.by_name &&
                   std::strncmp(each.first->vrf_name, name, IPV4MC_VRF_NAME_COMPARED) == 0;
        });
    }

    void check_vrf(const ipv4mc_table_st *table) {
        const subject self = about(table);
        if (load(table->table_type) != IPV4MC_TABLE_VRF) {
            w_.wrong(self, "table_type", "is not that of a VRF table");
        }
        const threads in = threads_[table];
        const bool has_name = load(table->vrf_name[0]) != '\0';
        if (in.by_name && !has_name) {
            w_.missing(self, "vrf_name", "is empty in the tree of names");
        } else if (!in.by_name && has_name && !is_taken(table->vrf_name)) {
            w_.missing(self, "vrf_name", "is in no tree of names");
        }
        if (in.by_id != (load(table->vrf_id) != 0)) {
            w_.missing(self, "vrf_id",
                       in.by_id ? "is 0 in the tree of ids" : "is in no tree of ids");
        }
        const ipv4mc_table_st *tid = all_.name_tid(self, "tid_table", load(table->tid_table));
        if (tid != nullptr && load(tid->vtable) != table) {
            w_.wrong(self, "tid_table", "names a table whose `vtable` names another one");
        }
        check_intf_requests(table);
    }

    void check_tid(const ipv4mc_table_st *table, table_facts &facts) {
        const subject self = about(table);
        if (load(table->table_type) != IPV4MC_TABLE_TID) {
            w_.wrong(self, "table_type", "is not that of a table by table id");
        }
        const ipv4mc_table_st *vrf = all_.name_vrf(self, "vtable", load(table->vtable));
        if (vrf != nullptr && load(vrf->tid_table) != table) {
            w_.wrong(self, "vtable", "names a VRF table whose `tid_table` names another one");
        }
        const bool active = load(table->active) != 0;
        if (active &&
            (load(table->ingress_gtrie) == nullptr || load(table->signal_gtrie) == nullptr)) {
            w_.wrong(self, "active", "is set, and a trie is missing");
        }
        open_trie(table, "ingress_gtrie", load(table->ingress_gtrie), false, &facts.routes);
        open_trie(table, "signal_gtrie", load(table->signal_gtrie), true, &facts.signals);
        uint64_t egress = 0;
        open_trie(table, "egress_gtrie", load(table->egress_gtrie), false, &egress);
        check_intf_requests(table);
    }

    void open_trie(const ipv4mc_table_st *table, const char *field, void *handle, bool signal,
                   uint64_t *count) {
        const gtrie::handle *at = nullptr;
        const tries::leaves *leaves = all_.all_tries.open(about(table), field, handle, &at);
        if (leaves == nullptr) {
            return;
        }
        for (const gtrie::leaf *leaf : *leaves) {
            const auto *route = reinterpret_cast<const ipv4mc_route_entry_st *>(leaf + 1);
            if (!w_.is(route, kinds::route)) {
                w_.wrong(about(table), field, "holds a leaf that is no route: " + hex(leaf));
                continue;
            }
            check_key(route, *leaf);
            route_facts facts;
            facts.table = table;
            facts.signal = signal;
            facts.published = true;
            if (!all_.routes.emplace(route, facts).second) {
                w_.wrong(about(route), "table", "is in two tries");
            }
            ++*count;
        }
        w_.count(signal ? "signal route" : "route", leaves->size());
        note_detached(table, field, all_.all_tries.detached(at), signal);
    }

    void note_detached(const ipv4mc_table_st *table, const char *field, const tries::leaves &leaves,
                       bool signal) {
        for (const gtrie::leaf *leaf : leaves) {
            const auto *route = reinterpret_cast<const ipv4mc_route_entry_st *>(leaf + 1);
            if (!w_.is(route, kinds::route)) {
                w_.wrong(about(table), field, "holds a leaf that is no route: " + hex(leaf));
                continue;
            }
            route_facts facts;
            facts.table = table;
            facts.signal = signal;
            if (all_.routes.emplace(route, facts).second) {
                all_.unpublished.push_back(route);
            }
        }
    }

    // Group and source with the length make the key of the leaf.
    void check_key(const ipv4mc_route_entry_st *route, const gtrie::leaf &leaf) {
        uint8_t bytes[2 * sizeof(ip_maddr_st)];
        std::memcpy(bytes, &route->group, sizeof(ip_maddr_st));
        std::memcpy(bytes + sizeof(ip_maddr_st), &route->source, sizeof(ip_maddr_st));
        const uint32_t length = load(route->pfx_len);
        if (length > IPV4MC_ROUTE_PFX_LEN_SG) {
            return w_.wrong(about(route), "pfx_len", "is longer than a key can be");
        }
        if (length + gtrie::table_bits != load(leaf.length)) {
            return w_.wrong(about(route), "pfx_len",
                            "differs from the length in the trie, " +
                                std::to_string(load(leaf.length) - gtrie::table_bits));
        }
        const gtrie::key key =
            gtrie::load_prefix(bytes, load(leaf.table), length + gtrie::table_bits);
        if (!gtrie::same_key(&leaf, key)) {
            w_.wrong(about(route), "group", "and source differ from the key in the trie");
        }
    }

    void check_intf_requests(const ipv4mc_table_st *table) {
        uint64_t length = 0;
        const ipmc_intf_change_req_st *last =
            walk_list(w_, about(table), requests,
                      static_cast<const ipmc_intf_change_req_st *>(load(table->intf_req_head)),
                      [&](const ipmc_intf_change_req_st *request) {
                          ++length;
                          if (load(request->table) != table) {
                              w_.wrong(about("interface request", request), "table",
                                       "is not the table in whose queue it stands");
                          }
                      });
        check_tail(w_, about(table), "intf_req_tail",
                   static_cast<const ipmc_intf_change_req_st *>(load(table->intf_req_tail)), last);
        if (length > IPMC_INTF_CHANGE_REQ_MAX) {
            w_.wrong(about(table), "intf_req_head", "holds more requests than a table may have");
        }
        w_.count("interface request", length);
    }

    records &all_;
    walk &w_;
    std::unordered_map<const ipv4mc_table_st *, threads> threads_;
};

}  // namespace

void walk_tables(records &all) {
    table_walk(all).run();
}

const ipv4mc_table_st *records::name_tid(const subject &from, const char *field,
                                         const ipv4mc_table_st *table) {
    if (table != nullptr && tables.count(table) == 0) {
        w.missing(from, field, "names no table in the tree of tables: " + hex(table));
        return nullptr;
    }
    return table;
}

const ipv4mc_table_st *records::name_vrf(const subject &from, const char *field,
                                         const ipv4mc_table_st *table) {
    if (table != nullptr && vrfs.count(table) == 0) {
        w.missing(from, field, "names no VRF table in the trees: " + hex(table));
        return nullptr;
    }
    return table;
}

// Counts that can be compared when all routes are known, those in no trie as well.
void check_table_counts(records &all) {
    for (const auto &[table, facts] : all.tables) {
        const subject self = about(table);
        // Every leaf of the table counts, committed or not.
        const auto leaves = static_cast<int64_t>(facts.routes + facts.detached);
        if (load(table->rate_route_count) != leaves) {
            all.w.wrong(self, "rate_route_count",
                        "says " + std::to_string(load(table->rate_route_count)) + ", there are " +
                            std::to_string(facts.routes) + " leaves in the trie and " +
                            std::to_string(facts.detached) + " beside it");
        }
        all.w.equal(self, "signal_route_count", load(table->signal_route_count), facts.signals,
                    "signal routes");
        const uint32_t egress = load(table->route_counters.local_eg_cnt);
        if (egress < facts.local_egress) {
            all.w.wrong(self, "local_eg_cnt",
                        "says " + std::to_string(egress) + ", its routes have " +
                            std::to_string(facts.local_egress));
        }
        const uint32_t children = load(table->child_route_count);
        if (children < facts.children) {
            all.w.wrong(self, "child_route_count",
                        "says " + std::to_string(children) + ", there are " +
                            std::to_string(facts.children) + " routes of other tables");
        } else if (children > facts.children) {
            all.w.leftover(self, "child_route_count",
                           "says " + std::to_string(children) + ", there are " +
                               std::to_string(facts.children) + " routes of other tables");
        }
    }
}

}  // namespace mfwd6::check
