#include "services/trees/registered_fns.h"

#include <cerrno>
#include <mutex>

namespace mfwd6::trees {

namespace {

struct registration {
    const shm_avl_tree *root;
    shm_avl_fns fns;
};

std::mutex guard;
registration table[16];

registration *entry_of(const shm_avl_tree *root) {
    for (registration &r : table) {
        if (r.root == root) {
            return &r;
        }
    }
    return nullptr;
}

}  // namespace

cerrno register_fns(const shm_avl_tree *root, const shm_avl_fns &fns) {
    const std::lock_guard hold(guard);
    registration *r = entry_of(root);
    if (r == nullptr) {
        r = entry_of(nullptr);
    }
    if (r == nullptr) {
        return ENOSPC;
    }
    *r = {root, fns};
    return 0;
}

shm_avl_fns registered_fns(const shm_avl_tree *root) {
    const std::lock_guard hold(guard);
    const registration *r = entry_of(root);
    return r != nullptr ? r->fns : shm_avl_fns{};
}

}  // namespace mfwd6::trees
