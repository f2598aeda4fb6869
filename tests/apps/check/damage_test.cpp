// Each invariant is broken on purpose: the finding names the record and the field.
#include "services/gtrie/layout.h"
#include "services/objid/domain.h"
#include "tests/apps/check/rich_state.h"

using mfwd6::check::check_window;
using mfwd6::check::finding;
using mfwd6::check::report;

namespace {

class Damage : public testing::Test {
  protected:
    // Puts `bad` in the place of a word: a finding about this record and field must come of it, and
    // none must be left when the word is as it was.
    template <class T>
    void breaks(const char *what, const T &word, std::type_identity_t<T> bad, const void *record,
                const char *field) {
        SCOPED_TRACE(what);
        const report found = check_with(word, bad);
        EXPECT_TRUE(names(found.findings, record, field))
            << "no finding about " << field << " of " << record << " in\n"
            << rich::lines(found);
    }

    // The same for what the death of an owner may leave.
    template <class T>
    void leaves(const char *what, const T &word, std::type_identity_t<T> bad, const void *record,
                const char *field) {
        SCOPED_TRACE(what);
        const report found = check_with(word, bad);
        EXPECT_TRUE(found.clean() && names(found.leftovers, record, field))
            << field << " of " << record << " in\n"
            << rich::lines(found);
    }

    // What the check says while `bad` stands in the place of the word.
    template <class T>
    static report check_with(const T &word, const T &bad) {
        T &place = const_cast<T &>(word);
        const T before = place;
        place = bad;
        report found = check_window();
        place = before;
        return found;
    }

    static bool names(const std::vector<finding> &all, const void *record, const char *field) {
        bool named = false;
        for (const finding &each : all) {
            named = named ||
                    (each.address == reinterpret_cast<uint64_t>(record) && each.field == field);
        }
        return named;
    }

    void TearDown() override { EXPECT_EQ(rich::lines(check_window()), ""); }

    ipv4mc_shmwin_hdr_st *hdr = nullptr;
    rich::state s;
    Damage() { hdr = rig::header(); }

    template <class T>
    static T *wild() {
        return reinterpret_cast<T *>(0x1230);
    }
    // Inside a block, but not where one begins.
    template <class T>
    T *inside() {
        return reinterpret_cast<T *>(reinterpret_cast<char *>(s.busy) + 8);
    }
};

mfwd6::gtrie::leaf *leaf_of(ipv4mc_route_entry_st *route) {
    return reinterpret_cast<mfwd6::gtrie::leaf *>(route) - 1;
}

}  // namespace

#define BREAKS(word, bad, record, field) breaks(#word " = " #bad, word, bad, record, field)
#define LEAVES(word, bad, record, field) leaves(#word " = " #bad, word, bad, record, field)

TEST_F(Damage, ThatADeathMayLeaveIsNoFinding) {
    LEAVES(s.busy->counted_intf_cnt, 3, s.busy, "counted_intf_cnt");
    LEAVES(s.busy->mi_cnt, 1, s.busy, "mi_cnt");
    LEAVES(s.busy->mdt_candidate, 1, s.busy, "mdt_candidate");
    LEAVES(s.busy->err, 1, s.busy, "err");
    LEAVES(s.encap->intf_local_EG_cnt, 7, s.encap, "intf_local_EG_cnt");
    LEAVES(s.encap->retry_queued, 1, s.encap, "retry_queued");
    LEAVES(s.red->child_route_count, 1, s.red, "child_route_count");
}

