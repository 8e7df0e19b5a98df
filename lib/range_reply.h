// range_reply.h -- the reply of a range read, parsed straight into the
// arrays and items the caller receives.
//
// The function answers {status, items, values}: items is the server's own
// range reply (member, score pairs when scores were asked for, members alone
// otherwise) and values holds one value or nil per member when values were
// asked for. As each element arrives it is copied, suffix appended, into a
// buffer of the memory manager, or written into the score array, so a result
// of n members costs one allocation per member and per value and nothing
// more. Until hand_out() the reply owns all of it and releases it when it
// goes.
#ifndef KELVANE_RANGE_REPLY_H
#define KELVANE_RANGE_REPLY_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kelvane.h"
#include "memory_manager.h"
#include "reply_sink.h"

namespace kelvane {

// Where a range read puts its result; the optional arrays are null when the
// caller did not ask for them.
struct RangeOut {
    void*** members;
    std::size_t* count;
    std::size_t** members_len;
    double** scores;
    void*** values;
    std::size_t** values_len;
};

class RangeReply final : public ReplySink {
public:
    RangeReply(kv_mm* mm, std::string_view suffix, bool with_scores, bool with_values)
        : mm_(mm), suffix_(suffix), with_scores_(with_scores), with_values_(with_values) {}
    ~RangeReply() override { clear(); }
    RangeReply(const RangeReply&) = delete;
    RangeReply& operator=(const RangeReply&) = delete;

    // The function's status; KV_SERVER_ERROR for a reply of another shape,
    // KV_NO_MEMORY when the memory manager refused a buffer.
    int32_t status() const;

    // Gives the whole result to the caller (after status() said
    // KV_SUCCESS). An empty result leaves every array null.
    void hand_out(const RangeOut& out);

    void take_array(const ReplyPosition& at, std::size_t count) override;
    void take_integer(const ReplyPosition& at, long long value) override;
    void take_nil(const ReplyPosition& at) override;

private:
    void take_text(const ReplyPosition& at, bool is_status, const char* bytes,
                   std::size_t len) override;
    void clear() override;
    void open_items(std::size_t count);
    void open_values(std::size_t count);
    // Puts item i (bytes followed by the suffix and a zero byte its length
    // does not count) into items and lens; notes a refused buffer.
    void store_item(const MmBuffer& items, const MmBuffer& lens, std::size_t i,
                    const char* bytes, std::size_t len);
    template <class T>
    T* array(const MmBuffer& b) const { return reinterpret_cast<T*>(b.get()); }

    kv_mm* mm_;
    std::string_view suffix_;
    bool with_scores_;
    bool with_values_;
    bool is_array_ = false;
    bool malformed_ = false;
    bool no_memory_ = false;
    bool have_status_ = false;
    long long status_ = 0;
    std::size_t n_ = 0;  // members in the result
    MmBuffer members_, members_len_, scores_, values_, values_len_;
};

}  // namespace kelvane

#endif  // KELVANE_RANGE_REPLY_H
