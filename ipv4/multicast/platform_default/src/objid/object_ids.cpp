// Object ids: the hardware's way back to a route or interface, long after the call that made it.
// They exist only on routers with asynchronous error handling; elsewhere every allocation succeeds
// and allocates nothing.
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "services/journal/journal.h"
#include "services/objid/obj_id.h"

namespace {

// Copy of the support flag, taken when the domain is initialised.
uint32_t ida_enabled = 0;

bool is_valid(uint64_t id) {
    return id < IPMC_OBJ_ID_NONE;
}

const char *or_null(const void *pointer, const char *there) {
    return pointer != nullptr ? there : "NULL";
}

void *allocate(size_t count, size_t size) {
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        return nullptr;
    }
    return ipv4mc_shmwin_malloc_inline(bytes, IPMC_SHMWIN_ALLOC_OBJ_ID);
}

void release(void *block) {
    if (ida_enabled != 0) {
        ipv4mc_shmwin_free_inline(block, IPMC_SHMWIN_ALLOC_OBJ_ID);
    }
}

struct service_text {
    char text[255];
};

__attribute__((format(printf, 1, 0))) service_text formatted(const char *format,
                                                             va_list arguments) {
    service_text result{};
    vsnprintf(result.text, sizeof(result.text), format, arguments);
    return result;
}

__attribute__((format(printf, 1, 2))) void tell_debug(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const service_text message = formatted(format, arguments);
    va_end(arguments);
    MLIB_DEBUG(IPV4_DEBUG_OBJ_ID, "%s:%d Debug: %s", __func__, __LINE__, message.text);
}

__attribute__((format(printf, 1, 2))) void tell_error(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const service_text message = formatted(format, arguments);
    va_end(arguments);
    MLIB_ERR("%s:%d Error: %s", __func__, __LINE__, message.text);
}

// 0 with the domain, which is null until it was built.
cerrno ipmc_object_ida_get_domain(fib_obj_id_domain_t **domain) {
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    const cerrno rc = ip6mc_shmwin_get_info(&hdr);
    if (rc != 0 || hdr == nullptr) {
        MLIB_ERR("ipmc_object_ida_get_domain failed: %p rc= %s", static_cast<void *>(hdr),
                 cerr_strerror(rc));
        return ENOENT;
    }
    *domain = hdr->obj_id_domain;
    return 0;
}

#define REPORTED(call, text)                     \
    ([&] {                                       \
        const cerrno code = (call);              \
        if (code != 0) {                         \
            MLIB_ERR(text, cerr_strerror(code)); \
        }                                        \
        return code;                             \
    }())

cerrno set_callbacks(fib_obj_id_params_t *params) {
    cerrno rc = REPORTED(fib_obj_id_params_set_dbg_fn(params, tell_debug),
                         "fib_obj_id_params_set_dbg_fn failed: rc = %s");
    if (rc == 0) {
        rc = REPORTED(fib_obj_id_params_set_dbg_err_fn(params, tell_error),
                      "fib_obj_id_params_set_dbg_err_fn failed: rc = %s");
    }
    if (rc == 0) {
        rc = REPORTED(fib_obj_id_params_set_mem_alloc_fn(params, allocate),
                      "fib_obj_id_params_set_mem_alloc_fn failed: rc = %s");
    }
    if (rc == 0) {
        rc = REPORTED(fib_obj_id_params_set_mem_free_fn(params, release),
                      "fib_obj_id_params_set_mem_free_fn failed: rc = %s");
    }
    return rc;
}

cerrno set_shape(fib_obj_id_params_t *params) {
    cerrno rc = REPORTED(fib_obj_id_params_set_id_cnt(params, IPMC_OBJ_ID_COUNT),
                         "fib_obj_id_params_set_id_cnt failed: rc = %s");
    if (rc == 0) {
        rc = REPORTED(fib_obj_id_params_set_id_table_size(params, IPMC_OBJ_ID_TABLE_SIZE),
                      "fib_obj_id_params_set_id_table_size failed: rc = %s");
    }
    if (rc == 0) {
        rc = REPORTED(fib_obj_id_params_set_id_instance_cnt(params, IPMC_OBJ_ID_INSTANCES),
                      "fib_obj_id_params_set_id_instance_cnt failed: rc = %s");
    }
    if (rc == 0) {
        rc = REPORTED(fib_obj_id_params_set_id_version_cnt(params, IPMC_OBJ_ID_VERSIONS),
                      "fib_obj_id_params_set_id_version_cnt failed: rc = %s");
    }
    if (rc == 0) {
        rc = REPORTED(fib_obj_id_params_set_id_userdata_cnt(params, IPMC_OBJ_ID_USERDATA),
                      "fib_obj_id_params_set_id_userdata_cnt failed: rc = %s");
    }
    return rc;
}

