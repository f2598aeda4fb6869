// The texts of this service's codes.
#include "services/diag/errors.h"

#include "services/platform_info/platform_info.h"

namespace {

const char *text_of(cerrno code) {
    switch (code) {
        case PLATFORM_INFO_BAD_NAME:
            return "Interface name cannot be made of these numbers";
        case PLATFORM_INFO_BAD_TABLE_ID:
            return "Table id shares its number with another one";
        default:
            return nullptr;
    }
}

[[gnu::constructor]] void register_texts() {
    cerr_register(0x45007000, 0xfffff000, text_of);
}

}  // namespace
