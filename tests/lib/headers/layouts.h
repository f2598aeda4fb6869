// What a compiler thinks of the records: filled once by C and once by C++.
#ifndef TESTS_LIB_HEADERS_LAYOUTS_H
#define TESTS_LIB_HEADERS_LAYOUTS_H

#include <stddef.h>

struct layout {
    const char *what;
    size_t value;
};

#ifdef __cplusplus
extern "C" {
#endif
extern const struct layout layouts_c[];
extern const size_t layouts_c_count;
#ifdef __cplusplus
}
#endif

#endif
