// A backend of the interface manager client whose interfaces are added by calls. For tests, and for
// programs that have no kernel to ask. Registered from the start as "table".
#ifndef MFWD6_SERVICES_IMC_TABLE_H
#define MFWD6_SERVICES_IMC_TABLE_H

#include "services/imc/imc.h"

MFWD6_BEGIN_C

// Short for imc_context_open("table", NULL, context).
MFWD6_EXPORT cerrno imc_table_open(imc_context_t **context);

// Adds an interface, or changes the one with this handle. EINVAL (also for a context of another
// backend, handle 0, a name that is empty or too long), EEXIST for a name that another handle has,
// ENOMEM.
MFWD6_EXPORT cerrno imc_table_add(imc_context_t *context, uint32_t ifh, const char *name,
                                  uint16_t type, uint32_t parent);

// EINVAL, IMC_NO_INTERFACE.
MFWD6_EXPORT cerrno imc_table_remove(imc_context_t *context, uint32_t ifh);

MFWD6_END_C

#endif
