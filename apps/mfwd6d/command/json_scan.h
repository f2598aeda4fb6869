// A small reader of JSON (RFC 8259) over a buffer in place, for the requests that come in bulk: it
// makes no objects and copies nothing but texts with escapes.
#ifndef MFWD6_APPS_MFWD6D_COMMAND_JSON_SCAN_H
#define MFWD6_APPS_MFWD6D_COMMAND_JSON_SCAN_H

#include <cstdint>
#include <string>
#include <string_view>

namespace mfwd6::daemon {

// Nesting that is followed.
inline constexpr uint32_t json_depth = 32;

class json_scan {
  public:
    explicit json_scan(std::string_view text) : at_(text.data()), end_(at_ + text.size()) {}

    // The next character that is no blank, 0 at the end (and for a 0 in the text).
    char peek();
    bool take(char expected);
    bool at_end() {
        peek();
        return at_ == end_;
    }

    // The text between two quotes as it stands, and whether it has escapes, which may be wrong
    // ones.
    bool take_raw_string(std::string_view *text, bool *has_escapes);

    // Any value, as it stands.
    bool take_value(std::string_view *raw, uint32_t depth = 0);

    // What is left.
    std::string_view rest() const { return {at_, static_cast<size_t>(end_ - at_)}; }

  private:
    bool take_digits();
    bool take_number();
    bool take_string();
    bool take_word(std::string_view word);
    bool take_members(char close, bool named, uint32_t depth);

    const char *at_;
    const char *end_;
};

// Whether all of a text is UTF-8 (RFC 3629), which JSON must be.
bool is_utf8(std::string_view text);

// Whether the text of a name, as it stands, says `name`.
bool is_json_name(std::string_view raw, bool has_escapes, std::string_view name);

// Replaces the escapes of a text. false: one is wrong.
bool unescape_json(std::string_view raw, std::string *text);

// The parts of a request. Views into the line.
struct request_parts {
    std::string_view id;      // a JSON value, "null" when it was not given
    std::string_view action;  // as it stands: no action's name needs escapes
    std::string_view args;    // a JSON object, "{}" when it was not given
};

// Takes a request line apart. false: it is no JSON, no such object, or one with an id that is no
// number, text or null of at most 64 bytes. Of two members with one name the last counts.
bool split_request(std::string_view line, request_parts *parts);

// Calls fn(text) for each text of the first member `name`, an array of texts, in a JSON object (one
// that is known to be JSON: what follows the array is not read). false: it is no such array, or fn
// gave false. Texts with escapes are unescaped into `buffer`.
template <class Fn>
bool each_string(std::string_view object, std::string_view name, std::string *buffer,
                 const Fn &fn) {
    json_scan in(object);
    if (!in.take('{')) {
        return false;
    }
    for (bool first = true; !in.take('}'); first = false) {
        std::string_view key;
        std::string_view ignored;
        bool has_escapes = false;
        if ((!first && !in.take(',')) || !in.take_raw_string(&key, &has_escapes) || !in.take(':')) {
            return false;
        }
        if (!is_json_name(key, has_escapes, name)) {
            if (!in.take_value(&ignored)) {
                return false;
            }
            continue;
        }
        if (!in.take('[')) {
            return false;
        }
        for (bool first_text = true; !in.take(']'); first_text = false) {
            std::string_view text;
            if ((!first_text && !in.take(',')) || !in.take_raw_string(&text, &has_escapes)) {
                return false;
            }
            if (has_escapes) {
                if (!unescape_json(text, buffer)) {
                    return false;
                }
                text = *buffer;
            }
            if (!fn(text)) {
                return false;
            }
        }
        return true;
    }
    return false;
}

}  // namespace mfwd6::daemon

#endif
