// Routes: their entries, both ways and as a tree; their links to tables, parents and encaps; and
// the lists of routes of the whole window.
#include "apps/check/lists.h"
#include "apps/check/records.h"
#include "apps/check/trees.h"

namespace mfwd6::check {
namespace {

using route = ipv4mc_route_entry_st;
using entry = ipv4mc_intf_entry_st;

const list_shape<entry> entries_of_route{
    kinds::entry,
    about,
    "intf_list",
    "next_intf",
    "prev_intf",
    [](const entry *e) -> entry *const * { return &e->next_intf; },
    [](const entry *e) -> entry *const * { return &e->prev_intf; }};

const list_shape<entry> outputs_of_route{
    kinds::entry,
    about,
    "encap_ole_head",
    "list_next",
    "list_prev",
    [](const entry *e) -> entry *const * { return &e->list_next; },
    [](const entry *e) -> entry *const * { return &e->list_prev; }};

const list_shape<route> changed_routes{
    kinds::route,
    about,
    "changed_route_head",
    "change_next",
    "change_prev",
    [](const route *r) -> route *const * { return &r->change_next; },
    [](const route *r) -> route *const * { return &r->change_prev; }};

template <size_t Index>
const list_shape<route> memd_routes{
    kinds::route,
    about,
    "memd_route_list",
    "memd_next",
    "memd_prev",
    [](const route *r) -> route *const * { return &r->memd_next[Index]; },
    [](const route *r) -> route *const * { return &r->memd_prev[Index]; }};

const list_shape<route> route_lists[IPMC_ROUTE_LISTS] = {
    {kinds::route, about, "route_list_heads", "mdt_cand_next", "mdt_cand_prev",
     [](const route *r) -> route *const * { return &r->mdt_cand_next; },
     [](const route *r) -> route *const * { return &r->mdt_cand_prev; }},
    {kinds::route, about, "route_list_heads", "mt_upd_next", "mt_upd_prev",
     [](const route *r) -> route *const * { return &r->mt_upd_next; },
     [](const route *r) -> route *const * { return &r->mt_upd_prev; }},
    {kinds::route, about, "route_list_heads", "amt_upd_next", "amt_upd_prev",
     [](const route *r) -> route *const * { return &r->amt_upd_next; },
     [](const route *r) -> route *const * { return &r->amt_upd_prev; }},
    {kinds::route, about, "route_list_heads", "mofrr_upd_next", "mofrr_upd_prev",
     [](const route *r) -> route *const * { return &r->mofrr_upd_next; },
     [](const route *r) -> route *const * { return &r->mofrr_upd_prev; }}};

// Interfaces of a route by the bits of their words.
struct bit_counts {
    uint64_t counted = 0;
    uint64_t egress = 0;
    uint64_t mi = 0;
    uint64_t lmi = 0;
    uint64_t tmi = 0;
    uint64_t irmi = 0;
    uint64_t trmi = 0;
    uint64_t transports = 0;

    void add(mrib_attrib_entry_type word) {
        const auto has = [word](mrib_attrib_entry_type bit) {
            return (word & bit) != 0 ? uint64_t{1} : uint64_t{0};
        };
        counted += has(MRIB_INTF_COUNTED);
        egress += has(MRIB_INTF_EG);
        mi += has(MRIB_INTF_MI);
        lmi += has(MRIB_INTF_LMI);
        tmi += has(MRIB_INTF_TMI);
        irmi += has(MRIB_INTF_IRMI);
        trmi += has(MRIB_INTF_TRMI);
        transports += has(MRIB_INTF_REGDB);
    }
};

class route_walk {
  public:
    explicit route_walk(records &all) : all_(all), w_(all.w) {}

