// The retry queue against the marks of its objects, and object ids against their objects.
#include <unordered_map>

#include "apps/check/records.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "services/objid/domain.h"

namespace mfwd6::check {
namespace {

using route = ipv4mc_route_entry_st;
using entry = ipv4mc_intf_entry_st;
using encap_entry = ipv4mc_encap_entry_st;

class queue_walk {
  public:
    explicit queue_walk(records &all) : all_(all), w_(all.w) {}

    void run() {
        const dlqueue_node_t *head = w_.follow(
            about(&w_.header()), "retry_queue",
            static_cast<const dlqueue_node_t *>(load(w_.header().retry_queue)), kinds::queue);
        if (head != nullptr) {
            walk_ring(head);
        }
        check_marks();
    }

  private:
    // A ring: the way ends at the head.
    void walk_ring(const dlqueue_node_t *head) {
        const subject queue = about("retry queue", head);
        if (load(head->data) != nullptr) {
            w_.wrong(queue, "data", "is not null in the head of the queue");
        }
        std::unordered_set<const dlqueue_node_t *> seen;
        const dlqueue_node_t *before = head;
        for (const dlqueue_node_t *node = load(head->next); node != head; node = load(node->next)) {
            const subject from = before == head ? queue : about("retry element", before);
            if (node == nullptr || w_.follow(from, "next", node, kinds::retry) == nullptr) {
                if (node == nullptr) {
                    w_.wrong(from, "next", "is null in a ring");
                }
                return;
            }
            if (!seen.insert(node).second) {
                return w_.wrong(from, "next", "leads back to " + hex(node));
            }
            check_back(node, before);
            check_element(reinterpret_cast<const ipmc_retry_msg *>(node));
            before = node;
        }
        if (load(head->prev) != before) {
            w_.wrong(queue, "prev", "is not the last element");
        }
        w_.count("retry element", seen.size());
    }

    void check_back(const dlqueue_node_t *node, const dlqueue_node_t *before) {
        if (load(node->prev) != before) {
            w_.wrong(about("retry element", node), "prev",
                     "is " + hex(load(node->prev)) + ", the element before is " + hex(before));
        }
        if (load(node->data) != node) {
            w_.wrong(about("retry element", node), "data", "is not the element itself");
        }
    }

    void check_element(const ipmc_retry_msg *element) {
        const subject self = about("retry element", element);
        const void *object = load(element->object);
        switch (load(element->type)) {
            case IPMC_RETRY_ROUTE:
                return check_route(self, static_cast<const route *>(object));
            case IPMC_RETRY_ENCAP:
                return check_encap(self, static_cast<const encap_entry *>(object));
            default:
                w_.wrong(self, "type", "is " + std::to_string(load(element->type)));
        }
    }

    void check_route(const subject &self, const route *r) {
        const auto known = all_.routes.find(r);
        if (known == all_.routes.end()) {
            return w_.wrong(self, "object", "is no known route: " + hex(r));
        }
        if (known->second.queued) {
            return w_.wrong(self, "object", "is on the queue twice: " + hex(r));
        }
        known->second.queued = true;
        if (!known->second.published) {
            w_.leftover(self, "object", "is a route in no trie: " + about(r).name(r));
        }
        if (load(r->err) != 1) {
            w_.wrong(about(r), "err", "is clear, and the route is on the retry queue");
        }
    }

    void check_encap(const subject &self, const encap_entry *encap) {
        const auto known = all_.encaps.find(encap);
        if (known == all_.encaps.end()) {
            return w_.wrong(self, "object", "is no known encap: " + hex(encap));
        }
        if (known->second) {
            return w_.wrong(self, "object", "is on the queue twice: " + hex(encap));
        }
        known->second = true;
        if (load(encap->retry_queued) != 1) {
            w_.wrong(about(encap), "retry_queued", "is clear, and the encap is on the queue");
        }
    }

    // Without memory for an element an object is marked and not queued.
    void check_marks() {
        for (const auto &[r, facts] : all_.routes) {
            if (load(r->err) != 0 && !facts.queued) {
                w_.leftover(about(r), "err", "is set, and the route is not on the retry queue");
            }
        }
        for (const auto &[encap, queued] : all_.encaps) {
            if (load(encap->retry_queued) != 0 && !queued) {
                w_.leftover(about(encap), "retry_queued",
                            "is set, and the encap is not on the retry queue");
            }
        }
    }

    records &all_;
    walk &w_;
};

class id_walk {
  public:
    explicit id_walk(records &all) : all_(all), w_(all.w) {}

    void run() {
        const fib_obj_id_domain_t *domain = w_.follow(
            about(&w_.header()), "obj_id_domain",
            static_cast<const fib_obj_id_domain_t *>(load(w_.header().obj_id_domain)),
            kind{"domain of object ids", IPMC_SHMWIN_ALLOC_OBJ_ID, sizeof(fib_obj_id_domain_t)});
        if (domain == nullptr) {
            return;
        }
        self_ = about("domain of object ids", domain);
        if (load(domain->magic) != objid::domain_magic || !walk_pages(domain)) {
            return w_.wrong(self_, "magic", "or shape is not that of a domain");
        }
        walk_slots(domain);
        walk_free(domain);
        check_objects(domain);
        w_.count("object id", live_.size());
    }

  private:
    struct live_slot {
        const void *object;
        uint32_t userdata;
        bool owned;  // a record names the id
    };

