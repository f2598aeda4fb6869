#include "services/cbuf/cbuf.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

struct cbuf {
    uint32_t count;
    uint32_t element_size;
    uint32_t used;
    uint32_t oldest;
    unsigned char *elements;
};

cbuf *cbuf_create(uint32_t count, uint32_t element_size) {
    size_t bytes = 0;
    if (count == 0 || element_size == 0 ||
        __builtin_mul_overflow(size_t{count}, element_size, &bytes) || bytes > PTRDIFF_MAX) {
        return nullptr;
    }
    auto *buffer = static_cast<cbuf *>(calloc(1, sizeof(cbuf)));
    if (buffer == nullptr) {
        return nullptr;
    }
    buffer->elements = static_cast<unsigned char *>(calloc(count, element_size));
    if (buffer->elements == nullptr) {
        free(buffer);
        return nullptr;
    }
    buffer->count = count;
    buffer->element_size = element_size;
    return buffer;
}

void cbuf_destroy(cbuf *buffer) {
    if (buffer != nullptr) {
        free(buffer->elements);
        free(buffer);
    }
}

static unsigned char *element_at(const cbuf *buffer, uint32_t n) {
    const uint64_t index = (uint64_t{buffer->oldest} + n) % buffer->count;
    return buffer->elements + index * buffer->element_size;
}

cerrno cbuf_append(cbuf *buffer, const void *element) {
    if (buffer == nullptr || element == nullptr) {
        return EINVAL;
    }
    // Past the last element when full, which is the oldest.
    memcpy(element_at(buffer, buffer->used), element, buffer->element_size);
    if (buffer->used < buffer->count) {
        ++buffer->used;
    } else {
        buffer->oldest = (buffer->oldest + 1) % buffer->count;
    }
    return 0;
}

uint32_t cbuf_count(const cbuf *buffer) {
    return buffer == nullptr ? 0 : buffer->used;
}

const void *cbuf_at(const cbuf *buffer, uint32_t n) {
    return n < cbuf_count(buffer) ? element_at(buffer, n) : nullptr;
}
