#include "tests/lib/headers/all.h"
#include "tests/lib/headers/layouts.h"

const struct layout layouts_c[] = {
#include "tests/lib/headers/layouts.inc"
};
const size_t layouts_c_count = sizeof(layouts_c) / sizeof(layouts_c[0]);