    bool walk_pages(const fib_obj_id_domain_t *domain) {
        const uint64_t size = load(domain->table_size);
        if (size == 0 || size > UINT32_MAX / sizeof(objid::slot) ||
            size != uint64_t{1} << load(domain->table_shift)) {
            return false;
        }
        const kind page_kind{"page of object ids", IPMC_SHMWIN_ALLOC_OBJ_ID, sizeof(objid::page)};
        const kind table_kind{"table of object ids", IPMC_SHMWIN_ALLOC_OBJ_ID,
                              static_cast<uint32_t>(size * sizeof(objid::slot))};
        uint64_t room = 0;
        for (const auto &at : domain->pages) {
            const objid::page *page = load(at);
            if (page == nullptr) {
                continue;
            }
            if (w_.follow(self_, "pages", page, page_kind) == nullptr) {
                return false;
            }
            for (const auto &table_at : page->tables) {
                const objid::slot *table = load(table_at);
                if (table == nullptr) {
                    continue;
                }
                if (w_.follow(about("page of object ids", page), "tables", table, table_kind) ==
                    nullptr) {
                    return false;
                }
                room += size;
                tables_.push_back(table);
            }
        }
        const uint64_t ids = load(domain->ids);
        w_.equal(self_, "room", load(domain->room), room < ids ? room : ids,
                 "places in the tables");
        return load(domain->room) <= room && load(domain->fresh) <= load(domain->room);
    }

    const objid::slot &slot_at(const fib_obj_id_domain_t *domain, uint64_t index) const {
        return tables_[index >> load(domain->table_shift)]
                      [index & (uint64_t{load(domain->table_size)} - 1)];
    }

    void walk_slots(const fib_obj_id_domain_t *domain) {
        for (uint64_t index = 0; index < load(domain->fresh); ++index) {
            const objid::slot &slot = slot_at(domain, index);
            const uint32_t state = load(slot.state);
            if ((state & objid::live_bit) != 0) {
                live_[index] = {reinterpret_cast<const void *>(load(slot.word)),
                                state & (objid::state_free(1) - 1), false};
            }
        }
        w_.equal(self_, "in_use", load(domain->in_use), live_.size(), "ids in use");
    }

    void walk_free(const fib_obj_id_domain_t *domain) {
        const uint64_t most = load(domain->fresh);
        uint64_t met = 0;
        uint64_t last = objid::no_index;
        for (uint64_t index = load(domain->free_first); index != objid::no_index;) {
            if (index >= most || ++met > most || live_.count(index) != 0) {
                return w_.wrong(self_, "free_first",
                                "leads to index " + std::to_string(index) +
                                    ", which is in use, unknown, or seen before");
            }
            last = index;
            index = load(slot_at(domain, index).word);
        }
        if (load(domain->free_last) != last) {
            w_.wrong(self_, "free_last", "is not the end of the free ids");
        }
        if (met + live_.size() != most) {
            w_.wrong(self_, "fresh",
                     "says " + std::to_string(most) + ", there are " +
                         std::to_string(live_.size()) + " ids in use and " + std::to_string(met) +
                         " free");
        }
    }

    void check_objects(const fib_obj_id_domain_t *domain) {
        for (const auto &[r, facts] : all_.routes) {
            check_object(domain, about(r), load(r->obj_id), r, IPMC_OBJ_ROUTE);
        }
        for (const auto &[e, facts] : all_.entries) {
            check_object(domain, about(e), load(e->obj_id), e, IPMC_OBJ_INTF);
        }
        for (const auto &[index, slot] : live_) {
            if (!slot.owned) {
                check_stray(index, slot);
            }
        }
    }

    void check_object(const fib_obj_id_domain_t *domain, const subject &record, uint64_t id,
                      const void *object, uint32_t type) {
        if (id >= IPMC_OBJ_ID_NONE || id == 0) {
            return;
        }
        uint64_t index = 0;
        uint32_t live = 0;
        const cerrno rc = fib_obj_id_decode(domain, id, &index, nullptr, nullptr, nullptr, nullptr,
                                            nullptr, &live);
        const auto found = rc == 0 && live != 0 ? live_.find(index) : live_.end();
        if (found == live_.end()) {
            return w_.wrong(record, "obj_id", hex(id) + " is not in use");
        }
        if (found->second.object != object || found->second.userdata != type) {
            return w_.wrong(record, "obj_id",
                            hex(id) + " stands for " + hex(found->second.object) + " of type " +
                                std::to_string(found->second.userdata));
        }
        found->second.owned = true;
    }

    // An id outlives a record that its owner was making or ending when it was killed.
    void check_stray(uint64_t index, const live_slot &slot) {
        const bool is_route = slot.userdata == IPMC_OBJ_ROUTE;
        const kind &what = is_route ? kinds::route : kinds::entry;
        const std::string id = "index " + std::to_string(index);
        if (!w_.is(slot.object, what)) {
            return w_.missing(
                self_, "pages",
                id + " stands for " + hex(slot.object) + ", which is no " + what.record);
        }
        const bool known = is_route
                               ? all_.routes.count(static_cast<const route *>(slot.object)) != 0
                               : all_.entries.count(static_cast<const entry *>(slot.object)) != 0;
        if (known) {
            w_.wrong(self_, "pages",
                     id + " stands for a " + std::string(what.record) + " that does not name it");
        } else {
            w_.leftover(self_, "pages", id + " stands for an orphan, " + hex(slot.object));
        }
    }

    records &all_;
    walk &w_;
    subject self_{"domain of object ids", nullptr, nullptr};
    std::vector<const objid::slot *> tables_;
    std::unordered_map<uint64_t, live_slot> live_;
};

}  // namespace

void walk_retry_queue(records &all) {
    queue_walk(all).run();
}

void walk_object_ids(records &all) {
    id_walk(all).run();
}

}  // namespace mfwd6::check
