// Makes allocations of the test program and its libraries fail on demand. Include in one source
// file of a program. Sanitizers bring their own allocator: there a test says why it is skipped.
#ifndef MFWD6_TESTS_SERVICES_FAILING_MALLOC_FAILING_MALLOC_H
#define MFWD6_TESTS_SERVICES_FAILING_MALLOC_FAILING_MALLOC_H

#include <cerrno>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

inline constexpr bool can_fail_malloc = false;

#else

inline constexpr bool can_fail_malloc = true;

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
}

#endif

namespace failing_malloc {

// Allocations that still succeed on this thread; negative: all do.
inline thread_local long left = -1;

inline bool fails_now() {
    if (left < 0) {
        return false;
    }
    if (left > 0) {
        --left;
        return false;
    }
    errno = ENOMEM;
    return true;
}

// While it lives, allocations of this thread fail after the first `succeed`.
class scope {
  public:
    explicit scope(long succeed) { left = succeed; }
    ~scope() { left = -1; }
    scope(const scope &) = delete;
    scope &operator=(const scope &) = delete;
};

}  // namespace failing_malloc

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" {

__attribute__((visibility("default"))) void *malloc(size_t size) noexcept {
    return failing_malloc::fails_now() ? nullptr : __libc_malloc(size);
}

__attribute__((visibility("default"))) void *calloc(size_t count, size_t size) noexcept {
    return failing_malloc::fails_now() ? nullptr : __libc_calloc(count, size);
}

__attribute__((visibility("default"))) void *realloc(void *block, size_t size) noexcept {
    return failing_malloc::fails_now() ? nullptr : __libc_realloc(block, size);
}
}

#endif

#define SKIP_WITHOUT_FAILING_MALLOC()                                           \
    do {                                                                        \
        if (!can_fail_malloc) {                                                 \
            GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail"; \
        }                                                                       \
    } while (false)

#endif
