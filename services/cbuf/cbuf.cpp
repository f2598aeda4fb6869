// A handle is a number, not an address: holders keep it beyond the buffer's end, some of them in
// memory that outlives the process. Such a handle names no buffer, here or in a later process.
#include "services/cbuf/cbuf.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

struct ring {
    uint32_t count;
    uint32_t element_size;
    uint32_t used;
    uint32_t oldest;
};  // the elements follow

struct slot {
    ring *buffer;  // null: free
    uint32_t generation;
    uint32_t next_free;
};

std::mutex lock;
slot *slots = nullptr;
uint32_t slot_count = 0;
uint32_t first_free = 0;  // slot_count: none

// More slots, all free. Only with no free one left.
bool grow() {
    const uint32_t more = slot_count == 0 ? 64 : 2 * slot_count;
    auto *larger = static_cast<slot *>(realloc(slots, size_t{more} * sizeof(slot)));
    if (larger == nullptr) {
        return false;
    }
    // The process's own start: numbers of an earlier process fit nothing here.
    const uint32_t start = static_cast<uint32_t>(getpid()) * 2654435761U;
    for (uint32_t n = slot_count; n < more; ++n) {
        larger[n] = {nullptr, start, n + 1};
    }
    slots = larger;
    first_free = slot_count;
    slot_count = more;
    return true;
}

cbuf *handle_of(uint32_t index) {
    const uint64_t number = (uint64_t{slots[index].generation} << 32) | (uint64_t{index} + 1);
    return reinterpret_cast<cbuf *>(number);
}

slot *slot_of(const cbuf *handle) {
    const auto number = reinterpret_cast<uint64_t>(handle);
    const uint32_t index = static_cast<uint32_t>(number) - 1;
    if (index >= slot_count || slots[index].buffer == nullptr ||
        slots[index].generation != static_cast<uint32_t>(number >> 32)) {
        return nullptr;
    }
    return &slots[index];
}

ring *ring_of(const cbuf *handle) {
    const std::lock_guard guard(lock);
    const slot *found = slot_of(handle);
    return found != nullptr ? found->buffer : nullptr;
}

unsigned char *element_at(ring *buffer, uint32_t n) {
    const uint64_t index = (uint64_t{buffer->oldest} + n) % buffer->count;
    return reinterpret_cast<unsigned char *>(buffer + 1) + index * buffer->element_size;
}

}  // namespace

cbuf *cbuf_create(uint32_t count, uint32_t element_size) {
    size_t bytes = 0;
    if (count == 0 || element_size == 0 ||
        __builtin_mul_overflow(size_t{count}, element_size, &bytes) ||
        bytes > PTRDIFF_MAX - sizeof(ring)) {
        return nullptr;
    }
    auto *buffer = static_cast<ring *>(calloc(1, sizeof(ring) + bytes));
    if (buffer == nullptr) {
        return nullptr;
    }
    buffer->count = count;
    buffer->element_size = element_size;
    const std::lock_guard guard(lock);
    if (first_free == slot_count && !grow()) {
        free(buffer);
        return nullptr;
    }
    const uint32_t index = first_free;
    first_free = slots[index].next_free;
    slots[index].buffer = buffer;
    return handle_of(index);
}

void cbuf_destroy(cbuf *buffer) {
    const std::lock_guard guard(lock);
    slot *gone = slot_of(buffer);
    if (gone == nullptr) {
        return;
    }
    free(gone->buffer);
    gone->buffer = nullptr;
    ++gone->generation;
    gone->next_free = first_free;
    first_free = static_cast<uint32_t>(gone - slots);
}

cerrno cbuf_append(cbuf *handle, const void *element) {
    ring *buffer = ring_of(handle);
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

uint32_t cbuf_count(const cbuf *handle) {
    const ring *buffer = ring_of(handle);
    return buffer == nullptr ? 0 : buffer->used;
}

const void *cbuf_at(const cbuf *handle, uint32_t n) {
    ring *buffer = ring_of(handle);
    return buffer != nullptr && n < buffer->used ? element_at(buffer, n) : nullptr;
}
