// range_reply.h -- the reply of a range read, parsed straight into the
// arrays and items the caller receives.
//
// The function answers {status, items, values}: items is the server's own
// range reply (member, score pairs when scores were asked for, members alone
// otherwise) and values holds one value or nil per member when values were
// asked for. As each element arrives it is copied, suffix appended, into a
// buffer of the memory manager, or written into the score array, so a result
// of n members costs one allocation per member and per value and a few for
// the arrays. Until hand_out() the reply owns all of it and releases it when
// it goes.
//
// An announced member count is believed only as far as bytes that arrived
// can back it: the arrays start with room for what the reader holds and
// grow as members come, so a short reply that announces millions costs
// nothing. No result holds more than kMaxMembers.
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
    // The most members one range read hands back (2^26); a reply that
    // announces more is a server error.
    static constexpr std::size_t kMaxMembers = std::size_t{1} << 26;

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

private:
    bool take_text(const ReplyPosition& at, bool is_bulk, const char* bytes,
                   std::size_t len) override;
    bool take_array(const ReplyPosition& at, std::size_t count) override;
    bool take_integer(const ReplyPosition& at, long long value) override;
    bool take_nil(const ReplyPosition& at) override;
    void clear() override;
    bool open_items(std::size_t count);
    bool open_values(std::size_t count);
    // Makes room for member m in the member arrays, which grow by what the
    // reader holds and at least double, never past n_. False when the
    // memory manager said no.
    bool make_room(std::size_t m);
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
    bool no_memory_ = false;
    bool have_status_ = false;
    long long status_ = 0;
    std::size_t fields_ = 0;    // after the status: 0, or items and values
    std::size_t n_ = 0;         // members announced
    std::size_t room_ = 0;      // entries in the member arrays
    std::size_t values_n_ = 0;  // entries in the value arrays
    MmBuffer members_, members_len_, scores_, values_, values_len_;
};

}  // namespace kelvane

#endif  // KELVANE_RANGE_REPLY_H