cerrno build_domain(const fib_obj_id_domain_params_t *domain_params, fib_obj_id_params_t *params,
                    ipv4mc_shmwin_hdr_st *hdr) {
    cerrno rc = set_shape(params);
    if (rc != 0) {
        return rc;
    }
    const mfwd6::journal::group change;
    fib_obj_id_domain_t *domain = nullptr;
    rc = REPORTED(fib_obj_id_domain_init(domain_params, params, &domain),
                  "fib_obj_id_domain_init failed: rc = %s");
    if (rc == 0) {
        mfwd6::journal::publish(hdr->obj_id_domain, domain);
        _ltrace(ip6mc_mlib_objid_ltrace(), MLIB_TRACE_OBJ_ID_BUILT);
    }
    return rc;
}

cerrno connect_domain(const fib_obj_id_domain_params_t *domain_params, ipv4mc_shmwin_hdr_st *hdr) {
    fib_obj_id_params_t *params = nullptr;
    cerrno rc = REPORTED(fib_obj_id_params_init(&params), "fib_obj_id_params_init failed: rc = %s");
    if (rc != 0) {
        return rc;
    }
    rc = set_callbacks(params);
    if (rc == 0) {
        rc = hdr->obj_id_domain != nullptr
                 ? fib_obj_id_domain_reinit(domain_params, params, hdr->obj_id_domain)
                 : build_domain(domain_params, params, hdr);
    }
    fib_obj_id_params_free(params);
    return rc;
}

// What comes before both questions to the service; 0 with the domain.
cerrno check_question(const void *output, uint64_t id, fib_obj_id_domain_t **domain,
                      const char *function, int line) {
    if (output == nullptr) {
        mlib::report_error(function, line, "Object pointer is NULL");
        return EINVAL;
    }
    if (!is_valid(id)) {
        mlib::report_error(function, line, "Invalid/Unspecified Object ID = %lx", id);
        return EINVAL;
    }
    const cerrno rc = ipmc_object_ida_get_domain(domain);
    if (rc != 0 || *domain == nullptr) {
        mlib::report_error(function, line,
                           "Object ID allocation failed get domain error, %s rc = %s",
                           or_null(*domain, "OK"), cerr_strerror(rc));
        return ENOENT;
    }
    return 0;
}

}  // namespace

