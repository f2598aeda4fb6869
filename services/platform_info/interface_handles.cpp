#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <shared_mutex>

#include "services/platform_info/current.h"
#include "services/platform_info/platform_info.h"

namespace {

struct known_handle {
    uint32_t ifh;
    uint32_t attributes;
};

// Sorted by handle.
struct {
    std::shared_mutex lock;
    known_handle *handles = nullptr;
    size_t count = 0;
    size_t room = 0;
} constinit known;

// With the lock held: the first place whose handle is not below `ifh`.
size_t place_of(uint32_t ifh) {
    size_t low = 0;
    size_t high = known.count;
    while (low < high) {
        const size_t middle = (low + high) / 2;
        if (known.handles[middle].ifh < ifh) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

bool is_known(size_t place, uint32_t ifh) {
    return place < known.count && known.handles[place].ifh == ifh;
}

bool reserve_one() {
    if (known.count < known.room) {
        return true;
    }
    const size_t room = known.room == 0 ? 16 : 2 * known.room;
    void *const grown = realloc(known.handles, room * sizeof(known_handle));
    if (grown == nullptr) {
        return false;
    }
    known.handles = static_cast<known_handle *>(grown);
    known.room = room;
    return true;
}

uint32_t attributes_of(uint32_t ifh) {
    {
        const std::shared_lock hold(known.lock);
        const size_t place = place_of(ifh);
        if (is_known(place, ifh)) {
            return known.handles[place].attributes;
        }
    }
    const platform_info_t &info = mfwd6::platform_info::current;
    return info.ifhandle_fn != nullptr ? info.ifhandle_fn(ifh, info.ifhandle_context)
                                       : info.ifhandle_attributes;
}

}  // namespace

cerrno platform_ifhandle_set(uint32_t ifh, uint32_t attributes) {
    if (ifh == 0) {
        return EINVAL;
    }
    const std::lock_guard hold(known.lock);
    const size_t place = place_of(ifh);
    if (!is_known(place, ifh)) {
        if (!reserve_one()) {
            return ENOMEM;
        }
        std::memmove(known.handles + place + 1, known.handles + place,
                     (known.count - place) * sizeof(known_handle));
        ++known.count;
    }
    known.handles[place] = {ifh, attributes};
    return 0;
}

void platform_ifhandle_forget(uint32_t ifh) {
    const std::lock_guard hold(known.lock);
    if (ifh == 0) {
        free(known.handles);
        known.handles = nullptr;
        known.count = 0;
        known.room = 0;
        return;
    }
    const size_t place = place_of(ifh);
    if (is_known(place, ifh)) {
        --known.count;
        std::memmove(known.handles + place, known.handles + place + 1,
                     (known.count - place) * sizeof(known_handle));
    }
}

int platform_ifhandle_is_local(uint32_t ifh) {
    return ifh != 0 && (attributes_of(ifh) & PLATFORM_IFH_LOCAL) != 0 ? 1 : 0;
}

int platform_ifhandle_is_virtual_check_for_mcast(uint32_t ifh) {
    return ifh != 0 && (attributes_of(ifh) & PLATFORM_IFH_VIRTUAL) != 0 ? 1 : 0;
}
