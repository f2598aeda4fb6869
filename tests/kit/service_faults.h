// Failures of the services under the library: a call that a test has asked to fail answers with a
// code and does nothing.
//
// A program that uses this header gets its calls of the services named here, its own and the
// library's, through a gate. Codes come back from functions that return one; those that return a
// pointer return NULL.
#ifndef MFWD6_TESTS_KIT_SERVICE_FAULTS_H
#define MFWD6_TESTS_KIT_SERVICE_FAULTS_H

#include <cstdint>

#include "services/cerrno.h"

namespace kit {

// Lets `skip` calls of the service function `name` pass and fails the next `times` with `code`. A
// name that has no gate throws.
void fail_service(const char *name, cerrno code, uint64_t times = 1, uint64_t skip = 0);

// No function fails any more.
void heal_services();

// Calls of the function since the last heal.
uint64_t service_calls(const char *name);

}  // namespace kit

#endif
