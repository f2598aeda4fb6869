#include "tests/crash/workload.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "platforms/sim/sim.h"
#include "services/journal/journal.h"
#include "services/window/inspect.h"
#include "services/window/setup.h"

namespace crash {
namespace {

constexpr uint32_t most_encaps = 4;
constexpr uint64_t route_words[] = {0, MRIB_ROUTE_IA, MRIB_ROUTE_IF, MRIB_ROUTE_IA | MRIB_ROUTE_IF,
                                    MRIB_ROUTE_DROP};
constexpr uint64_t intf_words[] = {0, MRIB_INTF_ACCEPT, MRIB_INTF_FORWARD};

template <class T, size_t N>
T one_of(generator &random, const T (&choices)[N]) {
    return choices[random() % N];
}

cerrno operate(ipv4mc_action_type action, ipv4mc_table_st *table, const route_key &k,
               ipv4mc_route_entry_st **route, int *is_new, uint64_t old = 0) {
    return ip6mc_route_operation(action, table, &k.source, &k.group, k.length, nullptr, route, old,
                                 0, is_new);
}

cerrno operate_intf(ipv4mc_action_type action, ipv4mc_route_entry_st *route, uint32_t interface,
                    ipv4mc_intf_entry_st **entry, int is_new, uint64_t old = 0) {
    return ip6mc_intf_operation(action, route->table, route, IPV4MC_INTF_ORDINARY,
                                ifh_of(interface), 0, 0, 0, entry, nullptr, 0, old, is_new);
}

// CREATE and COMMIT of a new entry; nothing where the route has it.
cerrno join(ipv4mc_route_entry_st *route, uint32_t interface, uint64_t word) {
    ipv4mc_intf_entry_st *entry = nullptr;
    cerrno rc = operate_intf(IPV4MC_ACTION_CREATE, route, interface, &entry, 1);
    if (rc != 0 || entry == nullptr) {
        if (rc != EEXIST && entry != nullptr) {
            ipv4mc_clear_intf(&entry);
        }
        return rc;
    }
    entry->attributes = word;
    rc = operate_intf(IPV4MC_ACTION_COMMIT, route, interface, &entry, 1);
    if (rc != 0 && entry != nullptr) {
        operate_intf(IPV4MC_ACTION_CLEAR, route, interface, &entry, 1);
    }
    return rc;
}

class step {
  public:
    step(generator &random, const before_operation &before) : random_(random), before_(before) {}

    void run() {
        table_ = number(tables);
        route_ = number(routes);
        interface_ = number(interfaces);
        const uint64_t dice = random_() % 1000;
        if (dice < 300) {
            add_route();
        } else if (dice < 430) {
            change_interfaces();
        } else if (dice < 560) {
            delete_route();
        } else if (dice < 600) {
            clear_route();
        } else if (dice < 690) {
            change_attributes();
        } else if (dice < 740) {
            change_table();
        } else if (dice < 800) {
            settings();
        } else if (dice < 860) {
            hold_interfaces();
        } else if (dice < 930) {
            own_signals();
        } else if (dice < 970) {
            link_routes();
        } else {
            encaps();
        }
    }

  private:
    uint32_t number(uint32_t below) { return static_cast<uint32_t>(random_() % below); }

    // Notes the operation, lets whoever waits for it do so, carries it out, and notes what became
    // of it.
    template <class Work>
    void change(operation what, uint64_t attributes, Work work) {
        in_flight &now = shared().known.now;
        arm_faults(&now);
        now.table = table_;
        now.route = route_;
        now.interface = interface_;
        now.attributes = attributes;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        now.what = what;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        before_();
        work();
        heal();
        acknowledge(what);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        now = in_flight{};
        ++shared().operations;
    }

