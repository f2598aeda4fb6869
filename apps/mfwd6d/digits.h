// Digits of the texts that the daemon reads, the same in every locale.
#ifndef MFWD6_APPS_MFWD6D_DIGITS_H
#define MFWD6_APPS_MFWD6D_DIGITS_H

namespace mfwd6 {

inline bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// -1: no hexadecimal digit.
inline int hex_value(char c) {
    if (is_digit(c)) {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

}  // namespace mfwd6

#endif