TEST_F(Damage, OfTheHeaderIsFound) {
    BREAKS(hdr->table_tid_tree, wild<shm_avl_tree>(), hdr, "table_tid_tree");
    BREAKS(hdr->table_name_tree.counts[0], 7, hdr, "table_name_tree");
    BREAKS(hdr->table_name_tree.home, wild<wavl_tree>(), hdr, "table_name_tree");
    BREAKS(hdr->table_name_tree.heads[1].left, nullptr, hdr, "table_name_tree");
    BREAKS(hdr->idb_tree.counts[2], 9, hdr, "idb_tree");
    BREAKS(hdr->idb_tree.heads[0].right, wild<tree_node>(), hdr, "idb_tree");
    BREAKS(hdr->fint_idb, wild<ipv4mc_idb_st>(), hdr, "fint_idb");
    BREAKS(hdr->idb_in_hand, inside<ipv4mc_idb_st>(), hdr, "idb_in_hand");
    BREAKS(hdr->encap_gtrie, s.busy, hdr, "encap_gtrie");
    BREAKS(hdr->regdb_tree, inside<rn_root_t>(), hdr, "regdb_tree");
    BREAKS(hdr->bvi_intf_db_root, wild<rn_root_t>(), hdr, "bvi_intf_db_root");
    BREAKS(hdr->buffer_pool, inside<ipmc_shmwin_pool_bucket_st>(), hdr, "buffer_pool");
    BREAKS(hdr->retry_queue, wild<dlqueue_node_t>(), hdr, "retry_queue");
    BREAKS(hdr->idle_regdb_head, wild<ipv4mc_regdb_entry_st>(), hdr, "idle_regdb_head");
    BREAKS(hdr->obj_id_domain, wild<fib_obj_id_domain_t>(), hdr, "obj_id_domain");
    BREAKS(hdr->plat_block_list, inside<void>(), hdr, "plat_block_list");
    BREAKS(hdr->changed_route_tail, s.signal, hdr, "changed_route_tail");
    BREAKS(hdr->changed_route_head, s.signal_too, hdr, "changed_route_count");
    BREAKS(hdr->changed_route_count, 1, hdr, "changed_route_count");
    BREAKS(hdr->route_list_heads[1], wild<ipv4mc_route_entry_st>(), hdr, "route_list_heads");
    BREAKS(hdr->alloc_count[IPMC_SHMWIN_ALLOC_INTF], 3, hdr, "alloc_count");
    BREAKS(hdr->counted[0].alloc_count[IPMC_SHMWIN_ALLOC_ROUTE], 99, hdr, "alloc_count");
}

TEST_F(Damage, OfTheTidTreeIsFound) {
    auto *count = reinterpret_cast<uint64_t *>(hdr->table_tid_tree) + 1;
    BREAKS(*count, 9, hdr, "table_tid_tree");
    BREAKS(s.red->node[0].up, s.red->node[0].up ^ 1, s.red, "node");
    BREAKS(s.red->node[0].up, 0, s.red, "node");
    BREAKS(s.red->tid, 0xf0000000, s.blue, "node");
}

TEST_F(Damage, OfTablesIsFound) {
    BREAKS(s.red->table_type, IPV4MC_TABLE_VRF, s.red, "table_type");
    BREAKS(s.red_vrf->table_type, IPV4MC_TABLE_TID, s.red_vrf, "table_type");
    BREAKS(s.red->vtable, s.blue->vtable, s.red, "vtable");
    BREAKS(s.red->vtable, s.blue, s.red, "vtable");
    BREAKS(s.red_vrf->tid_table, s.blue, s.red_vrf, "tid_table");
    BREAKS(s.red_vrf->tid_table, wild<ipv4mc_table_st>(), s.red_vrf, "tid_table");
    BREAKS(s.red_vrf->vrf_name[0], '\0', s.red_vrf, "vrf_name");
    BREAKS(s.red_vrf->vrf_id, 0, s.red_vrf, "vrf_id");
    BREAKS(s.red->ingress_gtrie, nullptr, s.red, "active");
    BREAKS(s.red->ingress_gtrie, s.blue->ingress_gtrie, s.red, "ingress_gtrie");
    BREAKS(s.red->signal_gtrie, inside<void>(), s.red, "signal_gtrie");
    BREAKS(s.red->egress_gtrie, wild<void>(), s.red, "egress_gtrie");
    BREAKS(s.red->rate_route_count, 5, s.red, "rate_route_count");
    BREAKS(s.red->signal_route_count, 4, s.red, "signal_route_count");
    BREAKS(s.red->route_counters.local_eg_cnt, 0, s.red, "local_eg_cnt");
    BREAKS(s.red->memd_route_list, nullptr, s.feeding_too, "memd_next");
    BREAKS(s.red->memd_route_list, wild<ipv4mc_route_entry_st>(), s.red, "memd_route_list");
    BREAKS(s.red->intf_req_tail, s.request, s.red, "intf_req_tail");
    BREAKS(s.red->intf_req_head, wild<ipmc_intf_change_req_st>(), s.red, "intf_req_head");
    BREAKS(s.red_vrf->idb_tree.counts[1], 2, s.red_vrf, "idb_tree");
    BREAKS(s.red_vrf->local_ifcount, 2, s.red_vrf, "local_ifcount");
    BREAKS(s.red_vrf->bvi_db_root, wild<rn_root_t>(), s.red_vrf, "bvi_db_root");
    BREAKS(s.request->table, s.blue, s.request, "table");
    BREAKS(s.request->next->prev, nullptr, s.request->next, "prev");
    BREAKS(s.request->next->next, s.request, s.request->next, "next");
    s.below->extranet_table_id = s.blue->tid;
    s.blue->child_route_count = 1;
    BREAKS(s.blue->child_route_count, 0, s.blue, "child_route_count");
}

