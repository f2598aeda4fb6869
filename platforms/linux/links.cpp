#include "platforms/linux/links.h"

#include <cerrno>
#include <cstring>

namespace mfwd6::lnx {

namespace {

struct {
    imc_context_t *context = nullptr;
    event_manager_t *evm = nullptr;
    imc_change_fn fn = nullptr;
} links;

cerrno open_context() {
    const cerrno failed = imc_context_open("rtnl", links.evm, &links.context);
    return failed != 0 ? failed : imc_watch(links.context, links.fn, nullptr);
}

}  // namespace

cerrno links_open(event_manager_t *evm, imc_change_fn fn) {
    links.evm = evm;
    links.fn = fn;
    return open_context();
}

void links_close() {
    imc_context_close(links.context);
    links.context = nullptr;
}

bool links_live() {
    return links.evm != nullptr;
}

cerrno links_refresh() {
    links_close();
    return open_context();
}

uint32_t link_of(uint32_t ifh, char (&name)[link_name_bytes]) {
    char now[IMC_NAME_SIZE] = {};
    if (imc_interface_name(links.context, ifh, now, sizeof(now)) == 0) {
        std::memcpy(name, now, link_name_bytes - 1);
        name[link_name_bytes - 1] = 0;
        return ifh;
    }
    uint32_t index = 0;
    if (name[0] != 0 && imc_interface_find(links.context, name, &index) == 0) {
        return index;
    }
    return 0;
}

}  // namespace mfwd6::lnx
