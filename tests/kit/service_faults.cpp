#include "tests/kit/service_faults.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "services/events/retry.h"
#include "services/gtrie/gtrie.h"
#include "services/locks/rrw_lock.h"
#include "services/objid/obj_id.h"
#include "services/platform_info/platform_info.h"
#include "services/radix/radix.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"
#include "services/window/window.h"

namespace kit {
namespace {

struct fault {
    cerrno code = 0;
    uint64_t times = 0;
    uint64_t skip = 0;
    uint64_t calls = 0;
};

std::map<std::string, fault> &gates() {
    static std::map<std::string, fault> all;
    return all;
}

// What a gate keeps: its fault, and the function behind it.
template <class Function>
struct gate {
    explicit gate(const char *name)
        : state(gates()[name]), behind(reinterpret_cast<Function>(dlsym(RTLD_NEXT, name))) {
        if (behind == nullptr) {
            fprintf(stderr, "no service function %s\n", name);
            abort();
        }
    }

    cerrno refusal() {
        ++state.calls;
        if (state.times == 0) {
            return 0;
        }
        if (state.skip > 0) {
            --state.skip;
            return 0;
        }
        --state.times;
        return state.code;
    }

    fault &state;
    Function behind;
};

}  // namespace

void fail_service(const char *name, cerrno code, uint64_t times, uint64_t skip) {
    const auto found = gates().find(name);
    if (found == gates().end()) {
        throw std::runtime_error(std::string("no gate before ") + name);
    }
    found->second.code = code;
    found->second.times = times;
    found->second.skip = skip;
}

void heal_services() {
    for (auto &[name, state] : gates()) {
        state = fault{};
    }
}

uint64_t service_calls(const char *name) {
    return gates().at(name).calls;
}

}  // namespace kit

// The definitions of a program come before those of the libraries that it links.
#define GATE(function, parameters, arguments)                         \
    static kit::gate<decltype(&function)> gate_##function(#function); \
    extern "C" cerrno function parameters {                           \
        const cerrno code = gate_##function.refusal();                \
        return code != 0 ? code : gate_##function.behind arguments;   \
    }
#define POINTER_GATE(type, function, parameters, arguments)                                 \
    static kit::gate<decltype(&function)> gate_##function(#function);                       \
    extern "C" type *function parameters {                                                  \
        return gate_##function.refusal() != 0 ? nullptr : gate_##function.behind arguments; \
    }

GATE(shmwin_platform_info, (const char *name, void **base, size_t *size), (name, base, size))
GATE(shmwin_open_win, (const shmwin_open_record *record, void **header, uint32_t *id),
     (record, header, id))
GATE(shmwin_malloc, (uint32_t id, size_t size, void **block), (id, size, block))
GATE(shmwin_free, (void *block), (block))
GATE(shmwin_reset, (uint32_t id), (id))
GATE(shmwin_close, (uint32_t id, int keep), (id, keep))
GATE(shmwin_monitor_lock, (uint32_t id, shmwin_monitor_fn monitor, void *context),
     (id, monitor, context))
GATE(shmwin_kill_and_reset, (uint32_t id, int signal), (id, signal))
GATE(rrw_lock_init,
     (rrw_lock_t * lock, int mode, int exists, rrw_lock_trace_ft trace, intptr_t reserved),
     (lock, mode, exists, trace, reserved))
GATE(shm_wavl_init, (const struct shm_wavl_fns *fns, wavl_tree *tree, uint32_t threads),
     (fns, tree, threads))
GATE(shm_avl_tree_init,
     (const struct shm_avl_fns *fns, shm_avl_tree **root, uint32_t threads, uint32_t flags),
     (fns, root, threads, flags))
GATE(shm_avl_tree_allocate_object,
     (const struct shm_avl_fns *fns, shm_avl_tree *root, size_t size, void **object),
     (fns, root, size, object))
GATE(platform_get_mcast_params, (platform_mcast_params_t * params), (params))
GATE(ip6mc_gtrie_platform_lib_init, (void *evm, int attach_only), (evm, attach_only))
GATE(ip6mc_gtrie_platform_lib_terminate, (int attach_only), (attach_only))
GATE(ip6mc_gtrie_platform_re_init, (void *handle, const ip6mc_gtrie_params_t *params),
     (handle, params))
GATE(ip6mc_gtrie_re_init, (void *handle, const ip6mc_gtrie_params_t *params), (handle, params))
GATE(retry_init,
     (event_manager_t * evm, uint32_t first_s, uint32_t first_ns, uint32_t factor, uint32_t limit_s,
      uint32_t tries),
     (evm, first_s, first_ns, factor, limit_s, tries))
