// PPPoE sessions that were announced before their parent: a database of the process, not of the
// window.
#include <cstdlib>

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/radix/radix.h"

namespace {

struct pppoe_child {
    rn_node_t node;
    ifhtype ifh;
    uint16_t key_bits;
};

struct pppoe_parent {
    rn_node_t node;
    ifhtype ifh;
    uint16_t key_bits;
    rn_root_t *children;
};

constexpr uint32_t key_offset = 32;
constexpr uint32_t key_bits_offset = 36;
static_assert(offsetof(pppoe_child, ifh) == key_offset &&
              offsetof(pppoe_child, key_bits) == key_bits_offset);
static_assert(offsetof(pppoe_parent, ifh) == key_offset &&
              offsetof(pppoe_parent, key_bits) == key_bits_offset);

rn_root_t *pppoe_parent_db = nullptr;

void free_parent(rn_node_t *record) {
    auto *parent = reinterpret_cast<pppoe_parent *>(record);
    if (parent->children != nullptr) {
        rn_tree_destroy(parent->children);
    }
    free(parent);
}

}  // namespace

void ipmc_idb_pppoe_parent_db_init(void) {
    if (pppoe_parent_db != nullptr) {
        return;
    }
    pppoe_parent_db = rn_tree_init(key_offset, key_bits_offset, free_parent);
    if (pppoe_parent_db == nullptr) {
        MLIB_ERR("Failed to initialize pppoe_parent_db");
    }
}

void ipmc_idb_pppoe_parent_db_terminate(void) {
    if (pppoe_parent_db != nullptr) {
        rn_tree_destroy(pppoe_parent_db);
        pppoe_parent_db = nullptr;
    }
}
