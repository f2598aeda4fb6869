// Records of interfaces that stand on no route: held, given back, named, made a bundle.
#include <string>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "services/journal/journal.h"
#include "tests/crash/workload/step.h"

namespace crash {
namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

std::string name_of_interface(ifhtype ifh, uint32_t number) {
    return "Gi0/0/" + std::to_string(number) + "/" + std::to_string(ifh);
}

void put_into_name_thread(ipv4mc_idb_st *idb, const std::string &name) {
    const group change;
    ip6mc_idb_set_name(idb, name.c_str());
    ip6mc_idb_insert_in_name_tree(idb);
    store(idb->tree_flags, static_cast<uint8_t>(idb->tree_flags | IPV4MC_IDB_TREE_NAME));
}

void take_out_of_name_thread(ipv4mc_idb_st *idb) {
    const group change;
    ip6mc_idb_delete_from_name_tree(idb);
    store(idb->tree_flags, static_cast<uint8_t>(idb->tree_flags & ~IPV4MC_IDB_TREE_NAME));
}

}  // namespace

// References by handle and by name, given back at once or with a later step.
void step::hold_interfaces() {
    const ifhtype ifh = first_other_ifh + number(other_interfaces);
    change(operation::other, 0, [&] {
        ipv4mc_idb_st *idb = nullptr;
        ip6mc_idb_lookup(ifh, &idb);
        if (idb != nullptr && idb->refcount != 0 && number(2) == 0) {
            ipv4mc_idb_save_unlock(&idb, static_cast<int>(number(2)));
            return;
        }
        switch (number(6)) {
            case 0:
                ip6mc_idb_lock(ifh, &idb, nullptr);
                break;
            case 1:
                ip6mc_idb_lock_v2(ifh, 0, &idb, nullptr);
                break;
            case 2:
                ip6mc_idb_find_or_create(ifh, 0, &idb, nullptr, 1);
                break;
            case 3:
                if (idb != nullptr) {
                    ip6mc_idb_lock_idb(&idb);
                }
                break;
            case 4:
                if (idb != nullptr) {
                    ip6mc_idb_set_type(idb, 0, number(idb_type_always_local));
                }
                break;
            default:
                ip6mc_idb_lock_v3(ifh, name_of_interface(ifh, 0).c_str(), &idb, nullptr);
        }
    });
}

// The interface manager gives an interface another name.
void step::rename_interface() {
    const ifhtype ifh = first_other_ifh + number(other_interfaces);
    ipv4mc_idb_st *idb = nullptr;
    ip6mc_idb_lookup(ifh, &idb);
    if (idb == nullptr) {
        return hold_interfaces();
    }
    change(operation::other, 0, [&] {
        if ((idb->tree_flags & IPV4MC_IDB_TREE_NAME) != 0) {
            take_out_of_name_thread(idb);
        }
        if (number(4) != 0) {
            put_into_name_thread(idb, name_of_interface(ifh, number(3)));
        }
    });
}

// A bundle that is held as long as it has members.
void step::change_members() {
    change(operation::other, 0, [&] {
        ipv4mc_idb_st *bundle = nullptr;
        ip6mc_idb_lookup(bundle_ifh, &bundle);
        if (bundle == nullptr) {
            ip6mc_idb_lock(bundle_ifh, &bundle, nullptr);
        } else if (bundle->bundle_members == nullptr && bundle->refcount != 0 && number(3) == 0) {
            ip6mc_idb_unlock(&bundle);
        } else if (bundle->bundle_members == nullptr) {
            give_members(bundle);
        } else {
            take_members(bundle);
        }
    });
}

}  // namespace crash
