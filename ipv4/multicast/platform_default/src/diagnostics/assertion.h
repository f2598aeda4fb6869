// Assertions guard what, once lost, means that memory is corrupt; they stop the process in every build.
#ifndef IP6MC_SRC_DIAGNOSTICS_ASSERTION_H
#define IP6MC_SRC_DIAGNOSTICS_ASSERTION_H

#include <assert.h>

// `text` is what the message shows for `condition`.
#define MLIB_ASSERT(condition, text) \
    (static_cast<bool>(condition) ? void() : __assert_fail(text, __FILE__, __LINE__, __func__))

#endif