    void arm_faults(in_flight *now) {
        now->faults = 0;
        if (number(8) == 0) {
            static constexpr sim_op ops[] = {SIM_OP_TABLE,        SIM_OP_ROUTE,
                                             SIM_OP_INTF,         SIM_OP_IDB,
                                             SIM_OP_ROUTE_UPDATE, SIM_OP_CHANGE_IF_PARENT};
            static constexpr cerrno codes[] = {EIO, ENOSPC, EAGAIN};
            sim_arm_fault(one_of(random_, ops), SIM_ANY_ACTION, number(3), 1 + number(2),
                          one_of(random_, codes));
            now->faults = 1;
        }
        if (number(12) == 0) {
            shmwin_usage usage{};
            shmwin_get_usage(ipv4mc_desc->shmwin_id, &usage);
            shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 1);  // no more than it has
            now->faults = 1;
        }
        if (number(20) == 0) {
            sim_set_capacity(IP6MC_PLATFORM_ROUTE, sim_count(IP6MC_PLATFORM_ROUTE));
            now->faults = 1;
        }
    }

    static void heal() {
        sim_clear_faults();
        sim_set_capacity(IP6MC_PLATFORM_ROUTE, SIM_NO_LIMIT);
        shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 0);
    }

    // An operation that came to its end is compared with what it may do, and taken over.
    void acknowledge(operation what) {
        world &known = shared().known;
        const in_flight op = known.now;
        for (uint32_t t = 0; t < tables; ++t) {
            if (t == table_) {
                const ipv4mc_table_st *table = find_table(t);
                known.there[t] = table != nullptr && table->active != 0;
            }
            for (uint32_t r = 0; r < routes; ++r) {
                if (!touches(op, t, r)) {
                    continue;
                }
                const route_state now = observe(t, r);
                if (!may_become(op, known.route[t][r], now)) {
                    give_up("operation " + std::to_string(static_cast<uint32_t>(what)) +
                            " made of route " + std::to_string(r) + " in " + name_of(t) + ": " +
                            text_of(known.route[t][r]) + ", " + text_of(now));
                }
                known.route[t][r] = now;
            }
        }
    }

    void expect(bool holds, const char *what) {
        if (!holds && shared().known.now.faults == 0) {
            give_up(std::string("an operation without a fault: ") + what);
        }
    }

    // The table of this step, made where it is not there. Null when that failed.
    ipv4mc_table_st *table() {
        ipv4mc_table_st *found = find_table(table_);
        return found != nullptr && found->active != 0 && found->ingress_gtrie != nullptr &&
                       found->signal_gtrie != nullptr
                   ? found
                   : nullptr;
    }

    void add_route() {
        const uint64_t word = one_of(random_, route_words);
        const uint32_t wanted = number(1U << interfaces);
        const uint64_t intf_word = one_of(random_, intf_words);
        change(operation::add_route, word, [&] {
            ipv4mc_table_st *of = table();
            if (of != nullptr) {
                make_route(of, word, wanted & number(1U << interfaces), intf_word);
            }
        });
    }

    void make_route(ipv4mc_table_st *of, uint64_t word, uint32_t wanted, uint64_t intf_word) {
        const route_key k = key_of(route_);
        ipv4mc_route_entry_st *route = nullptr;
        int is_new = 0;
        const cerrno rc = operate(IPV4MC_ACTION_CREATE, of, k, &route, &is_new);
        if (rc == EEXIST || route == nullptr) {
            return;
        }
        route->attributes = word;
        for (uint32_t i = 0; i < interfaces; ++i) {
            if ((wanted >> i & 1U) != 0) {
                join(route, i, intf_word);
            }
        }
        const cerrno committed = operate(IPV4MC_ACTION_COMMIT, of, k, &route, &is_new);
        expect(committed == 0, "a commit failed");
        // What is not published is taken apart again, as its maker must.
        if (committed != 0 && find_route(of, route_) == nullptr) {
            undo_route(of, route);
        }
    }