TEST_F(Damage, OfTriesIsFound) {
    auto *handle = static_cast<mfwd6::gtrie::handle *>(s.red->ingress_gtrie);
    auto *trie = handle->on;
    BREAKS(handle->magic, 1, s.red, "ingress_gtrie");
    BREAKS(handle->on, wild<mfwd6::gtrie::trie>(), handle, "on");
    BREAKS(handle->cookie, 1, handle, "on");
    BREAKS(handle->leaves, 1, handle, "leaves");
    BREAKS(handle->prev, handle, handle, "prev");
    BREAKS(trie->handles, nullptr, handle, "next");
    BREAKS(trie->root, nullptr, trie, "root");
    BREAKS(trie->root, inside<mfwd6::gtrie::node>(), trie, "root");
    BREAKS(trie->leaves, 3, trie, "leaves");
    BREAKS(trie->waiting, 3, trie, "waiting");
    BREAKS(trie->shape, uint64_t{1} << 20, trie, "shape");
    BREAKS(trie->segments, inside<mfwd6::gtrie::directory>(), trie, "segments");
    BREAKS(trie->lengths, 0, trie, "ingress_gtrie");
    BREAKS(trie->length_count[3], 1, trie, "ingress_gtrie");
    BREAKS(trie->root->up, trie->root, trie->root, "up");
    mfwd6::gtrie::node *small = leaf_of(s.busy)->up;
    ASSERT_EQ(small->kind, mfwd6::gtrie::node_kind::small);
    BREAKS(small->capacity, 255, small, "kind");
    BREAKS(trie->root->count, 0, trie, "ingress_gtrie");
    mfwd6::gtrie::leaf *leaf = leaf_of(s.busy);
    BREAKS(leaf->magic, 0, leaf, "magic");
    BREAKS(leaf->owner, wild<mfwd6::gtrie::trie>(), leaf, "owner");
    BREAKS(leaf->size, 100000, leaf, "size");
    BREAKS(leaf->up, nullptr, trie, "ingress_gtrie");
    BREAKS(leaf->state, 0, trie, "ingress_gtrie");
    BREAKS(leaf->word[1], 5, s.busy, "group");
    auto *segments = reinterpret_cast<uint64_t *>(trie->segments + 1);
    BREAKS(segments[0], 0, trie, "segments");
    BREAKS(segments[1], 0x5000, trie, "segments");
    auto *bucket = reinterpret_cast<mfwd6::gtrie::bucket *>((segments[0] + 63) & ~uint64_t{63});
    BREAKS(bucket->waiting, 0x4000, trie, "waiting");
    BREAKS(bucket->slot[0], 77, trie, "ingress_gtrie");
}

