#include "apps/check/trees.h"

#include <algorithm>
#include <cstring>

#include "services/radix/bits.h"
#include "services/radix/tree.h"

namespace mfwd6::check {
namespace {

// Nothing that fits in memory is deeper; what is, is no tree.
constexpr unsigned max_depth = 96;

constexpr uintptr_t balance_bits = 3;
constexpr uintptr_t head_mark = 3;

// One tree: its nodes are told by traits, which also name the fields.
template <class Traits>
class tree_walk {
  public:
    using node = typename Traits::node;

    tree_walk(walk &w, const subject &owner, const char *field, const Traits &traits,
              const visit_record &visit)
        : w_(w), owner_(owner), field_(field), traits_(traits), visit_(visit) {}

    void run(const node *head) {
        const node *root = Traits::parent(head);
        if (root == nullptr || root == head) {
            return check_empty(head);
        }
        below(root, head, owner_, field_, 0);
        if (broken_) {
            return;
        }
        check_end(head, Traits::left(head), first_, "the first node is ");
        check_end(head, Traits::right(head), last_, "the last node is ");
    }

    uint64_t count() const { return count_; }
    bool broken() const { return broken_; }

  private:
    // Height of the part below `at`. What is broken is told once, and not gone into.
    int below(const node *at, const node *parent, const subject &from, const char *field,
              unsigned depth) {
        if (at == nullptr || broken_) {
            return 0;
        }
        const void *record = w_.follow(from, field, traits_.record_of(at), traits_.kind_of());
        if (record == nullptr) {
            broken_ = true;
            return 0;
        }
        const subject self = traits_.name(record);
        if (Traits::parent(at) != parent) {
            fail(self, "is not linked to its parent in the tree of " + std::string(owner_.record));
            return 0;
        }
        if (depth > max_depth) {
            fail(self, "lies deeper than any tree can be");
            return 0;
        }
        const int left = below(Traits::left(at), at, self, traits_.field(), depth + 1);
        if (broken_) {
            return 0;
        }
        check_order(record, self);
        note(at, record);
        const int right = below(Traits::right(at), at, self, traits_.field(), depth + 1);
        if (!broken_ &&
            (right - left > 1 || left - right > 1 || Traits::balance(at) != right - left)) {
            w_.wrong(self, traits_.field(), "is out of balance in the tree of " + tree_name());
        }
        return 1 + std::max(left, right);
    }

    void check_order(const void *record, const subject &self) {
        if (previous_ != nullptr && !traits_.ascending(previous_, record)) {
            w_.wrong(
                self, traits_.field(),
                "stands behind a record with a greater or equal key in the tree of " + tree_name());
        }
        previous_ = record;
    }

    void note(const node *at, const void *record) {
        first_ = first_ == nullptr ? at : first_;
        last_ = at;
        ++count_;
        visit_(record);
    }

    void check_empty(const node *head) {
        const node *left = Traits::left(head);
        const node *right = Traits::right(head);
        if (left != right || (left != nullptr && left != head)) {
            w_.wrong(owner_, field_, "has ends and no root");
        }
    }

    void check_end(const node *, const node *says, const node *is, const char *text) {
        if (says != is) {
            w_.wrong(owner_, field_, "has " + hex(says) + " as an end, " + text + hex(is));
        }
    }

    void fail(const subject &self, const std::string &what) {
        w_.wrong(self, traits_.field(), what);
        broken_ = true;
    }

    std::string tree_name() const { return std::string(owner_.record) + "." + field_; }

    walk &w_;
    subject owner_;
    const char *field_;
    const Traits &traits_;
    const visit_record &visit_;
    const void *previous_ = nullptr;
    const node *first_ = nullptr;
    const node *last_ = nullptr;
    uint64_t count_ = 0;
    bool broken_ = false;
};

// Subject of a record of any kind that has a name of its own.
subject name_of(const kind &what, const void *record) {
    switch (what.type) {
        case IPMC_SHMWIN_ALLOC_TABLE:
            return about(static_cast<const ipv4mc_table_st *>(record));
        case IPMC_SHMWIN_ALLOC_AVL:
            return about(static_cast<const ipv4mc_table_st *>(record));
        case IPMC_SHMWIN_ALLOC_IDB:
            return about(static_cast<const ipv4mc_idb_st *>(record));
        case IPMC_SHMWIN_ALLOC_INTF:
            return about(static_cast<const ipv4mc_intf_entry_st *>(record));
        case IPMC_SHMWIN_ALLOC_REGDB:
            return about(static_cast<const ipv4mc_regdb_entry_st *>(record));
        case IPMC_SHMWIN_ALLOC_BVI_ENTRY:
            return about(static_cast<const ipv4mc_bvi_entry_t *>(record));
        default:
            return {what.record, record};
    }
}

struct balanced {
    using node = tree_node;

    const kind &what;
    uint32_t node_offset;
    tree_compare_fn compare;

