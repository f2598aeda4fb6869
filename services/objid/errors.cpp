// The texts of this service's codes.
#include "services/diag/errors.h"

#include "services/objid/obj_id.h"

namespace {

const char *text_of(cerrno code) {
    switch (code) {
        case FIB_OBJ_ID_STALE:
            return "Object id was given back";
        case FIB_OBJ_ID_UNKNOWN:
            return "Object id was never given out";
        case FIB_OBJ_ID_MALFORMED:
            return "Not an object id";
        case FIB_OBJ_ID_NO_DOMAIN:
            return "Not an object id domain";
        case FIB_OBJ_ID_FULL:
            return "All object ids are in use";
        case FIB_OBJ_ID_NOT_CONNECTED:
            return "Process is not connected to the object id domain";
        case FIB_OBJ_ID_SHAPE:
            return "Object id domain has other numbers";
        default:
            return nullptr;
    }
}

[[gnu::constructor]] void register_texts() {
    cerr_register(0x44b02000, 0xfffff000, text_of);
}

}  // namespace