TEST_F(Damage, OfRoutesIsFound) {
    BREAKS(s.busy->table, s.blue, s.busy, "table");
    BREAKS(s.busy->pfx_len, 200, s.busy, "pfx_len");
    BREAKS(s.busy->group.bytes[3], 9, s.busy, "group");
    BREAKS(s.busy->source.bytes[3], 9, s.busy, "group");
    BREAKS(s.busy->intf_list, s.c, s.c, "prev_intf");
    BREAKS(s.busy->intf_list, wild<ipv4mc_intf_entry_st>(), s.busy, "intf_list");
    BREAKS(s.busy->intf_tree.head.left, nullptr, s.busy, "intf_tree");
    BREAKS(s.busy->intf_tree.head.up, 0, s.busy, "intf_tree");
    BREAKS(s.busy->counted_intf_cnt, 0, s.busy, "counted_intf_cnt");
    BREAKS(s.busy->intf_local_EG_cnt, 0, s.busy, "intf_local_EG_cnt");
    BREAKS(s.busy->amt_intf_cnt, 0, s.busy, "amt_intf_cnt");
    BREAKS(s.busy->encap, nullptr, s.busy, "encap");
    BREAKS(s.busy->encap, wild<ipv4mc_encap_entry_st>(), s.busy, "encap");
    BREAKS(s.busy->encap_ole_tail, nullptr, s.busy, "encap_ole_tail");
    BREAKS(s.busy->encap_ole_head, nullptr, s.a, "intf_flags");
    BREAKS(s.busy->regdb_entry, s.transport, s.busy, "regdb_entry");
    BREAKS(s.busy->regdb_entry, wild<ipv4mc_regdb_entry_st>(), s.busy, "regdb_entry");
    BREAKS(s.busy->rate, wild<ipv4mc_route_rate_st>(), s.busy, "rate");
    BREAKS(s.busy->obj_id, s.above->obj_id, s.busy, "obj_id");
    BREAKS(s.busy->obj_id, 12345, s.busy, "obj_id");
    BREAKS(s.below->IF_parent, wild<ipv4mc_route_entry_st>(), s.below, "IF_parent");
    BREAKS(s.below->IF_parent, s.busy, s.below, "IF_parent");
    BREAKS(s.below->IF_parent, s.feeding, s.below, "IF_parent");
    BREAKS(s.feeding->vrf_table[0], s.blue, s.feeding, "vrf_table");
    BREAKS(s.feeding->vrf_table[1], wild<ipv4mc_table_st>(), s.feeding, "vrf_table");
    BREAKS(s.feeding->memd_prev[0], nullptr, s.feeding, "memd_prev");
    BREAKS(s.feeding_too->memd_next[0], s.feeding_too, s.feeding_too, "memd_next");
    BREAKS(s.feeding->mdt_candidate, 0, s.feeding, "mdt_candidate");
    BREAKS(s.feeding->attributes, 0, s.feeding, "attributes (MT)");
    BREAKS(s.feeding->attributes, MRIB_ROUTE_MT, s.feeding, "attributes (MOFRR_UPD)");
    BREAKS(s.feeding->mdt_cand_prev, nullptr, s.feeding, "mdt_cand_prev");
    BREAKS(s.feeding->mt_upd_prev, s.feeding, s.feeding, "mt_upd_prev");
    BREAKS(s.feeding->amt_upd_next, s.feeding, s.feeding, "amt_upd_next");
    BREAKS(s.busy->amt_upd_next, s.feeding, s.busy, "amt_upd_next");
    BREAKS(s.feeding_too->mofrr_upd_next, s.below, s.below, "mofrr_upd_prev");
    BREAKS(s.busy->change_prev, s.signal, s.busy, "change_next");
    BREAKS(s.signal_too->change_prev, nullptr, s.signal_too, "change_prev");
    BREAKS(s.signal->change_next, nullptr, hdr, "changed_route_tail");
    BREAKS(s.signal->change_next, wild<ipv4mc_route_entry_st>(), s.signal, "change_next");
    BREAKS(s.encap->route_head->next_encap, nullptr, s.encap, "route_cnt");
    BREAKS(s.busy->prev_encap, nullptr, s.busy, "prev_encap");
    BREAKS(s.failed->err, 0, s.failed, "err");
}

TEST_F(Damage, OfEntriesIsFound) {
    BREAKS(s.b->next_intf, nullptr, s.busy, "intf_tree");
    BREAKS(s.b->next_intf, s.c, s.b, "next_intf");
    BREAKS(s.b->next_intf, inside<ipv4mc_intf_entry_st>(), s.b, "next_intf");
    BREAKS(s.b->prev_intf, s.a, s.b, "prev_intf");
    BREAKS(s.b->route, s.above, s.b, "route");
    BREAKS(s.b->route, nullptr, s.b, "route");
    BREAKS(s.b->key_ifh, 1, s.b, "key_ifh");
    BREAKS(s.b->ifh, 1, s.b, "ifh");
    BREAKS(s.b->intf_flags, 0, s.b, "intf_flags");
    BREAKS(s.b->on_idb_list, 0, s.b, "on_idb_list");
    BREAKS(s.b->idb_next, s.b, s.b, "idb_next");
    BREAKS(s.b->idb_prev, s.a, s.b, "idb_prev");
    BREAKS(s.b->avl_node.up, s.b->avl_node.up ^ 1, s.b, "avl_node");
    BREAKS(s.b->avl_node.left, wild<tree_node>(), s.b, "avl_node");
    BREAKS(s.b->obj_id, s.c->obj_id, s.b, "obj_id");
    BREAKS(s.b->plat_block, inside<ipmc_plat_block_st>(), s.b, "plat_block");
    BREAKS(s.b->list_next, wild<ipv4mc_intf_entry_st>(), s.b, "list_next");
    BREAKS(s.b->list_prev, nullptr, s.b, "list_prev");
    BREAKS(s.c->list_next, s.a, s.c, "list_next");
    BREAKS(s.c->intf_flags, IPV4MC_INTF_FLAG_IN_TREE | IPV4MC_INTF_FLAG_ENCAP_OLE, s.c,
           "intf_flags");
    BREAKS(s.amt->regdb_entry, nullptr, s.amt, "regdb_entry");
    BREAKS(s.b->bvi_if, wild<ipv4mc_bvi_if_t>(), s.b, "bvi_if");
}

