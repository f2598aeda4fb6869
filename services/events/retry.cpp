#include "services/events/retry.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "services/events/manager.h"

using namespace mfwd6::events;

namespace {

struct figures {
    uint64_t first_ns;
    uint64_t limit_ns;
    uint32_t factor;
    uint32_t tries;
};

struct waiting {
    retry_fn fn;
    void *context;
    mgd_timer_leaf_t *leaf;
    uint64_t interval_ns;
    uint32_t failed;
    bool dropped;  // while its function runs
    waiting *next;
};

struct library {
    event_manager_t *evm;
    uint32_t handle;
    figures now;
    waiting *entries;
    waiting *in_call;  // the entry whose function runs
    uint32_t count;
};

constinit library retry{};

waiting **find(retry_fn fn, const void *context) {
    waiting **at = &retry.entries;
    while (*at != nullptr && ((*at)->fn != fn || (*at)->context != context)) {
        at = &(*at)->next;
    }
    return at;
}

// Takes an entry off the list. The one in the middle of its call is freed when that returns.
void drop(waiting **at) {
    waiting *const entry = *at;
    *at = entry->next;
    --retry.count;
    event_timer_leaf_free(entry->leaf);
    if (entry == retry.in_call) {
        entry->dropped = true;
    } else {
        free(entry);
    }
}

void start(waiting *entry) {
    const timespec period{static_cast<time_t>(entry->interval_ns / ns_per_s),
                          static_cast<long>(entry->interval_ns % ns_per_s)};
    mgd_timer_leaf_start(entry->leaf, &period);
}

uint64_t next_interval(uint64_t interval_ns) {
    const uint64_t longer = multiply_capped(interval_ns, retry.now.factor);
    return retry.now.limit_ns != 0 && longer > retry.now.limit_ns ? retry.now.limit_ns : longer;
}

void try_again(mgd_timer_leaf_t *, void *context) {
    auto *const entry = static_cast<waiting *>(context);
    retry.in_call = entry;
    const cerrno rc = entry->fn(entry->context);
    retry.in_call = nullptr;
    if (entry->dropped) {
        free(entry);
        return;
    }
    ++entry->failed;
    if (rc == 0 || (retry.now.tries != 0 && entry->failed >= retry.now.tries)) {
        drop(find(entry->fn, entry->context));
        return;
    }
    entry->interval_ns = next_interval(entry->interval_ns);
    start(entry);
}

void manager_ended(event_manager_t *) {
    retry_terminate();
}

}  // namespace

cerrno retry_init(event_manager_t *evm, uint32_t first_s, uint32_t first_ns, uint32_t factor,
                  uint32_t limit_s, uint32_t tries) {
    if (evm == nullptr || first_ns >= ns_per_s || (first_s == 0 && first_ns == 0) || factor == 0) {
        return EINVAL;
    }
    if (retry.evm != evm) {
        if (retry.count != 0) {
            return EBUSY;
        }
        const uint32_t handle = event_timer_attach(evm, EVENT_TIMER_ONE_SHOT, try_again, nullptr);
        if (handle == EVENT_TIMER_INVALID) {
            return ENOMEM;
        }
        retry_terminate();
        retry.evm = evm;
        retry.handle = handle;
        evm->at_end = manager_ended;
    }
    retry.now = {first_s * ns_per_s + first_ns, limit_s * ns_per_s, factor, tries};
    return 0;
}

void retry_terminate(void) {
    while (retry.entries != nullptr) {
        drop(&retry.entries);
    }
    if (retry.evm != nullptr) {
        retry.evm->at_end = nullptr;
        retry.evm = nullptr;
    }
}

cerrno retry_schedule(retry_fn fn, void *context) {
    if (fn == nullptr) {
        return EINVAL;
    }
    if (retry.evm == nullptr) {
        return ENODEV;
    }
    if (*find(fn, context) != nullptr) {
        return EEXIST;
    }
    auto *const entry = static_cast<waiting *>(calloc(1, sizeof(waiting)));
    if (entry == nullptr) {
        return ENOMEM;
    }
    entry->leaf = event_timer_leaf_new(retry.evm, retry.handle, entry);
    if (entry->leaf == nullptr) {
        free(entry);
        return ENOMEM;
    }
    entry->fn = fn;
    entry->context = context;
    entry->interval_ns = retry.now.first_ns;
    entry->next = retry.entries;
    retry.entries = entry;
    ++retry.count;
    start(entry);
    return 0;
}

cerrno retry_cancel(retry_fn fn, void *context) {
    waiting **const at = find(fn, context);
    if (*at == nullptr) {
        return ENOENT;
    }
    drop(at);
    return 0;
}

uint32_t retry_pending(void) {
    return retry.count;
}
