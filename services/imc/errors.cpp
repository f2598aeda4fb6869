// The texts of this service's codes.
#include "services/diag/errors.h"

#include "services/imc/imc.h"

namespace {

const char *text_of(cerrno code) {
    switch (code) {
        case IMC_NO_INTERFACE:
            return "No such interface";
        case IMC_NO_RECEIVER:
            return "No receiver for the control code";
        case IMC_NO_BACKEND:
            return "No such interface manager backend";
        case IMC_BAD_PROTOCOL:
            return "Protocol or caps of the control record is 0";
        case IMC_LOST:
            return "Interface manager lost its connection";
        default:
            return nullptr;
    }
}

[[gnu::constructor]] void register_texts() {
    cerr_register(0x44e05000, 0xfffff000, text_of);
}

}  // namespace