extern "C" {

cerrno ipmc_object_ida_init_domain(void) {
    ida_enabled = ipmc_platform_get_async_oor_support();
    if (ida_enabled == 0) {
        _ltrace(ip6mc_mlib_objid_ltrace(), MLIB_TRACE_OBJ_ID_OFF);
        return 0;
    }
    _ltrace(ip6mc_mlib_objid_ltrace(), MLIB_TRACE_OBJ_ID_ON);
    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    cerrno rc = ip6mc_shmwin_get_info(&hdr);
    if (rc != 0 || hdr == nullptr) {
        MLIB_ERR("Can not get shared memory info: rc: %s", cerr_strerror(rc));
        return rc;
    }
    fib_obj_id_domain_params_t *domain_params = nullptr;
    rc = REPORTED(fib_obj_id_domain_params_init(&domain_params, allocate, release),
                  "domain params init failed: rc = %s");
    if (rc != 0) {
        return rc;
    }
    rc = connect_domain(domain_params, hdr);
    fib_obj_id_domain_params_free(domain_params);
    return rc;
}

cerrno ipmc_object_ida_alloc(void *object, uint32_t type, uint64_t *id) {
    if (id == nullptr) {
        MLIB_ERR("Object ID allocation failed - obj_id is NULL");
        return EINVAL;
    }
    if (object == nullptr) {
        MLIB_ERR("Object ID allocation failed - Object is NULL");
        *id = IPMC_OBJ_ID_UNSPECIFIED;
        return EINVAL;
    }
    if (type != IPMC_OBJ_ROUTE && type != IPMC_OBJ_INTF) {
        MLIB_ERR("Object ID allocation failed for Object [0x%p],Object type %d is invalid", object,
                 static_cast<int>(type));
        *id = IPMC_OBJ_ID_UNSPECIFIED;
        return EINVAL;
    }
    fib_obj_id_domain_t *domain = nullptr;
    cerrno rc = ipmc_object_ida_get_domain(&domain);
    if (rc != 0 || domain == nullptr) {
        // For a domain that was never built the code is 0: the caller is not told.
        MLIB_ERR("Object ID allocation failed get domain error, %s rc = %s", or_null(domain, "OK"),
                 cerr_strerror(rc));
        *id = IPMC_OBJ_ID_UNSPECIFIED;
        return rc;
    }
    rc = fib_obj_id_alloc(domain, id, object, type);
    if (rc != 0) {
        MLIB_ERR("Object ID allocation failed for Object [0x%lx], rc = %s",
                 reinterpret_cast<unsigned long>(object), cerr_strerror(rc));
        *id = IPMC_OBJ_ID_UNSPECIFIED;
    }
    return rc;
}

cerrno ipmc_object_ida_alloc_route(ipv4mc_route_entry_st *route) {
    if (ida_enabled == 0) {
        return 0;
    }
    const mfwd6::journal::group change;
    uint64_t id = 0;
    const cerrno rc = ipmc_object_ida_alloc(route, IPMC_OBJ_ROUTE, &id);
    mfwd6::journal::store(route->obj_id, id);
    return rc;
}

cerrno ipmc_object_ida_alloc_intf(ipv4mc_intf_entry_st *intf) {
    if (ida_enabled == 0) {
        return 0;
    }
    const mfwd6::journal::group change;
    uint64_t id = 0;
    const cerrno rc = ipmc_object_ida_alloc(intf, IPMC_OBJ_INTF, &id);
    mfwd6::journal::store(intf->obj_id, id);
    return rc;
}

// Silent for an id that is not valid: freeing twice is harmless.
cerrno ipmc_object_ida_free(uint64_t *id) {
    if (id == nullptr || !is_valid(*id)) {
        return EINVAL;
    }
    fib_obj_id_domain_t *domain = nullptr;
    cerrno rc = ipmc_object_ida_get_domain(&domain);
    if (rc != 0 || domain == nullptr) {
        MLIB_ERR("Object ID free failed get domain error, Domain %s rc = %s",
                 or_null(domain, "Exists"), cerr_strerror(rc));
        return rc;
    }
    MLIB_DEBUG(IPV4_DEBUG_DEV, "Free ID = 0x%lx", *id);
    const mfwd6::journal::group change;
    rc = fib_obj_id_free(domain, *id);
    if (rc != 0) {
        MLIB_ERR("Object ID free failed for ID = %lx, rc = %s", *id, cerr_strerror(rc));
        return rc;
    }
    mfwd6::journal::store(*id, IPMC_OBJ_ID_NONE);
    return 0;
}

cerrno ipmc_object_ida_get_object_from_id(uint64_t id, void **object) {
    fib_obj_id_domain_t *domain = nullptr;
    cerrno rc = check_question(object, id, &domain, __func__, __LINE__);
    if (rc != 0) {
        return rc;
    }
    rc = fib_obj_id_get_object_from_id(domain, id, object, nullptr);
    if (rc != 0) {
        MLIB_ERR("Get Object from ID failed for ID = %lx, rc = %s", id, cerr_strerror(rc));
    }
    return rc;
}

cerrno ipmc_object_ida_get_type_from_id(uint64_t id, uint32_t *type) {
    fib_obj_id_domain_t *domain = nullptr;
    const cerrno rc = check_question(type, id, &domain, __func__, __LINE__);
    return rc != 0 ? rc
                   : fib_obj_id_decode(domain, id, nullptr, type, nullptr, nullptr, nullptr,
                                       nullptr, nullptr);
}

cerrno ipmc_obj_get_from_id(uint64_t id, uint32_t type, void **object) {
    uint32_t found = 0;
    const cerrno rc = ipmc_object_ida_get_type_from_id(id, &found);
    if (rc != 0) {
        MLIB_ERR("%s:%d - Failed to determine object type for 0x%lx, rc:%s", __func__, __LINE__, id,
                 cerr_strerror(rc));
        return rc;
    }
    if (found != type) {
        MLIB_ERR("%s:%d - Object type mismatch 0x%lx - type:%d", __func__, __LINE__, id,
                 static_cast<int>(found));
        return EINVAL;
    }
    return ipmc_object_ida_get_object_from_id(id, object);
}

cerrno ipmc_route_get_from_id(uint64_t id, ipv4mc_route_entry_st **route) {
    return ipmc_obj_get_from_id(id, IPMC_OBJ_ROUTE, reinterpret_cast<void **>(route));
}

cerrno ip6mc_intf_get_from_id(uint64_t id, ipv4mc_intf_entry_st **intf) {
    return ipmc_obj_get_from_id(id, IPMC_OBJ_INTF, reinterpret_cast<void **>(intf));
}

}  // extern "C"
