// range_reply.h -- the reply of the range-read function, parsed straight
// into the arrays and items the caller receives (range_builder.h).
//
// The function answers {status, items, values}: items is the server's own
// range reply (member, score pairs when scores were asked for, members alone
// otherwise) and values holds one value or nil per member when values were
// asked for.
#ifndef KELVANE_RANGE_REPLY_H
#define KELVANE_RANGE_REPLY_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kelvane.h"
#include "range_builder.h"
#include "reply_sink.h"

namespace kelvane {

class RangeReply final : public ReplySink {
public:
    RangeReply(kv_mm* mm, std::string_view suffix, bool with_scores, bool with_values)
        : result_(mm, suffix, with_scores, with_values) {}

    // The function's status; KV_SERVER_ERROR for a reply of another shape,
    // KV_NO_MEMORY when the memory manager refused a buffer.
    int32_t status() const;

    // Gives the whole result to the caller (after status() said
    // KV_SUCCESS). An empty result leaves every array null.
    void hand_out(const RangeOut& out) { result_.hand_out(out); }

private:
    bool take_text(const ReplyPosition& at, bool is_bulk, const char* bytes,
                   std::size_t len) override;
    bool take_array(const ReplyPosition& at, std::size_t count) override;
    bool take_integer(const ReplyPosition& at, long long value) override;
    bool take_nil(const ReplyPosition& at) override;
    void clear() override;
    // Members the bytes at hand can carry.
    std::size_t backed() const;

    RangeBuilder result_;
    bool have_status_ = false;
    long long status_ = 0;
    std::size_t fields_ = 0;  // after the status: 0, or items and values
};

}  // namespace kelvane

#endif  // KELVANE_RANGE_REPLY_H