    void undo_route(ipv4mc_table_st *of, ipv4mc_route_entry_st *route) {
        while (route->intf_list != nullptr) {
            ipv4mc_intf_entry_st *entry = route->intf_list;
            if (operate_intf(IPV4MC_ACTION_DELETE, route, entry->key_ifh - ifh_of(0), &entry, 0) !=
                0) {
                return;  // stays, as after a death
            }
        }
        ipmc_object_ida_free(&route->obj_id);
        ipmc_platform_err_handler_clear_route_err(route);
        ip6mc_route_oper_create_fail_cleanup(of, &route, of->ingress_gtrie);
    }

    void change_interfaces() {
        ipv4mc_route_entry_st *route = find_route(table(), route_);
        if (route == nullptr) {
            return add_route();
        }
        ipv4mc_intf_entry_st *entry =
            ip6mc_intf_route_lookup(route, IPV4MC_INTF_ORDINARY, ifh_of(interface_), 0, 0);
        if (entry == nullptr) {
            const uint64_t word = one_of(random_, intf_words);
            change(operation::add_interface, word, [&] { join(route, interface_, word); });
            return;
        }
        change(operation::delete_interface, 0, [&] {
            operate_intf(IPV4MC_ACTION_DELETE, route, interface_, &entry, 0, entry->attributes);
        });
    }

    void delete_route() {
        ipv4mc_route_entry_st *route = find_route(table(), route_);
        if (route == nullptr) {
            return add_route();
        }
        const bool properly = number(4) != 0;
        change(operation::delete_route, 0, [&] {
            const uint64_t old = route->attributes;
            if (properly) {
                route->attributes &= ~MRIB_ROUTE_IF;
            }
            int is_new = 0;
            const cerrno rc =
                operate(IPV4MC_ACTION_DELETE, table(), key_of(route_), &route, &is_new, old);
            expect(rc != 0 || find_route(table(), route_) == nullptr, "a deleted route is found");
        });
    }

    void clear_route() {
        ipv4mc_route_entry_st *route = find_route(table(), route_);
        if (route == nullptr) {
            return add_route();
        }
        change(operation::clear_route, 0, [&] {
            int is_new = 0;
            operate(IPV4MC_ACTION_CLEAR, table(), key_of(route_), &route, &is_new,
                    route->attributes);
        });
    }

    void change_attributes() {
        ipv4mc_route_entry_st *route = find_route(table(), route_);
        if (route == nullptr) {
            return add_route();
        }
        constexpr uint64_t mine = MRIB_ROUTE_IA | MRIB_ROUTE_IF | MRIB_ROUTE_DROP;
        const uint64_t word = one_of(random_, route_words);
        change(operation::change_attributes, word, [&] {
            const uint64_t old = route->attributes;
            route->attributes = (old & ~mine) | word;
            int is_new = 0;
            operate(IPV4MC_ACTION_COMMIT, table(), key_of(route_), &route, &is_new, old);
        });
    }

    void change_table() {
        ipv4mc_table_st *found = find_table(table_);
        if (found == nullptr || found->active == 0) {
            change(operation::create_table, 0, [&] { activate(); });
            return;
        }
        switch (number(8)) {
            case 0:
                return table_action(operation::deactivate_table, IPV4MC_ACTION_DEACTIVATE);
            case 1:
                if (table_ != 0) {
                    return table_action(operation::delete_table, IPV4MC_ACTION_DELETE);
                }
                [[fallthrough]];
            case 2:
                return table_action(operation::clear_table, IPV4MC_ACTION_CLEAR);
            case 3:
                return table_action(operation::clear_table, IPV4MC_ACTION_CLEAR_ROUTES);
            case 4:
                change(operation::delete_all, 0, [&] {
                    uint32_t spared = 0;
                    ip6mc_route_delete_all(found, 8, IPV4MC_FREE_PAK_ALL,
                                           static_cast<int>(number(2)), &spared);
                });
                return;
            default:
                change(operation::create_table, 0, [&] { activate(); });
        }
    }

