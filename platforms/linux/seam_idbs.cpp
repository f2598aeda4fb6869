// Interfaces of the router. Bundles, VLANs and tunnels are links of the kernel, which knows itself
// what lies underneath.
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/linux/interfaces.h"
#include "platforms/linux/life.h"
#include "platforms/linux/messages.h"
#include "platforms/linux/program.h"
#include "platforms/linux/tables.h"

using namespace mfwd6::lnx;

namespace {

constexpr ipv4mc_idb_op needs_no_idb =
    IPV4MC_IDB_OP_INIT | IPV4MC_IDB_OP_GET_STATE | IPV4MC_IDB_OP_SPEC_INIT;
constexpr ipv4mc_idb_op needs_spec = needs_no_idb | IPV4MC_IDB_OP_TYPE_SET;

cerrno library_action(ipv4mc_idb_op action, ipv4mc_idb_op_spec_st &spec) {
    if (action == IPV4MC_IDB_OP_SPEC_INIT) {
        spec = {};
    } else if (action == IPV4MC_IDB_OP_INIT) {
        self().idb_callback = spec.callback;
    } else {
        spec.state =
            self().descriptor != nullptr ? IPV4MC_PLATFORM_STATE_READY : IPV4MC_PLATFORM_STATE_DOWN;
    }
    return 0;
}

uint32_t table_of(const ipv4mc_idb_st &idb) {
    const ipv4mc_table_st *vrf = idb.vtable;
    if (vrf == nullptr) {
        return self().descriptor->default_tid;
    }
    return vrf->tid_table != nullptr ? vrf->tid_table->tid : vrf->tid;
}

cerrno enable(interface &i, uint32_t tid) {
    const uint32_t before = i.enabled_tid;
    i.enabled_tid = tid;
    const cerrno failed = settle_interface(i.ifh);
    if (failed != 0) {
        i.enabled_tid = before;
        (void)settle_interface(i.ifh);
    }
    return failed;
}

void set_ttl(interface &i, const ipv4mc_idb_st &idb) {
    i.ttl = idb.ttl;
    if (idb.ttl > 1) {
        tell_ttl_not_enforced(ip6mc_idb_display_name(&idb), idb.ttl);
    }
}

// What the library said about the interface ends with its record; what the program said stays.
void destroyed(interface &i) {
    (void)enable(i, 0);
    i.ttl = 0;
    if (i.boundary_acl != nullptr) {
        set_boundary_acl(i, nullptr);
        reprogram_all();
    }
    if (i.set_tid == 0 && i.prefix_count == 0) {
        forget_interface(i.ifh);
    }
}

}  // namespace

cerrno ip6mc_platform_idb_operation(ipv4mc_idb_op action, ipv4mc_idb_st *idb_a,
                                    ipv4mc_idb_st *idb_b, ipv4mc_idb_op_spec_st *op_spec) {
    (void)idb_b;
    if (((action & needs_spec) != 0 && op_spec == nullptr) ||
        ((action & needs_no_idb) == 0 && idb_a == nullptr)) {
        return EINVAL;
    }
    if ((action & needs_no_idb) != 0) {
        return library_action(action, *op_spec);
    }
    constexpr ipv4mc_idb_op says_something =
        IPV4MC_IDB_OP_BOUNDARY_UPDATE | IPV4MC_IDB_OP_TTL_SET | IPV4MC_IDB_OP_ENABLE;
    interface *i =
        (action & says_something) != 0 ? make_interface(idb_a->ifh) : find_interface(idb_a->ifh);
    if (i == nullptr) {
        return (action & says_something) != 0 ? ENOMEM : 0;
    }
    switch (action) {
        case IPV4MC_IDB_OP_BOUNDARY_UPDATE:
        case IPV4MC_IDB_OP_BOUNDARY_DELETE:
            set_boundary_acl(
                *i, action == IPV4MC_IDB_OP_BOUNDARY_UPDATE ? idb_a->boundary_acl : nullptr);
            reprogram_all();
            return 0;
        case IPV4MC_IDB_OP_TTL_SET:
            set_ttl(*i, *idb_a);
            return 0;
        case IPV4MC_IDB_OP_ENABLE:
            return enable(*i, table_of(*idb_a));
        case IPV4MC_IDB_OP_DISABLE:
            return enable(*i, 0);
        case IPV4MC_IDB_OP_DESTROY:
            destroyed(*i);
            return 0;
        default:
            return 0;
    }
}