    static const node *parent(const node *n) {
        return reinterpret_cast<const node *>(load(n->up) & ~balance_bits);
    }
    static const node *left(const node *n) { return load(n->left); }
    static const node *right(const node *n) { return load(n->right); }
    static int balance(const node *n) {
        const uintptr_t noted = load(n->up) & balance_bits;
        return noted == 0 ? 0 : noted == 1 ? -1 : noted == 2 ? 1 : max_depth;
    }
    const kind &kind_of() const { return what; }
    const char *field() const { return what.type == IPMC_SHMWIN_ALLOC_INTF ? "avl_node" : "node"; }
    const void *record_of(const node *n) const {
        return reinterpret_cast<const char *>(n) - node_offset;
    }
    const node *node_of(const void *record) const {
        return reinterpret_cast<const node *>(static_cast<const char *>(record) + node_offset);
    }
    subject name(const void *record) const { return name_of(what, record); }
    bool ascending(const void *a, const void *b) const {
        return compare(node_of(a), node_of(b)) == tree_less;
    }
};

struct radix_tree {
    using node = rn_node_t;

    const kind &what;
    const rn_root_t *root;

    static const node *parent(const node *n) { return load(n->parent); }
    static const node *left(const node *n) { return load(n->left); }
    static const node *right(const node *n) { return load(n->right); }
    static int balance(const node *n) { return load(n->balance); }
    const kind &kind_of() const { return what; }
    const char *field() const { return "node"; }
    const void *record_of(const node *n) const { return n; }
    subject name(const void *record) const { return name_of(what, record); }

    // Key and length lie where the root or the node says, and must lie inside the record.
    bool key(const void *record, radix::bits *out) const {
        const uint32_t width = root->mode;
        if (width == radix::indirect) {
            const auto *self = static_cast<const rt_node_t *>(record);
            const auto *from = static_cast<const uint8_t *>(record);
            const auto *at = static_cast<const uint8_t *>(load(self->key));
            const uint64_t length = load(self->key_bits);
            *out = {at, static_cast<uint32_t>(length)};
            return at >= from && at < from + what.bytes && length <= uint64_t{what.bytes} * 8 &&
                   (length + 7) / 8 <= static_cast<uint64_t>(from + what.bytes - at);
        }
        if (width > sizeof(uint32_t) || root->length_offset + width > what.bytes) {
            return false;
        }
        const auto *bytes = static_cast<const uint8_t *>(record);
        uint32_t length = 0;
        std::memcpy(&length, bytes + root->length_offset, width);
        *out = {bytes + root->key_offset, length};
        return root->key_offset + (uint64_t{length} + 7) / 8 <= what.bytes;
    }
    bool ascending(const void *a, const void *b) const {
        radix::bits first{};
        radix::bits second{};
        return key(a, &first) && key(b, &second) && radix::compare(first, second) < 0;
    }
};

}  // namespace

uint64_t walk_tree(walk &w, const subject &owner, const char *field, const tree_node *head,
                   const kind &record, uint32_t node_offset, tree_compare_fn compare,
                   const visit_record &visit) {
    const balanced traits{record, node_offset, compare};
    tree_walk<balanced> tree(w, owner, field, traits, visit);
    const uintptr_t up = load(head->up);
    if (up != 0 && (up & balance_bits) != head_mark) {
        w.wrong(owner, field, "has no head mark");
        return 0;
    }
    tree.run(head);
    return tree.count();
}

uint64_t walk_thread(walk &w, const subject &owner, const char *field, const wavl_tree *tree,
                     uint32_t thread, const kind &record, uint32_t node_offset,
                     tree_compare_fn compare, const visit_record &visit) {
    if (load(tree->state) == 0) {
        return 0;
    }
    if (load(tree->home) != tree || wavl_running(tree) == 0) {
        w.wrong(owner, field, "is no tree that runs here");
        return 0;
    }
    const uint64_t met =
        walk_tree(w, owner, field, &tree->heads[thread], record,
                  node_offset + thread * static_cast<uint32_t>(sizeof(tree_node)), compare, visit);
    w.equal(owner, field, load(tree->counts[thread]), met, "records in the tree");
    return met;
}

uint64_t walk_radix(walk &w, const subject &owner, const char *field, const rn_root_t *root,
                    const kind &head, const kind &record, const visit_record &visit) {
    root = w.follow(owner, field, root, head);
    return root != nullptr ? walk_radix_at(w, owner, field, root, record, visit) : 0;
}

uint64_t walk_radix_at(walk &w, const subject &owner, const char *field, const rn_root_t *root,
                       const kind &record, const visit_record &visit) {
    if (load(root->magic) != radix::root_magic) {
        w.wrong(owner, field, "names memory that is no tree");
        return 0;
    }
    const radix_tree traits{record, root};
    const visit_record with_id = [&](const void *each) {
        const auto *node = static_cast<const rn_node_t *>(each);
        if (load(node->tree) != load(root->id)) {
            w.wrong(name_of(record, each), "node", "carries the id of another tree");
        }
        visit(each);
    };
    tree_walk<radix_tree> tree(w, owner, field, traits, with_id);
    tree.run(&root->header);
    if (!tree.broken()) {
        w.equal(owner, field, load(root->count), tree.count(), "records in the tree");
    }
    return tree.count();
}

}  // namespace mfwd6::check
