// Texts of the codes of this service, known from the moment that the library is loaded.
#include "services/diag/errors.h"
#include "services/trees/node.h"

namespace {

constexpr cerrno service_base = 0x44024000;
constexpr cerrno service_mask = 0xfffff000;

const char *text_of(cerrno code) {
    switch (code) {
        case TREE_E_NOT_RUNNING:
            return "Tree not running";
        case TREE_E_NOT_FOUND:
            return "Not found in tree";
        case TREE_E_ORDER:
            return "Tree damaged: records out of order";
        case TREE_E_BALANCE:
            return "Tree damaged: heights out of balance";
        case TREE_E_LINKS:
            return "Tree damaged: links do not meet";
        case TREE_E_COUNT:
            return "Tree damaged: count differs from the records";
        default:
            return nullptr;
    }
}

[[gnu::constructor]] void register_texts() {
    cerr_register(service_base, service_mask, text_of);
}

}  // namespace
