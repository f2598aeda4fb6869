// Operations on interfaces: those of routes, and the records of interfaces that they hold.
#include <algorithm>
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"

namespace fuzz {
namespace {

constexpr size_t most_intfs = 16;

// Bits that the library carries, or counts nowhere by itself.
uint64_t pick_attributes(input &in) {
    const uint8_t choice = in.byte();
    return (choice & 0x0fU) | (static_cast<uint64_t>(choice & 0xf0U) << 4);
}

cerrno call(ipv4mc_action_type action, const route &r, const named_intf &named,
            ipv4mc_intf_entry_st **entry, uint32_t intf_arg, ipv4mc_idb_st *idb_record,
            uint64_t old, int is_new) {
    return ip6mc_intf_operation(action, r.table->record, r.record, named.type, named.ifh,
                                named.amt_addr, named.amt_port, intf_arg, entry, idb_record, 0, old,
                                is_new);
}

named_intf named(const intf &entry) {
    return {entry.id.type, entry.ifh, entry.id.amt_addr, entry.id.amt_port};
}

ipv4mc_idb_st *record_of(ifhtype ifh) {
    ipv4mc_idb_st *found = nullptr;
    expect_equal(ip6mc_idb_lookup(ifh, &found), 0, "result of an interface lookup");
    return found;
}

}  // namespace

intf *world::nth_intf(const route &r, size_t n) {
    return r.intfs.empty()
               ? nullptr
               : std::next(r.intfs.begin(), static_cast<long>(n % r.intfs.size()))->get();
}

// ---- the calls
// -----------------------------------------------------------------------------------

void world::create_intf(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    const named_intf key = pick_intf(in);
    const uint8_t intf_arg = in.byte();
    if (r != nullptr) {
        make_intf(*r, key, intf_arg);
    }
}

// Both steps at once.
void world::add_intf(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    const named_intf key = pick_intf(in);
    const uint64_t attributes = pick_attributes(in);
    if (r != nullptr && make_intf(*r, key, 0) == 0 && r->pending != nullptr) {
        commit_intf(*r, attributes, 0, (attributes & 1) != 0);
    }
}

// CREATE; what is new is pending then.
cerrno world::make_intf(route &r, const named_intf &key, uint32_t intf_arg) {
    intf *existing = r.find(key.id());
    if (existing == nullptr && (r.pending != nullptr || r.intfs.size() >= most_intfs)) {
        return EBUSY;  // one at a time
    }
    note("create interface %u/%u of %s", key.type, key.ifh, r.key.text().c_str());
    std::unique_ptr<intf> made;
    const cerrno wanted = model_create_intf(r, key, intf_arg, &made);
    ipv4mc_intf_entry_st *entry = nullptr;
    const cerrno rc = call(IPV4MC_ACTION_CREATE, r, key, &entry, intf_arg, nullptr, 0,
                           existing == nullptr ? 1 : 0);
    expect_equal(rc, wanted, "result of interface CREATE");
    if (existing != nullptr) {
        expect_same(entry, existing->record, "interface that CREATE answers with");
    } else if (rc != 0) {
        expect_same<ipv4mc_intf_entry_st>(entry, nullptr, "interface behind a refused CREATE");
    } else {
        made->record = entry;
        made->obj_id = entry->obj_id;
        hw_.learn_id(told(*made, intf_arg));
        r.pending = std::move(made);
    }
    return rc;
}

void world::commit_pending_intf(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    const uint64_t attributes = pick_attributes(in);
    const uint8_t intf_arg = in.byte();
    if (r != nullptr && r->pending != nullptr) {
        commit_intf(*r, attributes, intf_arg & 0x7f, (intf_arg & 0x80) != 0);
    }
}

void world::commit_intf(route &r, uint64_t attributes, uint32_t intf_arg, bool give_idb) {
    intf &entry = *r.pending;
    note("commit new interface %u/%u of %s", entry.id.type, entry.ifh, r.key.text().c_str());
    entry.attributes = entry.record->attributes = attributes;
    ipv4mc_idb_st *idb_record = give_idb ? record_of(entry.ifh) : nullptr;
    const named_intf key = named(entry);
    ipv4mc_intf_entry_st *record = entry.record;
    const cerrno wanted = model_commit_new_intf(r, intf_arg);
    const bool gone = wanted != 0 && r.pending == nullptr;
    const cerrno rc = call(IPV4MC_ACTION_COMMIT, r, key, &record, intf_arg, idb_record, 0, 1);
    expect_equal(rc, wanted, "result of the COMMIT of a new interface");
    if (gone) {
        expect_same<ipv4mc_intf_entry_st>(record, nullptr, "interface behind a refused COMMIT");
    }
}

void world::change_intf(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    intf *entry = r == nullptr ? nullptr : nth_intf(*r, in.byte());
    const uint64_t attributes = pick_attributes(in);
    const uint32_t intf_arg = in.byte();
    if (entry == nullptr) {
        return;
    }
    // Local egress is counted, and changed by an operation of its own.
    commit_existing_intf(*r, *entry, attributes | (entry->attributes & MRIB_INTF_EG), intf_arg);
}

void world::commit_existing_intf(route &r, intf &entry, uint64_t attributes, uint32_t intf_arg) {
    note("commit interface %u/%u of %s", entry.id.type, entry.ifh, r.key.text().c_str());
    const uint64_t old = entry.attributes;
    entry.attributes = entry.record->attributes = attributes;
    entry.intf_arg = intf_arg;
    cerrno wanted = 0;
    if (can_program(r, false)) {
        wanted = hw_.intf_call(IPV4MC_ACTION_COMMIT, told(entry, intf_arg));
        wanted = hw_.point_hit(MLIB_FAULT_INTF_COMMIT) ? cerrno{EAGAIN} : wanted;
        wanted = wanted != 0 ? fail_sync(r, wanted) : 0;
    }
    ipv4mc_intf_entry_st *record = entry.record;
    expect_equal(call(IPV4MC_ACTION_COMMIT, r, named(entry), &record, intf_arg, nullptr, old, 0),
                 wanted, "result of the COMMIT of an interface");
}

// COMMIT as new of an entry that its route has already.
void world::commit_again_as_new(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    intf *entry = r == nullptr ? nullptr : nth_intf(*r, in.byte());
    const bool give_idb = in.flag();
    if (entry == nullptr) {
        return;
    }
    note("commit interface %u/%u of %s again as new", entry->id.type, entry->ifh,
         r->key.text().c_str());
    ipv4mc_idb_st *idb_record = give_idb ? record_of(entry->ifh) : nullptr;
    cerrno wanted = EINVAL;
    if (entry->on_idb) {
        if (idb_record == nullptr) {
            wanted = ENOENT;  // already on the list, and the interface is not told
        } else {
            model_leave_idb(*entry);
        }
    } else if (idb_record == nullptr) {
        wanted = model_join_idb(*entry);
        if (wanted == 0) {
            wanted = EINVAL;
            model_leave_idb(*entry);
        }
    } else {
        // Joins and leaves: nothing is left of it.
        idbs_[entry->ifh].ifh = entry->ifh;
        idbs_[entry->ifh].entries.push_front(entry);
        entry->on_idb = true;
        model_leave_idb(*entry);
    }
    ipv4mc_intf_entry_st *record = entry->record;
    expect_equal(call(IPV4MC_ACTION_COMMIT, *r, named(*entry), &record, 0, idb_record, 0, 1),
                 wanted, "result of a second COMMIT as new");
}

void world::delete_intf(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    intf *entry = r == nullptr ? nullptr : nth_intf(*r, in.byte());
    const uint8_t shape = in.byte();
    if (entry == nullptr) {
        return;
    }
    note("delete interface %u/%u of %s", entry->id.type, entry->ifh, r->key.text().c_str());
    const named_intf key = named(*entry);
    // Only the interface that the entry is listed on may be given.
    ipv4mc_idb_st *idb_record = (shape & 1) != 0 && entry->on_idb ? record_of(entry->ifh) : nullptr;
    ipv4mc_intf_entry_st *const before = entry->record;
    ipv4mc_intf_entry_st *record = (shape & 2) != 0 ? before : nullptr;
    const uint32_t intf_arg = entry->intf_arg;
    const uint64_t old = entry->attributes;
    const bool was_egress = entry->is_egress();
    const cerrno wanted = model_delete_intf(*r, *entry);
    const cerrno rc = call(IPV4MC_ACTION_DELETE, *r, key, (shape & 4) != 0 ? nullptr : &record,
                           intf_arg, idb_record, old, 0);
    expect_equal(rc, wanted, "result of an interface DELETE");
    if (rc == 0 && was_egress) {
        lower_egress(*r);
    }
}

void world::clear_pending_intf(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    if (r != nullptr) {
        drop_pending_intf(*r);
    }
}

// False when the hardware kept it: it is to be tried again.
bool world::drop_pending_intf(route &r) {
    if (r.pending == nullptr) {
        return true;
    }
    note("clear interface %u/%u of %s", r.pending->id.type, r.pending->ifh, r.key.text().c_str());
    intf &entry = *r.pending;
    ipv4mc_intf_entry_st *record = entry.record;
    const named_intf key = named(entry);
    const uint32_t intf_arg = entry.intf_arg;
    const cerrno wanted = hw_.intf_call(IPV4MC_ACTION_CLEAR, told(entry, intf_arg));
    if (wanted == 0) {
        r.pending.reset();
    }
    expect_equal(call(IPV4MC_ACTION_CLEAR, r, key, &record, intf_arg, nullptr, 0, 1), wanted,
                 "result of an interface CLEAR");
    return wanted == 0;
}

// References of callers on interfaces, and the ways to find one.
void world::lock_interface(input &in) {
    const uint8_t shape = in.byte();
    const auto ifh = static_cast<ifhtype>(1 + shape % last_ifh);
    const auto found = idbs_.find(ifh);
    ipv4mc_idb_st *record = record_of(ifh);
    if ((record != nullptr) != (found != idbs_.end())) {
        complain("interface %u: library says %d, model says %d", ifh, record != nullptr,
                 found != idbs_.end());
    }
    if ((shape & 0x80) != 0) {
        note("unlock interface %u", ifh);
        if (found == idbs_.end() || found->second.locks == 0) {
            return;
        }
        --found->second.locks;
        model_release_idb(ifh);
        expect_equal(ip6mc_idb_unlock(&record), 0, "result of an interface unlock");
        return;
    }
    note("lock interface %u", ifh);
    cerrno wanted = 0;
    if (found == idbs_.end()) {
        wanted = hw_.idb_call(IPV4MC_IDB_OP_CREATE, ifh);
    }
    ipv4mc_idb_st *locked = nullptr;
    expect_equal(ip6mc_idb_lock(ifh, &locked, nullptr), wanted, "result of an interface lock");
    if (wanted == 0) {
        idbs_[ifh].ifh = ifh;
        ++idbs_[ifh].locks;
    }
}

// ---- the model
// -----------------------------------------------------------------------------------

bool world::can_program(const route &r, bool is_new, bool async, bool oor_mode) {
    return !(is_new && async && oor_mode) && !r.oor;
}

hardware::told_intf world::told(const intf &entry, uint32_t intf_arg) const {
    return {entry.owner->table->tid, entry.owner->key.id(), entry.id, entry.ifh, intf_arg,
            entry.attributes,        entry.obj_id};
}

cerrno world::model_create_intf(route &r, const named_intf &key, uint32_t intf_arg,
                                std::unique_ptr<intf> *made) {
    intf *entry = r.find(key.id());
    const bool is_new = entry == nullptr;
    if (is_new) {
        *made = std::make_unique<intf>();
        entry = made->get();
        entry->owner = &r;
        entry->id = key.id();
        entry->ifh = key.ifh;
        entry->intf_arg = intf_arg;
    } else if (key.type == IPV4MC_INTF_AMT && entry->ifh != key.ifh) {
        model_leave_idb(*entry);
        entry->ifh = key.ifh;
    }
    if (!can_program(r, is_new)) {
        if (is_new) {
            r.oor = r.oor || async_;
            return 0;
        }
        return EEXIST;
    }
    cerrno rc = hw_.intf_call(IPV4MC_ACTION_CREATE, told(*entry, intf_arg));
    rc = hw_.point_hit(MLIB_FAULT_INTF_CREATE) ? cerrno{EAGAIN} : rc;
    if (rc != 0 && rc != IP6MC_PLATFORM_QUIET_REFUSAL) {
        rc = fail_sync(r, rc);
        if (rc != 0) {
            return rc;
        }
    }
    return is_new ? rc : cerrno{EEXIST};
}

cerrno world::model_commit_new_intf(route &r, uint32_t intf_arg) {
    intf &entry = *r.pending;
    if (const cerrno rc = model_join_idb(entry); rc != 0) {
        return rc;
    }
    r.intfs.push_front(std::move(r.pending));
    if (!can_program(r, true)) {
        return 0;
    }
    cerrno rc = hw_.intf_call(IPV4MC_ACTION_COMMIT, told(entry, intf_arg));
    rc = hw_.point_hit(MLIB_FAULT_INTF_COMMIT) ? cerrno{EAGAIN} : rc;
    rc = rc != 0 ? fail_sync(r, rc) : 0;
    if (rc != 0) {
        model_leave_idb(entry);
        remove_entry(r, entry);
    }
    return rc;
}

cerrno world::model_delete_intf(route &r, intf &which) {
    const cerrno rc = hw_.intf_call(IPV4MC_ACTION_DELETE, told(which, which.intf_arg));
    if (rc == 0) {
        model_leave_idb(which);
        remove_entry(r, which);
    }
    return rc;
}

void world::remove_entry(route &r, const intf &which) {
    r.outputs.remove_if([&](const intf *each) { return each == &which; });
    r.intfs.remove_if([&](const auto &each) { return each.get() == &which; });
}

// An interface comes with its first entry, if the hardware agrees.
cerrno world::model_join_idb(intf &entry) {
    if (!idbs_.contains(entry.ifh)) {
        if (const cerrno rc = hw_.idb_call(IPV4MC_IDB_OP_CREATE, entry.ifh); rc != 0) {
            return rc;
        }
        idbs_[entry.ifh].ifh = entry.ifh;
    }
    idbs_[entry.ifh].entries.push_front(&entry);
    entry.on_idb = true;
    return 0;
}

void world::model_leave_idb(intf &entry) {
    if (!entry.on_idb) {
        return;
    }
    entry.on_idb = false;
    idbs_[entry.ifh].entries.remove(&entry);
    model_release_idb(entry.ifh);
}

// It goes with its last holder, whatever the hardware says.
void world::model_release_idb(ifhtype ifh) {
    const idb &holder = idbs_[ifh];
    if (holder.entries.empty() && holder.locks == 0) {
        hw_.idb_call(IPV4MC_IDB_OP_DESTROY, ifh);
        idbs_.erase(ifh);
    }
}

}  // namespace fuzz
