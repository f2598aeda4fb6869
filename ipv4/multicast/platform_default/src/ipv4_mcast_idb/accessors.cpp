// Small questions and settings of one interface.
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "services/imc/imc.h"
#include "services/journal/journal.h"

extern "C" {

cerrno ip6mc_idb_set_name(ipv4mc_idb_st *idb, const char *name) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? mlib::idb_require(idb, "Null idb_p pointer") : rc;
    rc = rc == 0 ? mlib::idb_require(name, "Null name") : rc;
    if (rc != 0) {
        return rc;
    }
    char padded[IPV4MC_IDB_NAME_SIZE] = {};
    std::memcpy(padded, name, strnlen(name, sizeof(padded)));
    const mfwd6::journal::group change;
    mfwd6::journal::copy(idb->name, padded, sizeof(padded));
    return 0;
}

const char *ip6mc_idb_display_name(const ipv4mc_idb_st *idb) {
    static char buffer[IPV4MC_IDB_NAME_SIZE];
    if (idb == nullptr) {
        return "Unknown";
    }
    // Names of interfaces that are not known yet need no asking; a real name that begins so passes
    // as it is.
    if (strncmp(idb->name, "Ha", 2) == 0) {
        return idb->name;
    }
    return imc_display_namestring(idb->name, buffer, sizeof(buffer), 1);
}

cerrno ip6mc_idb_get_type(const ipv4mc_idb_st *idb, uint32_t *type_p) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? mlib::idb_require(idb, "NULL IDB") : rc;
    rc = rc == 0 ? mlib::idb_require(type_p, "NULL type") : rc;
    if (rc == 0) {
        *type_p = idb->type;
    }
    return rc;
}

// The platform is told; what the record says stays, on purpose: it is the kind that the handle has.
cerrno ip6mc_idb_set_type(ipv4mc_idb_st *idb, uint32_t, uint32_t type) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? mlib::idb_require(idb, "Null idb_p pointer") : rc;
    if (rc != 0) {
        return rc;
    }
    ipv4mc_idb_op_spec_st op_spec{};
    rc = ip6mc_platform_idb_operation_wrapper(IPV4MC_IDB_OP_SPEC_INIT, idb, nullptr, &op_spec);
    if (rc != 0) {
        MLIB_ERR("Failed to set OP SPEC for %s : %s", ip6mc_idb_display_name(idb),
                 cerr_strerror(rc));
        return rc;
    }
    op_spec.type = type;
    rc = ip6mc_platform_idb_operation_wrapper(IPV4MC_IDB_OP_TYPE_SET, idb, nullptr, &op_spec);
    if (rc != 0) {
        MLIB_ERR("Failed to set the IDB type in HW for %s : %s", ip6mc_idb_display_name(idb),
                 cerr_strerror(rc));
    }
    return rc;
}

// Tells the state before the present one, on purpose: callers have always got that.
cerrno ip6mc_idb_get_state(uint32_t *state_p, uint32_t *platform_state_p) {
    if (const cerrno rc = mlib::idb_require(state_p, "NULL state_p"); rc != 0) {
        return rc;
    }
    if (platform_state_p != nullptr) {
        ipv4mc_idb_op_spec_st op_spec{};
        cerrno rc = ip6mc_platform_idb_operation_wrapper(IPV4MC_IDB_OP_SPEC_INIT, nullptr, nullptr,
                                                         &op_spec);
        if (rc == 0) {
            rc = ip6mc_platform_idb_operation_wrapper(IPV4MC_IDB_OP_GET_STATE, nullptr, nullptr,
                                                      &op_spec);
        }
        if (rc != 0) {
            MLIB_ERR("Error while getting platform IDB state: %s", cerr_strerror(rc));
            return rc;
        }
        *platform_state_p = op_spec.state;
    }
    *state_p = ipv4mc_desc->prev_idb_state;
    return 0;
}

int ipmc_idb_print_fn(void *node, void *) {
    const auto *idb = static_cast<const ipv4mc_idb_st *>(ipmc_idb_wavl2idb(node));
    MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "%s-%d: idb 0x%x, v 0x%x, vt %c", __func__, __LINE__, idb->ifh,
                    idb->vrf_id, idb->vtable != nullptr ? 'Y' : 'N');
    return 1;
}

}  // extern "C"
