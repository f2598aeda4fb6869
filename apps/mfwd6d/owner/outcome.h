// How an operation ended: a code, and for a failure a sentence for people.
#ifndef MFWD6_APPS_MFWD6D_OWNER_OUTCOME_H
#define MFWD6_APPS_MFWD6D_OWNER_OUTCOME_H

#include <fmt/format.h>

#include <cerrno>
#include <string>
#include <utility>

#include "services/cerrno.h"
#include "services/diag/errors.h"

namespace mfwd6::daemon {

struct outcome {
    cerrno code = 0;
    std::string text;  // empty for success

    bool failed() const { return code != 0; }
};

inline outcome failure(cerrno code, std::string text) {
    return {code, std::move(text)};
}

// "WHAT: text of the code".
inline outcome failure_of(cerrno code, std::string what) {
    return {code, std::move(what) + ": " + cerr_strerror(code)};
}

// The same for an interface that the platform refused: a full table is said with its limit.
inline outcome intf_failure_of(cerrno code, std::string what) {
    outcome o = failure_of(code, std::move(what));
    if (code == ENOSPC) {
        o.text += " (a kernel table routes between 32 interfaces at most)";
    }
    return o;
}

}  // namespace mfwd6::daemon

#endif
