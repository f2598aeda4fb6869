#include "services/diag/debug_config.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "services/diag/inside.h"

struct debug_value {
    uint32_t type;
    uint32_t flag;
    const char *text;
};

namespace {

constexpr uint64_t prepared = 0x64656275674576;

struct registration {
    registration *next;
    char *path;
    debug_event *first;
    debug_config_ft configure;
    void *context;
};

// A value set for a path that is not registered yet.
struct early_value {
    early_value *next;
    char *path;
    char *name;
    char *text;  // NULL for the plain flag
};

registration *registrations;
early_value *early_values;
std::atomic<void *> own_evm;

// Held for reading while a filter runs, for writing while a configuration function may change
// filters.
pthread_rwlock_t filters = PTHREAD_RWLOCK_INITIALIZER;
thread_local bool configuring;  // this thread holds it for writing

cerrno configure(const registration *to, uint32_t operation, debug_event *event,
                 const debug_value *value) {
    configuring = true;
    const cerrno error = to->configure(operation, to->path, event, value, to->context);
    configuring = false;
    return error;
}

registration **find_path(const char *path) {
    registration **at = &registrations;
    while (*at != nullptr && strcmp((*at)->path, path) != 0) {
        at = &(*at)->next;
    }
    return at;
}

debug_event *find_event(debug_event *first, const char *name) {
    while (first != nullptr && strcmp(first->name, name) != 0) {
        first = first->next;
    }
    return first;
}

early_value **find_early(const char *path, const char *name) {
    early_value **at = &early_values;
    while (*at != nullptr && (strcmp((*at)->path, path) != 0 || strcmp((*at)->name, name) != 0)) {
        at = &(*at)->next;
    }
    return at;
}

void free_early(early_value *value) {
    if (value != nullptr) {
        free(value->path);
        free(value->name);
        free(value->text);
        free(value);
    }
}

void drop_early(const char *path, const char *name) {
    early_value **at = find_early(path, name);
    early_value *gone = *at;
    if (gone != nullptr) {
        *at = gone->next;
        free_early(gone);
    }
}

cerrno keep_early(const char *path, const char *name, const char *text) {
    auto *made = static_cast<early_value *>(calloc(1, sizeof(early_value)));
    if (made == nullptr) {
        return ENOMEM;
    }
    made->path = strdup(path);
    made->name = strdup(name);
    made->text = text == nullptr ? nullptr : strdup(text);
    if (made->path == nullptr || made->name == nullptr ||
        (text != nullptr && made->text == nullptr)) {
        free_early(made);
        return ENOMEM;
    }
    drop_early(path, name);
    made->next = early_values;
    early_values = made;
    return 0;
}

void set_active(debug_event *event, uint32_t active) {
    __atomic_store_n(&event->active, active, __ATOMIC_RELEASE);
}

cerrno deliver_value(const registration *to, debug_event *event, const char *text) {
    const debug_value value = {text == nullptr ? DEBUG_VALUE_FLAG : DEBUG_VALUE_STRING, 1, text};
    pthread_rwlock_wrlock(&filters);
    const debug_filter_ft filter = event->filter;
    void *const record = event->app_reference;
    const cerrno error = configure(to, DEBUG_EVENT_SET, event, &value);
    if (error != 0) {
        set_active(event, 0);
        if (event->filter == filter && event->app_reference == record) {
            event->filter = nullptr;
            event->app_reference = nullptr;
        }
    } else {
        set_active(event, 1);
    }
    pthread_rwlock_unlock(&filters);
    return error;
}

cerrno deliver_removal(const registration *to, debug_event *event) {
    if (!debug_event_active(event)) {
        return 0;
    }
    pthread_rwlock_wrlock(&filters);
    set_active(event, 0);
    const cerrno error = configure(to, DEBUG_EVENT_UNSET, event, nullptr);
    event->filter = nullptr;
    event->app_reference = nullptr;
    pthread_rwlock_unlock(&filters);
    return error;
}

cerrno check_ability(const debug_event *event, const char *text) {
    const bool filtered = text != nullptr;
    const bool may = (event->abilities & DEBUG_CAN_SET) != 0 &&
                     (!filtered || (event->abilities & DEBUG_CAN_FILTER) != 0);
    return may ? 0 : ENOTSUP;
}

void deliver_early(const registration *to) {
    for (debug_event *event = to->first; event != nullptr; event = event->next) {
        const early_value *value = *find_early(to->path, event->name);
        if (value != nullptr) {
            if (check_ability(event, value->text) == 0) {
                deliver_value(to, event, value->text);
            }
            drop_early(to->path, event->name);
        }
    }
}

}  // namespace

