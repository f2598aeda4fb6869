// Preloaded into a program: maps something where the window belongs.
#include <stdint.h>
#include <sys/mman.h>

#ifndef MFWD6_WINDOW_BASE
#define MFWD6_WINDOW_BASE 0x200000000000
#endif

__attribute__((constructor)) static void squat(void) {
    mmap((void *)(uintptr_t)MFWD6_WINDOW_BASE, 4096, PROT_NONE,
         MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
}
