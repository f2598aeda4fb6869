// Doubly linked list through records in shared memory, journaled.
//
// The record holds its two links; another record holds the head pointer and, for some lists, the
// tail pointer. Both ends are null: the first record's previous link, the last one's next link, the
// head and tail of an empty list. Nothing is owned and nothing is allocated.
//
//   using candidates = journal::member_list<route, &route::cand_next, &route::cand_prev>;
//   candidates(header->head).push_front(r);
//   candidates(header->head, header->tail).push_back(r);
//   for (route *r = candidates(header->head).first(); r != nullptr; r = candidates::next(r)) ...
//
// Each change is one journal group (it joins an open one). The one store that makes it visible is a
// `publish`; all the others prepare or tidy up.
//
// Thread-safety. One writer at a time. A reader without a lock may walk forward at any moment of a
// change, of its undoing, and after the writer's death: it meets every record that stays on the
// list, in order, and may or may not meet the one that comes or goes. `remove` leaves the record's
// own next link, so that a reader standing on it goes on; `remove_and_clear`, an insertion that is
// undone and a later insertion end or divert the walk of a reader that still stands there. The
// memory of a removed record must outlive such readers. The backward links are for the writer
// alone.
#ifndef MFWD6_SERVICES_JOURNAL_LIST_H
#define MFWD6_SERVICES_JOURNAL_LIST_H

#include <cstddef>

#include "services/journal/journal.h"

namespace mfwd6::journal {

// What `list::check` found.
enum class list_fault {
    none,
    endless,   // more records than the given limit: a loop
    backward,  // a record's previous link does not name the record before it
    tail,      // the tail pointer does not name the last record
};

// `Links` says where a record's links are: static functions `record *&next(record *)` and `prev`,
// with `record` a member type.
template <class Links>
class list {
  public:
    using record = typename Links::record;

    explicit list(record *&head) : head_(head), tail_(nullptr) {}
    list(record *&head, record *&tail) : head_(head), tail_(&tail) {}

    record *first() const { return observe(head_); }
    static record *next(record *r) { return observe(Links::next(r)); }
    static record *prev(record *r) { return Links::prev(r); }
    bool empty() const { return first() == nullptr; }

    // True when `r` has a neighbour or is the head. A record that `remove` took off must have been
    // cleared for the answer to be right.
    bool contains(record *r) const {
        return head_ == r || Links::prev(r) != nullptr || Links::next(r) != nullptr;
    }

    void push_front(record *r) { insert_between(nullptr, r, head_); }

    // Needs the tail pointer.
    void push_back(record *r) { insert_between(*tail_, r, nullptr); }

    void insert_after(record *at, record *r) { insert_between(at, r, Links::next(at)); }

    void insert_before(record *at, record *r) { insert_between(Links::prev(at), r, at); }

    // Takes `r` off. Its previous link becomes null, its next link stays for readers that stand on
    // it.
    void remove(record *r) {
        group g;
        unlink(r);
        store(Links::prev(r), nullptr);
    }

    // Takes `r` off and makes both its links null.
    void remove_and_clear(record *r) {
        group g;
        unlink(r);
        clear(r);
    }

    // Makes both links of a record that is on no list null.
    static void clear(record *r) {
        group g;
        store(Links::prev(r), nullptr);
        publish(Links::next(r), nullptr);
    }

    // Puts `r` in the place of `old`, which is left as by `remove`: a reader meets the one or the
    // other.
    void replace(record *old, record *r) {
        group g;
        record *before = Links::prev(old);
        record *after = Links::next(old);
        store(Links::prev(r), before);
        publish(Links::next(r), after);
        publish(forward_to(before), r);
        set_backward(after, r);
        store(Links::prev(old), nullptr);
    }

    // Walks the list and compares every backward link and the tail with the forward walk. Writes
    // the number of records to `*count` when that is given. Not beside a writer.
    list_fault check(size_t limit, size_t *count = nullptr) const {
        size_t n = 0;
        record *before = nullptr;
        for (record *r = first(); r != nullptr; before = r, r = next(r)) {
            if (n++ == limit) {
                return list_fault::endless;
            }
            if (Links::prev(r) != before) {
                return list_fault::backward;
            }
        }
        if (count != nullptr) {
            *count = n;
        }
        return tail_ == nullptr || *tail_ == before ? list_fault::none : list_fault::tail;
    }

    // Makes the backward links and the tail agree with the forward walk, which is the truth.
    void mend() {
        group g;
        record *before = nullptr;
        for (record *r = first(); r != nullptr; before = r, r = next(r)) {
            if (Links::prev(r) != before) {
                store(Links::prev(r), before);
            }
        }
        if (tail_ != nullptr && *tail_ != before) {
            store(*tail_, before);
        }
    }

  private:
    record *&forward_to(record *before) const {
        return before != nullptr ? Links::next(before) : head_;
    }

    void set_backward(record *after, record *r) {
        if (after != nullptr) {
            store(Links::prev(after), r);
        } else if (tail_ != nullptr) {
            store(*tail_, r);
        }
    }

    void insert_between(record *before, record *r, record *after) {
        group g;
        store(Links::prev(r), before);
        // A reader may still stand on a record that was removed before.
        publish(Links::next(r), after);
        publish(forward_to(before), r);
        set_backward(after, r);
    }

    void unlink(record *r) {
        record *before = Links::prev(r);
        record *after = Links::next(r);
        publish(forward_to(before), after);
        set_backward(after, before);
    }

    record *&head_;
    record **tail_;
};

// Links that are plain members.
template <class R, R *R::*Next, R *R::*Prev>
struct member_links {
    using record = R;
    static R *&next(R *r) { return r->*Next; }
    static R *&prev(R *r) { return r->*Prev; }
};

template <class R, R *R::*Next, R *R::*Prev>
using member_list = list<member_links<R, Next, Prev>>;

// Links that are elements of arrays: element `Index` of each.
template <class R, size_t N, R *(R::*Next)[N], R *(R::*Prev)[N], size_t Index>
struct indexed_links {
    static_assert(Index < N);
    using record = R;
    static R *&next(R *r) { return (r->*Next)[Index]; }
    static R *&prev(R *r) { return (r->*Prev)[Index]; }
};

template <class R, size_t N, R *(R::*Next)[N], R *(R::*Prev)[N], size_t Index>
using indexed_list = list<indexed_links<R, N, Next, Prev, Index>>;

}  // namespace mfwd6::journal

#endif
