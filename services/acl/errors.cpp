// The texts of this service's codes.
#include "services/diag/errors.h"

#include "services/acl/ipv6_acl.h"

namespace {

const char *text_of(cerrno code) {
    switch (code) {
        case IPV6_ACL_NOT_FOUND:
            return "No such access list";
        case IPV6_ACL_BAD_HANDLE:
            return "Access list is not held";
        case IPV6_ACL_SYNTAX:
            return "Access list text cannot be read";
        case IPV6_ACL_TOO_MANY:
            return "Access list has too many entries";
        default:
            return nullptr;
    }
}

[[gnu::constructor]] void register_texts() {
    cerr_register(0x44f06000, 0xfffff000, text_of);
}

}  // namespace
