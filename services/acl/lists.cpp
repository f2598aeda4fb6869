#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "services/acl/prefix.h"

// One list. It lives while it has a name or a holder. Entries follow it in memory.
struct ipv6_acl {
    uint64_t handle;
    uint32_t holds;
    bool named;  // `name` still means this list
    char name[IPV6_ACL_NAME_SIZE];
    size_t count;
    ipv6_acl *next;

    ipv6_acl_entry_t *entries() { return reinterpret_cast<ipv6_acl_entry_t *>(this + 1); }
};
static_assert(sizeof(ipv6_acl) % alignof(ipv6_acl_entry_t) == 0);
static_assert(sizeof(ipv6_acl_entry_t) == 48);

namespace mfwd6::acl {
namespace {

constinit std::mutex lock;
constinit ipv6_acl *lists = nullptr;
constinit uint64_t next_handle = 0;

// Handles of one process are not those of another: they start at the time of the first list, and a
// list does not take as little as the 64 ns that two numbers are apart.
uint64_t new_handle() {
    if (next_handle == 0) {
        timespec now{};
        clock_gettime(CLOCK_BOOTTIME, &now);
        next_handle = (static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 +
                       static_cast<uint64_t>(now.tv_nsec)) /
                          64 |
                      1;
    }
    return next_handle++;
}

// With the lock held, as all that follows.
ipv6_acl *named(const char *name) {
    ipv6_acl *l = lists;
    while (l != nullptr && (!l->named || std::strcmp(l->name, name) != 0)) {
        l = l->next;
    }
    return l;
}

ipv6_acl *held(ipv6_acl_handle_t acl) {
    const auto handle = reinterpret_cast<uint64_t>(acl);
    ipv6_acl *l = lists;
    while (l != nullptr && (l->handle != handle || l->holds == 0)) {
        l = l->next;
    }
    return l;
}

void free_if_unused(ipv6_acl *unused) {
    if (unused->named || unused->holds != 0) {
        return;
    }
    ipv6_acl **at = &lists;
    while (*at != unused) {
        at = &(*at)->next;
    }
    *at = unused->next;
    free(unused);
}

bool good_name(const char *name) {
    return name != nullptr && name[0] != '\0' &&
           strnlen(name, IPV6_ACL_NAME_SIZE) < IPV6_ACL_NAME_SIZE;
}

bool good_entry(const ipv6_acl_entry_t &e) {
    return (e.action == IPV6_ACL_PERMIT || e.action == IPV6_ACL_DENY) &&
           is_prefix(e.source, e.source_length) && is_prefix(e.destination, e.destination_length);
}

// Copies entries and numbers those without a sequence. False for one that cannot stand there.
bool copy_entries(ipv6_acl_entry_t *to, const ipv6_acl_entry_t *from, size_t count) {
    uint64_t last = 0;
    for (size_t i = 0; i < count; ++i) {
        const uint64_t sequence = from[i].sequence != 0 ? from[i].sequence : last + 10;
        if (!good_entry(from[i]) || sequence <= last || sequence > UINT32_MAX) {
            return false;
        }
        to[i] = from[i];
        to[i].sequence = static_cast<uint32_t>(sequence);
        last = sequence;
    }
    return true;
}

// Puts a list that is complete in the place of the one that its name has.
void install(ipv6_acl *fresh) {
    const std::lock_guard hold(lock);
    fresh->handle = new_handle();
    fresh->named = true;
    ipv6_acl *const old = named(fresh->name);
    fresh->next = lists;
    lists = fresh;
    if (old != nullptr) {
        old->named = false;
        free_if_unused(old);
    }
}

}  // namespace
}  // namespace mfwd6::acl

using namespace mfwd6::acl;

cerrno ipv6_acl_set(const char *name, const ipv6_acl_entry_t *entries, size_t count) {
    if (!good_name(name) || (entries == nullptr && count != 0)) {
        return EINVAL;
    }
    if (count > IPV6_ACL_MAX_ENTRIES) {
        return IPV6_ACL_TOO_MANY;
    }
    auto *const fresh =
        static_cast<ipv6_acl *>(calloc(1, sizeof(ipv6_acl) + count * sizeof(ipv6_acl_entry_t)));
    if (fresh == nullptr) {
        return ENOMEM;
    }
    if (!copy_entries(fresh->entries(), entries, count)) {
        free(fresh);
        return EINVAL;
    }
    std::strcpy(fresh->name, name);
    fresh->count = count;
    install(fresh);
    return 0;
}

cerrno ipv6_acl_remove(const char *name) {
    if (!good_name(name)) {
        return EINVAL;
    }
    const std::lock_guard hold(lock);
    ipv6_acl *const l = named(name);
    if (l == nullptr) {
        return IPV6_ACL_NOT_FOUND;
    }
    l->named = false;
    free_if_unused(l);
    return 0;
}

cerrno ipv6_acl_get_list(ipv6_acl_handle_t *acl, const char *name, void *) {
    if (acl == nullptr || !good_name(name)) {
        return EINVAL;
    }
    const std::lock_guard hold(lock);
    ipv6_acl *const l = named(name);
    if (l == nullptr) {
        return IPV6_ACL_NOT_FOUND;
    }
    ++l->holds;
    *acl = reinterpret_cast<ipv6_acl_handle_t>(l->handle);
    return 0;
}

cerrno ipv6_acl_release(ipv6_acl_handle_t acl) {
    const std::lock_guard hold(lock);
    ipv6_acl *const l = held(acl);
    if (l == nullptr) {
        return IPV6_ACL_BAD_HANDLE;
    }
    --l->holds;
    free_if_unused(l);
    return 0;
}

const ipv6_acl_entry_t *ipv6_acl_get_next(ipv6_acl_handle_t acl, const ipv6_acl_entry_t *previous) {
    const std::lock_guard hold(lock);
    ipv6_acl *const l = held(acl);
    if (l == nullptr) {
        return nullptr;
    }
    const ipv6_acl_entry_t *const next = previous != nullptr ? previous + 1 : l->entries();
    return next < l->entries() + l->count ? next : nullptr;
}

cerrno ipv6_acl_holds(const char *name, uint32_t *holds) {
    if (!good_name(name) || holds == nullptr) {
        return EINVAL;
    }
    const std::lock_guard hold(lock);
    const ipv6_acl *const l = named(name);
    if (l == nullptr) {
        return IPV6_ACL_NOT_FOUND;
    }
    *holds = l->holds;
    return 0;
}

uint32_t ipv6_acl_count(void) {
    const std::lock_guard hold(lock);
    uint32_t count = 0;
    for (const ipv6_acl *l = lists; l != nullptr; l = l->next) {
        ++count;
    }
    return count;
}
