#include "services/platform_info/adjacency.h"

static void hold(adj_base_t *adjacency) {
    ++adjacency->holds;
}

static void release(adj_base_t *adjacency) {
    if (adjacency->holds > 0) {
        --adjacency->holds;
    }
}

static constexpr adj_own_fn counted[2] = {hold, release};

void adj_base_init(adj_base_t *adjacency, uint32_t ifh) {
    *adjacency = {ifh, 0, counted};
}

const adj_own_fn *adj_own_bundle_from_base(const adj_base_t *adjacency) {
    return adjacency != nullptr ? adjacency->own : nullptr;
}
