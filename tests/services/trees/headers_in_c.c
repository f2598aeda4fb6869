/* The headers serve C as well: records can be declared and the tables filled. */
#include "services/trees/avl.h"
#include "services/trees/wavl.h"

struct c_record {
    wavl_node nodes[2];
    uint32_t key;
};

static int compare(const void *a, const void *b) {
    uint32_t x = ((const struct c_record *)a)->key;
    uint32_t y = ((const struct c_record *)b)->key;
    return x < y ? tree_less : x == y ? tree_equal : tree_greater;
}

int trees_serve_c(void);

int trees_serve_c(void) {
    static const tree_compare_fn compares[1] = {compare};
    static const struct shm_wavl_fns fns = {NULL, NULL, NULL, compares, NULL};
    struct c_record low = {.key = 1}, high = {.key = 2};
    wavl_tree tree = {0};
    return shm_wavl_init(&fns, &tree, 1) == 0 &&
           shm_wavl_insert_thread(&fns, &tree, &high, 0) == &high &&
           shm_wavl_insert_thread(&fns, &tree, &low, 0) == &low &&
           shm_wavl_get_first(&fns, &tree, 0) == &low && !tree_node_linked(&low.nodes[1]);
}
