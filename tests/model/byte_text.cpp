// byte_text.cpp -- quoting and hex for byte strings.
#include "byte_text.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace kelvane_model {

std::string quoted(const std::string& bytes) {
    constexpr size_t kShown = 40;
    std::string out = "\"";
    for (size_t i = 0; i < bytes.size() && i < kShown; ++i) {
        const unsigned char c = static_cast<unsigned char>(bytes[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        }
    }
    out += '"';
    if (bytes.size() > kShown) out += "...(" + std::to_string(bytes.size()) + " bytes)";
    return out;
}

std::string quoted(const std::optional<std::string>& bytes) {
    return bytes ? quoted(*bytes) : std::string("(none)");
}

std::string score_text(double score) {
    char buf[64];
    for (int digits = 1; digits <= 17; ++digits) {
        std::snprintf(buf, sizeof buf, "%.*g", digits, score);
        if (std::strtod(buf, nullptr) == score) break;
    }
    return buf;
}

std::string to_hex(const std::string& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

std::string from_hex(const std::string& hex) {
    auto nibble = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        throw std::invalid_argument("not hex");
    };
    if (hex.size() % 2 != 0) throw std::invalid_argument("odd hex length");
    std::string out;
    for (size_t i = 0; i < hex.size(); i += 2) {
        out += static_cast<char>(nibble(hex[i]) << 4 | nibble(hex[i + 1]));
    }
    return out;
}

}  // namespace kelvane_model
