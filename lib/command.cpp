// command.cpp -- argument lists and score texts.
#include "command.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace kelvane {

Command& Command::borrow(std::string_view bytes) {
    ptrs_.push_back(bytes.data());
    lens_.push_back(bytes.size());
    return *this;
}

Command& Command::own(std::string text) {
    const std::string& kept = owned_.emplace_back(std::move(text));
    return borrow(kept);
}

std::string Command::score_text(double value) {
    char buf[32];
    int n = std::snprintf(buf, sizeof buf, "%.17g", value);
    return std::string(buf, static_cast<std::size_t>(n));
}

bool parse_score(const char* text, std::size_t len, double* out) {
    if (text == nullptr || len == 0 || len >= 64) return false;
    char buf[64];
    for (std::size_t i = 0; i < len; ++i) buf[i] = text[i];
    buf[len] = '\0';
    char* end = nullptr;
    errno = 0;
    double value = std::strtod(buf, &end);
    if (end != buf + len) return false;
    *out = value;
    return true;
}

}  // namespace kelvane
