#include "apps/mfwd6d/command/json_scan.h"

#include <algorithm>
#include <cstring>

#include "apps/mfwd6d/digits.h"

namespace mfwd6::daemon {
namespace {

constexpr size_t id_bytes = 64;
constexpr int not_ascii = 0x80;  // set in each byte of UTF-8 that is not ASCII

bool take_hex4(std::string_view *raw, uint32_t *value) {
    if (raw->size() < 4) {
        return false;
    }
    *value = 0;
    for (size_t i = 0; i < 4; ++i) {
        const int digit = hex_value((*raw)[i]);
        if (digit < 0) {
            return false;
        }
        *value = *value << 4 | static_cast<uint32_t>(digit);
    }
    raw->remove_prefix(4);
    return true;
}

void append_utf8(uint32_t c, std::string *text) {
    const auto add = [text](uint32_t byte) { text->push_back(static_cast<char>(byte)); };
    if (c < 0x80) {
        add(c);
    } else if (c < 0x800) {
        add(0xc0 | c >> 6);
        add(0x80 | (c & 0x3f));
    } else if (c < 0x10000) {
        add(0xe0 | c >> 12);
        add(0x80 | (c >> 6 & 0x3f));
        add(0x80 | (c & 0x3f));
    } else {
        add(0xf0 | c >> 18);
        add(0x80 | (c >> 12 & 0x3f));
        add(0x80 | (c >> 6 & 0x3f));
        add(0x80 | (c & 0x3f));
    }
}

// Behind "\u": one code point, of two escapes where the first is a high surrogate.
bool take_code_point(std::string_view *raw, std::string *text) {
    uint32_t c = 0;
    if (!take_hex4(raw, &c)) {
        return false;
    }
    if (c >= 0xd800 && c < 0xdc00) {
        uint32_t low = 0;
        if (!raw->starts_with("\\u")) {
            return false;
        }
        raw->remove_prefix(2);
        if (!take_hex4(raw, &low) || low < 0xdc00 || low > 0xdfff) {
            return false;
        }
        c = 0x10000 + ((c - 0xd800) << 10) + (low - 0xdc00);
    } else if (c >= 0xdc00 && c <= 0xdfff) {
        return false;
    }
    append_utf8(c, text);
    return true;
}

// The quote that ends a text with escapes, or null.
const char *end_of_escaped(const char *at, const char *end) {
    for (; at != end; ++at) {
        if (*at == '"') {
            return at;
        }
        if (*at == '\\' && ++at == end) {
            return nullptr;
        }
    }
    return nullptr;
}

bool is_tail(char c) {
    constexpr int marks = 0xc0;
    return (c & marks) == not_ascii;
}

// Bytes of the code point at the beginning of `text`, 0 if it is none (RFC 3629, 4).
size_t utf8_length(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < not_ascii) {
        return 1;
    }
    const size_t length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (length == 0 || first > 0xf4 || text.size() < length) {
        return 0;
    }
    for (const char c : text.substr(1, length - 1)) {
        if (!is_tail(c)) {
            return 0;
        }
    }
    // Forms that are too long, surrogates, and what lies behind the last code point.
    const auto second = static_cast<unsigned char>(text[1]);
    const bool wrong = (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
                       (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
    return wrong ? 0 : length;
}

char simple_escape(char c) {
    switch (c) {
        case '"':
        case '\\':
        case '/':
            return c;
        case 'b':
            return '\b';
        case 'f':
            return '\f';
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        default:
            return 0;
    }
}

}  // namespace

char json_scan::peek() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\r' || *at_ == '\n')) {
        ++at_;
    }
    return at_ != end_ ? *at_ : '\0';
}

bool json_scan::take(char expected) {
    if (peek() != expected || at_ == end_) {
        return false;
    }
    ++at_;
    return true;
}

// Texts of bulk requests have no escapes: their end is the next quote, and the rest is a check that
// the compiler does many bytes at a time.
bool json_scan::take_raw_string(std::string_view *text, bool *has_escapes) {
    if (!take('"')) {
        return false;
    }
    const auto *quote =
        static_cast<const char *>(std::memchr(at_, '"', static_cast<size_t>(end_ - at_)));
    if (quote == nullptr) {
        return false;
    }
    *text = {at_, static_cast<size_t>(quote - at_)};
    *has_escapes = std::memchr(at_, '\\', text->size()) != nullptr;
    if (*has_escapes) {
        quote = end_of_escaped(at_, end_);
        if (quote == nullptr) {
            return false;
        }
        *text = {at_, static_cast<size_t>(quote - at_)};
    }
    bool control = false;
    for (const char c : *text) {
        control |= static_cast<unsigned char>(c) < ' ';
    }
    at_ = quote + 1;
    return !control;
}

