// How a disagreement between library and model ends the process: with what was done, and what
// differs.
#ifndef MFWD6_TESTS_FUZZ_OPERATIONS_COMPLAINT_H
#define MFWD6_TESTS_FUZZ_OPERATIONS_COMPLAINT_H

#include <cstdint>
#include <string>

namespace fuzz {

// Notes an operation for the report; with MFWD6_FUZZ_TRACE in the environment prints it too.
__attribute__((format(printf, 1, 2))) void note(const char *format, ...);
void forget_notes();

// Prints the notes and the text, and aborts.
[[noreturn]] __attribute__((format(printf, 1, 2))) void complain(const char *format, ...);

template <class A, class B>
void expect_equal(const A &seen, const B &wanted, const char *what, const std::string &where = "") {
    if (seen != static_cast<A>(wanted)) {
        complain("%s %s: library says 0x%llx, model says 0x%llx", where.c_str(), what,
                 static_cast<unsigned long long>(seen),
                 static_cast<unsigned long long>(static_cast<A>(wanted)));
    }
}

template <class T>
void expect_same(const T *seen, const T *wanted, const char *what, const std::string &where = "") {
    if (seen != wanted) {
        complain("%s %s: library says %p, model says %p", where.c_str(), what,
                 static_cast<const void *>(seen), static_cast<const void *>(wanted));
    }
}

}  // namespace fuzz

#endif
