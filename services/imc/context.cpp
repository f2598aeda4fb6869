// Backends, and the life of a context.
#include "services/imc/context.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace mfwd6::imc {
namespace {

constexpr size_t max_backends = 8;

constinit std::mutex lock;
constinit const imc_backend_t *backends[max_backends] = {&table_backend};

const imc_backend_t *backend_of(const char *name) {
    const std::lock_guard hold(lock);
    for (const imc_backend_t *b : backends) {
        if (b != nullptr && std::strcmp(b->name, name) == 0) {
            return b;
        }
    }
    return nullptr;
}

}  // namespace
}  // namespace mfwd6::imc

using namespace mfwd6::imc;

cerrno imc_backend_register(const imc_backend_t *backend) {
    if (backend == nullptr || backend->name == nullptr || backend->open == nullptr) {
        return EINVAL;
    }
    const std::lock_guard hold(lock);
    for (const imc_backend_t *&place : backends) {
        if (place == nullptr) {
            place = backend;
            return 0;
        }
        if (std::strcmp(place->name, backend->name) == 0) {
            return place == backend ? 0 : EEXIST;
        }
    }
    return ENOSPC;
}

cerrno imc_context_open(const char *backend, event_manager_t *evm, imc_context_t **context) {
    if (context == nullptr) {
        return EINVAL;
    }
    *context = nullptr;
    if (backend == nullptr) {
        return EINVAL;
    }
    const imc_backend_t *const found = backend_of(backend);
    if (found == nullptr) {
        return IMC_NO_BACKEND;
    }
    auto *const made = static_cast<imc_context *>(calloc(1, sizeof(imc_context)));
    if (made == nullptr) {
        return ENOMEM;
    }
    made->backend = found;
    if (const cerrno rc = found->open(made, evm, &made->state); rc != 0) {
        free_interfaces(made);
        free(made);
        return rc;
    }
    *context = made;
    return 0;
}

void imc_context_close(imc_context_t *context) {
    if (context == nullptr) {
        return;
    }
    if (context->backend->close != nullptr) {
        context->backend->close(context, context->state);
    }
    free_interfaces(context);
    free(context->receivers);
    free(context);
}

void *imc_backend_state(const imc_context_t *context) {
    return context->state;
}

void imc_backend_lost(imc_context_t *context, int lost) {
    const bool told = context->lost;
    context->lost = lost != 0;
    if (context->lost && !told && context->listener != nullptr) {
        context->listener(context, IMC_CONNECTION_LOST, 0, "", context->listener_context);
    }
}

cerrno imc_watch(imc_context_t *context, imc_change_fn fn, void *change_context) {
    if (context == nullptr) {
        return EINVAL;
    }
    context->listener = fn;
    context->listener_context = change_context;
    return 0;
}
