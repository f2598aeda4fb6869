// Tries: every node, every part of the index, every handle, and the leaves by table.
#ifndef MFWD6_APPS_CHECK_TRIES_H
#define MFWD6_APPS_CHECK_TRIES_H

#include <memory>
#include <unordered_map>
#include <vector>

#include "apps/check/walk.h"

namespace mfwd6::check {

// Tries of the window, each walked once, whichever of its tables comes first.
class tries {
  public:
    explicit tries(walk &w) : w_(w) {}

    using leaves = std::vector<const gtrie::leaf *>;

    // Walks the trie behind a table's (or the encaps') handle, unless that was done, and gives the
    // leaves of this handle, in order. Null when the handle is none, with a finding unless it is
    // null. `*at` gets the handle.
    const leaves *open(const subject &owner, const char *field, void *handle,
                       const gtrie::handle **at);

    // The leaves of a handle that were made and not inserted.
    const leaves &detached(const gtrie::handle *handle) { return detached_[handle]; }

  private:
    struct view {
        std::unordered_map<uint32_t, leaves> of_table;
        std::unordered_map<const gtrie::handle *, bool> handles;
    };

    void walk_trie(const subject &owner, const char *field, const gtrie::trie *trie, view &seen);
    void walk_handles(const gtrie::trie *trie, view &seen);
    void walk_nodes(const gtrie::trie *trie, view &seen);
    void walk_detached(const gtrie::handle *handle);

    walk &w_;
    std::unordered_map<const gtrie::handle *, leaves> detached_;
    std::unordered_map<const gtrie::trie *, std::unique_ptr<view>> seen_;
};

}  // namespace mfwd6::check

#endif
