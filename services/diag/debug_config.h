// The debug configuration service: named events under a path, which a program registers and an
// operator sets.
//
// An event is off until a value is set. Setting a value calls the path's configuration function,
// which may install a filter; once it has answered 0 the event is on. A value set for a path that
// nobody has registered yet is kept and delivered by debug_register. All of it is process memory.
//
// Threads: debug_event_active and debug_event_shows from any thread; the others from one thread at
// a time. A configuration function runs on the thread that calls debug_set_event,
// debug_unset_event, debug_register or debug_cleanup, and no filter runs meanwhile, so that it may
// free a record that a filter uses. Neither it nor a filter may ask debug_event_shows.
#ifndef MFWD6_SERVICES_DIAG_DEBUG_CONFIG_H
#define MFWD6_SERVICES_DIAG_DEBUG_CONFIG_H

#include <stdbool.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

enum debug_event_operation { DEBUG_EVENT_SET = 1, DEBUG_EVENT_UNSET = 2 };
enum debug_value_type { DEBUG_VALUE_NONE = 0, DEBUG_VALUE_FLAG = 1, DEBUG_VALUE_STRING = 8 };
// What may be done to an event: switch on, switch off, filter. All three are 7.
enum debug_event_ability {
    DEBUG_CAN_SET = 1,
    DEBUG_CAN_UNSET = 2,
    DEBUG_CAN_FILTER = 4,
    DEBUG_CAN_ALL = 7
};
enum debug_event_form { DEBUG_FORM_FLAG = 1, DEBUG_FORM_FILTER = 2 };

// 1 shows what `item` describes, 0 hides it.
typedef int (*debug_filter_ft)(void *item, void *record);

// One event. The program fills the first group; debug_init_event clears the second, which is the
// service's.
typedef struct debug_event {
    uint32_t id;         // index in the program's table
    uint32_t abilities;  // DEBUG_CAN_ALL
    const char *name;    // below the path, without '/'
    uint32_t form;       // DEBUG_FORM_FILTER: the value is a filter text

    uint32_t active;
    debug_filter_ft filter;
    void *app_reference;
    struct debug_event *next;
    uint64_t state;
} debug_event;

typedef struct debug_value debug_value;  // a value being delivered; valid during the call

// `operation` is 1 when a value is set, 2 when it is taken away; `value` is NULL for 2. A result
// other than 0 refuses a new value: debug_set_event returns it, and the event is off, without a
// filter unless the function installed one in this call: the former record may have been freed
// before the failure.
typedef cerrno (*debug_config_ft)(uint32_t operation, const char *path, debug_event *event,
                                  const debug_value *value, void *context);

// Prepares `event` and adds it to the chain that begins at `first` (the event itself for the first
// one). EINVAL for NULL, no name, or no ability; EEXIST if the chain has an event of that name.
MFWD6_EXPORT cerrno debug_init_event(debug_event *first, debug_event *event);

// Registers the chain that begins at `first` under `path` (copied), and delivers what was set
// before. `evm` is kept for the caller's use; `flags` and `reserved` are 0. EEXIST for a path that
// is registered, EINVAL for bad arguments, ENOMEM. A refused earlier value is dropped and is no
// failure.
MFWD6_EXPORT cerrno debug_register(const char *path, debug_event *first, void *evm, uint32_t flags,
                                   void *context, debug_config_ft configure, uint32_t reserved);

// Undoes debug_register: events that are on get operation 2, then the path is forgotten. ENOENT.
MFWD6_EXPORT cerrno debug_cleanup(const char *path);

// The record given to debug_install_filter, or NULL.
MFWD6_EXPORT void *debug_get_app_reference(const debug_event *event);

// Writes the type and the value: for DEBUG_VALUE_STRING a text, for DEBUG_VALUE_FLAG a uint32_t.
// EINVAL for NULL.
MFWD6_EXPORT cerrno debug_get_type_value(const debug_value *value, uint32_t *type,
                                         const void **data);

// Installs `filter` with `record`, in place of the former pair, whose record the caller frees. Both
// NULL: no filter, everything is shown. EINVAL for a NULL event, one that was not prepared, or a
// record without a filter; ENOTSUP if the event cannot be filtered.
MFWD6_EXPORT cerrno debug_install_filter(debug_event *event, debug_filter_ft filter, void *record);

// The process's event manager: the one given to netio_dll_set_evm, else to ipv4_mlib_debug_init;
// NULL if neither.
MFWD6_EXPORT void *netio_dll_get_evm(void);
MFWD6_EXPORT void netio_dll_set_evm(void *evm);

// ---- The operator's and the packet path's side ----

// Sets the event's value: a text, or NULL for the plain flag. ENOENT for an unknown event of a
// registered path, ENOTSUP where the event's abilities forbid it, ENOMEM, or the configuration
// function's code.
MFWD6_EXPORT cerrno debug_set_event(const char *path, const char *name, const char *text);
// Switches the event off. The filter and its record are forgotten after the configuration function
// ran.
MFWD6_EXPORT cerrno debug_unset_event(const char *path, const char *name);

MFWD6_EXPORT bool debug_event_active(const debug_event *event);
// True if the event is on and its filter, if any, shows `item`.
MFWD6_EXPORT bool debug_event_shows(const debug_event *event, void *item);

MFWD6_END_C

#endif
