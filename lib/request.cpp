// request.cpp -- writing commands in the wire format.
#include "request.h"

#include <charconv>
#include <cstdio>

#include "secret.h"
#include "server_keys.h"

namespace kelvane {

Request& Request::start() {
    buffer_.assign(kHeaderRoom, ' ');
    argc_ = 0;
    count_from_ = count_to_ = key_count_ = values_from_ = values_to_ = main_at_ = main_len_ = 0;
    values_name_at_ = values_name_len_ = 0;
    commands_ = open_values_ = false;
    follows_ask_ = true;
    dropped_.clear();
    return *this;
}

void Request::wipe() noexcept {
    wipe_bytes(buffer_.data(), buffer_.size());
    buffer_.clear();
    argc_ = 0;
}

namespace {

// "<kind><n>\r\n": an array header ('*') or a bulk string's ('$').
void append_length_line(std::string& out, char kind, std::size_t n) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, n).ptr;
    out += kind;
    out.append(digits, end);
    out += "\r\n";
}

}  // namespace

Request& Request::command(std::size_t argc) {
    end_values_command();
    commands_ = true;
    append_length_line(buffer_, '*', argc);
    return *this;
}

Request& Request::values_command(std::size_t argc) {
    end_values_command();
    dropped_.emplace_back(buffer_.size(), buffer_.size());
    open_values_ = true;
    return command(argc);
}

void Request::end_values_command() {
    if (!open_values_) return;
    dropped_.back().second = buffer_.size();
    open_values_ = false;
}

void Request::bulk_header(std::size_t len) {
    append_length_line(buffer_, '$', len);
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
    end_values_command();
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
    const std::size_t from = buffer_.size();
    const std::size_t len = server_key_length(key, key_len) + suffix.size();
    bulk_header(len);
    const std::size_t name_at = buffer_.size();
    append_server_key(buffer_, key, key_len);
    buffer_.append(suffix);
    buffer_ += "\r\n";
    if (suffix == kValuesSuffix) {
        values_name_at_ = name_at;
        values_name_len_ = len;
        // In a single command the values key is an argument main_key_only()
        // leaves out; in a run of commands, the commands that name it go.
        if (!commands_ && main_len_ != 0) {
            values_from_ = from;
            values_to_ = buffer_.size();
        }
    } else if (suffix.empty() && main_len_ == 0) {
        main_at_ = name_at;
        main_len_ = len;
    }
    return *this;
}

Request& Request::key_count(std::size_t n) {
    count_from_ = buffer_.size();
    integer(static_cast<long long>(n));
    count_to_ = buffer_.size();
    key_count_ = n;
    return *this;
}

std::string_view Request::values_key() const {
    return std::string_view(buffer_).substr(values_name_at_, values_name_len_);
}

std::string_view Request::main_key_only() {
    std::string& out = main_key_only_;
    out.clear();
    if (commands_) {
        end_values_command();
        std::size_t at = kHeaderRoom;
        for (const auto& [from, to] : dropped_) {
            out.append(buffer_, at, from - at);
            at = to;
        }
        out.append(buffer_, at, std::string::npos);
        return out;
    }
    append_length_line(out, '*', argc_ - 1);
    std::size_t at = kHeaderRoom;
    if (count_to_ != 0) {
        out.append(buffer_, at, count_from_ - at);
        const std::string count = std::to_string(key_count_ - 1);
        append_length_line(out, '$', count.size());
        out.append(count).append("\r\n");
        at = count_to_;
    }
    out.append(buffer_, at, values_from_ - at);
    out.append(buffer_, values_to_, std::string::npos);
    return out;
}

std::string_view Request::bytes() {
    if (commands_) {
        end_values_command();
        return std::string_view(buffer_).substr(kHeaderRoom);
    }
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
