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
    // Makes room for bytes of arguments, so that writing them moves nothing.
    void reserve(std::size_t bytes) { buffer_.reserve(kHeaderRoom + bytes); }
    // Overwrites the command (one that held a secret) and drops it.
    void wipe() noexcept;

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
    // The number of keys a function call declares.
    Request& key_count(std::size_t n);

    // Appends "PING <tag>" as a command of its own after this one: the
    // server's echo of it, read right after this command's reply, proves
    // that reply to be this command's. Nothing may be added after it.
    Request& then_ping(std::string_view tag);

    std::size_t argc() const { return argc_; }
    // The whole command, header included. Valid until the next start().
    std::string_view bytes();

    // A command that names both server keys of a kelvane key (the main key,
    // then the values key: server_key() with kValuesSuffix) has a second
    // form without the values key, declaring one key fewer, for a cluster
    // node that holds the main key in a slot being migrated and refuses the
    // pair because the values hash does not exist. The names of both keys,
    // for finding that out, and that form, valid until the next start().
    bool names_values_key() const { return values_from_ != 0; }
    std::string_view main_key() const { return std::string_view(buffer_).substr(main_at_, main_len_); }
    std::string_view values_key() const;
    std::string_view main_key_only();

private:
    void bulk_header(std::size_t len);

    // Arguments are written after a gap at the front; bytes() fills the
    // end of the gap with the "*<argc>" header once the count is known.
    static constexpr std::size_t kHeaderRoom = 24;
    std::string buffer_;
    std::size_t argc_ = 0;
    // Where the key count and the values key lie in buffer_, each as a whole
    // argument (its "$" header to its "\r\n"), and the main key's name; 0:
    // not in this command.
    std::size_t count_from_ = 0, count_to_ = 0, key_count_ = 0;
    std::size_t values_from_ = 0, values_to_ = 0;
    std::size_t main_at_ = 0, main_len_ = 0;
    std::string main_key_only_;
};

}  // namespace kelvane

#endif  // KELVANE_REQUEST_H