TEST_F(Damage, OfInterfacesIsFound) {
    ipv4mc_idb_st *idb = bed::idb_of(0x101);
    ipv4mc_idb_st *named = bed::idb_of(0x180);
    BREAKS(idb->ifh, 0x1000, s.a, "ifh");
    BREAKS(idb->route_list, nullptr, idb, "route_count");
    BREAKS(idb->route_list, wild<ipv4mc_intf_entry_st>(), idb, "route_list");
    BREAKS(idb->route_count, 1, idb, "route_count");
    BREAKS(idb->refcount, 1, idb, "refcount");
    BREAKS(idb->tree_flags, IPV4MC_IDB_TREE_NAME, idb, "tree_flags");
    BREAKS(named->tree_flags, 0, named, "tree_flags");
    BREAKS(idb->vtable, s.red_vrf, idb, "vtable");
    BREAKS(idb->vtable, wild<ipv4mc_table_st>(), idb, "vtable");
    BREAKS(idb->node[0].left, idb->node, idb, "node");
    BREAKS(s.bundle->bundle_members, wild<ipmc_bundle_member_st>(), s.bundle, "bundle_members");
    BREAKS(s.bundle->bundle_member_count, 100, s.bundle, "bundle_member_count");
    BREAKS(s.bundle->bundle_members[0].ul_ifh_member, 0x999, s.bundle, "bundle_members");
    BREAKS(s.bundle->vlan_tree, wild<rt_head_t>(), s.bundle, "vlan_tree");
    BREAKS(s.bundle->vlan_count, 1, s.bundle, "vlan_count");
    BREAKS(s.bundle->vlan_tree->root.count, 1, s.bundle, "vlan_tree");
    auto *child = reinterpret_cast<ipmc_vlan_node_st *>(s.bundle->vlan_tree->root.header.parent);
    BREAKS(child->head.head, wild<rt_head_t>(), child, "head");
    BREAKS(child->head.link.tree, 0, child, "node");
    BREAKS(child->head.link.balance, 1, child, "node");
    BREAKS(child->ifh, 0, child, "node");
    BREAKS(child->head.key, wild<ifhtype>(), child, "node");
}

TEST_F(Damage, OfEncapsAndTransportsIsFound) {
    BREAKS(s.encap->encap_id, 5, s.encap, "encap_id");
    BREAKS(s.encap->encap_leaf_head, s.leaf_too, s.leaf_too, "prev_encap_leaf");
    BREAKS(s.encap->encap_leaf_tail, s.leaf, s.encap, "encap_leaf_tail");
    BREAKS(s.encap->route_cnt, 1, s.encap, "route_cnt");
    BREAKS(s.encap->intf_local_EG_cnt, 0, s.encap, "intf_local_EG_cnt");
    BREAKS(s.encap->route_head, wild<ipv4mc_route_entry_st>(), s.encap, "route_head");
    BREAKS(s.encap->gtrie_leaf.linked, 0, s.encap, "gtrie_leaf");
    BREAKS(s.leaf->encap_entry, nullptr, s.leaf, "encap_entry");
    BREAKS(s.leaf->regdb_entry, s.transport_too, s.leaf, "regdb_entry");
    BREAKS(s.leaf->next_encap_leaf, s.leaf, s.leaf, "next_encap_leaf");
    BREAKS(s.leaf->prev_regdb_leaf, s.leaf, s.leaf, "prev_regdb_leaf");
    BREAKS(s.transport->regdb_leaf_head, nullptr, s.leaf, "regdb_entry");
    LEAVES(s.transport->intf_head, nullptr, s.amt, "regdb_entry");
}

