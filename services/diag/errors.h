// Texts of result codes. Threads: any.
#ifndef MFWD6_SERVICES_DIAG_ERRORS_H
#define MFWD6_SERVICES_DIAG_ERRORS_H

#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

// The text of a code, never NULL. Below 4096 the text of errno(3), 0 being "Success"; above, the
// text of the service that registered the code. A code that nobody knows gives its number, in one
// of 8 buffers of the calling thread, so that one message may hold several.
MFWD6_EXPORT const char *cerr_strerror(cerrno code);

// The text of a code, in static storage, or NULL if it has none.
typedef const char *(*cerr_text_ft)(cerrno code);

// Registers the codes for which `code & mask == base`. Registering the same again is a success.
// EINVAL for base below 4096, a base with bits outside the mask or a NULL function; EEXIST if
// another function has the base and mask; ENOSPC beyond 64. Never undone: the function must stay
// loaded.
MFWD6_EXPORT cerrno cerr_register(cerrno base, cerrno mask, cerr_text_ft text);

MFWD6_END_C

#endif
