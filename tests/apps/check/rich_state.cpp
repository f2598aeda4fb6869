#include "tests/apps/check/rich_state.h"

#include "services/journal/journal.h"
#include "services/radix/radix.h"

namespace rich {

using namespace bed;

namespace {

constexpr ifhtype ifh_a = 0x101;
constexpr ifhtype ifh_b = 0x102;
constexpr ifhtype ifh_c = 0x103;
constexpr ifhtype ifh_bundle = 0x200;

void *allocate_bvi_root(size_t size) {
    return ipv4mc_shmwin_malloc_inline(size, IPMC_SHMWIN_ALLOC_BVI_ENTRY);
}

// Appends at the tail, as the library's lists do.
template <class Record>
void append(Record *&head, Record *&tail, Record *record, Record *Record::*next,
            Record *Record::*prev) {
    record->*prev = tail;
    (tail != nullptr ? tail->*next : head) = record;
    tail = record;
}

}  // namespace

ipv4mc_regdb_entry_st *insert_transport(uint32_t ifh) {
    auto *made = allocate<ipv4mc_regdb_entry_st>(IPMC_SHMWIN_ALLOC_REGDB);
    made->key.type = REGDB_TYPE_TE;
    made->key.u.te_ifh = ifh;
    made->key_bits = IPV4MC_REGDB_KEY_BITS_TE;
    EXPECT_EQ(rn_insert(rig::header()->regdb_tree, made), 0);
    return made;
}

ipv4mc_encap_leaf_st *insert_encap_leaf(ipv4mc_encap_entry_st *encap, ipv4mc_regdb_entry_st *to) {
    auto *leaf = allocate<ipv4mc_encap_leaf_st>(IPMC_SHMWIN_ALLOC_ENCAP_LEAF);
    leaf->encap_entry = encap;
    leaf->regdb_entry = to;
    append(encap->encap_leaf_head, encap->encap_leaf_tail, leaf,
           &ipv4mc_encap_leaf_st::next_encap_leaf, &ipv4mc_encap_leaf_st::prev_encap_leaf);
    leaf->next_regdb_leaf = to->regdb_leaf_head;
    if (to->regdb_leaf_head != nullptr) {
        to->regdb_leaf_head->prev_regdb_leaf = leaf;
    }
    to->regdb_leaf_head = leaf;
    return leaf;
}

void give_children(ipv4mc_idb_st *bundle) {
    bundle->bundle_members = static_cast<ipmc_bundle_member_st *>(ipv4mc_shmwin_malloc_inline(
        sizeof(ipmc_bundle_member_st) * IPMC_BUNDLE_MEMBERS_MAX, IPMC_SHMWIN_ALLOC_BUNDLE_MEMBERS));
    bundle->bundle_members[0] = {0x301, 1};
    bundle->bundle_members[1] = {0x302, 2};
    bundle->bundle_member_count = 2;
    static rt_aux_t aux;
    EXPECT_EQ(rt_aux_init(
                  &aux, [](rt_node_t *) {}, 0),
              1);
    bundle->vlan_tree = allocate<rt_head_t>(IPMC_SHMWIN_ALLOC_BUNDLE);
    EXPECT_EQ(rt_root_init(bundle->vlan_tree, &aux), 1);
    for (const ifhtype ifh : {0x401U, 0x402U, 0x403U}) {
        auto *child = allocate<ipmc_vlan_node_st>(IPMC_SHMWIN_ALLOC_VLAN);
        child->ifh = ifh;
        child->key = &child->ifh;
        EXPECT_EQ(rt_insert(bundle->vlan_tree, child, 32, child->key), 0U);
        ++bundle->vlan_count;
    }
}

ipv4mc_bvi_entry_t *insert_bvi(ipv4mc_table_st *vrf, ifhtype bvi, ipv4mc_intf_entry_st *tied) {
    auto *entry = allocate<ipv4mc_bvi_entry_t>(IPMC_SHMWIN_ALLOC_BVI_ENTRY);
    entry->bvi_ifh = bvi;
    std::memcpy(entry->key, &bvi, sizeof(bvi));
    entry->key_bits = 32;
    EXPECT_EQ(rn_insert(vrf->bvi_db_root, entry), 0);
    entry->if_tree =
        rn_tree_init_v2(offsetof(ipv4mc_bvi_if_t, key), offsetof(ipv4mc_bvi_if_t, key_bits),
                        nullptr, allocate_bvi_root, 2);
    auto *tie = allocate<ipv4mc_bvi_if_t>(IPMC_SHMWIN_ALLOC_BVI_IF);
    tie->key_bits = IPV6_MFWD_BVI_IF_KEY_BITS;
    tie->ifh = bvi;
    tie->bvi_entry = entry;
    tie->route = tied->route;
    EXPECT_EQ(rn_insert(entry->if_tree, tie), 0);
    entry->ref_cnt = 1;
    tied->bvi_if = tie;
    return entry;
}

state::state() : lib(std::make_unique<bed::library>(PLATFORM_ROUTER_TYPE_ASYNC_A)) {
    static event_manager_t *manager = nullptr;
    if (manager == nullptr) {
        event_manager_create(&manager);
    }
    EXPECT_EQ(ipmc_platform_err_handler_init(manager), 0U);
    make_tables();
    make_routes();
    make_interfaces();
    make_signals();
    make_encaps();
    make_lists();
    make_failures();
    make_requests();
}

state::~state() {
    lib.reset();
    platform_info_t info{};
    platform_info_defaults(&info);
    platform_info_set(&info);
}

void state::make_tables() {
    core = rig::make_default_table();
    red = make_table(0xe0000005, 0x60000006, "red");
    blue = make_table(0xe0000007, 0x60000008, "blue");
    red_vrf = red->vtable;
    ipv4mc_table_st *lone = nullptr;
    EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_CREATE, 0, 0x60000010, "green", &lone, 0), 0U);
}

