// Tables: the table-id side is a kernel table, the VRF side is a name for it.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/linux/life.h"
#include "platforms/linux/tables.h"

using namespace mfwd6::lnx;

namespace {

bool fault_armed(ipv4mc_action_type action) {
    return (action == IPV4MC_ACTION_CREATE && fim_armed(mlib_fim_hdl, MLIB_FAULT_TABLE_CREATE)) ||
           (action == IPV4MC_ACTION_COMMIT && fim_armed(mlib_fim_hdl, MLIB_FAULT_TABLE_COMMIT));
}

bool is_vrf_side(uint32_t tid, const ipv4mc_table_st *record) {
    return record != nullptr ? record->table_type == IPV4MC_TABLE_VRF : tid == 0;
}

}  // namespace

cerrno ip6mc_platform_table_operation(ipv4mc_action_type action, uint32_t tid, rsi_vrf_id_t vrf_id,
                                      const char *vrf_name, ipv4mc_table_st **table_pp,
                                      int is_new) {
    (void)vrf_id;
    (void)vrf_name;
    (void)is_new;
    if (!owner_started()) {
        return EBADF;
    }
    if (fault_armed(action)) {
        return EAGAIN;
    }
    const ipv4mc_table_st *record = table_pp != nullptr ? *table_pp : nullptr;
    if (is_vrf_side(tid, record)) {
        return 0;
    }
    tid = tid == 0 && record != nullptr ? record->tid : tid;
    table *t = find_table(tid);
    switch (action) {
        case IPV4MC_ACTION_CREATE:
        case IPV4MC_ACTION_COMMIT:
        case IPV4MC_ACTION_ACTIVATE:
            return ensure_table(tid, &t);
        case IPV4MC_ACTION_DELETE:
            if (t != nullptr) {
                drop_table(t);
            }
            return 0;
        default:
            return 0;
    }
}
