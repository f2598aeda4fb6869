#include "apps/check/tries.h"

#include <unordered_set>

#include "apps/check/lists.h"
#include "services/gtrie/gtrie.h"
#include "services/gtrie/index.h"
#include "services/gtrie/node.h"

namespace mfwd6::check {
namespace {

using gtrie::bucket;
using gtrie::entry;
using gtrie::handle;
using gtrie::leaf;
using gtrie::node;
using gtrie::node_kind;
using gtrie::trie;

// Each node decides 6 bits of 274 at least.
constexpr unsigned max_depth = gtrie::max_length / gtrie::stride + 1;

subject about(const trie *t) {
    return {"trie", t};
}
subject about(const handle *h) {
    return {"trie handle", h};
}
subject about(const node *n) {
    return {"trie node", n};
}
subject about(const leaf *l) {
    return {"trie leaf", l};
}

const list_shape<handle> handles_of_trie{
    kinds::trie_handle,
    about,
    "handles",
    "next",
    "prev",
    [](const handle *h) -> handle *const * { return &h->next; },
    [](const handle *h) -> handle *const * { return &h->prev; }};

// The nodes of one trie, from its root.
class node_walk {
  public:
    node_walk(walk &w, const trie *t, std::unordered_map<uint32_t, tries::leaves> &found)
        : w_(w), trie_(t), found_(found) {}

    void run() {
        const node *root = w_.follow(
            about(trie_), "root", static_cast<const node *>(load(trie_->root)), kinds::trie_node);
        if (root == nullptr) {
            return w_.wrong(about(trie_), "root", "there is none");
        }
        below(root, nullptr, 0);
    }

    uint64_t leaves() const { return leaves_; }

    // Leaves that say that they wait for a slot of the index.
    uint64_t waiting() const { return waiting_; }

  private:
    // Its memory is as large as it says, so that all entries may be read.
    bool check_size(const node *n) {
        const node_kind shape = load(n->kind);
        const bool known =
            shape == node_kind::small || shape == node_kind::wide || shape == node_kind::side;
        const block *of = w_.heap().at(reinterpret_cast<uint64_t>(n));
        if (!known || of == nullptr || of->bytes < gtrie::node_bytes(shape, load(n->capacity))) {
            w_.wrong(about(n), "kind", "the node is larger than its block");
            return false;
        }
        return true;
    }

    const node *side_of(const node *n) {
        const auto *side = reinterpret_cast<const node *>(load(gtrie::wide_of(n)->side));
        side = w_.follow(about(n), "side", side, kinds::trie_node);
        if (side != nullptr && load(side->kind) != node_kind::side) {
            w_.wrong(about(side), "kind", "is not that of a side node");
            return nullptr;
        }
        return side != nullptr && check_size(side) ? side : nullptr;
    }

    void below(const node *n, const node *parent, unsigned depth) {
        if (!nodes_.insert(n).second || depth > max_depth) {
            return w_.wrong(about(n), "up", "is reached twice, or lies too deep");
        }
        if (load(n->up) != parent) {
            w_.wrong(about(n), "up", "is " + hex(load(n->up)) + ", the parent is " + hex(parent));
        }
        if (!check_size(n)) {
            return;
        }
        if (load(n->kind) == node_kind::side) {
            return w_.wrong(about(n), "kind", "is that of a side node");
        }
        if (load(n->pos) % gtrie::stride != 0 || load(n->pos) > gtrie::max_length ||
            load(n->from) > load(n->pos)) {
            return w_.wrong(about(n), "pos", "is no place in a key");
        }
        w_.count("trie node");
        const bool wide = load(n->kind) == node_kind::wide;
        const entry *entries = wide ? gtrie::wide_of(n)->child : gtrie::entries_of(n);
        visit(n, entries, wide ? 64 : load(n->capacity), depth);
        if (wide && load(gtrie::wide_of(n)->side) != 0) {
            if (const node *side = side_of(n); side != nullptr) {
                visit(n, gtrie::entries_of(side), load(side->capacity), depth);
            }
        }
    }

