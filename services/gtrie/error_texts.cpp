// Texts of the codes of tries and radix trees, known from the moment that the library is loaded.
#include "services/diag/errors.h"
#include "services/gtrie/gtrie.h"
#include "services/radix/radix.h"

namespace {

constexpr cerrno service_base = 0x44a01000;
constexpr cerrno service_mask = 0xfffff000;

const char *text_of(cerrno code) {
    switch (code) {
        case GTRIE_E_BAD_HANDLE:
            return "Not a trie handle";
        case GTRIE_E_BAD_LEAF:
            return "Not a leaf of this trie";
        case GTRIE_E_EXISTS:
            return "Leaf with this key exists in trie";
        case GTRIE_E_LINKED:
            return "Leaf is in the trie";
        case GTRIE_E_DETACHED:
            return "Leaf is not in the trie";
        case GTRIE_E_REMOVED:
            return "Leaf was deleted from the trie";
        case GTRIE_E_NOT_EMPTY:
            return "Trie still has leaves of this table";
        case GTRIE_E_NO_FUNCTIONS:
            return "Memory functions of trie not set in this process";
        case GTRIE_E_MISMATCH:
            return "Trie was made with other parameters";
        case GTRIE_E_LENGTH:
            return "Impossible key length for trie";
        case GTRIE_E_PARAMS:
            return "Impossible trie parameters";
        case RADIX_E_BAD_TREE:
            return "Not a radix tree";
        case RADIX_E_LINKED:
            return "Record is in a radix tree";
        case RADIX_E_NOT_LINKED:
            return "Record is not in this radix tree";
        case RADIX_E_NO_FUNCTIONS:
            return "Functions of radix tree not set in this process";
        case RADIX_E_LENGTH:
            return "Key too long for radix tree";
        default:
            return nullptr;
    }
}

[[gnu::constructor]] void register_texts() {
    cerr_register(service_base, service_mask, text_of);
}

}  // namespace
