// What the library asks about the platform that it runs on: sizes, node, router type, interface
// handles.
//
// The answers are values that the program sets before it starts the library; until then sane
// defaults stand. Process memory.
//
// Thread-safety. Questions may be asked from any thread. Setting is for the start of the program,
// or a test, when no other thread asks.
#ifndef MFWD6_SERVICES_PLATFORM_INFO_PLATFORM_INFO_H
#define MFWD6_SERVICES_PLATFORM_INFO_PLATFORM_INFO_H

#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

// The platform's name for a node or a place has no form, or none with these arguments.
#define PLATFORM_INFO_BAD_NAME 0x45007001U
// A table id that does not tell which table it is.
#define PLATFORM_INFO_BAD_TABLE_ID 0x45007002U

// Bytes that the platform half keeps behind each record of the library; multiples of 8, at most
// 65536.
typedef struct platform_mcast_params {
    uint32_t route_extension_size;  // behind a route entry
    uint32_t intf_extension_size;   // behind an interface entry
    uint32_t encap_extension_size;  // behind an encap entry
    uint32_t reserved;              // 0
} platform_mcast_params_t;

// Router types that handle errors of the hardware asynchronously.
#define PLATFORM_ROUTER_TYPE_ASYNC_A 10U
#define PLATFORM_ROUTER_TYPE_ASYNC_B 16U

// platform_get_type.
#define PLATFORM_TYPE_LINE_CARD 1U
#define PLATFORM_TYPE_ROUTE_PROCESSOR 2U

// Attributes of an interface handle.
#define PLATFORM_IFH_LOCAL 1U    // the interface is on this node
#define PLATFORM_IFH_VIRTUAL 2U  // multicast treats it as virtual: it has no port of its own

// Everything that can be set. platform_info_defaults gives the defaults named here.
typedef struct platform_info {
    platform_mcast_params_t mcast_params;  // all 0
    uint32_t node_id;                      // 1
    uint32_t router_type;                  // 0
    uint32_t type;                         // PLATFORM_TYPE_ROUTE_PROCESSOR
    uint32_t fapid;                        // this node's fabric access point, 0: none
    uint32_t default_vrf_id;               // 0x60000000
    uint32_t ifhandle_attributes;          // of a handle not told otherwise: PLATFORM_IFH_LOCAL
    uint8_t rp_plus_datapath;              // 0
    uint8_t reserved[7];                   // 0
    // If not NULL, asked for each handle that platform_ifhandle_set does not know; gives its
    // attributes.
    uint32_t (*ifhandle_fn)(uint32_t ifh, void *context);
    void *ifhandle_context;
} platform_info_t;

MFWD6_EXPORT void platform_info_defaults(platform_info_t *info);
MFWD6_EXPORT void platform_info_get(platform_info_t *info);
// EINVAL, with nothing changed, for NULL or an extension size that is out of range.
MFWD6_EXPORT cerrno platform_info_set(const platform_info_t *info);

// Attributes of one handle; they come before function and default. EINVAL for handle 0, ENOMEM.
MFWD6_EXPORT cerrno platform_ifhandle_set(uint32_t ifh, uint32_t attributes);
// Forgets what was set for one handle, or with 0 for all.
MFWD6_EXPORT void platform_ifhandle_forget(uint32_t ifh);

// The questions. NULL outputs give EINVAL.
MFWD6_EXPORT cerrno platform_get_mcast_params(platform_mcast_params_t *params);
MFWD6_EXPORT cerrno platform_get_my_nodeid(uint32_t *node_id);
MFWD6_EXPORT uint32_t platform_get_router_type(void);
MFWD6_EXPORT uint32_t platform_get_type(void);
// 1 on a route processor that forwards packets itself, else 0.
MFWD6_EXPORT int platform_am_i_rp_plus_datapath(void);
// 1 or 0; 0 for handle 0.
MFWD6_EXPORT int platform_ifhandle_is_local(uint32_t ifh);
MFWD6_EXPORT int platform_ifhandle_is_virtual_check_for_mcast(uint32_t ifh);
// *is_local is 1 if the fabric access point is this node's. EINVAL for fapid 0, ENODEV when this
// node has none.
MFWD6_EXPORT cerrno platform_fapid_is_local(uint32_t fapid, int *is_local);

// Writes the name of an interface of a node: the type with the node id in decimal, and each of the
// four numbers that is not negative, joined with "_"; as in "FINT1" and "FINT1_0_2". A number may
// not follow a negative one (PLATFORM_INFO_BAD_NAME). ENOMEM when name and terminator do not fit in
// `size` bytes; the buffer is an empty string after a failure.
MFWD6_EXPORT cerrno platform_node_construct_ifname(char *buffer, size_t size, const char *type,
                                                   uint32_t node_id, int rack, int slot,
                                                   int instance, int port);

// Takes a table id apart: bits 31 to 24 the address family, 23 to 20 the subsequent family, 12 to 0
// the number of the table, which is *decoded and goes into search keys. Outputs for the families
// may be NULL. PLATFORM_INFO_BAD_TABLE_ID when bits 19 to 13 are not zero, as two tables would then
// share a number; the outputs are written all the same.
MFWD6_EXPORT cerrno rsi_c_tbl_id_decode2(uint32_t table_id, uint32_t *family, uint32_t *subfamily,
                                         uint32_t *decoded);

// Id of the default VRF.
MFWD6_EXPORT uint32_t rsi_c_vrf_id_dflt(void);

MFWD6_END_C

#endif
