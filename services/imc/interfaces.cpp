// The interfaces that a context knows.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "services/imc/context.h"

namespace mfwd6::imc {
namespace {

size_t handle_place(const imc_context *c, uint32_t ifh) {
    interface **const at =
        std::lower_bound(c->by_handle, c->by_handle + c->count, ifh,
                         [](const interface *i, uint32_t wanted) { return i->ifh < wanted; });
    return static_cast<size_t>(at - c->by_handle);
}

size_t name_place(const imc_context *c, const char *name) {
    interface **const at = std::lower_bound(
        c->by_name, c->by_name + c->count, name,
        [](const interface *i, const char *wanted) { return std::strcmp(i->name, wanted) < 0; });
    return static_cast<size_t>(at - c->by_name);
}

// Both orders get room for one more; a failure leaves what there is usable.
bool reserve_one(imc_context *c) {
    if (c->count < c->room) {
        return true;
    }
    const size_t room = c->room == 0 ? 32 : 2 * c->room;
    for (interface ***order : {&c->by_handle, &c->by_name}) {
        void *const grown = realloc(*order, room * sizeof(interface *));
        if (grown == nullptr) {
            return false;
        }
        *order = static_cast<interface **>(grown);
    }
    c->room = room;
    return true;
}

void insert_at(interface **order, size_t count, size_t place, interface *i) {
    std::memmove(order + place + 1, order + place, (count - place) * sizeof(interface *));
    order[place] = i;
}

void remove_at(interface **order, size_t count, size_t place) {
    std::memmove(order + place, order + place + 1, (count - place - 1) * sizeof(interface *));
}

void tell(imc_context *c, imc_change change, const interface *i) {
    if (c->listener != nullptr) {
        c->listener(c, change, i->ifh, i->name, c->listener_context);
    }
}

void remove(imc_context *c, interface *i) {
    remove_at(c->by_handle, c->count, handle_place(c, i->ifh));
    remove_at(c->by_name, c->count, name_place(c, i->name));
    --c->count;
    tell(c, IMC_REMOVED, i);
    free(i);
}

cerrno add(imc_context *c, uint32_t ifh, const char *name, uint16_t type, uint32_t parent) {
    auto *const made = static_cast<interface *>(calloc(1, sizeof(interface)));
    if (made == nullptr || !reserve_one(c)) {
        free(made);
        return ENOMEM;
    }
    made->ifh = ifh;
    made->parent = parent;
    made->type = type;
    made->sweep = c->sweep;
    std::strcpy(made->name, name);
    insert_at(c->by_handle, c->count, handle_place(c, ifh), made);
    insert_at(c->by_name, c->count, name_place(c, name), made);
    ++c->count;
    tell(c, IMC_ADDED, made);
    return 0;
}

void change(imc_context *c, interface *i, const char *name, uint16_t type, uint32_t parent) {
    i->sweep = c->sweep;
    if (std::strcmp(i->name, name) == 0 && i->type == type && i->parent == parent) {
        return;
    }
    remove_at(c->by_name, c->count, name_place(c, i->name));
    std::strcpy(i->name, name);
    insert_at(c->by_name, c->count - 1, name_place(c, name), i);
    i->type = type;
    i->parent = parent;
    tell(c, IMC_CHANGED, i);
}

}  // namespace

interface *find_handle(const imc_context *context, uint32_t ifh) {
    const size_t place = handle_place(context, ifh);
    return place < context->count && context->by_handle[place]->ifh == ifh
               ? context->by_handle[place]
               : nullptr;
}

interface *find_name(const imc_context *context, const char *name) {
    const size_t place = name_place(context, name);
    return place < context->count && std::strcmp(context->by_name[place]->name, name) == 0
               ? context->by_name[place]
               : nullptr;
}

void free_interfaces(imc_context *context) {
    for (size_t i = 0; i < context->count; ++i) {
        free(context->by_handle[i]);
    }
    free(context->by_handle);
    free(context->by_name);
}

}  // namespace mfwd6::imc

using namespace mfwd6::imc;

cerrno imc_backend_put(imc_context_t *context, uint32_t ifh, const char *name, uint16_t type,
                       uint32_t parent) {
    if (context == nullptr || ifh == 0 || name == nullptr || name[0] == '\0' ||
        strnlen(name, IMC_NAME_SIZE) == IMC_NAME_SIZE) {
        return EINVAL;
    }
    interface *const known = find_handle(context, ifh);
    interface *const same_name = find_name(context, name);
    if (known == nullptr && !reserve_one(context)) {
        return ENOMEM;
    }
    if (same_name != nullptr && same_name != known) {
        remove(context, same_name);
    }
    if (known == nullptr) {
        return add(context, ifh, name, type, parent);
    }
    change(context, known, name, type, parent);
    return 0;
}

cerrno imc_backend_drop(imc_context_t *context, uint32_t ifh) {
    if (context == nullptr) {
        return EINVAL;
    }
    interface *const known = find_handle(context, ifh);
    if (known == nullptr) {
        return IMC_NO_INTERFACE;
    }
    remove(context, known);
    return 0;
}

void imc_backend_sweep_begin(imc_context_t *context) {
    ++context->sweep;
}

void imc_backend_sweep_end(imc_context_t *context) {
    for (size_t i = context->count; i-- > 0;) {
        if (context->by_handle[i]->sweep != context->sweep) {
            remove(context, context->by_handle[i]);
        }
    }
}

cerrno imc_interface_find(imc_context_t *context, const char *name, uint32_t *ifh) {
    if (context == nullptr || name == nullptr || ifh == nullptr) {
        return EINVAL;
    }
    const interface *const i = find_name(context, name);
    if (i == nullptr) {
        return not_known(context);
    }
    *ifh = i->ifh;
    return 0;
}

cerrno imc_interface_name(imc_context_t *context, uint32_t ifh, char *name, size_t size) {
    if (context == nullptr || name == nullptr) {
        return EINVAL;
    }
    const interface *const i = find_handle(context, ifh);
    if (i == nullptr) {
        return not_known(context);
    }
    const size_t needed = std::strlen(i->name) + 1;
    if (needed > size) {
        return ERANGE;
    }
    std::memcpy(name, i->name, needed);
    return 0;
}

cerrno imc_interface_get_type(imc_context_t *context, uint32_t ifh, uint16_t *type,
                              cerrno *answer) {
    if (context == nullptr || type == nullptr) {
        return EINVAL;
    }
    const interface *const i = find_handle(context, ifh);
    const cerrno found = i != nullptr ? 0 : not_known(context);
    if (i != nullptr) {
        *type = i->type;
    }
    if (answer == nullptr) {
        return found;
    }
    *answer = found;
    return 0;
}

cerrno imc_control_parent_interface_lookup(imc_context_t *context, uint32_t ifh, uint32_t *parent) {
    if (context == nullptr || parent == nullptr) {
        return EINVAL;
    }
    const interface *const i = find_handle(context, ifh);
    if (i == nullptr) {
        return not_known(context);
    }
    *parent = i->parent;
    return 0;
}

cerrno imc_interface_walk(imc_context_t *context, imc_interface_fn fn, void *walk_context) {
    if (context == nullptr || fn == nullptr) {
        return EINVAL;
    }
    for (size_t n = 0; n < context->count; ++n) {
        const interface *const i = context->by_handle[n];
        if (const cerrno rc = fn(i->ifh, i->name, i->type, i->parent, walk_context); rc != 0) {
            return rc;
        }
    }
    return 0;
}
