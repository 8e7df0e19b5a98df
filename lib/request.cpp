// request.cpp -- writing commands in the wire format.
#include "request.h"

#include <charconv>
#include <cstdio>
#include <cstring>

#include "secret.h"
#include "server_keys.h"

namespace kelvane {
namespace {

// The longest "<kind><n>\r\n" line: a kind, 20 digits, CR and LF.
constexpr std::size_t kLengthLine = 24;

// Writes "<kind><n>\r\n" at out; the end of it.
char* write_length_line(char* out, char kind, std::size_t n) {
    *out++ = kind;
    out = std::to_chars(out, out + 20, n).ptr;
    *out++ = '\r';
    *out++ = '\n';
    return out;
}

}  // namespace

char* Request::make_room(std::size_t n) {
    if (capacity_ - size_ < n) {
        std::size_t capacity = capacity_ != 0 ? capacity_ : 256;
        while (capacity - size_ < n) capacity *= 2;
        std::unique_ptr<char[]> bigger(new char[capacity]);
        if (size_ != 0) std::memcpy(bigger.get(), buffer_.get(), size_);
        buffer_ = std::move(bigger);
        capacity_ = capacity;
    }
    return buffer_.get() + size_;
}

Request& Request::start() {
    make_room(kHeaderRoom);
    size_ = kHeaderRoom;
    argc_ = 0;
    count_from_ = count_to_ = key_count_ = values_from_ = values_to_ = main_at_ = main_len_ = 0;
    values_name_at_ = values_name_len_ = 0;
    commands_ = open_values_ = false;
    follows_ask_ = true;
    dropped_.clear();
    return *this;
}

void Request::wipe() noexcept {
    if (buffer_) wipe_bytes(buffer_.get(), capacity_);
    size_ = argc_ = 0;
}

Request& Request::command(std::size_t argc, std::string_view name) {
    end_values_command();
    commands_ = true;
    // Both header lines and the name, in one go: a read writes several.
    char* out = make_room(2 * kLengthLine + name.size() + 2);
    out = write_length_line(out, '*', argc);
    out = write_length_line(out, '$', name.size());
    std::memcpy(out, name.data(), name.size());
    out += name.size();
    *out++ = '\r';
    *out++ = '\n';
    size_ = static_cast<std::size_t>(out - buffer_.get());
    ++argc_;
    return *this;
}

Request& Request::values_command(std::size_t argc, std::string_view name) {
    end_values_command();
    const std::size_t from = size_;
    command(argc, name);
    dropped_.emplace_back(from, size_);
    open_values_ = true;
    return *this;
}

void Request::end_values_command() {
    if (!open_values_) return;
    dropped_.back().second = size_;
    open_values_ = false;
}

Request& Request::arg(std::string_view bytes) {
    char* out = make_room(kLengthLine + bytes.size() + 2);
    out = write_length_line(out, '$', bytes.size());
    if (!bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());
    out += bytes.size();
    *out++ = '\r';
    *out++ = '\n';
    size_ = static_cast<std::size_t>(out - buffer_.get());
    ++argc_;
    return *this;
}

Request& Request::arg_joined(std::string_view a, std::string_view b, std::string_view c) {
    const std::size_t len = a.size() + b.size() + c.size();
    char* out = make_room(kLengthLine + len + 2);
    out = write_length_line(out, '$', len);
    for (const std::string_view piece : {a, b, c}) {
        if (!piece.empty()) std::memcpy(out, piece.data(), piece.size());
        out += piece.size();
    }
    *out++ = '\r';
    *out++ = '\n';
    size_ = static_cast<std::size_t>(out - buffer_.get());
    ++argc_;
    return *this;
}

Request& Request::then_ping(std::string_view tag) {
    end_values_command();
    constexpr std::string_view kPing = "*2\r\n$4\r\nPING\r\n";
    char* out = make_room(kPing.size() + kLengthLine + tag.size() + 2);
    std::memcpy(out, kPing.data(), kPing.size());
    out = write_length_line(out + kPing.size(), '$', tag.size());
    std::memcpy(out, tag.data(), tag.size());
    out += tag.size();
    *out++ = '\r';
    *out++ = '\n';
    size_ = static_cast<std::size_t>(out - buffer_.get());
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
    const std::size_t from = size_;
    const std::size_t len = server_key_length(key, key_len) + suffix.size();
    char* out = make_room(kLengthLine + len + 2);
    out = write_length_line(out, '$', len);
    const std::size_t name_at = static_cast<std::size_t>(out - buffer_.get());
    out = write_server_key(out, key, key_len);
    if (!suffix.empty()) std::memcpy(out, suffix.data(), suffix.size());
    out += suffix.size();
    *out++ = '\r';
    *out++ = '\n';
    size_ = static_cast<std::size_t>(out - buffer_.get());
    ++argc_;
    if (suffix == kValuesSuffix) {
        values_name_at_ = name_at;
        values_name_len_ = len;
        // In a single command the values key is an argument main_key_only()
        // leaves out; in a run of commands, the commands that name it go.
        if (!commands_ && main_len_ != 0) {
            values_from_ = from;
            values_to_ = size_;
        }
    } else if (suffix.empty() && main_len_ == 0) {
        main_at_ = name_at;
        main_len_ = len;
    }
    return *this;
}

Request& Request::key_count(std::size_t n) {
    count_from_ = size_;
    integer(static_cast<long long>(n));
    count_to_ = size_;
    key_count_ = n;
    return *this;
}

std::string_view Request::values_key() const {
    return view().substr(values_name_at_, values_name_len_);
}

std::string_view Request::main_key_only() {
    std::string& out = main_key_only_;
    out.clear();
    const std::string_view all = view();
    if (commands_) {
        end_values_command();
        std::size_t at = kHeaderRoom;
        for (const auto& [from, to] : dropped_) {
            out.append(all.substr(at, from - at));
            at = to;
        }
        out.append(all.substr(at));
        return out;
    }
    char line[kLengthLine];
    out.append(line, write_length_line(line, '*', argc_ - 1));
    std::size_t at = kHeaderRoom;
    if (count_to_ != 0) {
        out.append(all.substr(at, count_from_ - at));
        const std::string count = std::to_string(key_count_ - 1);
        out.append(line, write_length_line(line, '$', count.size()));
        out.append(count).append("\r\n");
        at = count_to_;
    }
    out.append(all.substr(at, values_from_ - at));
    out.append(all.substr(values_to_));
    return out;
}

std::string_view Request::bytes() {
    if (commands_) {
        end_values_command();
        return view().substr(kHeaderRoom);
    }
    char header[kHeaderRoom];
    const auto header_len = static_cast<std::size_t>(write_length_line(header, '*', argc_) - header);
    const std::size_t from = kHeaderRoom - header_len;
    std::memcpy(buffer_.get() + from, header, header_len);
    return view().substr(from);
}

}  // namespace kelvane