    void run() {
        walk_global_lists();
        walk_memd_lists();
        std::vector<const route *> published;
        published.reserve(all_.routes.size());
        for (const auto &[each, facts] : all_.routes) {
            if (facts.published) {
                published.push_back(each);
            }
        }
        for (const route *each : published) {
            check(each);
        }
        // Grows while it is walked.
        while (!all_.unpublished.empty()) {
            const route *each = all_.unpublished.front();
            all_.unpublished.pop_front();
            check_unpublished(each);
            check(each);
        }
        check_lone_entries();
        w_.count("interface entry", all_.entries.size());
    }

  private:
    void walk_global_lists() {
        const subject header = about(&w_.header());
        uint64_t length = 0;
        const route *last = walk_list(
            w_, header, changed_routes,
            static_cast<const route *>(load(w_.header().changed_route_head)), [&](const route *r) {
                ++length;
                if (all_.name_route(header, "changed_route_head", r) != nullptr) {
                    all_.routes[r].changed = true;
                }
            });
        check_tail(w_, header, "changed_route_tail",
                   static_cast<const route *>(load(w_.header().changed_route_tail)), last);
        w_.equal(header, "changed_route_count", load(w_.header().changed_route_count), length,
                 "changed routes");
        for (uint32_t which = 0; which < IPMC_ROUTE_LISTS; ++which) {
            walk_list(w_, header, route_lists[which],
                      static_cast<const route *>(load(w_.header().route_list_heads[which])),
                      [&](const route *r) {
                          if (all_.name_route(header, "route_list_heads", r) != nullptr) {
                              all_.routes[r].listed[which] = true;
                          }
                      });
        }
    }

    void walk_memd_lists() {
        for (const auto &[table, facts] : all_.tables) {
            const route *head = load(table->memd_route_list);
            // A list of one has no neighbours: the table that the route names tells which link it
            // is.
            const bool remote = head != nullptr && w_.is(head, kinds::route) &&
                                load(head->vrf_table[IPV4MC_VRF_LOCAL]) != table &&
                                load(head->vrf_table[IPV4MC_VRF_REMOTE]) == table;
            const uint32_t index = remote ? IPV4MC_VRF_REMOTE : IPV4MC_VRF_LOCAL;
            const auto visit = [&, of = table](const route *r) { note_memd(of, r, index); };
            if (remote) {
                walk_list(w_, about(table), memd_routes<IPV4MC_VRF_REMOTE>, head, visit);
            } else {
                walk_list(w_, about(table), memd_routes<IPV4MC_VRF_LOCAL>, head, visit);
            }
        }
    }

    void note_memd(const ipv4mc_table_st *table, const route *r, uint32_t index) {
        if (all_.name_route(about(table), "memd_route_list", r) == nullptr) {
            return;
        }
        all_.routes[r].on_memd[index] = true;
        if (load(r->vrf_table[index]) != table) {
            w_.wrong(about(r), "vrf_table",
                     "names " + hex(load(r->vrf_table[index])) + ", the route is on the list of " +
                         hex(table));
        }
    }

    void check_unpublished(const route *r) {
        const ipv4mc_table_st *table = load(r->table);
        if (all_.tables.count(table) == 0) {
            w_.leftover(about(r), "table", "names no table: " + hex(table));
            table = nullptr;
        }
        all_.routes[r].table = table;
        w_.leftover(about(r), "table",
                    "is in no trie, and something leads to it: made and not committed, or half "
                    "taken apart");
        w_.count("unpublished route");
        if (table != nullptr) {
            ++all_.tables[table].detached;
        }
    }

    void check(const route *r) {
        const subject self = about(r);
        const route_facts facts = all_.routes[r];
        if (load(r->table) != facts.table && facts.published) {
            w_.wrong(self, "table",
                     "is " + hex(load(r->table)) + ", the trie is that of " + hex(facts.table));
        }
        walk_entries(r, self, facts);
        check_lists(r, self, facts);
        check_links(r, self, facts);
    }

