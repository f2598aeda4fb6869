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

#endif
