// native_range_reply.h -- the replies of the native commands of a range
// read, alone or in an envelope that makes them atomic
// (transaction_reply.h), parsed straight into the result the caller receives
// (range_builder.h).
//
// Each command plays a part: ZRANGE's reply gives the members (and their
// scores); HMGET of those members gives their values in the same order;
// HGETALL gives the whole values hash, joined to the members by name as it
// arrives; EXISTS tells an absent key from an empty range.
// Replies of another shape stop the reader. An error that says a key holds
// another kind is the command's answer; any other error ends the call.
#ifndef KELVANE_NATIVE_RANGE_REPLY_H
#define KELVANE_NATIVE_RANGE_REPLY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <vector>

#include "range_builder.h"
#include "transaction_reply.h"

namespace kelvane {

enum class RangePart : uint8_t {
    items,         // ZRANGE
    values_list,   // HMGET of the members, after ZRANGE's reply
    values_table,  // HGETALL, after ZRANGE's reply
    exists,        // EXISTS of the main key
    values_count,  // HLEN of the values hash
};

class NativeRangeReply final : public TransactionReply {
public:
    static constexpr std::size_t kMaxCommands = 4;

    // The result is the caller's: a reply without items adds values to the
    // members it holds, and forgets only those values when read again.
    NativeRangeReply(RangeBuilder& result, std::initializer_list<RangePart> parts,
                     const Envelope& envelope)
        : NativeRangeReply(result, parts.begin(), parts.size(), envelope) {}
    NativeRangeReply(RangeBuilder& result, const RangePart* parts, std::size_t n,
                     const Envelope& envelope);

    // After a reply came whole: what ZRANGE found, and the values hash.
    bool items_wrong_type() const { return items_wrong_type_; }
    bool values_wrong_type() const { return values_wrong_type_; }
    // What EXISTS said (false when it was not asked).
    bool key_exists() const { return exists_; }
    // How many values the values hash holds, as HGETALL or HLEN said.
    std::optional<std::size_t> values_count() const { return values_count_; }

private:
    bool take_reply(std::size_t k, const ReplyPosition& at, const Element& e) override;
    void clear_replies() override;
    bool take_items(const ReplyPosition& at, const Element& e);
    bool take_values(RangePart part, const ReplyPosition& at, const Element& e);
    // Members the bytes at hand can carry.
    std::size_t backed() const;
    // The member named name, or npos; the index is made on first use.
    std::size_t find_member(std::string_view name);

    static uint32_t values_commands(const RangePart* parts, std::size_t n);

    RangeBuilder& result_;
    std::array<RangePart, kMaxCommands> parts_{};
    bool has_items_ = false;
    bool items_wrong_type_ = false, values_wrong_type_ = false, exists_ = false;
    std::optional<std::size_t> values_count_;
    std::size_t pending_ = 0;  // in HGETALL's reply: the member whose value comes next
    std::vector<uint64_t> index_;  // find_member()'s, made on first use
};

}  // namespace kelvane

#endif  // KELVANE_NATIVE_RANGE_REPLY_H
