// Memory of one kind of thing: an array that grows in place, in process memory or in a file.
//
// Addresses stay: the whole of it is reserved at once and made usable as it grows. A file is really
// allocated before it is touched, so that a full file system is a code and not a signal.
#ifndef MFWD6_PLATFORMS_SIM_REGION_H
#define MFWD6_PLATFORMS_SIM_REGION_H

#include <cstddef>
#include <cstdint>

#include "services/cerrno.h"

namespace mfwd6::sim {

// First page of a region; the array follows it.
struct region_head {
    uint64_t magic;
    uint32_t element_bytes;
    uint32_t reserved;
    uint64_t used;  // elements ever taken: the array is that long
};

inline constexpr size_t region_head_bytes = 4096;

// Memory for an index, given back with free(3): of large pages where it is large, since an index is
// touched at random. NULL: out of memory.
void *allocate_cells(size_t bytes);

class region {
  public:
    // Empty, in process memory, for up to `most` elements. ENOMEM.
    cerrno open_memory(uint32_t element_bytes, uint64_t most);

    // The file `name` in the folder of `folder_fd`, made if it is not there. EINVAL: made by
    // another build.
    cerrno open_file(int folder_fd, const char *name, uint32_t element_bytes, uint64_t most);

    // Forgets it. The file stays.
    void close();

    bool opened() const { return base_ != nullptr; }
    region_head *head() const { return reinterpret_cast<region_head *>(base_); }
    std::byte *elements() const { return base_ + region_head_bytes; }

    // Makes room for `count` elements. ENOSPC, ENOMEM: nothing changed.
    cerrno grow_to(uint64_t count);

  private:
    cerrno extend(size_t bytes);

    std::byte *base_ = nullptr;
    size_t reserved_ = 0;
    size_t usable_ = 0;  // bytes from base_
    uint32_t element_bytes_ = 0;
    int fd_ = -1;
};

}  // namespace mfwd6::sim

#endif
