// Interface manager client: names, handles, types and parents of interfaces, and the way to the
// data path.
//
// A client works on a context (`im_context`), which some backend fills: a table filled by calls
// (services/imc/table.h), or the kernel's links (services/imc/rtnl/imc_rtnl.h). A backend's library
// registers itself here; this library needs none of what they link.
//
// Thread-safety. A context belongs to one thread at a time, that of its event manager if it has
// one.
#ifndef MFWD6_SERVICES_IMC_IMC_H
#define MFWD6_SERVICES_IMC_IMC_H

#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/events/event_manager.h"
#include "services/export.h"

MFWD6_BEGIN_C

#define IMC_NO_INTERFACE 0x44e05001U  // no interface of this name or handle
#define IMC_NO_RECEIVER 0x44e05002U   // nobody takes this control code
#define IMC_NO_BACKEND 0x44e05003U    // no backend of this name is registered
#define IMC_BAD_PROTOCOL 0x44e05004U  // protocol or caps of a control record is 0
#define IMC_LOST \
    0x44e05005U  // not known, but the backend lost its connection: it may exist all the same

// Interface types.
enum imc_type {
    IMC_TYPE_NONE = 0,
    IMC_TYPE_PHYSICAL = 16,
    IMC_TYPE_SUBINTERFACE = 25,  // VLAN of another interface, its parent
    IMC_TYPE_TUNNEL = 37,
    IMC_TYPE_MDT = 64,
    IMC_TYPE_PPPOE = 66,
    IMC_TYPE_SVI = 70,
    IMC_TYPE_SVI_L3 = 71,
    IMC_TYPE_BVI = 78,
    IMC_TYPE_PW_ETHER = 82,
    IMC_TYPE_PW_IW = 84,
    IMC_TYPE_BUNDLE = 256,
    IMC_TYPE_LOOPBACK = 257,
    IMC_TYPE_VRF = 258,
    IMC_TYPE_OTHER = 259,
};

// Longest name, with its terminator.
#define IMC_NAME_SIZE 64

typedef struct imc_context imc_context_t;

// Makes a context of the named backend. `evm` delivers its live updates and may be NULL for a
// backend that needs none. IMC_NO_BACKEND, EINVAL, ENOMEM, or the backend's failure; *context is
// NULL then.
MFWD6_EXPORT cerrno imc_context_open(const char *backend, event_manager_t *evm,
                                     imc_context_t **context);
// NULL is allowed.
MFWD6_EXPORT void imc_context_close(imc_context_t *context);

// Handle of the interface of this name. A name or handle that is not known gives IMC_NO_INTERFACE,
// NULL gives EINVAL; outputs are not written on failure. So for all four questions.
MFWD6_EXPORT cerrno imc_interface_find(imc_context_t *context, const char *name, uint32_t *ifh);

// Name of an interface. ERANGE when it does not fit in `size` bytes.
MFWD6_EXPORT cerrno imc_interface_name(imc_context_t *context, uint32_t ifh, char *name,
                                       size_t size);

// Type of an interface. The result is that of the question; *answer, if not NULL, is what the
// manager answered (0, IMC_NO_INTERFACE, IMC_LOST) and the result is 0 then; with NULL the answer
// is the result. *type is written only if both are 0.
MFWD6_EXPORT cerrno imc_interface_get_type(imc_context_t *context, uint32_t ifh, uint16_t *type,
                                           cerrno *answer);

// The interface that this one rests on; 0 with success if it rests on none.
MFWD6_EXPORT cerrno imc_control_parent_interface_lookup(imc_context_t *context, uint32_t ifh,
                                                        uint32_t *parent);

// Writes `name` for people into `buffer` and gives `buffer`. Cut to fit; always terminated. At most
// IMC_NAME_SIZE characters of `name` are read, so it needs no terminator at that length. With
// `printable` set, each character outside 0x21 to 0x7e becomes '?'. NULL reads as "Unknown". NULL
// if `buffer` is NULL or `size` is 0.
MFWD6_EXPORT const char *imc_display_namestring(const char *name, char *buffer, size_t size,
                                                int printable);

// A control code on its way to the data path, with its buffer. The receiver may write to the
// buffer.
typedef struct imc_datapath_control {
    uint32_t ifh;       // 0: none in particular
    uint16_t protocol;  // both must be non-zero
    uint16_t caps;
    uint32_t code;
    uint32_t length;  // bytes at `data`
    void *data;
    uint64_t extra[2];
} imc_datapath_control_t;

typedef cerrno (*imc_datapath_fn)(const imc_datapath_control_t *control, void *context);

// Registers who takes `code` in this process for this context, or with NULL that nobody does.
// EINVAL, ENOMEM.
MFWD6_EXPORT cerrno imc_datapath_receiver_set(imc_context_t *context, uint32_t code,
                                              imc_datapath_fn receiver, void *receiver_context);

// Hands a record to the receiver of its code, on the calling thread, and gives back its result.
// EINVAL (NULL, or a length without data), IMC_BAD_PROTOCOL, IMC_NO_RECEIVER.
MFWD6_EXPORT cerrno imc_caps_datapath_control(imc_context_t *context,
                                              const imc_datapath_control_t *control);

enum imc_change { IMC_ADDED = 1, IMC_CHANGED = 2, IMC_REMOVED = 3, IMC_CONNECTION_LOST = 4 };

// Told after the context knows of the change; `ifh` is 0 and `name` empty for IMC_CONNECTION_LOST.
// `name` lasts for the call. Must not close the context.
typedef void (*imc_change_fn)(imc_context_t *context, enum imc_change change, uint32_t ifh,
                              const char *name, void *change_context);

// One listener per context; NULL ends it. EINVAL.
MFWD6_EXPORT cerrno imc_watch(imc_context_t *context, imc_change_fn fn, void *change_context);

// Called for each interface, by ascending handle, until `fn` gives a non-zero result, which is the
// result. `fn` must not add or remove interfaces.
typedef cerrno (*imc_interface_fn)(uint32_t ifh, const char *name, uint16_t type, uint32_t parent,
                                   void *walk_context);
MFWD6_EXPORT cerrno imc_interface_walk(imc_context_t *context, imc_interface_fn fn,
                                       void *walk_context);

MFWD6_END_C

#endif
