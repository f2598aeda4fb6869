// What a platform finds in the library, as far as these tests need it.
#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "tests/platforms/sim/sim_fixture.h"

async_report last_async;

cerrno ipmc_platform_async_err_handler(uint64_t obj_id, uint32_t oor_error, cerrno code,
                                       uint32_t object_type, uint32_t, void *) {
    last_async = {obj_id, oor_error, code, object_type, last_async.calls + 1};
    return 4711;
}

fim_handle mlib_fim_hdl = nullptr;
