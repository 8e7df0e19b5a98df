// visible_text.cpp -- a strict UTF-8 decoder (no overlong forms, no surrogates, nothing past U+10FFFF) that keeps
// what it can show and escapes the rest byte by byte.
#include "visible_text.h"

namespace zset_report {
namespace {

void escape_byte(std::string& out, unsigned char b) {
    static const char kHex[] = "0123456789abcdef";
    out += "\\x";
    out += kHex[b >> 4];
    out += kHex[b & 0xf];
}

// The length of the valid, showable UTF-8 character of two or more bytes at s[i], or 0.
size_t showable_sequence(const std::string& s, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char lead = byte(i);
    size_t len;
    unsigned long cp;
    if (lead >= 0xc2 && lead <= 0xdf) {
        len = 2, cp = lead & 0x1f;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        len = 3, cp = lead & 0x0f;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        len = 4, cp = lead & 0x07;
    } else {
        return 0;
    }
    if (i + len > s.size()) return 0;
    for (size_t k = 1; k < len; ++k) {
        if ((byte(i + k) & 0xc0) != 0x80) return 0;
        cp = (cp << 6) | (byte(i + k) & 0x3f);
    }
    const bool overlong = (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000);
    const bool surrogate = cp >= 0xd800 && cp <= 0xdfff;
    const bool c1_control = cp >= 0x80 && cp <= 0x9f;
    const bool not_xml = cp == 0xfffe || cp == 0xffff || cp > 0x10ffff;
    return overlong || surrogate || c1_control || not_xml ? 0 : len;
}

std::string markup_escaped(const std::string& text, bool attribute) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += attribute ? "&quot;" : "\""; break;
            case '\'': out += attribute ? "&apos;" : "'"; break;
            // In an attribute a raw tab would be read back as a space.
            case '\t': out += attribute ? "&#9;" : "\t"; break;
            default: out += c;
        }
    }
    return out;
}

}  // namespace

std::string visible(const std::string& bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (size_t i = 0; i < bytes.size();) {
        const unsigned char b = static_cast<unsigned char>(bytes[i]);
        if (b < 0x80) {
            if (b == '\\') {
                out += "\\\\";
            } else if ((b < 0x20 && b != '\t') || b == 0x7f) {
                escape_byte(out, b);
            } else {
                out += static_cast<char>(b);
            }
            ++i;
        } else if (const size_t len = showable_sequence(bytes, i)) {
            out.append(bytes, i, len);
            i += len;
        } else {
            // One byte at a time, so that a valid character right after a broken one still shows.
            escape_byte(out, b);
            ++i;
        }
    }
    return out;
}

std::string clipped(const std::string& line, size_t max_bytes) {
    if (line.size() <= max_bytes) return line;
    return line.substr(0, max_bytes) + "... (" + std::to_string(line.size() - max_bytes) + " more bytes)";
}

std::string xml_attribute(const std::string& bytes) { return markup_escaped(visible(bytes), true); }

std::string xml_text(const std::string& bytes) { return markup_escaped(visible(bytes), false); }

}  // namespace zset_report