    void activate() {
        ipv4mc_table_st *made = nullptr;
        ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid_of(table_), vrf_id_of(table_),
                              name_of(table_), &made, 8);
    }

    void table_action(operation what, ipv4mc_action_type action) {
        change(what, 0, [&] {
            ipv4mc_table_st *found = find_table(table_);
            if (found->vtable != nullptr) {
                found = found->vtable;
            }
            ip6mc_table_operation(action, tid_of(table_), vrf_id_of(table_), name_of(table_),
                                  &found, 8);
        });
    }

    void settings() {
        ipv4mc_table_st *of = table();
        if (of == nullptr) {
            return add_route();
        }
        static constexpr ipv4mc_action_type actions[] = {
            IPV4MC_ACTION_ACCT_ENABLE,     IPV4MC_ACTION_ACCT_DISABLE,
            IPV4MC_ACTION_RATE_ENABLE,     IPV4MC_ACTION_RATE_DISABLE,
            IPV4MC_ACTION_ACCT_FWD_ENABLE, IPV4MC_ACTION_ACCT_FWD_DISABLE};
        const ipv4mc_action_type action = one_of(random_, actions);
        change(operation::other, 0, [&] {
            ipv4mc_route_entry_st *route = find_route(of, route_);
            if (route != nullptr && number(2) == 0) {
                int is_new = 0;
                operate(action, of, key_of(route_), &route, &is_new, route->attributes);
                return;
            }
            ipv4mc_table_st *found = of->vtable != nullptr ? of->vtable : of;
            ip6mc_table_operation(action, tid_of(table_), vrf_id_of(table_), name_of(table_),
                                  &found, 8);
        });
    }

    // References by handle and by name, given back at once or with a later step.
    void hold_interfaces() {
        const ifhtype ifh = 0x201 + number(4);
        change(operation::other, 0, [&] {
            ipv4mc_idb_st *idb = nullptr;
            ip6mc_idb_lookup(ifh, &idb);
            if (idb != nullptr && idb->refcount != 0 && number(2) == 0) {
                ip6mc_idb_unlock(&idb);
                return;
            }
            const std::string name = "Gi0/0/0/" + std::to_string(ifh);
            if (number(2) == 0) {
                ip6mc_idb_lock(ifh, &idb, nullptr);
            } else {
                ip6mc_idb_lock_v3(ifh, name.c_str(), &idb, nullptr);
            }
        });
    }

    void own_signals() {
        ipv4mc_table_st *of = table();
        if (of == nullptr) {
            return add_route();
        }
        const route_key k = signal_key_of(number(signals));
        const ifhtype ifh = ifh_of(interface_);
        change(operation::other, 0, [&] {
            ipv4mc_route_entry_st *route = nullptr;
            switch (number(6)) {
                case 0:
                    ip6mc_signal_remove_mutex(of, &k.source, &k.group, ifh);
                    break;
                case 1:
                    ip6mc_signal_remove_all_mutex(of, &k.source, &k.group);
                    break;
                case 2:
                    ip6mc_signal_rpf_alive(of, &k.group, ifh, &k.source);
                    break;
                case 3:
                    drain_changed();
                    break;
                default:
                    ip6mc_signal_add_mutex(of, &k.source, &k.group, ifh, &route, nullptr, nullptr);
            }
        });
    }

    static void drain_changed() {
        if (ip6mc_shmwin_mutex_lock(__func__, __LINE__) != 0) {
            return;
        }
        while (ipv4mc_desc->shmwin_info->changed_route_head != nullptr) {
            ipv4mc_changelist_remove_route(ipv4mc_desc->shmwin_info->changed_route_head);
        }
        ip6mc_shmwin_mutex_unlock();
    }

    // Core routes of the default table, linked to customers and cut again.
    void link_routes() {
        table_ = 0;
        ipv4mc_route_entry_st *route = find_route(table(), route_);
        if (route == nullptr) {
            return add_route();
        }
        const uint32_t customer = 1 + number(tables - 1);
        const uint32_t index = number(4) == 0 ? IPV4MC_VRF_REMOTE : IPV4MC_VRF_LOCAL;
        if (find_table(customer) == nullptr) {
            return add_route();
        }
        change(operation::other, 0, [&] {
            if (route->vrf_table[index] != nullptr || route->vrf_table_id[index] != 0) {
                ip6mc_route_unlink_route_from_vrf(route, index, "crash");
                return;
            }
            if (index == IPV4MC_VRF_LOCAL) {
                mfwd6::journal::publish(route->attributes,
                                        route->attributes | MRIB_ROUTE_TID_STICKY);
            }
            ip6mc_route_link_route_to_vrf(route, index, tid_of(customer), "crash");
        });
    }

    void encaps() {
        const uint32_t id = 1 + number(most_encaps);
        ipv4mc_route_entry_st *route = find_route(table(), route_);
        change(operation::other, 0, [&] {
            ipv4mc_encap_entry_st *encap = nullptr;
            ip6mc_encapid_lookup(id, &encap);
            if (encap == nullptr) {
                make_encap(id);
            } else if (route != nullptr) {
                ipv4mc_route_update_st update{};
                update.encap_id = route->encap != nullptr && number(2) == 0 ? 0 : id;
                ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_ENCAP, &update);
            }
        });
    }

    static void make_encap(uint32_t id) {
        const mfwd6::journal::group change;
        uint8_t key[GTRIE_PREFIX_BYTES] = {static_cast<uint8_t>(id >> 12),
                                           static_cast<uint8_t>(id >> 4),
                                           static_cast<uint8_t>(id << 4)};
        void *leaf = nullptr;
        int created = 0;
        void *trie = ipv4mc_desc->shmwin_info->encap_gtrie;
        if (ip6mc_gtrie_platform_leaf_create(
                trie, key, IPV4MC_ENCAP_ID_BITS, &leaf,
                sizeof(ipv4mc_encap_entry_st) + plat_params.encap_extension_size, &created) != 0 ||
            created == 0) {
            return;
        }
        static_cast<ipv4mc_encap_entry_st *>(leaf)->encap_id = id;
        if (ip6mc_gtrie_platform_leaf_insert(trie, leaf, nullptr) != 0) {
            ip6mc_gtrie_platform_leaf_free(trie, leaf);
        }
    }

    generator &random_;
    const before_operation &before_;
    uint32_t table_ = 0;
    uint32_t route_ = 0;
    uint32_t interface_ = 0;
};

}  // namespace

