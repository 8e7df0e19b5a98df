// score_text.cpp -- parsing score texts.
#include "score_text.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace kelvane {

bool parse_score(const char* text, std::size_t len, double* out) {
    // strtod needs a terminated text; no score text is longer than this.
    char buf[64];
    if (text == nullptr || len == 0 || len >= sizeof buf) return false;
    // strtod would skip leading white space; a score's text has none.
    if (std::isspace(static_cast<unsigned char>(text[0]))) return false;
    std::memcpy(buf, text, len);
    buf[len] = '\0';
    char* end = nullptr;
    const double value = std::strtod(buf, &end);
    if (end != buf + len || std::isnan(value)) return false;
    *out = value;
    return true;
}

}  // namespace kelvane
