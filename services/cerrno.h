// The result type of the whole system.
#ifndef MFWD6_SERVICES_CERRNO_H
#define MFWD6_SERVICES_CERRNO_H

#include <stdint.h>

// 0 is success, a number below 4096 is an errno value (errno(3)), anything larger is a code of a
// service: the upper 20 bits name the service, the lower 12 the reason. cerr_strerror gives the
// text.
typedef uint32_t cerrno;

#endif