TEST_F(Damage, OfBviStatesIsFound) {
    auto *tie = s.b->bvi_if;
    BREAKS(s.bvi->ref_cnt, 3, s.bvi, "ref_cnt");
    BREAKS(s.bvi->if_tree, wild<rn_root_t>(), s.bvi, "if_tree");
    BREAKS(s.bvi->if_tree->count, 4, s.bvi, "if_tree");
    BREAKS(s.bvi->node.tree, 1, s.bvi, "node");
    BREAKS(tie->bvi_entry, nullptr, tie, "bvi_entry");
    BREAKS(tie->route, wild<ipv4mc_route_entry_st>(), tie, "route");
    BREAKS(tie->route, s.above, tie, "route");
}

TEST_F(Damage, OfTheRetryQueueIsFound) {
    dlqueue_node_t *head = hdr->retry_queue;
    auto *first = reinterpret_cast<ipmc_retry_msg *>(head->next);
    BREAKS(head->data, head, head, "data");
    BREAKS(head->prev, head->next, head, "prev");
    BREAKS(head->next, nullptr, head, "next");
    BREAKS(head->next, wild<dlqueue_node_t>(), head, "next");
    BREAKS(first->node.next, &first->node, first, "next");
    BREAKS(first->node.prev, &first->node, first, "prev");
    BREAKS(first->node.data, nullptr, first, "data");
    BREAKS(first->type, 7, first, "type");
    BREAKS(first->type, IPMC_RETRY_ENCAP, first, "object");
    BREAKS(first->object, s.failed_too, first->node.next, "object");
    BREAKS(first->object, wild<void>(), first, "object");
}

TEST_F(Damage, OfObjectIdsIsFound) {
    fib_obj_id_domain_t *domain = hdr->obj_id_domain;
    mfwd6::objid::slot *slot = domain->pages[0]->tables[0];
    BREAKS(domain->magic, 1, domain, "magic");
    BREAKS(domain->table_size, 3, domain, "magic");
    BREAKS(domain->in_use, 1, domain, "in_use");
    BREAKS(domain->fresh, 2, domain, "in_use");
    BREAKS(domain->room, 8192, domain, "room");
    BREAKS(domain->free_first, 1, domain, "free_first");
    BREAKS(domain->free_last, 1, domain, "free_last");
    BREAKS(domain->pages[0], wild<mfwd6::objid::page>(), domain, "pages");
    BREAKS(domain->pages[0]->tables[0], wild<mfwd6::objid::slot>(), domain->pages[0], "tables");
    BREAKS(slot->word, 0x4567, domain, "pages");
    BREAKS(slot->state, 0, domain, "in_use");
}

TEST_F(Damage, OfBlocksAndThePoolIsFound) {
    rig::erase(s.blue, bed::find(s.blue, bed::sg(7)));
    rig::erase(s.blue, bed::find(s.blue, bed::sg(8)));
    rig::erase(s.blue, bed::find(s.blue, bed::sg(3)));
    auto *guard = reinterpret_cast<ipmc_shmwin_guard_st *>(s.bundle) - 1;
    BREAKS(guard->magic, IPMC_SHMWIN_MAGIC_FREED, guard, "guard");
    BREAKS(guard->type, 99, guard, "guard");
    BREAKS(guard->size, 5000, guard, "guard");
    BREAKS(guard->type, IPMC_SHMWIN_ALLOC_INTF, hdr, "alloc_count");
    ipmc_shmwin_pool_bucket_st *pool = hdr->buffer_pool;
    constexpr size_t bucket = sizeof(ipv4mc_route_rate_st);
    ASSERT_NE(pool[bucket].head, 0U);
    BREAKS(pool[bucket].count, 7, pool, "count");
    BREAKS(pool[bucket].head, 0x7000, pool, "head");
    BREAKS(pool[bucket + 1].head, pool[bucket].head, pool, "head");
    auto *pooled = reinterpret_cast<ipmc_shmwin_guard_st *>(pool[bucket].head);
    BREAKS(pooled->pool_link, pool[bucket].head, pool, "head");
    // A route that still names its freed rate record.
    BREAKS(s.busy->rate, reinterpret_cast<ipv4mc_route_rate_st *>(pooled + 1), s.busy, "rate");
}