void state::make_routes() {
    above = add(red, star_g("ff3e::100", 120), MRIB_ROUTE_IF);
    below = add(red, sg(0x101), MRIB_ROUTE_IA);
    EXPECT_EQ(below->IF_parent, above);
    for (uint32_t n = 0; n < 200; ++n) {
        add(red, sg(n + 0x1000));
        add(blue, sg(n));
    }
    int is_new = 0;
    ipv4mc_route_entry_st *rated = find(blue, sg(3));
    EXPECT_EQ(operate(IPV4MC_ACTION_RATE_ENABLE, blue, sg(3), &rated, &is_new), 0U);
}

void state::make_interfaces() {
    busy = add(red, sg(1));
    a = join(busy, {IPV4MC_INTF_ORDINARY, ifh_a, 0, 0}, MRIB_INTF_COUNTED);
    b = join(busy, {IPV4MC_INTF_ORDINARY, ifh_b, 0, 0});
    c = join(busy, {IPV4MC_INTF_ORDINARY, ifh_c, 0, 0}, MRIB_INTF_EG);
    amt = join(busy, {IPV4MC_INTF_AMT, ifh_a, 0x0100007f, 2268}, MRIB_INTF_REGDB);
    busy->counted_intf_cnt = 1;
    busy->intf_local_EG_cnt = 1;
    red->route_counters.local_eg_cnt = 1;
    ipv4mc_route_entry_st *other = add(red, sg(2));
    join(other, {IPV4MC_INTF_ORDINARY, ifh_a, 0, 0});
    join(other, {IPV4MC_INTF_ORDINARY, ifh_bundle, 0, 0});
    ipv4mc_idb_st *named = nullptr;
    EXPECT_EQ(ip6mc_idb_lock_v3(0x180, "Gi0/0/0/1", &named, nullptr), 0U);
    bundle = idb_of(ifh_bundle);
    give_children(bundle);
}

void state::make_signals() {
    const auto post = [&](uint32_t n, ifhtype ifh) {
        ipv4mc_route_entry_st *made = nullptr;
        const ip_maddr_st from = source(n);
        const ip_maddr_st to = address("ff3e::1");
        EXPECT_EQ(ip6mc_signal_add_mutex(red, &from, &to, ifh, &made, nullptr, nullptr), 0U);
        return made;
    };
    signal = post(1, ifh_a);
    post(1, ifh_b);
    signal_too = post(2, ifh_a);
    post(3, ifh_a);
}

