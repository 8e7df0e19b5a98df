// score_text.cpp -- parsing score texts.
#include "score_text.h"

#include <charconv>
#include <cmath>
#include <system_error>

namespace kelvane {

bool parse_score(const char* text, std::size_t len, double* out) {
    if (text == nullptr || len == 0) return false;
    // from_chars reads exactly what strtod would, rounding correctly, but
    // skips no white space and takes no leading '+' (the server sends
    // neither), and is several times faster: a range read parses a score
    // per member.
    double value = 0;
    const auto [end, error] = std::from_chars(text, text + len, value);
    if (error != std::errc() || end != text + len || std::isnan(value)) return false;
    *out = value;
    return true;
}

}  // namespace kelvane
