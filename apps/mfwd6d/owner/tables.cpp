#include "apps/mfwd6d/owner/tables.h"

#include "apps/mfwd6d/config/line.h"
#include "apps/mfwd6d/owner/window.h"
#include "ipv4/multicast/lib/ip6mc_route.h"

namespace mfwd6::daemon {
namespace {

constexpr uint32_t routes_between_yields = 1024;

}  // namespace

outcome tables::start() {
    for (ipv4mc_table_st *record = ip6mc_table_tid_get_first(); record != nullptr;
         record = ip6mc_table_tid_get_next(record->tid)) {
        // A side without a name was left by an owner that died in a deletion: it goes now.
        if (record->vtable == nullptr || record->vtable->vrf_name[0] == '\0' ||
            record->active == 0) {
            ipv4mc_table_st *left = record;
            const uint32_t tid = record->tid;
            const cerrno rc = ip6mc_table_operation(IPV4MC_ACTION_DELETE, tid, 0, nullptr, &left,
                                                    routes_between_yields);
            return rc == 0 ? start() : failure_of(rc, fmt::format("table {}, left half made", tid));
        }
        const std::string vrf = record->vtable->vrf_name;
        tables_[vrf] = {vrf, record->tid, record};
    }
    return find(config::default_vrf) != nullptr
               ? outcome{}
               : activate(config::default_vrf, default_tid, default_vrf_id);
}

table *tables::find(std::string_view vrf) {
    if (last_ != nullptr && last_->vrf == vrf) {
        return last_;
    }
    const auto at = tables_.find(vrf);
    if (at == tables_.end()) {
        return nullptr;
    }
    last_ = &at->second;
    return last_;
}

outcome tables::activate(const std::string &vrf, uint32_t tid, uint32_t vrf_id) {
    ipv4mc_table_st *record = nullptr;
    cerrno rc = ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, vrf_id, vrf.c_str(), &record, 0);
    if (rc == 0 && (record == nullptr || record->tid_table == nullptr)) {
        rc = ENOENT;
    }
    if (rc != 0) {
        if (record != nullptr) {
            ip6mc_table_operation(IPV4MC_ACTION_DELETE, tid, vrf_id, vrf.c_str(), &record,
                                  routes_between_yields);
        }
        return failure_of(rc, "table " + vrf);
    }
    tables_[vrf] = {vrf, tid, record->tid_table};
    return {};
}

outcome tables::add(std::string_view vrf, uint32_t table_id) {
    if (const table *there = find(vrf)) {
        return there->tid == table_id
                   ? outcome{}
                   : failure(EEXIST, fmt::format("VRF {} has table {} already", vrf,
                                                 there->tid == default_tid ? 0 : there->tid));
    }
    for (const auto &[name, other] : tables_) {
        if (other.tid == table_id) {
            return failure(EEXIST, fmt::format("table {} is that of VRF {}", table_id, name));
        }
    }
    return activate(std::string(vrf), table_id, vrf_id_of(table_id));
}

outcome tables::erase(std::string_view vrf) {
    table *gone = find(vrf);
    if (gone == nullptr) {
        return failure(ENOENT, fmt::format("there is no VRF {}", vrf));
    }
    if (gone->tid == default_tid) {
        return failure(EINVAL, "the VRF \"default\" is always there");
    }
    ipv4mc_table_st *record = gone->record;
    uint32_t kept = 0;
    ip6mc_route_delete_all(record, routes_between_yields, 0, 0, &kept);
    const cerrno rc =
        ip6mc_table_operation(IPV4MC_ACTION_DELETE, 0, 0, nullptr, &record, routes_between_yields);
    if (rc != 0) {
        return failure_of(rc, fmt::format("VRF {}", vrf));
    }
    last_ = nullptr;
    tables_.erase(tables_.find(vrf));
    return {};
}

}  // namespace mfwd6::daemon
