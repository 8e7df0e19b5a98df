// request.h -- one command in the server's wire format, written straight
// into a buffer that lives as long as the client, so that building a command
// allocates nothing once the buffer has grown to the client's usual sizes.
#ifndef KELVANE_REQUEST_H
#define KELVANE_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelvane {

class Request {
public:
    // Starts a new command, dropping the previous one (the buffer is kept).
    Request& start();

    Request& arg(std::string_view bytes);
    Request& arg(const char* bytes, std::size_t len) { return arg(std::string_view(bytes, len)); }
    // 17 significant digits: every double survives the round trip exactly.
    // One argument made of three pieces, without building it first.
    Request& arg_joined(std::string_view a, std::string_view b, std::string_view c);
    Request& score(double value);
    Request& integer(long long value);
    Request& flag(bool on) { return arg(on ? "1" : "0"); }
    // The server key of a kelvane key: "kv{" encoded key "}" and suffix
    // (server_keys.h says how keys are encoded).
    Request& server_key(const char* key, std::size_t key_len, std::string_view suffix);

    // Appends "PING <tag>" as a command of its own after this one: the
    // server's echo of it, read right after this command's reply, proves
    // that reply to be this command's. Nothing may be added after it.
    Request& then_ping(std::string_view tag);

    std::size_t argc() const { return argc_; }
    // The whole command, header included. Valid until the next start().
    std::string_view bytes();

private:
    void bulk_header(std::size_t len);

    // Arguments are written after a gap at the front; bytes() fills the
    // end of the gap with the "*<argc>" header once the count is known.
    static constexpr std::size_t kHeaderRoom = 24;
    std::string buffer_;
    std::size_t argc_ = 0;
};

}  // namespace kelvane

#endif  // KELVANE_REQUEST_H
