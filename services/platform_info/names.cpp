#include <cerrno>
#include <cstdio>

#include "services/platform_info/platform_info.h"

namespace {

constexpr uint32_t table_number_mask = 0x1fff;
constexpr uint32_t table_gap_mask = 0xfe000;

// What is left of a buffer that text is appended to.
struct rest {
    char *at;
    size_t size;

    // False when text and terminator do not fit.
    bool append(const char *format, auto value) {
        const int length = snprintf(at, size, format, value);
        if (length < 0 || static_cast<size_t>(length) >= size) {
            return false;
        }
        at += length;
        size -= static_cast<size_t>(length);
        return true;
    }
};

cerrno write_name(rest name, const char *type, uint32_t node_id, const int (&place)[4]) {
    if (!name.append("%s", type) || !name.append("%u", node_id)) {
        return ENOMEM;
    }
    bool ended = false;
    for (const int number : place) {
        if (number < 0) {
            ended = true;
        } else if (ended) {
            return PLATFORM_INFO_BAD_NAME;
        } else if (!name.append("_%d", number)) {
            return ENOMEM;
        }
    }
    return 0;
}

}  // namespace

cerrno platform_node_construct_ifname(char *buffer, size_t size, const char *type, uint32_t node_id,
                                      int rack, int slot, int instance, int port) {
    if (buffer == nullptr || size == 0) {
        return EINVAL;
    }
    buffer[0] = '\0';
    if (type == nullptr || type[0] == '\0') {
        return EINVAL;
    }
    const cerrno rc = write_name({buffer, size}, type, node_id, {rack, slot, instance, port});
    if (rc != 0) {
        buffer[0] = '\0';
    }
    return rc;
}

cerrno rsi_c_tbl_id_decode2(uint32_t table_id, uint32_t *family, uint32_t *subfamily,
                            uint32_t *decoded) {
    if (decoded == nullptr) {
        return EINVAL;
    }
    if (family != nullptr) {
        *family = table_id >> 24;
    }
    if (subfamily != nullptr) {
        *subfamily = table_id >> 20 & 0xf;
    }
    *decoded = table_id & table_number_mask;
    return (table_id & table_gap_mask) == 0 ? 0 : PLATFORM_INFO_BAD_TABLE_ID;
}