POINTER_GATE(rn_root_t, rn_tree_init, (uint32_t key, uint32_t length, rn_destructor_fn destructor),
             (key, length, destructor))
POINTER_GATE(rn_root_t, rn_tree_init_v2,
             (uint32_t key, uint32_t length, rn_destructor_fn destructor, rn_alloc_fn allocator,
              int mode),
             (key, length, destructor, allocator, mode))
POINTER_GATE(avl_node, avl_insert, (avl_tree * root, avl_node *node, tree_compare_fn compare),
             (root, node, compare))

// For functions that return NULL and put their code in `*error`.
#define ERROR_GATE(function, parameters, arguments)                   \
    static kit::gate<decltype(&function)> gate_##function(#function); \
    extern "C" void *function parameters {                            \
        const cerrno code = gate_##function.refusal();                \
        if (code == 0) {                                              \
            return gate_##function.behind arguments;                  \
        }                                                             \
        *error = code;                                                \
        return nullptr;                                               \
    }

ERROR_GATE(ip6mc_gtrie_platform_init, (const ip6mc_gtrie_params_t *params, cerrno *error),
           (params, error))
ERROR_GATE(ip6mc_gtrie_platform_lookup_exact,
           (void *handle, const uint8_t *key, uint32_t length, cerrno *error),
           (handle, key, length, error))
ERROR_GATE(ip6mc_gtrie_platform_first_leaf,
           (void *handle, const uint8_t *key, uint32_t length, cerrno *error),
           (handle, key, length, error))
ERROR_GATE(ip6mc_gtrie_platform_next_leaf, (void *handle, void *leaf, cerrno *error),
           (handle, leaf, error))
ERROR_GATE(ip6mc_gtrie_platform_less_specific_of_leaf, (void *handle, void *leaf, cerrno *error),
           (handle, leaf, error))

GATE(fib_obj_id_domain_params_init,
     (fib_obj_id_domain_params_t * *params, fib_obj_id_mem_alloc_fn alloc,
      fib_obj_id_mem_free_fn release),
     (params, alloc, release))
GATE(fib_obj_id_params_init, (fib_obj_id_params_t * *params), (params))
GATE(fib_obj_id_params_set_id_cnt, (fib_obj_id_params_t * params, uint64_t count), (params, count))
GATE(fib_obj_id_params_set_id_table_size, (fib_obj_id_params_t * params, uint32_t entries),
     (params, entries))
GATE(fib_obj_id_params_set_id_instance_cnt, (fib_obj_id_params_t * params, uint32_t count),
     (params, count))
GATE(fib_obj_id_params_set_id_version_cnt, (fib_obj_id_params_t * params, uint32_t count),
     (params, count))
GATE(fib_obj_id_params_set_id_userdata_cnt, (fib_obj_id_params_t * params, uint32_t count),
     (params, count))
GATE(fib_obj_id_params_set_mem_alloc_fn, (fib_obj_id_params_t * params, fib_obj_id_mem_alloc_fn fn),
     (params, fn))
GATE(fib_obj_id_params_set_mem_free_fn, (fib_obj_id_params_t * params, fib_obj_id_mem_free_fn fn),
     (params, fn))
// The type of a function that checks formats is no template argument: the gate holds another one,
// and the call is made by the right one.
#define DEBUG_FN_GATE(function)                                                             \
    static kit::gate<cerrno (*)(fib_obj_id_params_t *, void *)> gate_##function(#function); \
    extern "C" cerrno function(fib_obj_id_params_t *params, fib_obj_id_dbg_fn fn) {         \
        const cerrno code = gate_##function.refusal();                                      \
        const auto behind = reinterpret_cast<decltype(&function)>(gate_##function.behind);  \
        return code != 0 ? code : behind(params, fn);                                       \
    }
DEBUG_FN_GATE(fib_obj_id_params_set_dbg_fn)
DEBUG_FN_GATE(fib_obj_id_params_set_dbg_err_fn)
GATE(fib_obj_id_domain_init,
     (const fib_obj_id_domain_params_t *domain_params, const fib_obj_id_params_t *params,
      fib_obj_id_domain_t **domain),
     (domain_params, params, domain))
GATE(fib_obj_id_alloc,
     (fib_obj_id_domain_t * domain, uint64_t *id, void *object, uint32_t userdata),
     (domain, id, object, userdata))
GATE(fib_obj_id_free, (fib_obj_id_domain_t * domain, uint64_t id), (domain, id))
