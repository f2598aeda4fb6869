#include "tests/kit/library.h"

#include <stdexcept>
#include <string>

#include "platforms/sim/sim.h"
#include "services/diag/errors.h"

namespace kit {
namespace {

std::vector<ipv4mc_lib_callback_msg> received;
cerrno answer = 0;

cerrno on_message(ipv4mc_descriptor_struct *, const ipv4mc_lib_callback_msg *message, void *) {
    received.push_back(*message);
    return answer;
}

}  // namespace

std::vector<ipv4mc_lib_callback_msg> take_messages() {
    return std::exchange(received, {});
}

void answer_callback_with(cerrno rc) {
    answer = rc;
}

cerrno start_library(const start &how) {
    return ip6mc_lib_init(how.evm, how.im_context, how.attach_only, 7, 8, default_tid,
                          default_vrf_id, how.node_role, how.with_callback ? on_message : nullptr,
                          how.free_hook, nullptr, nullptr, how.keep_buffer_pool);
}

library::library(const start &how) : attach_only_(how.attach_only) {
    const cerrno rc = start_library(how);
    if (rc != 0) {
        throw std::runtime_error(std::string("ip6mc_lib_init: ") + cerr_strerror(rc));
    }
}

library::~library() {
    if (!ended_) {
        terminate(IPV4MC_TERMINATE_END);
    }
}

cerrno library::terminate(uint32_t reason) {
    ended_ = true;
    return ip6mc_lib_terminate(attach_only_, reason);
}

}  // namespace kit