    void visit(const node *n, const entry *entries, uint32_t room, unsigned depth) {
        for (uint32_t i = 0; i < room; ++i) {
            const entry each = load(entries[i]);
            if (each == 0) {
                continue;
            }
            if (gtrie::is_leaf(each)) {
                visit_leaf(n, gtrie::leaf_of(each));
            } else if (const node *child = w_.follow(
                           about(n), "entries", static_cast<const node *>(gtrie::node_of(each)),
                           kinds::trie_node);
                       child != nullptr) {
                below(child, n, depth + 1);
            }
        }
    }

    void visit_leaf(const node *n, const leaf *l) {
        l = w_.follow(about(n), "entries", l, kinds::trie_leaf);
        if (l == nullptr) {
            return;
        }
        if (load(l->magic) != gtrie::leaf_magic) {
            return w_.wrong(about(l), "magic", "is " + hex(load(l->magic)) + ", no leaf's");
        }
        if (load(l->owner) != trie_) {
            return w_.wrong(about(l), "owner",
                            "is " + hex(load(l->owner)) + ", found in " + hex(trie_));
        }
        const block *of = w_.heap().at(reinterpret_cast<uint64_t>(l));
        if (of == nullptr || of->bytes < sizeof(leaf) + uint64_t{load(l->size)}) {
            return w_.wrong(
                about(l), "size",
                "is " + std::to_string(load(l->size)) + ", more than its block has room for");
        }
        ++leaves_;
        waiting_ += load(l->waiting_at) != nullptr ? 1U : 0U;
        found_[load(l->table)].push_back(l);
    }

    walk &w_;
    const trie *trie_;
    std::unordered_map<uint32_t, tries::leaves> &found_;
    std::unordered_set<const node *> nodes_;
    uint64_t leaves_ = 0;
    uint64_t waiting_ = 0;
};

// What the index must have before anybody may look into it.
class index_walk {
  public:
    index_walk(walk &w, const trie *t) : w_(w), trie_(t) {}

    void run() {
        const gtrie::directory *d = w_.follow(
            about(trie_), "segments", static_cast<const gtrie::directory *>(load(trie_->segments)),
            kinds::trie_index);
        if (d == nullptr) {
            return;
        }
        const uint64_t buckets = gtrie::buckets_of(load(trie_->shape));
        const block *of = w_.heap().at(reinterpret_cast<uint64_t>(d));
        const uint64_t room = (of->bytes - sizeof(*d)) / sizeof(uint64_t);
        if (load(d->capacity) > room || buckets == 0 ||
            load(trie_->shape) != gtrie::index_shape(buckets) ||
            gtrie::segment_count(buckets) > load(d->capacity)) {
            return w_.wrong(about(trie_), "shape",
                            std::to_string(buckets) + " buckets do not fit the index");
        }
        if (segments(d, gtrie::segment_count(buckets))) {
            waiting(buckets);
        }
    }

  private:
    bool segments(const gtrie::directory *d, uint64_t needed) {
        const auto *words = reinterpret_cast<const uint64_t *>(d + 1);
        for (uint64_t i = 0; i < load(d->capacity); ++i) {
            const uint64_t word = load(words[i]);
            if (word == 0) {
                if (i < needed) {
                    w_.wrong(about(trie_), "segments", "a part of the index is missing");
                    return false;
                }
                continue;
            }
            const auto *segment = reinterpret_cast<const uint64_t *>(word);
            kind what = kinds::trie_index;
            what.bytes = static_cast<uint32_t>(gtrie::segment_bytes(i));
            if (w_.follow(about(trie_), "segments", segment, what) == nullptr) {
                return false;
            }
        }
        return true;
    }

    // Lists of leaves that found no slot: every link leads to a leaf and back.
    void waiting(uint64_t buckets) {
        uint64_t met = 0;
        for (uint64_t i = 0; i < buckets; ++i) {
            const bucket *b = gtrie::bucket_at(trie_, i);
            const uint64_t *at = &b->waiting;
            for (uint64_t word = load(*at) & gtrie::address_mask; word != 0;
                 word = load(*at) & gtrie::address_mask) {
                const auto *l = reinterpret_cast<const leaf *>(word);
                if (!w_.is(l, kinds::trie_leaf) || load(l->magic) != gtrie::leaf_magic) {
                    return w_.wrong(about(trie_), "waiting", "names no leaf: " + hex(l));
                }
                if (load(l->waiting_at) != at || ++met > load(trie_->leaves)) {
                    return w_.wrong(about(l), "waiting_at", "is not where the list comes from");
                }
                at = &l->waiting_next;
            }
        }
        w_.equal(about(trie_), "waiting", load(trie_->waiting), met, "leaves that wait for a slot");
    }

