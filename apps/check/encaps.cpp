// Encaps, the transports that they stand for, and the leaves between the two.
#include "apps/check/lists.h"
#include "apps/check/records.h"
#include "apps/check/trees.h"

namespace mfwd6::check {
namespace {

using encap_entry = ipv4mc_encap_entry_st;
using encap_leaf = ipv4mc_encap_leaf_st;
using transport = ipv4mc_regdb_entry_st;
using route = ipv4mc_route_entry_st;
using entry = ipv4mc_intf_entry_st;

subject about_leaf(const encap_leaf *leaf) {
    return about("encap leaf", leaf);
}

const list_shape<encap_leaf> leaves_of_encap{
    kinds::encap_leaf,
    about_leaf,
    "encap_leaf_head",
    "next_encap_leaf",
    "prev_encap_leaf",
    [](const encap_leaf *l) -> encap_leaf *const * { return &l->next_encap_leaf; },
    [](const encap_leaf *l) -> encap_leaf *const * { return &l->prev_encap_leaf; }};

const list_shape<encap_leaf> leaves_of_transport{
    kinds::encap_leaf,
    about_leaf,
    "regdb_leaf_head",
    "next_regdb_leaf",
    "prev_regdb_leaf",
    [](const encap_leaf *l) -> encap_leaf *const * { return &l->next_regdb_leaf; },
    [](const encap_leaf *l) -> encap_leaf *const * { return &l->prev_regdb_leaf; }};

const list_shape<route> routes_of_encap{
    kinds::route,
    about,
    "route_head",
    "next_encap",
    "prev_encap",
    [](const route *r) -> route *const * { return &r->next_encap; },
    [](const route *r) -> route *const * { return &r->prev_encap; }};

const list_shape<entry> entries_of_transport{
    kinds::entry,
    about,
    "intf_head",
    "list_next",
    "list_prev",
    [](const entry *e) -> entry *const * { return &e->list_next; },
    [](const entry *e) -> entry *const * { return &e->list_prev; }};

const list_shape<transport> idle_transports{kinds::transport,
                                            about,
                                            "idle_regdb_head",
                                            "next_idle_regdb",
                                            nullptr,
                                            [](const transport *t) -> transport *const * { return &t->next_idle_regdb; }};

class encap_walk {
  public:
    explicit encap_walk(records &all) : all_(all), w_(all.w) {}

    void run() {
        find_encaps();
        find_transports();
        for (const auto &[encap, queued] : all_.encaps) {
            check_encap(encap);
        }
        for (const transport *each : all_.transports) {
            check_transport(each);
        }
        for (const auto &[leaf, lists] : all_.encap_leaves) {
            check_leaf(leaf, lists);
        }
        walk_idle();
        w_.count("encap", all_.encaps.size());
        w_.count("encap leaf", all_.encap_leaves.size());
        w_.count("transport", all_.transports.size());
    }

  private:
    static constexpr int on_encap = 1;
    static constexpr int on_transport = 2;

    void find_encaps() {
        const subject header = about(&w_.header());
        const gtrie::handle *handle = nullptr;
        const tries::leaves *leaves =
            all_.all_tries.open(header, "encap_gtrie", load(w_.header().encap_gtrie), &handle);
        if (leaves == nullptr) {
            return;
        }
        for (const gtrie::leaf *leaf : *leaves) {
            const auto *encap = reinterpret_cast<const encap_entry *>(leaf + 1);
            if (!w_.is(encap, kinds::encap)) {
                w_.wrong(header, "encap_gtrie", "holds a leaf that is no encap: " + hex(leaf));
                continue;
            }
            all_.encaps.emplace(encap, false);
            const uint64_t key = load(leaf->word[0]) >> (64 - IPV4MC_ENCAP_ID_BITS);
            if (load(encap->encap_id) != key) {
                w_.wrong(about(encap), "encap_id",
                         "differs from the key in the trie, " + std::to_string(key));
            }
            if (load(encap->gtrie_leaf.linked) != 1 ||
                load(encap->gtrie_leaf.trie) != load(leaf->owner)) {
                w_.wrong(about(encap), "gtrie_leaf", "does not say that it is in its trie");
            }
        }
    }

