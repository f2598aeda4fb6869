// Adjacencies as far as the library sees them: a base with an interface handle and a way to hold
// it.
#ifndef MFWD6_SERVICES_PLATFORM_INFO_ADJACENCY_H
#define MFWD6_SERVICES_PLATFORM_INFO_ADJACENCY_H

#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

typedef struct adj_base adj_base_t;

// Hold or release.
typedef void (*adj_own_fn)(adj_base_t *adjacency);

#define ADJ_OWN_HOLD 0
#define ADJ_OWN_RELEASE 1

// First member of each adjacency record. Process memory.
struct adj_base {
    uint32_t ifh;
    uint32_t holds;         // counted by the functions of adj_base_init
    const adj_own_fn *own;  // table of two functions, or NULL: nobody counts
};

// Sets up a base whose holds are counted, starting at 0.
MFWD6_EXPORT void adj_base_init(adj_base_t *adjacency, uint32_t ifh);

// The table of two functions that hold and release the adjacency, index 0 and 1; NULL if it has
// none, and for NULL.
MFWD6_EXPORT const adj_own_fn *adj_own_bundle_from_base(const adj_base_t *adjacency);

MFWD6_END_C

#endif
