// Fault points: places where a program can be told to fail, for tests.
//
// A program registers a table of points; the armed counts lie in the file `<run
// dir>/fault/<program>.<name>`, so that any process may arm them, also before a restart of the
// program: the file outlives it. Where no file can be had the counts are private memory. Threads:
// any.
#ifndef MFWD6_SERVICES_DIAG_FAULT_H
#define MFWD6_SERVICES_DIAG_FAULT_H

#include <stdbool.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

enum { fim_text_size = 64, fim_max_points = 64 };

// The head of a registered table; bit n of `armed` is point n.
typedef struct fim_table {
    uint64_t armed;
} fim_table;
typedef fim_table *fim_handle;

// Registers `count` points (1 to 64) under `name` (no '/', at most 31 characters). `flags` is 0,
// `context` is not used. Texts are copied. The same name again gives the same handle. What was
// armed in the file stays armed if its texts are the same. EINVAL, ENOMEM; on failure the handle is
// NULL, which never fails a point.
MFWD6_EXPORT cerrno fim_register(const char *name, const char (*texts)[fim_text_size],
                                 uint32_t count, uint32_t flags, fim_handle *handle, void *context);

// Counts one passage of an armed point; true if this passage is to fail.
MFWD6_EXPORT bool fim_pass(fim_handle handle, uint32_t index);

// The question at a fault point: one load when nothing is armed. True if this passage is to fail.
static inline bool fim_armed(fim_handle handle, uint32_t index) {
    return handle != 0 && index < fim_max_points &&
           ((__atomic_load_n(&handle->armed, __ATOMIC_RELAXED) >> index) & 1U) != 0 &&
           fim_pass(handle, index);
}

// Lets `skip` passages go, fails the next `fail`, then disarms itself. `fail` 0xffffffff fails for
// good, 0 disarms. EINVAL for a NULL handle or an index outside the table.
MFWD6_EXPORT cerrno fim_arm(fim_handle handle, uint32_t index, uint32_t skip, uint32_t fail);
MFWD6_EXPORT cerrno fim_disarm_all(fim_handle handle);

// The same from another process, for the table `name` of `program`. ENOENT if it never registered
// it.
MFWD6_EXPORT cerrno fim_arm_program(const char *program, const char *name, uint32_t index,
                                    uint32_t skip, uint32_t fail);

typedef struct fim_point {
    uint32_t index;
    uint32_t skip;  // passages still let go
    uint32_t fail;  // failures still to come
    uint32_t reserved;
    uint64_t hits;  // failures since the file was made
    char text[fim_text_size];
} fim_point;

// Calls `visit` for each point of the table. A non-zero answer ends the walk.
MFWD6_EXPORT cerrno fim_walk(const char *program, const char *name,
                             int (*visit)(void *context, const fim_point *point), void *context);

MFWD6_END_C

#endif
