// transaction_reply.h -- the replies to a run of native commands on one
// kelvane key, checked against their shape and handed to a subclass command
// by command, and the commands around them that make the run atomic.
//
// The run's envelope (Envelope) says what surrounds its commands:
// - a transaction: +OK to MULTI, +QUEUED (or an error) to each command, and
//   EXEC's array of one reply per command; EXECABORT when a command was
//   refused as it was queued, in which case nothing ran. Errors inside
//   EXEC's array are the commands' own answers (WRONGTYPE for a key of
//   another kind);
// - a WATCH of the main key and of the values hash before the commands
//   (+OK each), which the server keeps for the connection;
// - an empty MULTI and EXEC after the commands, which checks the WATCH:
//   EXEC answers an empty array when neither key changed (or expired) since
//   it, and nil when one did. A run that opens with the WATCH and closes
//   with the check is atomic in one round trip without queuing anything,
//   which a server at its memory limit refuses in a transaction.
//
// Whatever the envelope, the error that counts is worked out once every
// reply is in. A cluster answers MOVED or ASK for each command whose key it
// does not serve; the run reads as a single command naming the same keys
// would have been refused: ASK when every command was sent elsewhere,
// TRYAGAIN when some were and some were not (a slot migration has split the
// keys between two nodes), so that the router treats it like any other
// request. Any other refusal comes first.
//
// Commands that name the values key alone are left out of the request's
// main-key-only form (Request::values_command), the WATCH of the values hash
// among them; the sink is told which form went (expect_main_key_only) and
// expects their replies only in the whole form.
#ifndef KELVANE_TRANSACTION_REPLY_H
#define KELVANE_TRANSACTION_REPLY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "reply_sink.h"
#include "request.h"

namespace kelvane {

struct Envelope {
    bool watch = false;        // WATCH both keys first
    bool transaction = false;  // MULTI, the commands, EXEC
    bool check_watch = false;  // after the commands, MULTI and EXEC of nothing
};
inline constexpr Envelope kPlain{};
inline constexpr Envelope kTransaction{false, true, false};
// One round trip, atomic without queuing anything.
inline constexpr Envelope kWatched{true, false, true};

// Writes the commands that open the envelope of a run on kelvane key K, and
// those that close it.
void open_envelope(Request& request, const Envelope& envelope, const char* key, std::size_t key_len);
void close_envelope(Request& request, const Envelope& envelope);

// One element of a command's reply.
struct Element {
    enum class Kind : uint8_t { bulk, status, error, integer, nil, array };
    Kind kind = Kind::nil;
    const char* bytes = nullptr;  // bulk, status, error
    std::size_t len = 0;
    long long integer = 0;  // integer
    std::size_t count = 0;  // array

    std::string_view text() const { return std::string_view(bytes, len); }
    // A WRONGTYPE error: the key holds a value of another kind.
    bool is_wrong_type() const;
};

class TransactionReply : public ReplySink {
public:
    // How many commands the run holds, which of them (bit k for command k,
    // at most 32) are values commands, and its envelope.
    TransactionReply(std::size_t commands, uint32_t values_commands, const Envelope& envelope)
        : commands_(commands), values_commands_(values_commands), envelope_(envelope) {}

    std::size_t replies() const override;
    void replies_read() override;

    // EXEC answered nil: a watched key changed, and the commands' replies
    // (if they ran) are not to be used.
    bool watch_failed() const { return watch_failed_; }
    // Whether command k was in the form sent, and whether that form was the
    // whole one.
    bool was_sent(std::size_t k) const { return !main_key_only() || !is_values_command(k); }
    bool whole_form_sent() const { return !main_key_only(); }

protected:
    // The reply of command k (at.depth 0) or an element inside it (depth,
    // index and parent index counted from the command's reply). False when
    // it does not fit the command.
    virtual bool take_reply(std::size_t k, const ReplyPosition& at, const Element& e) = 0;
    virtual void clear_replies() = 0;
    // A command answered an error that ends the call (not its data).
    void command_failed(std::string_view error) {
        if (!is_error()) note_error(error);
    }

private:
    // The replies in the order they come.
    enum class Slot { watch, multi, queued, command, exec, check_multi, check_exec };

    bool take_text(const ReplyPosition& at, bool is_bulk, const char* bytes,
                   std::size_t len) override;
    bool take_array(const ReplyPosition& at, std::size_t count) override;
    bool take_integer(const ReplyPosition& at, long long value) override;
    bool take_nil(const ReplyPosition& at) override;
    bool take_error(const ReplyPosition& at, const char* bytes, std::size_t len) override;
    bool take_top_error(const char* bytes, std::size_t len) override;
    void clear() override;

    bool is_values_command(std::size_t k) const { return (values_commands_ >> k) & 1u; }
    std::size_t watches() const { return envelope_.watch ? (main_key_only() ? 1 : 2) : 0; }
    // Which reply r is; *i: the command on the wire it belongs to, counted
    // from 0, for queued and command replies.
    Slot slot(std::size_t r, std::size_t* i) const;
    // The command the i-th command on the wire is.
    std::size_t command_at(std::size_t i) const;
    // Routes an element to the subclass, or checks the envelope's replies.
    bool deliver(const ReplyPosition& at, const Element& e);
    bool deliver_exec(const ReplyPosition& at, const Element& e);
    // A command's or WATCH's refusal, kept until every reply is in.
    void refused(std::string_view text);

    const std::size_t commands_;
    const uint32_t values_commands_;
    const Envelope envelope_;
    std::size_t sent_ = 0;  // commands on the wire
    int reply_ = -1;        // the reply being read, counted from 0
    std::size_t current_ = 0;  // the command whose reply EXEC's array is delivering
    bool multi_failed_ = false;
    bool watch_failed_ = false;
    std::size_t queued_ = 0;  // commands queued
    std::size_t asked_ = 0;   // commands and WATCHes answered ASK
    // The first MOVED or ASK, the first other refusal, and EXEC's error.
    std::string redirection_, refusal_, exec_error_;
};

}  // namespace kelvane

#endif  // KELVANE_TRANSACTION_REPLY_H