cerrno debug_init_event(debug_event *first, debug_event *event) {
    if (first == nullptr || event == nullptr || event->name == nullptr || *event->name == '\0' ||
        strchr(event->name, '/') != nullptr || (event->abilities & DEBUG_CAN_ALL) == 0) {
        return EINVAL;
    }
    debug_event *last = nullptr;
    for (debug_event *at = first; event != first && at != nullptr; at = at->next) {
        if (at->state != prepared) {
            return EINVAL;  // the chain's first event comes first
        }
        if (strcmp(at->name, event->name) == 0) {
            return EEXIST;
        }
        last = at;
    }
    event->active = 0;
    event->filter = nullptr;
    event->app_reference = nullptr;
    event->next = nullptr;
    event->state = prepared;
    if (last != nullptr) {
        last->next = event;
    }
    return 0;
}

cerrno debug_register(const char *path, debug_event *first, void *, uint32_t flags, void *context,
                      debug_config_ft function, uint32_t reserved) {
    if (path == nullptr || *path == '\0' || first == nullptr || first->state != prepared ||
        function == nullptr || flags != 0 || reserved != 0) {
        return EINVAL;
    }
    registration **end = find_path(path);
    if (*end != nullptr) {
        return EEXIST;
    }
    auto *made = static_cast<registration *>(calloc(1, sizeof(registration)));
    char *copy = strdup(path);
    if (made == nullptr || copy == nullptr) {
        free(made);
        free(copy);
        return ENOMEM;
    }
    *made = {nullptr, copy, first, function, context};
    *end = made;
    deliver_early(made);
    return 0;
}

cerrno debug_cleanup(const char *path) {
    registration **at = path == nullptr ? nullptr : find_path(path);
    if (at == nullptr || *at == nullptr) {
        return ENOENT;
    }
    registration *gone = *at;
    for (debug_event *event = gone->first; event != nullptr; event = event->next) {
        deliver_removal(gone, event);
    }
    *at = gone->next;
    free(gone->path);
    free(gone);
    return 0;
}

void *debug_get_app_reference(const debug_event *event) {
    return event == nullptr ? nullptr : event->app_reference;
}

cerrno debug_get_type_value(const debug_value *value, uint32_t *type, const void **data) {
    if (value == nullptr || type == nullptr || data == nullptr) {
        return EINVAL;
    }
    *type = value->type;
    *data =
        value->type == DEBUG_VALUE_STRING ? static_cast<const void *>(value->text) : &value->flag;
    return 0;
}

cerrno debug_install_filter(debug_event *event, debug_filter_ft filter, void *record) {
    if (event == nullptr || event->state != prepared || (filter == nullptr && record != nullptr)) {
        return EINVAL;
    }
    if ((event->abilities & DEBUG_CAN_FILTER) == 0) {
        return ENOTSUP;
    }
    if (!configuring) {
        pthread_rwlock_wrlock(&filters);
    }
    event->filter = filter;
    event->app_reference = record;
    if (!configuring) {
        pthread_rwlock_unlock(&filters);
    }
    return 0;
}

void *netio_dll_get_evm(void) {
    void *own = own_evm.load(std::memory_order_acquire);
    return own != nullptr ? own : mfwd6::diag::debug_event_manager();
}

void netio_dll_set_evm(void *evm) {
    own_evm.store(evm, std::memory_order_release);
}

cerrno debug_set_event(const char *path, const char *name, const char *text) {
    if (path == nullptr || *path == '\0' || name == nullptr || *name == '\0') {
        return EINVAL;
    }
    const registration *to = *find_path(path);
    if (to == nullptr) {
        return keep_early(path, name, text);
    }
    debug_event *event = find_event(to->first, name);
    if (event == nullptr) {
        return ENOENT;
    }
    const cerrno error = check_ability(event, text);
    return error != 0 ? error : deliver_value(to, event, text);
}

cerrno debug_unset_event(const char *path, const char *name) {
    if (path == nullptr || name == nullptr) {
        return EINVAL;
    }
    const registration *to = *find_path(path);
    if (to == nullptr) {
        drop_early(path, name);
        return 0;
    }
    debug_event *event = find_event(to->first, name);
    if (event == nullptr) {
        return ENOENT;
    }
    return (event->abilities & DEBUG_CAN_UNSET) != 0 ? deliver_removal(to, event) : ENOTSUP;
}

bool debug_event_active(const debug_event *event) {
    return event != nullptr && __atomic_load_n(&event->active, __ATOMIC_ACQUIRE) != 0;
}

bool debug_event_shows(const debug_event *event, void *item) {
    if (!debug_event_active(event)) {
        return false;
    }
    pthread_rwlock_rdlock(&filters);
    const bool shows = debug_event_active(event) &&
                       (event->filter == nullptr || event->filter(item, event->app_reference) == 1);
    pthread_rwlock_unlock(&filters);
    return shows;
}
