// A second file with a ring of its own.
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"

const char *text_of_other_file(const ip_maddr_st *address);
const char *text_of_other_file(const ip_maddr_st *address) {
    return mlib::address_text(address);
}