    void walk_entries(const route *r, const subject &self, const route_facts &facts) {
        bit_counts bits;
        uint64_t listed = 0;
        walk_list(w_, self, entries_of_route, static_cast<const entry *>(load(r->intf_list)),
                  [&](const entry *e) {
                      ++listed;
                      bits.add(load(e->attributes));
                      note_entry(r, e, facts);
                  });
        const uint64_t in_tree =
            walk_tree(w_, self, "intf_tree", &r->intf_tree.head, kinds::entry,
                      offsetof(entry, avl_node), ipmc_intf_avl_compare, [&](const void *record) {
                          const auto *e = static_cast<const entry *>(record);
                          const auto found = all_.entries.find(e);
                          if (found == all_.entries.end() || found->second.route != r) {
                              w_.missing(about(e), "avl_node",
                                         "is in the tree of a route on whose list it is not");
                          }
                      });
        w_.equal(self, "intf_tree", in_tree, listed, "entries on the list");
        walk_outputs(r, self);
        check_bits(r, self, bits);
    }

    void note_entry(const route *r, const entry *e, const route_facts &facts) {
        const subject self = about(e);
        entry_facts &known = all_.entries[e];
        if (known.route != nullptr) {
            return w_.wrong(self, "next_intf", "is on the lists of two routes");
        }
        known.route = r;
        if (load(e->route) != r) {
            w_.wrong(self, "route", "is not the route on whose list it stands");
        }
        if ((load(e->intf_flags) & IPV4MC_INTF_FLAG_IN_TREE) == 0) {
            w_.wrong(self, "intf_flags", "does not say that it is in the tree of its route");
        }
        const bool ordinary = load(e->intf_type) == IPV4MC_INTF_ORDINARY;
        if (load(e->key_ifh) != (ordinary ? load(e->ifh) : 0)) {
            w_.wrong(self, "key_ifh", "does not fit `ifh` and `intf_type`");
        }
        check_idb_list(e, self, known, facts);
        check_plat_block(e, self);
    }

    void check_idb_list(const entry *e, const subject &self, const entry_facts &known,
                        const route_facts &facts) {
        const bool says = load(e->on_idb_list) != 0;
        if (says && known.idb == nullptr) {
            w_.missing(self, "on_idb_list", "is set, and no interface has it on its list");
        }
        // A signal holds no interface.
        if (!facts.signal && !says) {
            w_.leftover(self, "on_idb_list", "is 0: the interface does not know of it");
        }
    }

    // Belongs to the platform half, which may keep it in the window.
    void check_plat_block(const entry *e, const subject &self) {
        const ipmc_plat_block_st *block = load(e->plat_block);
        if (block != nullptr && !w_.reach_any(block)) {
            w_.wrong(self, "plat_block", "names no live block: " + hex(block));
        }
    }

    void walk_outputs(const route *r, const subject &self) {
        const entry *last = walk_list(
            w_, self, outputs_of_route, static_cast<const entry *>(load(r->encap_ole_head)),
            [&](const entry *e) {
                all_.entries[e].output = true;
                if (load(e->route) != r) {
                    w_.wrong(about(e), "list_next", "is an encap output of another route");
                }
            });
        check_tail(w_, self, "encap_ole_tail", static_cast<const entry *>(load(r->encap_ole_tail)),
                   last);
    }

