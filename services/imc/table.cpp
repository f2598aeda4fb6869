#include "services/imc/table.h"

#include <cerrno>

#include "services/imc/context.h"

namespace mfwd6::imc {

static cerrno open_table(imc_context_t *, event_manager_t *, void **state) {
    *state = nullptr;
    return 0;
}

const imc_backend_t table_backend = {"table", open_table, nullptr};

static bool is_table(const imc_context_t *context) {
    return context != nullptr && context->backend == &table_backend;
}

}  // namespace mfwd6::imc

using namespace mfwd6::imc;

cerrno imc_table_open(imc_context_t **context) {
    return imc_context_open(table_backend.name, nullptr, context);
}

cerrno imc_table_add(imc_context_t *context, uint32_t ifh, const char *name, uint16_t type,
                     uint32_t parent) {
    if (!is_table(context) || name == nullptr) {
        return EINVAL;
    }
    const interface *const same_name = find_name(context, name);
    if (same_name != nullptr && same_name->ifh != ifh) {
        return EEXIST;
    }
    return imc_backend_put(context, ifh, name, type, parent);
}

cerrno imc_table_remove(imc_context_t *context, uint32_t ifh) {
    return is_table(context) ? imc_backend_drop(context, ifh) : cerrno{EINVAL};
}