    void find_transports() {
        walk_radix(w_, about(&w_.header()), "regdb_tree",
                   static_cast<const rn_root_t *>(load(w_.header().regdb_tree)), kinds::regdb_tree,
                   kinds::transport, [&](const void *record) {
                       all_.transports.insert(static_cast<const transport *>(record));
                   });
    }

    void check_encap(const encap_entry *encap) {
        const subject self = about(encap);
        const encap_leaf *last = walk_list(
            w_, self, leaves_of_encap,
            static_cast<const encap_leaf *>(load(encap->encap_leaf_head)),
            [&](const encap_leaf *leaf) {
                all_.encap_leaves[leaf] |= on_encap;
                if (load(leaf->encap_entry) != encap) {
                    w_.wrong(about_leaf(leaf), "encap_entry", "is not the encap that lists it");
                }
            });
        check_tail(w_, self, "encap_leaf_tail",
                   static_cast<const encap_leaf *>(load(encap->encap_leaf_tail)), last);
        check_routes(encap, self);
    }

    void check_routes(const encap_entry *encap, const subject &self) {
        uint64_t routes = 0;
        uint64_t egress = 0;
        walk_list(w_, self, routes_of_encap, static_cast<const route *>(load(encap->route_head)),
                  [&](const route *r) {
                      ++routes;
                      egress += load(r->intf_local_EG_cnt);
                      if (all_.name_route(self, "route_head", r) != nullptr) {
                          all_.routes[r].on_encap = true;
                      }
                      if (load(r->encap) != encap) {
                          w_.wrong(about(r), "encap", "is not the encap that lists it");
                      }
                  });
        w_.equal(self, "route_cnt", load(encap->route_cnt), routes, "routes on its list");
        const uint64_t says = load(encap->intf_local_EG_cnt);
        const std::string what = "says " + std::to_string(says) + ", its routes have " +
                                 std::to_string(egress) + " together";
        if (says < egress) {
            w_.wrong(self, "intf_local_EG_cnt", what);
        } else if (says > egress) {
            w_.leftover(self, "intf_local_EG_cnt", what);
        }
    }

    void check_transport(const transport *each) {
        const subject self = about(each);
        walk_list(w_, self, leaves_of_transport,
                  static_cast<const encap_leaf *>(load(each->regdb_leaf_head)),
                  [&](const encap_leaf *leaf) {
                      all_.encap_leaves[leaf] |= on_transport;
                      if (load(leaf->regdb_entry) != each) {
                          w_.wrong(about_leaf(leaf), "regdb_entry",
                                   "is not the transport that lists it");
                      }
                  });
        walk_list(w_, self, entries_of_transport, static_cast<const entry *>(load(each->intf_head)),
                  [&](const entry *e) {
                      all_.entries[e].on_transport = true;
                      if (load(e->regdb_entry) != each) {
                          w_.wrong(about(e), "regdb_entry", "is not the transport that lists it");
                      }
                  });
        if (load(each->core_info.type) == IPV4MC_CORE_INFO_GRE) {
            all_.name_route(self, "core_info", load(each->core_info.core_route));
        }
    }

    void check_leaf(const encap_leaf *leaf, int lists) {
        const subject self = about_leaf(leaf);
        if ((lists & on_encap) == 0) {
            w_.missing(self, "encap_entry", "is on the list of no encap");
        }
        // A leaf without a transport is allowed.
        if ((lists & on_transport) == 0 && load(leaf->regdb_entry) != nullptr) {
            w_.missing(self, "regdb_entry", "names a transport that does not list it");
        }
    }

    void walk_idle() {
        const subject header = about(&w_.header());
        walk_list(w_, header, idle_transports,
                  static_cast<const transport *>(load(w_.header().idle_regdb_head)),
                  [&](const transport *each) {
                      if (all_.transports.count(each) == 0) {
                          w_.missing(header, "idle_regdb_head",
                                     "lists a transport that is not in the tree: " + hex(each));
                      }
                  });
    }

    records &all_;
    walk &w_;
};

}  // namespace

void walk_encaps(records &all) {
    encap_walk(all).run();
}

}  // namespace mfwd6::check
