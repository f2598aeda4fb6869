// Functions that this process named for trees in windows. Process memory; private to this folder.
#ifndef MFWD6_SERVICES_TREES_REGISTERED_FNS_H
#define MFWD6_SERVICES_TREES_REGISTERED_FNS_H

#include "services/trees/avl.h"

namespace mfwd6::trees {

// Replaces what was named for `root` before. ENOSPC when 16 other trees have functions.
cerrno register_fns(const shm_avl_tree *root, const shm_avl_fns &fns);

// All null when none were named.
shm_avl_fns registered_fns(const shm_avl_tree *root);

}  // namespace mfwd6::trees

#endif
