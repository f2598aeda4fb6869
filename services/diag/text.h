// Words for enumerations, printed addresses, strings of fixed fields. Threads: any.
#ifndef MFWD6_SERVICES_DIAG_TEXT_H
#define MFWD6_SERVICES_DIAG_TEXT_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "services/export.h"

MFWD6_BEGIN_C

// The states of the library, of the platform library and of their interface halves: 0 to 2. Static
// texts; "UNKNOWN" for any other number.
MFWD6_EXPORT const char *ipv4_mlib_state_string(uint32_t state);
MFWD6_EXPORT const char *ipv4_mlib_platform_state_string(uint32_t state);
MFWD6_EXPORT const char *ipv4_mlib_idb_state_string(uint32_t state);
MFWD6_EXPORT const char *ipv4_mlib_platform_idb_state_string(uint32_t state);

enum { ipv4_mlib_action_string_size = 40 };
// Writes the word for an action code into `buffer` (at least 40 bytes) and returns it: "CREATE",
// "EXACT LOOKUP"; "ACTION 17" for a code without a meaning. With a NULL buffer, a static text,
// "UNKNOWN ACTION" where there is none.
MFWD6_EXPORT const char *ipv4_mlib_action_string(uint32_t action, char *buffer);

// Debug lines "<prefix><action> route 0x<address> 0x<word>" at class 5 and "... intf ..." at class
// 4, if the class is on. The record's address is printed, never followed.
MFWD6_EXPORT void ipv4_mlib_buginf_route_action_(const char *prefix, uint32_t action,
                                                 const void *route, uint64_t word);
MFWD6_EXPORT void ipv4_mlib_buginf_intf_action_(const char *prefix, uint32_t action,
                                                const void *intf, uint64_t word);

// inet_ntop(3), for family 10 (16 bytes) and 2 (4 bytes, network order). `buffer` on success; NULL
// with errno EAFNOSUPPORT, EINVAL (NULL argument) or ENOSPC otherwise, the buffer then holding an
// empty string if it has room.
MFWD6_EXPORT const char *qv_inet_ntop(int family, const void *address, char *buffer, size_t size);

// The dotted form of an IPv4 address in network order. NULL if `size` is too small (16 always
// suffice).
MFWD6_EXPORT char *inet_ntoa_r(struct in_addr address, char *buffer, size_t size);

// Compares the first `length` bits (at most 128) of two 16-byte addresses as memcmp(3) does: 0 if
// they are equal.
MFWD6_EXPORT int inet6_compare_masked(const void *left, const void *right, uint32_t length);

// Copies `source` into a field of `size` bytes, cut to fit, always ended by a zero byte. NULL
// copies as the empty string. Bytes after the terminator are left alone. Returns `target`; with
// size 0 nothing is written.
MFWD6_EXPORT char *sstrncpy(char *target, const char *source, size_t size);

// The kernel's id of the calling thread (gettid(2)), kept per thread.
MFWD6_EXPORT pid_t qv_gettid(void);

MFWD6_END_C

#endif
