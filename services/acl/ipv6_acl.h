// Access lists: named, ordered lists of permit and deny entries over IPv6 prefixes.
//
// The program sets lists under names; a user takes a hold on the list that a name has at that
// moment and keeps it, unchanged, until it releases it, even if the name gets another list
// meanwhile. Process memory: a handle is a number that names a hold-able list of this process and
// is never followed as an address, so a handle that an earlier process left behind in a window is
// refused, not followed.
//
// Thread-safety. All calls may be made from any thread. Entries got from a list last as long as a
// hold.
#ifndef MFWD6_SERVICES_ACL_IPV6_ACL_H
#define MFWD6_SERVICES_ACL_IPV6_ACL_H

#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

#define IPV6_ACL_NOT_FOUND 0x44f06001U   // no list of this name
#define IPV6_ACL_BAD_HANDLE 0x44f06002U  // not the handle of a list that is held in this process
#define IPV6_ACL_SYNTAX 0x44f06003U      // the text could not be read
#define IPV6_ACL_TOO_MANY 0x44f06004U    // more than IPV6_ACL_MAX_ENTRIES

#define IPV6_ACL_NAME_SIZE 66  // of a name, with its terminator
#define IPV6_ACL_MAX_ENTRIES 65536

#define IPV6_ACL_PERMIT 1U
#define IPV6_ACL_DENY 2U

// Addresses are in network byte order; the bits behind a prefix are zero. Address and length zero:
// any. An entry with one prefix has it as its source; the destination is then any.
typedef struct ipv6_acl_entry {
    uint32_t sequence;  // ascending in a list
    uint32_t action;    // IPV6_ACL_PERMIT or IPV6_ACL_DENY
    uint8_t source[16];
    uint8_t destination[16];
    uint8_t source_length;  // bits
    uint8_t destination_length;
    uint8_t reserved[6];  // 0
} ipv6_acl_entry_t;

typedef struct ipv6_acl *ipv6_acl_handle_t;  // opaque

// Takes a hold on the list that `name` has now. `evm` is the event manager of the caller, or NULL;
// lists are process memory, so it is not used. IPV6_ACL_NOT_FOUND, EINVAL, ENOMEM; *acl is not
// written then.
MFWD6_EXPORT cerrno ipv6_acl_get_list(ipv6_acl_handle_t *acl, const char *name, void *evm);

// Gives one hold back. IPV6_ACL_BAD_HANDLE, also for NULL and after the last hold.
MFWD6_EXPORT cerrno ipv6_acl_release(ipv6_acl_handle_t acl);

// The entry behind `previous`, or the first one for NULL. NULL at the end, and for a bad handle.
MFWD6_EXPORT const ipv6_acl_entry_t *ipv6_acl_get_next(ipv6_acl_handle_t acl,
                                                       const ipv6_acl_entry_t *previous);

// Copies the first `length` bits of an address of 16 bytes and zeroes the others; more than 128 is
// 128. `prefix` may be `address`.
MFWD6_EXPORT void ipv6_prefix_only(const void *address, uint32_t length, void *prefix);

// Gives `name` a list, in place of one that it may have. The entries are copied; a sequence of 0
// becomes the one before plus 10, the first one 10. EINVAL: a name that is empty or too long,
// an action, a length above 128, bits behind a prefix, sequences that do not ascend;
// IPV6_ACL_TOO_MANY, ENOMEM. On failure the name keeps its list.
MFWD6_EXPORT cerrno ipv6_acl_set(const char *name, const ipv6_acl_entry_t *entries, size_t count);

// As ipv6_acl_set, from text: an entry per line,
//   [SEQUENCE] permit|deny PREFIX [PREFIX]
// where PREFIX is ADDRESS/LENGTH, host ADDRESS, or any. '#' begins a comment, empty lines are
// skipped. IPV6_ACL_SYNTAX for a line that cannot be read: `error`, if not NULL, receives "line N:
// reason" in at most `error_size` bytes; it is an empty string on success.
MFWD6_EXPORT cerrno ipv6_acl_set_text(const char *name, const char *text, char *error,
                                      size_t error_size);

// Takes the list from the name. Holders keep it. IPV6_ACL_NOT_FOUND.
MFWD6_EXPORT cerrno ipv6_acl_remove(const char *name);

// Number of holds on the list that the name has now. IPV6_ACL_NOT_FOUND, EINVAL.
MFWD6_EXPORT cerrno ipv6_acl_holds(const char *name, uint32_t *holds);

// Number of lists in memory: those that have a name and those that are only held.
MFWD6_EXPORT uint32_t ipv6_acl_count(void);

MFWD6_END_C

#endif
