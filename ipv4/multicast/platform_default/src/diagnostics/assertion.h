// Assertions guard what, once lost, means that memory is corrupt; they stop the process in every
// build.
#ifndef IP6MC_SRC_DIAGNOSTICS_ASSERTION_H
#define IP6MC_SRC_DIAGNOSTICS_ASSERTION_H

namespace mlib {

// Tells where, in the manner of assert(3), on standard error and in the error trace; then abort(3).
[[noreturn]] void assertion_failed(const char *text, const char *file, int line,
                                   const char *function);

}  // namespace mlib

// `text` is what the message shows for `condition`.
#define MLIB_ASSERT(condition, text)       \
    (static_cast<bool>(condition) ? void() \
                                  : mlib::assertion_failed(text, __FILE__, __LINE__, __func__))

#endif
