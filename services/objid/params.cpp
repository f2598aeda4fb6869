#include <cerrno>
#include <cstdlib>

#include "services/objid/domain.h"

// Sets one field of the parameters if `good`.
template <class T>
static cerrno set(fib_obj_id_params_t *params, T fib_obj_id_params::*field, T value, bool good) {
    if (params == nullptr || !good) {
        return EINVAL;
    }
    params->*field = value;
    return 0;
}

cerrno fib_obj_id_domain_params_init(fib_obj_id_domain_params_t **params,
                                     fib_obj_id_mem_alloc_fn alloc,
                                     fib_obj_id_mem_free_fn free_fn) {
    if (params == nullptr) {
        return EINVAL;
    }
    *params = nullptr;
    if (alloc == nullptr || free_fn == nullptr) {
        return EINVAL;
    }
    auto *const made = static_cast<fib_obj_id_domain_params *>(malloc(sizeof **params));
    if (made == nullptr) {
        return ENOMEM;
    }
    *made = {alloc, free_fn};
    *params = made;
    return 0;
}

cerrno fib_obj_id_domain_params_free(fib_obj_id_domain_params_t *params) {
    if (params == nullptr) {
        return EINVAL;
    }
    free(params);
    return 0;
}

cerrno fib_obj_id_params_init(fib_obj_id_params_t **params) {
    if (params == nullptr) {
        return EINVAL;
    }
    *params = static_cast<fib_obj_id_params *>(calloc(1, sizeof **params));
    return *params != nullptr ? 0 : ENOMEM;
}

cerrno fib_obj_id_params_free(fib_obj_id_params_t *params) {
    if (params == nullptr) {
        return EINVAL;
    }
    free(params);
    return 0;
}

cerrno fib_obj_id_params_set_id_cnt(fib_obj_id_params_t *params, uint64_t count) {
    return set(params, &fib_obj_id_params::ids, count, count >= 1 && count <= uint64_t{1} << 32);
}

cerrno fib_obj_id_params_set_id_table_size(fib_obj_id_params_t *params, uint32_t entries) {
    const bool good = entries >= 16 && entries <= 65536 && (entries & (entries - 1)) == 0;
    return set(params, &fib_obj_id_params::table_size, entries, good);
}

cerrno fib_obj_id_params_set_id_instance_cnt(fib_obj_id_params_t *params, uint32_t count) {
    return set(params, &fib_obj_id_params::instances, count, count >= 1 && count <= 1U << 20);
}

cerrno fib_obj_id_params_set_id_version_cnt(fib_obj_id_params_t *params, uint32_t count) {
    return set(params, &fib_obj_id_params::versions, count, count >= 1 && count <= 1U << 20);
}

cerrno fib_obj_id_params_set_id_userdata_cnt(fib_obj_id_params_t *params, uint32_t count) {
    return set(params, &fib_obj_id_params::userdata, count, count >= 1 && count <= 256);
}

cerrno fib_obj_id_params_set_mem_alloc_fn(fib_obj_id_params_t *params, fib_obj_id_mem_alloc_fn fn) {
    return set(params, &fib_obj_id_params::alloc, fn, fn != nullptr);
}

cerrno fib_obj_id_params_set_mem_free_fn(fib_obj_id_params_t *params, fib_obj_id_mem_free_fn fn) {
    return set(params, &fib_obj_id_params::free, fn, fn != nullptr);
}

cerrno fib_obj_id_params_set_dbg_fn(fib_obj_id_params_t *params, fib_obj_id_dbg_fn fn) {
    return set(params, &fib_obj_id_params::dbg, fn, true);
}

cerrno fib_obj_id_params_set_dbg_err_fn(fib_obj_id_params_t *params, fib_obj_id_dbg_fn fn) {
    return set(params, &fib_obj_id_params::err, fn, true);
}
