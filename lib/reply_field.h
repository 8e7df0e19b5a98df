// reply_field.h -- one scalar of a small reply, kept inline: an integer, a
// short text (a score's), nil, or a mark for what is not kept inline (a
// longer text the client does not read, a value that went straight into a
// buffer of its own, the error of a key of another kind). Reading it never
// allocates.
#ifndef KELVANE_REPLY_FIELD_H
#define KELVANE_REPLY_FIELD_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "score_text.h"

namespace kelvane {

struct ReplyField {
    enum class Kind : uint8_t { absent, nil, integer, text, long_text, handed, wrong_type };
    static constexpr std::size_t kMaxText = 48;  // a score's text is at most 24 bytes

    Kind kind = Kind::absent;
    uint8_t len = 0;
    long long value = 0;
    char text[kMaxText];

    void set_integer(long long n) {
        kind = Kind::integer;
        value = n;
    }
    // Keeps a text inline, or marks it as longer than any read inline.
    void set_text(const char* bytes, std::size_t n) {
        if (n > kMaxText) {
            kind = Kind::long_text;
            return;
        }
        kind = Kind::text;
        len = static_cast<uint8_t>(n);
        if (n != 0) std::memcpy(text, bytes, n);
    }

    bool integer(long long* out) const {
        if (kind != Kind::integer) return false;
        *out = value;
        return true;
    }
    // A count or rank: an integer that a uint32_t holds.
    bool count(uint32_t* out) const {
        if (kind != Kind::integer || value < 0 || value > std::numeric_limits<uint32_t>::max()) return false;
        *out = static_cast<uint32_t>(value);
        return true;
    }
    // A score: a number's text, never NaN.
    bool score(double* out) const { return kind == Kind::text && parse_score(text, len, out); }
};

}  // namespace kelvane

#endif  // KELVANE_REPLY_FIELD_H
