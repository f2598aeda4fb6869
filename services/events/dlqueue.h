// A doubly linked queue of records that carry their own link. May lie in shared memory.
//
// The queue is a ring: its head is a node too, whose data is NULL, and whose next is the first
// element, or itself when the queue is empty. Elements go in at the back, so a walk along next sees
// them in the order of insertion.
//
// Thread-safety. One writer. Each change is one journal group: killed in the middle, it is finished
// or undone. A reader that follows next from the head needs no lock: after every single store of an
// insert, a removal or the undoing of one, that walk is whole. It may miss an element that goes in
// or out meanwhile. A removed element keeps its next, so that a reader that stands on it finds the
// way on; its memory is not reused while readers may be there.
#ifndef MFWD6_SERVICES_EVENTS_DLQUEUE_H
#define MFWD6_SERVICES_EVENTS_DLQUEUE_H

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

typedef struct dlqueue_node {
    struct dlqueue_node *prev;
    struct dlqueue_node *next;
    void *data;  // the element that the node lies in; NULL in a head
} dlqueue_node_t;

// Sets up a head (`data` NULL) or an element that is on no queue. Not for a node that is on a
// queue.
MFWD6_EXPORT void dlqueue_init(dlqueue_node_t *node, void *data);

// Puts an element at the back of the queue with this head. EINVAL for NULL, EEXIST when the element
// is on a queue already; nothing is changed then.
MFWD6_EXPORT cerrno dlqueue_insert(dlqueue_node_t *node, dlqueue_node_t *queue);

// Takes an element off its queue. EINVAL for NULL, ENOENT when it is on none; nothing is changed
// then. Not for a head.
MFWD6_EXPORT cerrno dlqueue_remove(dlqueue_node_t *node);

MFWD6_END_C

#endif
