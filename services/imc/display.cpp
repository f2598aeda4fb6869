#include <algorithm>
#include <cstring>

#include "services/imc/imc.h"

const char *imc_display_namestring(const char *name, char *buffer, size_t size, int printable) {
    if (buffer == nullptr || size == 0) {
        return nullptr;
    }
    const char *const text = name != nullptr ? name : "Unknown";
    const size_t length = std::min(strnlen(text, IMC_NAME_SIZE), size - 1);
    for (size_t i = 0; i < length; ++i) {
        const bool plain = text[i] >= 0x21 && text[i] <= 0x7e;
        buffer[i] = plain || printable == 0 ? text[i] : '?';
    }
    buffer[length] = '\0';
    return buffer;
}
