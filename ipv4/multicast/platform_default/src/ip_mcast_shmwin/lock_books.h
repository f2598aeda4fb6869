// Book-keeping of the locks in the window header, as it is read by threads that do not hold them.
#ifndef IP6MC_SRC_IP_MCAST_SHMWIN_LOCK_BOOKS_H
#define IP6MC_SRC_IP_MCAST_SHMWIN_LOCK_BOOKS_H

#include <atomic>
#include <cstddef>

#include "ipv4/multicast/lib/ip6mc_shmwin.h"

namespace mlib {

struct lock_fn_text {
    char text[IPMC_LOCK_FN_SIZE];
};

// The name in a lock's book, whole or part of the one before: for messages only.
inline lock_fn_text lock_fn(const char (&field)[IPMC_LOCK_FN_SIZE]) {
    lock_fn_text copy;
    size_t i = 0;
    for (; i < IPMC_LOCK_FN_SIZE - 1; ++i) {
        copy.text[i] =
            std::atomic_ref<char>(const_cast<char &>(field[i])).load(std::memory_order_relaxed);
        if (copy.text[i] == '\0') {
            break;
        }
    }
    copy.text[i] = '\0';
    return copy;
}

template <class T>
T lock_book(const T &field) {
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_relaxed);
}

}  // namespace mlib

#endif
