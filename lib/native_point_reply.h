// native_point_reply.h -- the replies of a few native commands that each
// answer one scalar (ZSCORE, ZRANK, HGET, EXISTS, ZCARD, ZCOUNT), alone or
// in an envelope that makes them atomic (transaction_reply.h).
//
// Each command's reply must be an integer, a bulk string or nil, or the
// error of a key of another kind; anything else stops the reader. Numbers
// and short texts are kept inline; the bulk reply of one command, chosen by
// the caller, goes straight into a memory-manager buffer, the one that is
// handed to the caller. Reading these replies allocates nothing else.
#ifndef KELVANE_NATIVE_POINT_REPLY_H
#define KELVANE_NATIVE_POINT_REPLY_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "kelvane.h"
#include "memory_manager.h"
#include "reply_field.h"
#include "transaction_reply.h"

namespace kelvane {

// What a command may answer, besides the error of a key of another kind.
enum class Answer : uint8_t {
    bulk_or_nil,     // ZSCORE, HGET
    integer,         // EXISTS, ZCARD, ZCOUNT
    integer_or_nil,  // ZRANK, ZREVRANK
};

class NativePointReply final : public TransactionReply {
public:
    static constexpr std::size_t kMaxCommands = 4;

    // answers: what each of n commands may answer, in order (n at most
    // kMaxCommands); handed: the command whose bulk reply becomes a buffer
    // of mm (-1: none).
    NativePointReply(const Answer* answers, std::size_t n, uint32_t values_commands,
                     const Envelope& envelope, kv_mm* mm = nullptr, int handed = -1);

    // What command k answered. A command left out of the form sent (a value
    // where the values hash exists nowhere) answers nothing: no value.
    bool is_nil(std::size_t k) const { return replies_[k].kind == ReplyField::Kind::nil; }
    bool is_wrong_type(std::size_t k) const { return replies_[k].kind == ReplyField::Kind::wrong_type; }
    bool integer(std::size_t k, long long* out) const { return replies_[k].integer(out); }
    bool count(std::size_t k, uint32_t* out) const { return replies_[k].count(out); }
    // A score: a number's text, never NaN.
    bool score(std::size_t k, double* out) const { return replies_[k].score(out); }
    // The handed reply: its buffer (released by the reply unless taken) and
    // its length; KV_NO_MEMORY when the manager refused it.
    MmBuffer take_handed() { return std::move(handed_buffer_); }
    std::size_t handed_len() const { return handed_len_; }
    bool no_memory() const { return no_memory_; }

private:
    bool take_reply(std::size_t k, const ReplyPosition& at, const Element& e) override;
    void clear_replies() override;

    std::array<Answer, kMaxCommands> answers_{};
    kv_mm* mm_;
    int handed_;
    bool no_memory_ = false;
    std::array<ReplyField, kMaxCommands> replies_;
    MmBuffer handed_buffer_;
    std::size_t handed_len_ = 0;
};

}  // namespace kelvane

#endif  // KELVANE_NATIVE_POINT_REPLY_H
