#include <cerrno>
#include <cstring>

#include "services/journal/journal.h"
#include "services/radix/tree.h"

namespace {

using namespace mfwd6::radix;
namespace journal = mfwd6::journal;

constexpr uint32_t aux_magic = 0x72746178;

bool is_aux(const rt_aux_t *aux) {
    return aux != nullptr && (reinterpret_cast<uintptr_t>(aux) & 7U) == 0 &&
           aux->magic == aux_magic;
}

bool is_head(const rt_head_t *head) {
    return head != nullptr && is_tree(&head->root) && is_aux(head->aux);
}

rt_node_t *record_of(rn_node_t *n) {
    return reinterpret_cast<rt_node_t *>(n);
}

}  // namespace

extern "C" {

int rt_aux_init(rt_aux_t *aux, rt_node_free_fn node_free, uint32_t flags) {
    if (aux == nullptr || node_free == nullptr || flags != 0) {
        return 0;
    }
    const journal::group group;
    journal::store(aux->functions_of, uint64_t{0});
    journal::store(aux->flags, flags);
    journal::store(aux->node_free, node_free);
    journal::store(aux->alloc, nullptr);
    journal::store(aux->free, nullptr);
    journal::store(aux->magic, aux_magic);
    journal::store(aux->functions_of, this_process());
    return 1;
}

cerrno rt_mem_allocation_ext(rt_aux_t *aux, rt_alloc_fn alloc, rt_free_fn free) {
    if (!is_aux(aux) || alloc == nullptr || free == nullptr) {
        return EINVAL;
    }
    if (aux->functions_of != this_process()) {
        return RADIX_E_NO_FUNCTIONS;
    }
    const journal::group group;
    journal::store(aux->alloc, alloc);
    journal::store(aux->free, free);
    return 0;
}

int rt_root_init(rt_head_t *head, rt_aux_t *aux) {
    if (head == nullptr || !is_aux(aux)) {
        return 0;
    }
    make_tree(&head->root, 0, 0, indirect, false);
    head->aux = aux;
    return 1;
}

cerrno rt_insert(rt_head_t *head, void *record, uint32_t length, const void *key) {
    if (!is_head(head) || record == nullptr || key == nullptr) {
        return head != nullptr && record != nullptr && key != nullptr
                   ? static_cast<cerrno>(RADIX_E_BAD_TREE)
                   : static_cast<cerrno>(EINVAL);
    }
    if (length > RADIX_MAX_BITS) {
        return RADIX_E_LENGTH;
    }
    auto *n = static_cast<rt_node_t *>(record);
    if (n->link.tree != 0) {
        return RADIX_E_LINKED;
    }
    const journal::group group;
    const cerrno code = insert(&head->root, &n->link, {static_cast<const uint8_t *>(key), length});
    if (code == 0) {
        journal::store(n->head, head);
        journal::store(n->key, key);
        journal::store(n->key_bits, uint64_t{length});
    }
    return code;
}

cerrno rt_delete(void *record) {
    auto *n = static_cast<rt_node_t *>(record);
    if (n == nullptr) {
        return EINVAL;
    }
    rt_head_t *head = n->head;
    if (n->link.tree == 0 || !is_head(head) || n->link.tree != head->root.id) {
        return RADIX_E_NOT_LINKED;
    }
    if (head->aux->functions_of != this_process()) {
        return RADIX_E_NO_FUNCTIONS;
    }
    const rt_node_free_fn node_free = head->aux->node_free;
    const journal::group group;
    erase(&head->root, &n->link);
    journal::store(n->head, nullptr);
    node_free(n);
    return 0;
}

rt_node_t *rt_search(const rt_head_t *head, const void *key, uint32_t length) {
    return is_head(head) ? record_of(rn_search(&head->root, key, length)) : nullptr;
}

rt_node_t *rt_lookup(const rt_head_t *head, const void *key, uint32_t length) {
    return is_head(head) ? record_of(rn_lookup(&head->root, key, length)) : nullptr;
}

int rt_walktree(rt_head_t *head, rt_walk_fn fn, void *argument) {
    if (!is_head(head) || fn == nullptr) {
        return head == nullptr || fn == nullptr ? EINVAL : RADIX_E_BAD_TREE;
    }
    int result = 0;
    for (rn_node_t *n = first(&head->root); n != nullptr && result == 0;) {
        rn_node_t *after = next(&head->root, n);
        result = fn(record_of(n), argument);
        n = after;
    }
    return result;
}

const char *rt_verify(const rt_head_t *head) {
    return is_head(head) ? rn_verify(&head->root) : "not a tree";
}

}  // extern "C"
