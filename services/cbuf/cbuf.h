// Circular buffers of elements of one size, in process memory.
//
// A handle may be kept beyond the buffer's end, also by a later process: it then names no buffer.
//
// Threads: one at a time for one buffer; the caller sees to it.
#ifndef MFWD6_SERVICES_CBUF_CBUF_H
#define MFWD6_SERVICES_CBUF_CBUF_H

#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

typedef struct cbuf cbuf;

// An empty buffer of `count` elements of `element_size` bytes. NULL if either is 0, if the product
// is too large, or if memory is out. The caller's until cbuf_destroy.
MFWD6_EXPORT cbuf *cbuf_create(uint32_t count, uint32_t element_size);

// Frees the buffer. Nothing for NULL and for a handle whose buffer is gone.
MFWD6_EXPORT void cbuf_destroy(cbuf *buffer);

// Copies `element` in; when the buffer is full it takes the place of the oldest. EINVAL for NULL
// and for a buffer that is gone.
MFWD6_EXPORT cerrno cbuf_append(cbuf *buffer, const void *element);

// How many elements it holds. 0 for NULL and for a buffer that is gone.
MFWD6_EXPORT uint32_t cbuf_count(const cbuf *buffer);

// The n-th oldest element, 0 being the oldest; NULL if there is none. Valid until the next append.
MFWD6_EXPORT const void *cbuf_at(const cbuf *buffer, uint32_t n);

MFWD6_END_C

#endif