    // These counts are raised by who writes the words of the interfaces, and lowered behind the end
    // of one: a death in between leaves them too high, never too low.
    void check_bits(const route *r, const subject &self, const bit_counts &bits) {
        const auto at_least = [&](const char *field, uint64_t says, uint64_t is) {
            if (says != is) {
                const std::string what = "says " + std::to_string(says) + ", there are " +
                                         std::to_string(is) + " such interfaces";
                if (says < is) {
                    w_.wrong(self, field, what);
                } else {
                    w_.leftover(self, field, what);
                }
            }
        };
        at_least("counted_intf_cnt", load(r->counted_intf_cnt), bits.counted);
        at_least("intf_local_EG_cnt", load(r->intf_local_EG_cnt), bits.egress);
        at_least("mi_cnt", load(r->mi_cnt), bits.mi);
        at_least("lmi_cnt", load(r->lmi_cnt), bits.lmi);
        at_least("tmi_cnt", load(r->tmi_cnt), bits.tmi);
        at_least("irmi_cnt", load(r->irmi_cnt), bits.irmi);
        at_least("trmi_cnt", load(r->trmi_cnt), bits.trmi);
        at_least("amt_intf_cnt", load(r->amt_intf_cnt), bits.transports);
        const ipv4mc_table_st *table = all_.routes[r].table;
        if (table != nullptr) {
            all_.tables[table].local_egress += bits.egress;
        }
    }

    void check_lists(const route *r, const subject &self, const route_facts &facts) {
        if (!facts.changed &&
            (load(r->change_next) != nullptr || load(r->change_prev) != nullptr)) {
            w_.missing(self, "change_next", "or `change_prev` is set, and the route is not listed");
        }
        check_mark(self, "mdt_candidate", load(r->mdt_candidate) != 0,
                   facts.listed[IPMC_ROUTE_LIST_MDT_CAND]);
        const mrib_attrib_entry_type word = load(r->attributes);
        check_mark(self, "attributes (MT)", (word & MRIB_ROUTE_MT) != 0,
                   facts.listed[IPMC_ROUTE_LIST_MT_UPD]);
        check_mark(self, "attributes (MOFRR_UPD)", (word & MRIB_ROUTE_MOFRR_UPD) != 0,
                   facts.listed[IPMC_ROUTE_LIST_MOFRR_UPD]);
        for (uint32_t which = 0; which < IPMC_ROUTE_LISTS; ++which) {
            const list_shape<route> &shape = route_lists[which];
            if (!facts.listed[which] &&
                (load(*shape.next(r)) != nullptr || load(*shape.prev(r)) != nullptr)) {
                w_.missing(self, shape.next_field, "is set, and the route is not on this list");
            }
        }
        for (uint32_t index = 0; index < IPV4MC_VRF_LINKS; ++index) {
            if (!facts.on_memd[index] &&
                (load(r->memd_next[index]) != nullptr || load(r->memd_prev[index]) != nullptr)) {
                w_.missing(self, "memd_next", "is set, and the route is on no list of core routes");
            }
        }
    }

    // A deletion leaves the lists first and the marks to the end of the record.
    void check_mark(const subject &self, const char *field, bool says, bool is) {
        if (is && !says) {
            w_.wrong(self, field, "is clear, and the route stands on the list");
        } else if (says && !is) {
            w_.leftover(self, field, "is set, and the route is not on the list");
        }
    }

    void check_links(const route *r, const subject &self, const route_facts &facts) {
        w_.follow(self, "rate", static_cast<const ipv4mc_route_rate_st *>(load(r->rate)),
                  kinds::rate);
        check_parent(r, self, facts);
        for (uint32_t index = 0; index < IPV4MC_VRF_LINKS; ++index) {
            all_.name_tid(self, "vrf_table", load(r->vrf_table[index]));
        }
        check_encap(r, self, facts);
        check_transport(r, self);
        note_extranet(r, facts);
    }

    void check_parent(const route *r, const subject &self, const route_facts &facts) {
        const route *parent = load(r->IF_parent);
        if (parent == nullptr) {
            return;
        }
        const auto known = all_.routes.find(parent);
        if (known == all_.routes.end() || !known->second.published) {
            return w_.missing(self, "IF_parent", "names no published route: " + hex(parent));
        }
        if (known->second.table != facts.table || known->second.signal) {
            return w_.wrong(self, "IF_parent", "names a route of another table");
        }
        const auto *above = reinterpret_cast<const gtrie::leaf *>(parent) - 1;
        const auto *below = reinterpret_cast<const gtrie::leaf *>(r) - 1;
        if (!gtrie::covers(above, gtrie::key_of(below))) {
            w_.wrong(self, "IF_parent",
                     "names a route that does not cover it: " + about(parent).name(parent));
        }
    }

