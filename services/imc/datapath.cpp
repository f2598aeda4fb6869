// Control codes on their way to the data path.
#include <cerrno>
#include <cstdlib>

#include "services/imc/context.h"

using namespace mfwd6::imc;

static receiver *receiver_of(const imc_context_t *context, uint32_t code) {
    for (size_t i = 0; i < context->receiver_count; ++i) {
        if (context->receivers[i].code == code) {
            return &context->receivers[i];
        }
    }
    return nullptr;
}

// A place for a code that has none yet, or NULL.
static receiver *add_receiver(imc_context_t *context) {
    void *const grown =
        realloc(context->receivers, (context->receiver_count + 1) * sizeof(receiver));
    if (grown == nullptr) {
        return nullptr;
    }
    context->receivers = static_cast<receiver *>(grown);
    return &context->receivers[context->receiver_count++];
}

cerrno imc_datapath_receiver_set(imc_context_t *context, uint32_t code, imc_datapath_fn fn,
                                 void *receiver_context) {
    if (context == nullptr) {
        return EINVAL;
    }
    receiver *place = receiver_of(context, code);
    if (place == nullptr && fn != nullptr) {
        place = add_receiver(context);
        if (place == nullptr) {
            return ENOMEM;
        }
    }
    if (place != nullptr) {
        *place = {code, fn, receiver_context};
    }
    return 0;
}

cerrno imc_caps_datapath_control(imc_context_t *context, const imc_datapath_control_t *control) {
    if (context == nullptr || control == nullptr ||
        (control->data == nullptr && control->length != 0)) {
        return EINVAL;
    }
    if (control->protocol == 0 || control->caps == 0) {
        return IMC_BAD_PROTOCOL;
    }
    const receiver *const r = receiver_of(context, control->code);
    return r != nullptr && r->fn != nullptr ? r->fn(control, r->context) : IMC_NO_RECEIVER;
}
