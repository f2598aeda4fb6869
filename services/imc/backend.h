// What a backend of the interface manager client is made of.
//
// A backend keeps the context's interfaces up to date with imc_backend_put and imc_backend_drop;
// the questions are answered here. It belongs to the thread of its context.
#ifndef MFWD6_SERVICES_IMC_BACKEND_H
#define MFWD6_SERVICES_IMC_BACKEND_H

#include "services/imc/imc.h"

MFWD6_BEGIN_C

typedef struct imc_backend {
    const char *name;
    // Fills the context with what there is and starts live updates. *state comes back in `close`.
    // On failure nothing of it stays, and `close` is not called.
    cerrno (*open)(imc_context_t *context, event_manager_t *evm, void **state);
    // Ends updates and frees `state`; may be NULL.
    void (*close)(imc_context_t *context, void *state);
} imc_backend_t;

// Makes a backend known under its name; `backend` must last as long as the process. At most 8.
// EINVAL, ENOSPC, EEXIST for another backend of that name (the same one again is fine).
MFWD6_EXPORT cerrno imc_backend_register(const imc_backend_t *backend);

// The state of a context's backend.
MFWD6_EXPORT void *imc_backend_state(const imc_context_t *context);

// Adds an interface, or changes the one with this handle, and tells the listener if anything is
// new. Another interface of that name is removed first: news of its end or its new name are still
// under way. EINVAL (handle 0, an empty name or one of IMC_NAME_SIZE characters or more), ENOMEM;
// nothing is changed then.
MFWD6_EXPORT cerrno imc_backend_put(imc_context_t *context, uint32_t ifh, const char *name,
                                    uint16_t type, uint32_t parent);

// Removes an interface. IMC_NO_INTERFACE.
MFWD6_EXPORT cerrno imc_backend_drop(imc_context_t *context, uint32_t ifh);

// Around a fresh list of all interfaces: what was not put between the two calls is removed by the
// second.
MFWD6_EXPORT void imc_backend_sweep_begin(imc_context_t *context);
MFWD6_EXPORT void imc_backend_sweep_end(imc_context_t *context);

// The connection is lost, or with 0 there again. While it is lost, interfaces stay as they are and
// a question about an unknown one is answered with IMC_LOST. The listener is told of the loss,
// once.
MFWD6_EXPORT void imc_backend_lost(imc_context_t *context, int lost);

MFWD6_END_C

#endif
