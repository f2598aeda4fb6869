#include <pthread.h>

#include "services/diag/trace.h"

namespace {

struct stack_bounds {
    uintptr_t low = 0;
    uintptr_t high = 0;

    stack_bounds() {
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
            return;
        }
        void *base = nullptr;
        size_t size = 0;
        if (pthread_attr_getstack(&attributes, &base, &size) == 0) {
            low = reinterpret_cast<uintptr_t>(base);
            high = low + size;
        }
        pthread_attr_destroy(&attributes);
    }
};

thread_local const stack_bounds bounds;

// A frame record: where the caller's record is, and where it goes on.
struct frame {
    uintptr_t caller;
    uintptr_t resume;
};

// Records lie in the stack, aligned, and each above the one before. What passes this test can be
// read even if a function without frame pointers left something else in the register.
bool is_frame(uintptr_t at, uintptr_t after) {
    return at >= after && at % alignof(frame) == 0 && at <= bounds.high - sizeof(frame);
}

}  // namespace

// The addresses read are words of our own stack, whatever the sanitizers think of the frames they
// belong to.
__attribute__((noinline, no_sanitize("address", "undefined", "thread"))) void traceback_v2(
    traceback_record *record, uint32_t depth) {
    if (record == nullptr) {
        return;
    }
    *record = {};
    auto at = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    if (at < bounds.low || at >= bounds.high) {  // a stack of the program's own making
        record->address[0] =
            depth == 0 ? 0 : reinterpret_cast<uintptr_t>(__builtin_return_address(0));
        return;
    }
    uintptr_t after = at;
    for (uint32_t i = 0; i < depth && i < 5 && is_frame(at, after); ++i) {
        const auto *here = reinterpret_cast<const frame *>(at);
        if (here->resume == 0) {
            return;
        }
        record->address[i] = here->resume;
        after = at + sizeof(frame);
        at = here->caller;
    }
}
