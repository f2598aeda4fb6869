#include "platforms/sim/region.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace mfwd6::sim {

namespace {

constexpr uint64_t magic = 0x6d66776436736d31;
constexpr size_t step = size_t{1} << 20;

// Memory beyond this is asked for in large pages; below it they would only take time to clear.
constexpr size_t large_page = size_t{2} << 20;
constexpr size_t worth_large_pages = 2 * large_page;

size_t round_up(size_t bytes, size_t unit) {
    return (bytes + unit - 1) / unit * unit;
}

cerrno last_error() {
    return static_cast<cerrno>(errno);
}

}  // namespace

void *allocate_cells(size_t bytes) {
    if (bytes < worth_large_pages) {
        return std::malloc(bytes);
    }
    void *memory = std::aligned_alloc(large_page, round_up(bytes, large_page));
    if (memory != nullptr) {
        (void)madvise(memory, bytes, MADV_HUGEPAGE);  // a wish
    }
    return memory;
}

cerrno region::open_memory(uint32_t element_bytes, uint64_t most) {
    reserved_ = round_up(region_head_bytes + element_bytes * most, step);
    void *at =
        mmap(nullptr, reserved_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (at == MAP_FAILED) {
        return last_error();
    }
    base_ = static_cast<std::byte *>(at);
    usable_ = 0;
    element_bytes_ = element_bytes;
    if (const cerrno failed = extend(step); failed != 0) {
        close();
        return failed;
    }
    *head() = {magic, element_bytes, 0, 0};
    return 0;
}

cerrno region::open_file(int folder_fd, const char *name, uint32_t element_bytes, uint64_t most) {
    const int fd = openat(folder_fd, name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return last_error();
    }
    struct stat found = {};
    if (fstat(fd, &found) != 0) {
        const cerrno failed = last_error();
        ::close(fd);
        return failed;
    }
    reserved_ = round_up(region_head_bytes + element_bytes * most, step);
    void *at = mmap(nullptr, reserved_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (at == MAP_FAILED) {
        const cerrno failed = last_error();
        ::close(fd);
        return failed;
    }
    base_ = static_cast<std::byte *>(at);
    fd_ = fd;
    usable_ = static_cast<size_t>(found.st_size);
    element_bytes_ = element_bytes;
    if (usable_ < region_head_bytes) {
        usable_ = 0;
        if (const cerrno failed = extend(step); failed != 0) {
            close();
            return failed;
        }
    }
    // A process killed while it made the file left the magic unwritten: then it is made anew.
    if (head()->magic == 0) {
        head()->element_bytes = element_bytes;
        head()->used = 0;
        head()->magic = magic;
    }
    if (head()->magic != magic || head()->element_bytes != element_bytes || head()->used > most ||
        region_head_bytes + head()->used * element_bytes > usable_) {
        close();
        return EINVAL;
    }
    return 0;
}

void region::close() {
    if (base_ != nullptr) {
        munmap(base_, reserved_);
    }
    if (fd_ >= 0) {
        ::close(fd_);
    }
    *this = region{};
}

cerrno region::grow_to(uint64_t count) {
    const size_t needed = region_head_bytes + count * element_bytes_;
    if (needed <= usable_) {
        return 0;
    }
    if (needed > reserved_) {
        return ENOSPC;
    }
    // Half as much again, so that growing costs the same per element however many there are.
    return extend(std::min(std::max(round_up(needed, step), round_up(usable_ + usable_ / 2, step)),
                           reserved_));
}

cerrno region::extend(size_t bytes) {
    if (fd_ >= 0) {
        const int failed =
            posix_fallocate(fd_, static_cast<off_t>(usable_), static_cast<off_t>(bytes - usable_));
        if (failed != 0) {
            return static_cast<cerrno>(failed);
        }
    } else if (mprotect(base_ + usable_, bytes - usable_, PROT_READ | PROT_WRITE) != 0) {
        return last_error();
    } else if (usable_ >= worth_large_pages) {
        (void)madvise(base_ + usable_, bytes - usable_, MADV_HUGEPAGE);  // a wish
    }
    usable_ = bytes;
    return 0;
}

}  // namespace mfwd6::sim