void run_operation(generator &random, const before_operation &before) {
    step(random, before).run();
}

void make_tables() {
    for (uint32_t t = 0; t < tables; ++t) {
        ipv4mc_table_st *found = find_table(t);
        if (found != nullptr && found->active != 0) {
            continue;
        }
        in_flight &now = shared().known.now;
        now.table = t;
        now.what = operation::create_table;
        ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid_of(t), vrf_id_of(t), name_of(t), &found,
                              8);
        shared().known.there[t] = found != nullptr;
        now = in_flight{};
    }
}

namespace {

// Entries on interfaces whose route no trie knows: a route that was made and not committed.
void end_unpublished() {
    for (uint32_t i = 0; i < interfaces; ++i) {
        ipv4mc_idb_st *idb = nullptr;
        ip6mc_idb_lookup(ifh_of(i), &idb);
        ipv4mc_intf_entry_st *next = nullptr;
        for (ipv4mc_intf_entry_st *entry = idb != nullptr ? idb->route_list : nullptr;
             entry != nullptr; entry = next) {
            next = entry->idb_next;
            ipv4mc_route_entry_st *route = entry->route;
            cerrno rc = 0;
            ipv4mc_route_entry_st *known = nullptr;
            rc = ip6mc_route_operation(IPV4MC_ACTION_EXACT_LOOKUP, route->table, &route->source,
                                       &route->group, route->pfx_len, nullptr, &known, 0, 0,
                                       nullptr);
            if (rc != 0 || known == route) {
                continue;
            }
            if (ip6mc_intf_operation(IPV4MC_ACTION_DELETE, route->table, route,
                                     IPV4MC_INTF_ORDINARY, entry->key_ifh, 0, 0, 0, &entry, nullptr,
                                     0, entry->attributes, 0) != 0) {
                give_up("an interface of a route that was never committed cannot be deleted");
            }
        }
    }
}

void end_signals() {
    for (uint32_t t = 0; t < tables; ++t) {
        ipv4mc_table_st *table = find_table(t);
        if (table == nullptr || table->signal_gtrie == nullptr) {
            continue;
        }
        const ip_maddr_st any{};
        uint32_t left = 1000;
        for (ipv4mc_route_entry_st *route = ip6mc_signal_first_key(table, &any, &any);
             route != nullptr && --left > 0; route = ip6mc_signal_first_key(table, &any, &any)) {
            const ip_maddr_st source = route->source;
            const ip_maddr_st group = route->group;
            ip6mc_signal_remove_all_mutex(table, &source, &group);
        }
        if (left == 0 || table->signal_route_count != 0) {
            give_up("signals that cannot be removed");
        }
    }
}

cerrno collect(ipv4mc_idb_st *idb, void *context) {
    static_cast<std::vector<ifhtype> *>(context)->push_back(idb->ifh);
    return 0;
}

// Who locked a record has died with the owner: all references left are those of the dead.
void end_interfaces() {
    std::vector<ifhtype> all;
    ip6mc_idb_walk(nullptr, collect, &all, 0, 0);
    for (const ifhtype ifh : all) {
        ipv4mc_idb_st *idb = nullptr;
        if (ip6mc_idb_lock(ifh, &idb, nullptr) != 0) {
            give_up("an interface that cannot be locked");
        }
        if (idb->route_count != 0) {
            give_up("an interface that has routes when there are none");
        }
        while (idb != nullptr) {
            if (ip6mc_idb_unlock(&idb) != 0) {
                give_up("an interface that cannot be unlocked");
            }
            if (idb == nullptr) {
                ip6mc_idb_lookup(ifh, &idb);
            }
        }
    }
}

void end_encaps() {
    void *trie = ipv4mc_desc->shmwin_info->encap_gtrie;
    for (uint32_t id = 1; id <= most_encaps; ++id) {
        ipv4mc_encap_entry_st *encap = nullptr;
        ip6mc_encapid_lookup(id, &encap);
        if (encap == nullptr) {
            continue;
        }
        if (encap->route_cnt != 0 || encap->route_head != nullptr) {
            give_up("an encap that has routes when there are none");
        }
        ipmc_platform_err_handler_clear_encap_err(encap);
        const mfwd6::journal::group change;
        ip6mc_gtrie_platform_leaf_delete(trie, encap, nullptr);
        ip6mc_gtrie_platform_leaf_free(trie, encap);
    }
}

}  // namespace

void empty_window() {
    end_unpublished();
    end_signals();
    for (uint32_t t = tables; t-- > 0;) {
        ipv4mc_table_st *found = find_table(t);
        if (found != nullptr && found->vtable != nullptr) {
            found = found->vtable;
        }
        if (found == nullptr) {
            ip6mc_table_operation(IPV4MC_ACTION_TABLE_LOOKUP, 0, vrf_id_of(t), name_of(t), &found,
                                  0);
        }
        if (found == nullptr) {
            continue;
        }
        // A death may have left one side only, which is deleted by what it has.
        const bool vrf = found->table_type == IPV4MC_TABLE_VRF;
        const uint32_t tid = vrf && found->tid_table == nullptr ? 0 : tid_of(t);
        ip6mc_table_operation(IPV4MC_ACTION_DELETE, tid, vrf ? vrf_id_of(t) : 0,
                              vrf ? name_of(t) : nullptr, &found, 8);
    }
    if (ip6mc_table_delete_all(8) != 0 || ip6mc_table_tid_get_first() != nullptr) {
        give_up("tables that cannot be deleted");
    }
    end_interfaces();
    end_encaps();
    shared().known = world{};
}

}  // namespace crash
