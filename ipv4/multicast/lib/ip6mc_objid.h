// Object ids: 64-bit handles of routes and interface entries, by which the hardware reports errors
// long after the call that caused them. Values that are no id stand in ip6mc_types.h.
#ifndef IP6MC_OBJID_H
#define IP6MC_OBJID_H

#include "ipv4/multicast/lib/ip6mc_types.h"

// Types of objects, which an id carries. No others are valid.
enum ipmc_obj_types { IPMC_OBJ_ROUTE = 1, IPMC_OBJ_INTF = 2 };

// Shape of the one domain, fixed when it is built.
#define IPMC_OBJ_ID_COUNT UINT64_C(0x100000000)
#define IPMC_OBJ_ID_TABLE_SIZE UINT32_C(4096)
#define IPMC_OBJ_ID_INSTANCES UINT32_C(1024)
#define IPMC_OBJ_ID_VERSIONS UINT32_C(1024)
#define IPMC_OBJ_ID_USERDATA UINT32_C(8)

MFWD6_BEGIN_C

// Builds the domain of ids in the window, or connects to the one that an earlier process left. On a
// router without asynchronous error handling nothing is built: 0, and no object gets an id.
MFWD6_EXPORT cerrno ipmc_object_ida_init_domain(void);

// Takes an id for an object of `type` (ipmc_obj_types) into `*id`, which is IPMC_OBJ_ID_UNSPECIFIED
// after a failure: EINVAL, or what the service said. 0 with an unspecified id where no domain was
// ever built.
MFWD6_EXPORT cerrno ipmc_object_ida_alloc(void *object, uint32_t type, uint64_t *id);

// The same into the record's own `obj_id`. 0, with the record left alone, where there are no ids.
MFWD6_EXPORT cerrno ipmc_object_ida_alloc_route(ipv4mc_route_entry_st *route);
MFWD6_EXPORT cerrno ipmc_object_ida_alloc_intf(ipv4mc_intf_entry_st *intf);

// Gives an id back; `*id` becomes IPMC_OBJ_ID_NONE. EINVAL, silently, for an id that is not valid
// (twice is harmless); ENOENT or what the service said.
MFWD6_EXPORT cerrno ipmc_object_ida_free(uint64_t *id);

// Object and type behind an id. EINVAL, ENOENT without a domain, or what the service said of a
// stale id.
MFWD6_EXPORT cerrno ipmc_object_ida_get_object_from_id(uint64_t id, void **object);
MFWD6_EXPORT cerrno ipmc_object_ida_get_type_from_id(uint64_t id, uint32_t *type);

// The object behind an id, if it is of this type. EINVAL for another type.
MFWD6_EXPORT cerrno ipmc_obj_get_from_id(uint64_t id, uint32_t type, void **object);
MFWD6_EXPORT cerrno ipmc_route_get_from_id(uint64_t id, ipv4mc_route_entry_st **route);
MFWD6_EXPORT cerrno ip6mc_intf_get_from_id(uint64_t id, ipv4mc_intf_entry_st **intf);

MFWD6_END_C

#endif