    walk &w_;
    const trie *trie_;
};

}  // namespace

const tries::leaves *tries::open(const subject &owner, const char *field, void *given,
                                 const handle **at) {
    const handle *h =
        w_.follow(owner, field, static_cast<const handle *>(given), kinds::trie_handle);
    if (h == nullptr) {
        return nullptr;
    }
    if (load(h->magic) != gtrie::handle_magic) {
        w_.wrong(owner, field, "names memory that is no handle of a trie");
        return nullptr;
    }
    const trie *t = w_.follow(about(h), "on", static_cast<const trie *>(load(h->on)), kinds::trie);
    if (t == nullptr || load(t->magic) != gtrie::trie_magic || load(t->cookie) != load(h->cookie)) {
        w_.wrong(about(h), "on", "names no trie, or another one than the handle was made for");
        return nullptr;
    }
    std::unique_ptr<view> &seen = seen_[t];
    if (seen == nullptr) {
        seen = std::make_unique<view>();
        walk_trie(owner, field, t, *seen);
    }
    const auto listed = seen->handles.find(h);
    if (listed == seen->handles.end()) {
        w_.missing(about(h), "next", "is not on the list of the handles of its trie");
    } else if (listed->second) {
        w_.wrong(owner, field, "names a handle that another table has as well");
    } else {
        listed->second = true;
    }
    *at = h;
    const leaves &own = seen->of_table[load(h->table)];
    w_.equal(about(h), "leaves", load(h->leaves), own.size(), "leaves of the table");
    return &own;
}

void tries::walk_trie(const subject &owner, const char *field, const trie *t, view &seen) {
    w_.count("trie");
    const uint64_t before = w_.faults();
    walk_handles(t, seen);
    for (const auto &[each, used] : seen.handles) {
        walk_detached(each);
    }
    walk_nodes(t, seen);
    index_walk(w_, t).run();
    if (w_.live() || w_.faults() != before || seen.handles.empty()) {
        return;
    }
    // All that the trie's own proof follows is there.
    auto *any = const_cast<handle *>(seen.handles.begin()->first);
    if (const char *fault = ip6mc_gtrie_verify(any); fault != nullptr) {
        w_.wrong(about(t), field, std::string(fault) + " (trie of " + owner.record + ")");
    }
}

void tries::walk_handles(const trie *t, view &seen) {
    walk_list(w_, about(t), handles_of_trie, static_cast<const handle *>(load(t->handles)),
              [&](const handle *h) {
                  seen.handles.emplace(h, false);
                  if (load(h->magic) != gtrie::handle_magic || load(h->on) != t) {
                      w_.wrong(about(h), "on", "is not that of the trie which lists the handle");
                  }
              });
}

void tries::walk_detached(const handle *h) {
    std::unordered_set<const leaf *> met;
    const uint64_t *at = &h->detached;
    for (uint64_t word = load(*at); word != 0; word = load(*at)) {
        const leaf *l =
            w_.follow(about(h), "detached", reinterpret_cast<const leaf *>(word), kinds::trie_leaf);
        if (l == nullptr) {
            return;
        }
        if (load(l->magic) != gtrie::leaf_magic || !met.insert(l).second) {
            return w_.wrong(about(l), "waiting_next", "is no leaf, or was met before");
        }
        if (load(l->waiting_at) != at) {
            w_.wrong(about(l), "waiting_at", "is not where the list comes from");
        }
        if (load(l->state) != static_cast<uint32_t>(gtrie::leaf_state::detached)) {
            w_.wrong(about(l), "state", "is not that of a detached leaf");
        }
        detached_[h].push_back(l);
        at = &l->waiting_next;
    }
}

void tries::walk_nodes(const trie *t, view &seen) {
    node_walk nodes(w_, t, seen.of_table);
    nodes.run();
    w_.equal(about(t), "leaves", load(t->leaves), nodes.leaves(), "leaves in the nodes");
    w_.equal(about(t), "waiting", load(t->waiting), nodes.waiting(),
             "leaves that say they wait for a slot");
}

}  // namespace mfwd6::check
