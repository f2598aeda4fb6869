// Orphans go back to the window.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <unordered_map>

#include "apps/check/check.h"
#include "apps/check/walk.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "services/journal/journal.h"
#include "services/objid/obj_id.h"
#include "services/window/inspect.h"

namespace mfwd6::check {
namespace {

using journal::store;

constexpr uint32_t most_processes = 1024;

// Whether others may have search keys here, or be in the middle of something.
cerrno check_alone() {
    std::vector<shmwin_process> list(most_processes);
    uint32_t count = 0;
    const cerrno rc =
        shmwin_get_processes(ipv4mc_desc->shmwin_id, list.data(), most_processes, &count);
    if (rc != 0) {
        return rc;
    }
    list.resize(std::min(count, most_processes));
    bool owner = false;
    uint32_t alive = 0;
    for (const shmwin_process &each : list) {
        alive += each.alive != 0 ? 1U : 0U;
        owner = owner || (each.alive != 0 && each.owner != 0 && each.pid == getpid());
    }
    return alive > 1 ? cerrno{EBUSY} : owner ? 0 : cerrno{EPERM};
}

// What an unfinished route or entry holds beside its memory.
void give_back_id(uint64_t id) {
    fib_obj_id_domain_t *domain = ipv4mc_desc->shmwin_info->obj_id_domain;
    uint32_t live = 0;
    if (id == 0 || id >= IPMC_OBJ_ID_NONE || domain == nullptr ||
        fib_obj_id_decode(domain, id, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                          &live) != 0 ||
        live == 0) {
        return;
    }
    fib_obj_id_free(domain, id);
}

// The tables that are there, so that an orphan's pointer is followed only to one of them.
std::vector<ipv4mc_table_st *> all_tables() {
    std::vector<ipv4mc_table_st *> found;
    avl_tree_walk(
        ipv4mc_desc->shmwin_info->table_tid_tree,
        [](void *object, void *context) -> cerrno {
            static_cast<std::vector<ipv4mc_table_st *> *>(context)->push_back(
                static_cast<ipv4mc_table_st *>(object));
            return 0;
        },
        &found);
    return found;
}

void let_go_of_route(const orphan &each) {
    const auto *leaf = reinterpret_cast<const gtrie::leaf *>(each.address);
    if (each.bytes < sizeof(*leaf) + sizeof(ipv4mc_route_entry_st) ||
        leaf->magic != gtrie::leaf_magic) {
        return;
    }
    const auto *route = reinterpret_cast<const ipv4mc_route_entry_st *>(leaf + 1);
    give_back_id(route->obj_id);
    for (ipv4mc_table_st *table : all_tables()) {
        if (table == route->table) {
            store(table->rate_route_count, table->rate_route_count - 1);
        }
    }
}

void let_go(const orphan &each) {
    if (each.type == IPMC_SHMWIN_ALLOC_ROUTE) {
        let_go_of_route(each);
    } else if (each.type == IPMC_SHMWIN_ALLOC_INTF && each.bytes >= sizeof(ipv4mc_intf_entry_st)) {
        give_back_id(reinterpret_cast<const ipv4mc_intf_entry_st *>(each.address)->obj_id);
    }
}

bool is_key(const orphan &each) {
    return each.type == IPMC_SHMWIN_ALLOC_AVL && each.bytes == sizeof(ipv4mc_table_st);
}

// The search key of this process, which nothing leads to either: it is the record that takes over
// what is searched for. 0 when there is none.
class own_key {
  public:
    explicit own_key(const std::vector<orphan> &among) {
        for (const uint32_t probe : {UINT32_C(0xfffffffd), UINT32_C(0xfffffffe)}) {
            ip6mc_table_lookup_by_tbl_id(probe);
            address_ = 0;
            for (const orphan &each : among) {
                if (is_key(each) &&
                    reinterpret_cast<const ipv4mc_table_st *>(each.address)->tid == probe) {
                    address_ = each.address;
                }
            }
        }
    }
    bool is(const orphan &each) const { return each.address == address_; }

  private:
    uint64_t address_ = 0;
};

// Untyped blocks are the client's own: that nothing in the window leads to one says nothing.
bool may_free(const orphan &each) {
    return each.type != IPMC_SHMWIN_ALLOC_UNTYPED;
}

bool same(const orphan &a, const orphan &b) {
    return a.address == b.address && a.bytes == b.bytes && a.type == b.type;
}

// What was found and is an orphan still. Nobody else is here: of all search keys only this
// process's is in use.
std::vector<orphan> still_there(const report &found, const report &now) {
    std::unordered_map<uint64_t, orphan> before;
    for (const std::vector<orphan> *list : {&found.orphans, &found.keys}) {
        for (const orphan &each : *list) {
            before.emplace(each.address, each);
        }
    }
    std::vector<orphan> left = now.orphans;
    left.insert(left.end(), now.keys.begin(), now.keys.end());
    std::erase_if(left, [&](const orphan &each) {
        const auto known = before.find(each.address);
        return known == before.end() || !same(each, known->second);
    });
    return left;
}

}  // namespace

cerrno reclaim(const report &found, uint64_t *blocks, uint64_t *bytes) {
    if (ipv4mc_desc->shmwin_init == 0) {
        return EBADF;
    }
    if (!found.clean()) {
        return EINVAL;
    }
    if (const cerrno rc = check_alone(); rc != 0) {
        return rc;
    }
    const report now = check_window();
    if (!now.clean()) {
        return EINVAL;
    }
    const std::vector<orphan> blocks_to_free = still_there(found, now);
    const own_key own(blocks_to_free);
    uint64_t freed = 0;
    uint64_t freed_bytes = 0;
    for (const orphan &each : blocks_to_free) {
        if (!may_free(each) || own.is(each)) {
            continue;
        }
        const journal::group change;
        let_go(each);
        if (ipv4mc_shmwin_free_inline(reinterpret_cast<void *>(each.address), each.type) == 0) {
            ++freed;
            freed_bytes += each.bytes;
        }
    }
    if (blocks != nullptr) {
        *blocks = freed;
    }
    if (bytes != nullptr) {
        *bytes = freed_bytes;
    }
    return 0;
}

}  // namespace mfwd6::check