    void check_encap(const route *r, const subject &self, const route_facts &facts) {
        const ipv4mc_encap_entry_st *encap = load(r->encap);
        if (encap != nullptr && all_.encaps.count(encap) == 0) {
            w_.missing(self, "encap", "names no encap in the trie of encaps: " + hex(encap));
        }
        if ((encap != nullptr) != facts.on_encap) {
            w_.missing(self, "encap",
                       encap != nullptr ? "is set, and the encap does not list the route"
                                        : "is null, and an encap lists the route");
        }
    }

    void check_transport(const route *r, const subject &self) {
        const ipv4mc_regdb_entry_st *transport = load(r->regdb_entry);
        if (transport == nullptr) {
            return;
        }
        if (all_.transports.count(transport) == 0) {
            w_.missing(self, "regdb_entry", "names no transport in its tree: " + hex(transport));
        } else if (load(transport->core_info.core_route) != r) {
            w_.wrong(self, "regdb_entry", "names a transport that rides on another route");
        }
    }

    void note_extranet(const route *r, const route_facts &facts) {
        const uint32_t tid = load(r->extranet_table_id);
        if (tid == 0 || facts.table == nullptr || tid == load(facts.table->tid)) {
            return;
        }
        for (auto &[table, of] : all_.tables) {
            of.children += load(table->tid) == tid ? 1U : 0U;
        }
    }

    // Entries that an interface lists, and no route does.
    void check_lone_entries() {
        for (const auto &[e, facts] : all_.entries) {
            const subject self = about(e);
            if (facts.route == nullptr) {
                w_.missing(self, "route",
                           "is on the list of an interface, and on that of no route");
            }
            const bool output = (load(e->intf_flags) & IPV4MC_INTF_FLAG_ENCAP_OLE) != 0;
            if (output != facts.output) {
                w_.missing(self, "intf_flags",
                           output
                               ? "says that it is an encap output, and its route does not list it"
                               : "does not say that it is an encap output");
            }
            if ((load(e->attributes) & MRIB_INTF_REGDB) != 0 && !facts.on_transport) {
                w_.leftover(self, "regdb_entry", "names a transport that does not list the entry");
            }
            const bool linked = load(e->list_next) != nullptr || load(e->list_prev) != nullptr;
            if (linked && !facts.output && !facts.on_transport) {
                w_.missing(self, "list_next", "is set, and the entry is on no such list");
            }
            if (load(e->obj_id) < IPMC_OBJ_ID_NONE && load(w_.header().obj_id_domain) == nullptr) {
                w_.wrong(self, "obj_id", "is set, and there is no domain of object ids");
            }
        }
    }

    records &all_;
    walk &w_;
};

}  // namespace

void walk_routes(records &all) {
    route_walk(all).run();
}

const ipv4mc_route_entry_st *records::name_route(const subject &from, const char *field,
                                                 const ipv4mc_route_entry_st *r) {
    if (r == nullptr || routes.count(r) != 0) {
        return r;
    }
    if (w.follow(from, field, r, kinds::route) == nullptr) {
        return nullptr;
    }
    const auto *leaf = reinterpret_cast<const gtrie::leaf *>(r) - 1;
    if (load(leaf->magic) != gtrie::leaf_magic) {
        w.wrong(from, field, "names memory that is no leaf of a trie: " + hex(r));
        return nullptr;
    }
    routes.emplace(r, route_facts{});
    unpublished.push_back(r);
    return r;
}

const ipv4mc_intf_entry_st *records::name_entry(const subject &from, const char *field,
                                                const ipv4mc_intf_entry_st *e) {
    return w.follow(from, field, e, kinds::entry);
}

}  // namespace mfwd6::check