void state::make_encaps() {
    encap = rig::make_encap(0x12345);
    rig::make_encap(0x54321);
    transport = insert_transport(0x501);
    transport_too = insert_transport(0x502);
    leaf = insert_encap_leaf(encap, transport);
    leaf_too = insert_encap_leaf(encap, transport_too);
    ipv4mc_route_update_st update{};
    update.encap_id = 0x12345;
    EXPECT_EQ(ip6mc_route_update(busy, IPV4MC_ROUTE_UPDATE_ENCAP, &update), 0U);
    ipv4mc_route_entry_st *other = find(red, sg(2));
    EXPECT_EQ(ip6mc_route_update(other, IPV4MC_ROUTE_UPDATE_ENCAP, &update), 0U);
    rig::tie(amt, transport);
    // A route that carries a transport.
    ipv4mc_route_entry_st *carrier = add(core, sg(0x900));
    ipv4mc_regdb_entry_st *carried = insert_transport(0x503);
    carried->core_info = {IPV4MC_CORE_INFO_GRE, carrier, 0};
    carrier->regdb_entry = carried;
    ip6mc_route_encap_ole_link(b);
    ip6mc_route_encap_ole_link(a);
    b->attributes |= MRIB_INTF_BVI;
    bvi = insert_bvi(red_vrf, 0x600, b);
}

void state::make_lists() {
    const auto feed = [&](uint32_t n) {
        ipv4mc_route_entry_st *route = add(core, sg(n), MRIB_ROUTE_TID_STICKY);
        EXPECT_EQ(ip6mc_route_link_route_to_vrf(route, IPV4MC_VRF_LOCAL, red->tid, "feeding"), 0U);
        return route;
    };
    feeding = feed(0x700);
    feeding_too = feed(0x701);
    const auto on_list = [](ipmc_route_lists which, ipv4mc_route_entry_st *route,
                            ipv4mc_route_entry_st *ipv4mc_route_entry_st::*next,
                            ipv4mc_route_entry_st *ipv4mc_route_entry_st::*prev) {
        ipv4mc_route_entry_st *&head = rig::header()->route_list_heads[which];
        route->*next = head;
        if (head != nullptr) {
            head->*prev = route;
        }
        head = route;
    };
    for (ipv4mc_route_entry_st *route : {feeding, feeding_too}) {
        using r = ipv4mc_route_entry_st;
        on_list(IPMC_ROUTE_LIST_MDT_CAND, route, &r::mdt_cand_next, &r::mdt_cand_prev);
        route->mdt_candidate = 1;
        on_list(IPMC_ROUTE_LIST_MT_UPD, route, &r::mt_upd_next, &r::mt_upd_prev);
        on_list(IPMC_ROUTE_LIST_AMT_UPD, route, &r::amt_upd_next, &r::amt_upd_prev);
        on_list(IPMC_ROUTE_LIST_MOFRR_UPD, route, &r::mofrr_upd_next, &r::mofrr_upd_prev);
        route->attributes |= MRIB_ROUTE_MT | MRIB_ROUTE_MOFRR_UPD;
    }
}

void state::make_failures() {
    const auto fail = [&](uint32_t n) {
        sim_arm_fault(SIM_OP_ROUTE, IPV4MC_ACTION_COMMIT, 0, 1, EIO);
        ipv4mc_route_entry_st *route = add(red, sg(n));
        EXPECT_EQ(route->err, 1);
        return route;
    };
    failed = fail(0x800);
    failed_too = fail(0x801);
}

void state::make_requests() {
    for (int n = 0; n < 3; ++n) {
        auto *made = allocate<ipmc_intf_change_req_st>(IPMC_SHMWIN_ALLOC_INTF_CHANGE);
        made->table = red;
        append(red->intf_req_head, red->intf_req_tail, made, &ipmc_intf_change_req_st::next,
               &ipmc_intf_change_req_st::prev);
        request = request == nullptr ? made : request;
    }
}

std::string lines(const mfwd6::check::report &found) {
    std::string all;
    for (const mfwd6::check::finding &each : found.findings) {
        all.append(to_string(each)).append("\n");
    }
    for (const mfwd6::check::finding &each : found.leftovers) {
        all.append("left over: ").append(to_string(each)).append("\n");
    }
    for (const mfwd6::check::orphan &each : found.orphans) {
        all.append("orphan of type ").append(mfwd6::check::type_name(each.type)).append("\n");
    }
    return all;
}

}  // namespace rich