bool json_scan::take_digits() {
    const char *from = at_;
    while (at_ != end_ && is_digit(*at_)) {
        ++at_;
    }
    return at_ != from;
}

// RFC 8259, 6.
bool json_scan::take_number() {
    if (at_ != end_ && *at_ == '-') {
        ++at_;
    }
    if (at_ != end_ && *at_ == '0') {
        ++at_;
    } else if (!take_digits()) {
        return false;
    }
    if (at_ != end_ && *at_ == '.') {
        ++at_;
        if (!take_digits()) {
            return false;
        }
    }
    if (at_ == end_ || (*at_ != 'e' && *at_ != 'E')) {
        return true;
    }
    ++at_;
    if (at_ != end_ && (*at_ == '+' || *at_ == '-')) {
        ++at_;
    }
    return take_digits();
}

bool json_scan::take_string() {
    std::string_view raw;
    bool has_escapes = false;
    std::string text;
    return take_raw_string(&raw, &has_escapes) && (!has_escapes || unescape_json(raw, &text));
}

bool json_scan::take_word(std::string_view word) {
    if (!rest().starts_with(word)) {
        return false;
    }
    at_ += word.size();
    return true;
}

bool json_scan::take_members(char close, bool named, uint32_t depth) {
    ++at_;
    for (bool first = true; !take(close); first = false) {
        std::string_view ignored;
        if (!first && !take(',')) {
            return false;
        }
        if (named && (!take_string() || !take(':'))) {
            return false;
        }
        if (!take_value(&ignored, depth + 1)) {
            return false;
        }
    }
    return true;
}

bool json_scan::take_value(std::string_view *raw, uint32_t depth) {
    const char first = peek();
    const char *from = at_;
    bool good = false;
    switch (first) {
        case '{':
            good = depth < json_depth && take_members('}', true, depth);
            break;
        case '[':
            good = depth < json_depth && take_members(']', false, depth);
            break;
        case '"':
            good = take_string();
            break;
        case 't':
            good = take_word("true");
            break;
        case 'f':
            good = take_word("false");
            break;
        case 'n':
            good = take_word("null");
            break;
        default:
            good = take_number();
            break;
    }
    *raw = {from, static_cast<size_t>(at_ - from)};
    return good;
}

bool unescape_json(std::string_view raw, std::string *text) {
    text->clear();
    while (!raw.empty()) {
        const size_t plain = std::min(raw.find('\\'), raw.size());
        text->append(raw.substr(0, plain));
        raw.remove_prefix(plain);
        if (raw.empty()) {
            break;
        }
        if (raw.size() < 2) {
            return false;
        }
        const char kind = raw[1];
        raw.remove_prefix(2);
        if (kind == 'u') {
            if (!take_code_point(&raw, text)) {
                return false;
            }
            continue;
        }
        const char c = simple_escape(kind);
        if (c == 0) {
            return false;
        }
        text->push_back(c);
    }
    return true;
}

bool is_utf8(std::string_view text) {
    char all = 0;
    for (const char c : text) {
        all |= c;
    }
    if ((all & not_ascii) == 0) {
        return true;
    }
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

bool is_json_name(std::string_view raw, bool has_escapes, std::string_view name) {
    if (!has_escapes) {
        return raw == name;
    }
    std::string text;
    return unescape_json(raw, &text) && text == name;
}

bool split_request(std::string_view line, request_parts *parts) {
    *parts = {"null", {}, "{}"};
    json_scan in(line);
    if (!is_utf8(line) || !in.take('{')) {
        return false;
    }
    for (bool first = true; !in.take('}'); first = false) {
        std::string_view key;
        std::string_view value;
        std::string unescaped;
        bool has_escapes = false;
        if ((!first && !in.take(',')) || !in.take_raw_string(&key, &has_escapes) || !in.take(':') ||
            !in.take_value(&value)) {
            return false;
        }
        if (has_escapes) {
            if (!unescape_json(key, &unescaped)) {
                return false;
            }
            key = unescaped;
        }
        if (key == "id") {
            parts->id = value;
        } else if (key == "action") {
            parts->action =
                value.front() == '"' ? value.substr(1, value.size() - 2) : std::string_view();
        } else if (key == "args") {
            parts->args = value;
        }
    }
    const char kind = parts->id.front();
    const bool repeatable = kind != '{' && kind != '[' && kind != 't' && kind != 'f';
    return in.at_end() && parts->id.size() <= id_bytes && repeatable && parts->args.front() == '{';
}

}  // namespace mfwd6::daemon
