// Inside of the interface manager client: one context.
#ifndef MFWD6_SERVICES_IMC_CONTEXT_H
#define MFWD6_SERVICES_IMC_CONTEXT_H

#include <cstddef>
#include <cstdint>

#include "services/imc/backend.h"
#include "services/imc/imc.h"

namespace mfwd6::imc {

struct interface {
    uint32_t ifh;
    uint32_t parent;
    uint32_t sweep;  // of the last put
    uint16_t type;
    char name[IMC_NAME_SIZE];
};

struct receiver {
    uint32_t code;
    imc_datapath_fn fn;
    void *context;
};

}  // namespace mfwd6::imc

struct imc_context {
    const imc_backend_t *backend;
    void *state;
    // The same interfaces twice, sorted by handle and by name.
    mfwd6::imc::interface **by_handle;
    mfwd6::imc::interface **by_name;
    size_t count;
    size_t room;
    uint32_t sweep;
    bool lost;
    mfwd6::imc::receiver *receivers;
    size_t receiver_count;
    imc_change_fn listener;
    void *listener_context;
};

namespace mfwd6::imc {

interface *find_handle(const imc_context *context, uint32_t ifh);
interface *find_name(const imc_context *context, const char *name);
void free_interfaces(imc_context *context);

// The answer about an interface that is not there.
inline cerrno not_known(const imc_context *context) {
    return context->lost ? IMC_LOST : IMC_NO_INTERFACE;
}

extern const imc_backend_t table_backend;

}  // namespace mfwd6::imc

#endif
