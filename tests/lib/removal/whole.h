// Proof that routes, their interfaces and everything that they are tied to agree.
#ifndef MFWD6_TESTS_LIB_REMOVAL_WHOLE_H
#define MFWD6_TESTS_LIB_REMOVAL_WHOLE_H

#include <set>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "services/events/dlqueue.h"
#include "services/objid/obj_id.h"
#include "tests/kit/window_check.h"
#include "tests/lib/removal/rig.h"

namespace whole {

using route = ipv4mc_route_entry_st;

struct survey {
    std::set<const route *> routes;
    uint64_t ids = 0;  // object ids in use
    std::string wrong;
    void complain(const std::string &what) {
        if (wrong.empty())
            wrong = what;
    }
    void expect(bool holds, const char *what) {
        if (!holds)
            complain(what);
    }
    void expect_equal(uint64_t found, uint64_t counted, const char *what) {
        if (found != counted) {
            complain(std::string(what) + ": " + std::to_string(found) + ", counted " +
                     std::to_string(counted));
        }
    }
};

inline void look_at_id(survey &seen, uint64_t id, const void *object) {
    if (id >= IPMC_OBJ_ID_NONE)
        return;
    ++seen.ids;
    void *found = nullptr;
    const bool known =
        fib_obj_id_get_object_from_id(rig::header()->obj_id_domain, id, &found, nullptr) == 0;
    seen.expect(known && found == object, "an object id that names something else");
}

inline bool on_transport(const ipv4mc_intf_entry_st *entry) {
    for (const auto *e = entry->regdb_entry->intf_head; e != nullptr; e = e->list_next) {
        if (e == entry)
            return true;
    }
    return false;
}

inline void look_at_interfaces(survey &seen, route *r, uint32_t *table_egress) {
    const std::string wrong = bed::check_interfaces(r);
    if (!wrong.empty())
        seen.complain(wrong);
    uint32_t egress = 0;
    uint32_t counted = 0;
    uint32_t tied = 0;
    uint32_t mi = 0;
    uint32_t tmi = 0;
    uint32_t outputs = 0;
    for (const auto *entry = r->intf_list; entry != nullptr; entry = entry->next_intf) {
        egress += (entry->attributes & MRIB_INTF_EG) != 0 ? 1 : 0;
        counted += (entry->attributes & MRIB_INTF_COUNTED) != 0 ? 1 : 0;
        mi += (entry->attributes & MRIB_INTF_MI) != 0 ? 1 : 0;
        tmi += (entry->attributes & MRIB_INTF_TMI) != 0 ? 1 : 0;
        outputs += (entry->intf_flags & IPV4MC_INTF_FLAG_ENCAP_OLE) != 0 ? 1 : 0;
        if ((entry->attributes & MRIB_INTF_REGDB) != 0) {
            ++tied;
            seen.expect(on_transport(entry), "an interface that is not on its transport's list");
        }
        look_at_id(seen, entry->obj_id, entry);
    }
    *table_egress += egress;
    seen.expect_equal(egress, r->intf_local_EG_cnt, "intf_local_EG_cnt");
    seen.expect_equal(tied, r->amt_intf_cnt, "amt_intf_cnt");
    // Who deletes an interface does not lower these: the route goes as well, or its caller does it.
    seen.expect(counted <= r->counted_intf_cnt, "counted_intf_cnt");
    seen.expect(mi <= r->mi_cnt && r->mi_cnt < 100, "mi_cnt");
    seen.expect(tmi <= r->tmi_cnt && r->tmi_cnt < 100, "tmi_cnt");
    uint32_t listed = 0;
    for (const auto *e = r->encap_ole_head; e != nullptr; e = e->list_next)
        ++listed;
    seen.expect_equal(listed, outputs, "encap outputs");
}

inline void look_at_table(survey &seen, ipv4mc_table_st *table) {
    if (table->ingress_gtrie == nullptr)
        return;
    if (const char *wrong = ip6mc_gtrie_verify(table->ingress_gtrie))
        seen.complain(wrong);
    const ip_maddr_st any{};
    uint32_t egress = 0;
    uint32_t count = 0;
    for (route *r = ip6mc_route_first_key(table, &any, &any, 0); r != nullptr;
         r = ip6mc_route_next(table, r)) {
        ++count;
        seen.routes.insert(r);
        look_at_interfaces(seen, r, &egress);
        look_at_id(seen, r->obj_id, r);
    }
    seen.expect_equal(count, static_cast<uint64_t>(table->rate_route_count), "rate_route_count");
    seen.expect_equal(egress, table->route_counters.local_eg_cnt, "local egress of a table");
}

// A list of routes both ways, each of them one that lives.
template <class Next, class Prev>
uint32_t look_at_list(survey &seen, const char *name, route *head, Next next, Prev prev) {
    uint32_t count = 0;
    const route *before = nullptr;
    for (route *r = head; r != nullptr; before = r, r = next(r)) {
        if (seen.routes.count(r) == 0) {
            seen.complain(std::string(name) + ": a route that is gone");
            return count;
        }
        seen.expect(prev(r) == before, name);
        if (++count > 10000) {
            seen.complain(std::string(name) + ": endless");
            return count;
        }
    }
    return count;
}

#define WHOLE_LIST(seen, head, next, prev)                          \
    whole::look_at_list(                                            \
        seen, #next, head, [](whole::route *r) { return r->next; }, \
        [](whole::route *r) -> const whole::route * { return r->prev; })

inline void look_at_lists(survey &seen) {
    ipv4mc_shmwin_hdr_st *hdr = rig::header();
    auto &heads = hdr->route_list_heads;
    WHOLE_LIST(seen, heads[IPMC_ROUTE_LIST_MDT_CAND], mdt_cand_next, mdt_cand_prev);
    WHOLE_LIST(seen, heads[IPMC_ROUTE_LIST_MT_UPD], mt_upd_next, mt_upd_prev);
    WHOLE_LIST(seen, heads[IPMC_ROUTE_LIST_AMT_UPD], amt_upd_next, amt_upd_prev);
    WHOLE_LIST(seen, heads[IPMC_ROUTE_LIST_MOFRR_UPD], mofrr_upd_next, mofrr_upd_prev);
    const uint32_t changed = WHOLE_LIST(seen, hdr->changed_route_head, change_next, change_prev);
    seen.expect_equal(changed, hdr->changed_route_count, "changed routes");
}

inline void look_at_core_routes(survey &seen, ipv4mc_table_st *table) {
    WHOLE_LIST(seen, table->memd_route_list, memd_next[0], memd_prev[0]);
    for (const route *r = table->memd_route_list; r != nullptr && seen.wrong.empty();
         r = r->memd_next[0]) {
        seen.expect(r->vrf_table[0] == table, "a memd list of another table");
        // It may be set in vain, and never clear in vain.
        const bool wanted =
            table->route_counters.local_eg_cnt != 0 || table->route_counters.t_cnt != 0;
        seen.expect(!wanted || (r->attributes & MRIB_ROUTE_DT) != 0, "a core route without DT");
    }
}

inline void look_at_encap(survey &seen, uint32_t id) {
    ipv4mc_encap_entry_st *encap = nullptr;
    ip6mc_encapid_lookup(id, &encap);
    if (encap == nullptr)
        return;
    const uint32_t count = WHOLE_LIST(seen, encap->route_head, next_encap, prev_encap);
    uint32_t egress = 0;
    for (const route *r = encap->route_head; r != nullptr && seen.wrong.empty();
         r = r->next_encap) {
        egress += r->intf_local_EG_cnt;
        seen.expect(r->encap == encap, "a route of another encap");
    }
    seen.expect_equal(count, encap->route_cnt, "routes of an encap");
    seen.expect_equal(egress, encap->intf_local_EG_cnt, "local egress of an encap");
    seen.expect(egress == 0 || encap->ip_lkp != 0, "an encap without IP lookup");
}

inline void look_at_retry_queue(survey &seen) {
    const dlqueue_node_t *queue = rig::header()->retry_queue;
    if (queue == nullptr)
        return;
    std::set<const void *> queued;
    for (const dlqueue_node_t *node = queue->next; node != queue; node = node->next) {
        const auto *element = static_cast<const ipmc_retry_msg *>(node->data);
        if (element->type == IPMC_RETRY_ROUTE)
            seen.expect(queued.insert(element->object).second, "a route is queued twice");
    }
    for (const route *r : seen.routes)
        seen.expect((r->err != 0) == (queued.erase(r) != 0), "the mark of a queued route");
    seen.expect(queued.empty(), "a queued route that is gone");
}

// Transports are made by hand here and stand in no tree, so the check of the window does not know
// their lists; look_at_interfaces walks these.
inline bool is_of_transport_made_by_hand(const std::string &wrong) {
    return wrong.find("list_next: is set, and the entry is on no such list") != std::string::npos ||
           wrong.find("idle_regdb_head: lists a transport that is not in the tree") !=
               std::string::npos;
}

// The first thing that is wrong with these tables, interfaces and encaps, and with what all routes
// share; empty when all is well.
inline std::string faults(const std::vector<uint32_t> &tids, const std::vector<ifhtype> &handles,
                          const std::vector<uint32_t> &encaps) {
    survey seen;
    for (const std::string &wrong : kit::window_faults()) {
        if (!is_of_transport_made_by_hand(wrong))
            seen.complain(wrong);
    }
    std::vector<ipv4mc_table_st *> tables;
    for (const uint32_t tid : tids) {
        if (ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid))
            tables.push_back(table);
    }
    for (ipv4mc_table_st *table : tables)
        look_at_table(seen, table);
    look_at_lists(seen);
    for (ipv4mc_table_st *table : tables)
        look_at_core_routes(seen, table);
    for (const route *r : seen.routes) {
        seen.expect(r->IF_parent == nullptr || seen.routes.count(r->IF_parent) != 0,
                    "a parent that is gone");
    }
    for (const uint32_t encap : encaps)
        look_at_encap(seen, encap);
    look_at_retry_queue(seen);
    for (const ifhtype ifh : handles) {
        if (ipv4mc_idb_st *idb = bed::idb_of(ifh)) {
            const std::string wrong = bed::check_idb(idb);
            if (!wrong.empty())
                seen.complain(wrong);
        }
    }
    if (rig::header()->obj_id_domain != nullptr) {
        uint64_t in_use = 0;
        fib_obj_id_in_use(rig::header()->obj_id_domain, &in_use);
        seen.expect_equal(seen.ids, in_use, "object ids");
    }
    return seen.wrong;
}

}  // namespace whole

#endif
