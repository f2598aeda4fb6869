#include <cstdlib>
#include <mutex>

#include "services/objid/domain.h"

namespace mfwd6::objid {
namespace {

// A domain that was reset under its users leaves its entry behind; one built later at the same
// address takes it over.
struct known_domain {
    const fib_obj_id_domain *domain;
    functions given;
    known_domain *next;
};

constinit std::mutex lock;
constinit known_domain *known = nullptr;

// With `lock` held.
known_domain **find(const fib_obj_id_domain *domain) {
    known_domain **at = &known;
    while (*at != nullptr && (*at)->domain != domain) {
        at = &(*at)->next;
    }
    return at;
}

}  // namespace

functions functions_of(const fib_obj_id_domain *domain) {
    const std::lock_guard hold(lock);
    const known_domain *const k = *find(domain);
    return k != nullptr ? k->given : functions{};
}

bool functions_set(const fib_obj_id_domain *domain, const functions &given) {
    const std::lock_guard hold(lock);
    known_domain **const at = find(domain);
    if (*at == nullptr) {
        *at = static_cast<known_domain *>(calloc(1, sizeof(known_domain)));
        if (*at == nullptr) {
            return false;
        }
        (*at)->domain = domain;
    }
    (*at)->given = given;
    return true;
}

void functions_forget(const fib_obj_id_domain *domain) {
    const std::lock_guard hold(lock);
    known_domain **const at = find(domain);
    if (*at != nullptr) {
        known_domain *const gone = *at;
        *at = gone->next;
        free(gone);
    }
}

functions functions_from(const fib_obj_id_domain_params *domain_params,
                         const fib_obj_id_params *params) {
    return {params->alloc != nullptr ? params->alloc : domain_params->alloc,
            params->free != nullptr ? params->free : domain_params->free, params->dbg, params->err};
}

cerrno fail(const functions &f, cerrno code, const char *what, uint64_t number) {
    if (f.err != nullptr) {
        f.err("%s (0x%llx): code 0x%x", what, static_cast<unsigned long long>(number), code);
    }
    return code;
}

}  // namespace mfwd6::objid
