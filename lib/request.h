// request.h -- what one call sends, in the server's wire format, written
// straight into a buffer that lives as long as the client, so that building
// it allocates nothing once the buffer has grown to the client's usual sizes.
//
// A request is one command whose argument count is filled in at the end (a
// function call, whose length depends on its arguments), or a run of commands
// each started with command(argc) (native commands, a transaction), either
// followed by a PING that tags it.
#ifndef KELVANE_REQUEST_H
#define KELVANE_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelvane {

class Request {
public:
    // Starts a new request, dropping the previous one (the buffer is kept).
    Request& start();
    // Starts the next command of a run of commands: argc arguments, the
    // first of them name. A request that uses it is made of such commands
    // alone.
    Request& command(std::size_t argc, std::string_view name);
    // The same for a command that names the values key and nothing that the
    // read needs without it (main_key_only() leaves it out whole).
    Request& values_command(std::size_t argc, std::string_view name);
    // Makes room for bytes of arguments, so that writing them moves nothing.
    void reserve(std::size_t bytes) { make_room(kHeaderRoom + bytes); }
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

    // Marks a run of commands that one ASKING cannot cover (it covers only
    // the command after it): the router hands an ASK back to the caller
    // instead of following it.
    Request& cannot_follow_ask() {
        follows_ask_ = false;
        return *this;
    }
    bool follows_ask() const { return follows_ask_; }

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
    // pair because the values hash does not exist; a run of commands has one
    // without its values commands. The names of both keys, for finding that
    // out, and that form, valid until the next start().
    bool names_values_key() const { return values_from_ != 0 || !dropped_.empty(); }
    std::string_view main_key() const { return view().substr(main_at_, main_len_); }
    std::string_view values_key() const;
    std::string_view main_key_only();

private:
    // Room for n more bytes; the end of what is written.
    char* make_room(std::size_t n);
    // Closes the values command under way, if any.
    void end_values_command();
    std::string_view view() const { return std::string_view(buffer_.get(), size_); }

    // Arguments are written after a gap at the front; bytes() fills the
    // end of the gap with the "*<argc>" header once the count is known.
    // The buffer is written byte by byte, without the bookkeeping of a
    // string on every small append: a call writes dozens of them.
    static constexpr std::size_t kHeaderRoom = 24;
    std::unique_ptr<char[]> buffer_;
    std::size_t size_ = 0, capacity_ = 0;
    std::size_t argc_ = 0;
    // Where the key count and the values key lie in buffer_, each as a whole
    // argument (its "$" header to its "\r\n"), and the main key's name; 0:
    // not in this command.
    std::size_t count_from_ = 0, count_to_ = 0, key_count_ = 0;
    std::size_t values_from_ = 0, values_to_ = 0;
    std::size_t main_at_ = 0, main_len_ = 0;
    std::size_t values_name_at_ = 0, values_name_len_ = 0;
    // A run of commands: its values commands, as spans of buffer_ (the last
    // one open while open_values_ is set).
    bool commands_ = false;
    bool open_values_ = false;
    bool follows_ask_ = true;
    std::vector<std::pair<std::size_t, std::size_t>> dropped_;
    std::string main_key_only_;
};

}  // namespace kelvane

#endif  // KELVANE_REQUEST_H
