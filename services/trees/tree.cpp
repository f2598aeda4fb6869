#include "services/trees/tree.h"

namespace mfwd6::trees {

tree_node *next(const tree_node *n) {
    if (n->right != nullptr) {
        return algorithms::minimum(n->right);
    }
    const tree_node *from = n;
    tree_node *to = parent_of(n);
    // The end is told by the mark, not by an address: a walk may have started from a copy of the
    // head.
    while (!is_head(to) && to->right == from) {
        from = to;
        to = parent_of(to);
    }
    return is_head(to) ? nullptr : to;
}

bool holds(const tree_node *head, const tree_node *n) {
    for (unsigned depth = 0; n->up != 0 && depth < max_depth; ++depth) {
        if (is_head(n)) {
            return n == head;
        }
        n = parent_of(n);
    }
    return false;
}

void prepare(tree_node *head) {
    if (head->up == 0) {
        journal::store(head->up, head_mark);
    }
}

void link(tree_node *head, tree_node *n, const place &where) {
    prepare(head);
    algorithms::insert_unique_commit(head, n, where);
}

void unlink(tree_node *head, tree_node *n) {
    algorithms::erase(head, n);
    journal::store(n->up, 0);
}

namespace {

struct inspection {
    tree_compare_fn compare;
    const tree_node *previous;  // in ascending order
    uint64_t count;
    cerrno wrong;
};

cerrno balance_fault(const tree_node *n, int left, int right) {
    const uintptr_t noted = node_traits::get_balance(n);
    const int lean = right - left;
    const bool fits = (lean == 0 && noted == node_traits::zero()) ||
                      (lean == -1 && noted == node_traits::negative()) ||
                      (lean == 1 && noted == node_traits::positive());
    return fits ? 0 : TREE_E_BALANCE;
}

// Height of the part below `n`. Every node is entered from the one parent that it names, so that
// this ends whatever the links are; it stops at the first fault.
int inspect(const tree_node *n, const tree_node *parent, unsigned depth, inspection &state) {
    if (n == nullptr || state.wrong != 0) {
        return 0;
    }
    const bool twin = parent->left == parent->right && !is_head(parent);
    if (parent_of(n) != parent || is_head(n) || twin || depth > max_depth) {
        state.wrong = TREE_E_LINKS;
        return 0;
    }
    const int left = inspect(n->left, n, depth + 1, state);
    if (state.wrong == 0 && state.previous != nullptr &&
        state.compare(state.previous, n) != tree_less) {
        state.wrong = TREE_E_ORDER;
    }
    state.previous = n;
    ++state.count;
    const int right = inspect(n->right, n, depth + 1, state);
    if (state.wrong == 0) {
        state.wrong = balance_fault(n, left, right);
    }
    return 1 + (left > right ? left : right);
}

const tree_node *outermost(const tree_node *n, tree_node *tree_node::*side) {
    while (n->*side != nullptr) {
        n = n->*side;
    }
    return n;
}

}  // namespace

cerrno verify(const tree_node *head, tree_compare_fn compare, uint64_t *count) {
    inspection state{compare, nullptr, 0, 0};
    const tree_node *root = parent_of(head);
    inspect(root, head, 0, state);
    if (count != nullptr) {
        *count = state.count;
    }
    if (state.wrong != 0) {
        return state.wrong;
    }
    if (root == nullptr) {
        return head->left == head->right && (head->left == nullptr || head->left == head)
                   ? 0
                   : TREE_E_LINKS;
    }
    const bool ends = is_head(head) && head->left == outermost(root, &tree_node::left) &&
                      head->right == outermost(root, &tree_node::right);
    return ends ? 0 : TREE_E_LINKS;
}

}  // namespace mfwd6::trees
