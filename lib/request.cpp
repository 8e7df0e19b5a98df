// request.cpp -- writing commands in the wire format.
#include "request.h"

#include <charconv>
#include <cstdio>

#include "server_keys.h"

namespace kelvane {

Request& Request::start() {
    buffer_.assign(kHeaderRoom, ' ');
    argc_ = 0;
    return *this;
}

void Request::bulk_header(std::size_t len) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, len).ptr;
    buffer_ += '$';
    buffer_.append(digits, end);
    buffer_ += "\r\n";
    ++argc_;
}

Request& Request::arg(std::string_view bytes) {
    bulk_header(bytes.size());
    buffer_.append(bytes);
    buffer_ += "\r\n";
    return *this;
}

Request& Request::arg_joined(std::string_view a, std::string_view b, std::string_view c) {
    bulk_header(a.size() + b.size() + c.size());
    buffer_.append(a).append(b).append(c);
    buffer_ += "\r\n";
    return *this;
}

Request& Request::then_ping(std::string_view tag) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, tag.size()).ptr;
    buffer_ += "*2\r\n$4\r\nPING\r\n$";
    buffer_.append(digits, end);
    buffer_ += "\r\n";
    buffer_.append(tag);
    buffer_ += "\r\n";
    return *this;
}

Request& Request::score(double value) {
    char text[32];
    const int n = std::snprintf(text, sizeof text, "%.17g", value);
    return arg(std::string_view(text, static_cast<std::size_t>(n)));
}

Request& Request::integer(long long value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return arg(std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

Request& Request::server_key(const char* key, std::size_t key_len, std::string_view suffix) {
    bulk_header(server_key_length(key, key_len) + suffix.size());
    append_server_key(buffer_, key, key_len);
    buffer_.append(suffix);
    buffer_ += "\r\n";
    return *this;
}

std::string_view Request::bytes() {
    char header[kHeaderRoom];
    header[0] = '*';
    char* end = std::to_chars(header + 1, header + sizeof header - 2, argc_).ptr;
    *end++ = '\r';
    *end++ = '\n';
    const auto header_len = static_cast<std::size_t>(end - header);
    const std::size_t from = kHeaderRoom - header_len;
    buffer_.replace(from, header_len, header, header_len);
    return std::string_view(buffer_).substr(from);
}

}  // namespace kelvane
