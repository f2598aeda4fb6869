// Lists through records, followed both ways.
#ifndef MFWD6_APPS_CHECK_LISTS_H
#define MFWD6_APPS_CHECK_LISTS_H

#include <unordered_set>

#include "apps/check/walk.h"

namespace mfwd6::check {

// How a list is built: where each record keeps its neighbours, and what they are called.
template <class Record>
struct list_shape {
    kind record;
    subject (*name)(const Record *);
    const char *head_field;
    const char *next_field;
    const char *prev_field;                            // null: linked one way only
    Record *const *(*next)(const Record *);            // where the link stands
    Record *const *(*prev)(const Record *) = nullptr;  // the same
};

// Follows a list from its head: calls `visit(record)` for each record, once. Proves that each link
// leads to a record of the right kind, that the way back is the way forward, and that the list
// ends. The last record is the result, null for an empty list.
template <class Record, class Visit>
const Record *walk_list(walk &w, const subject &owner, const list_shape<Record> &shape,
                        const Record *head, Visit visit) {
    std::unordered_set<const Record *> seen;
    const Record *before = nullptr;
    const Record *at = w.follow(owner, shape.head_field, head, shape.record);
    while (at != nullptr) {
        if (!seen.insert(at).second) {
            w.wrong(before != nullptr ? shape.name(before) : owner,
                    before != nullptr ? shape.next_field : shape.head_field,
                    "leads back to " + hex(at) + ": the list has no end");
            return before;
        }
        if (shape.prev != nullptr) {
            const Record *back = load(*shape.prev(at));
            if (back != before) {
                w.wrong(shape.name(at), shape.prev_field,
                        "is " + hex(back) + ", the record before is " + hex(before));
            }
        }
        visit(at);
        before = at;
        at = w.follow(shape.name(at), shape.next_field,
                      static_cast<const Record *>(load(*shape.next(at))), shape.record);
    }
    return before;
}

// The tail that a list keeps beside its head.
template <class Record>
void check_tail(walk &w, const subject &owner, const char *field, const Record *says,
                const Record *last) {
    if (says != last) {
        w.wrong(owner, field, "is " + hex(says) + ", the last record is " + hex(last));
    }
}

}  // namespace mfwd6::check

#endif
