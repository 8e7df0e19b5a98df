// point_reply.h -- the reply of a function that answers a handful of fields
// (its status first, then numbers, scores, names), or of a native command
// that answers one integer.
//
// Numbers and short texts are kept inline; at most one field, chosen by the
// caller, is a bulk value that goes straight into a memory-manager buffer,
// the one that is handed to the caller. Reading such a reply allocates
// nothing else.
#ifndef KELVANE_POINT_REPLY_H
#define KELVANE_POINT_REPLY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kelvane.h"
#include "memory_manager.h"
#include "reply_sink.h"

namespace kelvane {

class PointReply final : public ReplySink {
public:
    // handed_field: the index of the field whose bytes become a buffer of mm
    // (-1: none).
    explicit PointReply(kv_mm* mm = nullptr, int handed_field = -1)
        : mm_(mm), handed_field_(handed_field) {}

    // The status of a function's reply: its first field, one of the store's
    // codes; KV_SERVER_ERROR for a reply of any other shape, KV_NO_MEMORY
    // when the handed field could not be allocated.
    int32_t function_status() const;

    // A reply that is a bare integer (DEL, PTTL).
    bool top_integer(long long* out) const;

    // Field i (0 being the status) of an array reply.
    bool integer(std::size_t i, long long* out) const;
    bool count(std::size_t i, uint32_t* out) const;
    bool score(std::size_t i, double* out) const;
    bool is_nil(std::size_t i) const;
    // The handed field: its buffer (released by the reply unless taken) and
    // the length of its bytes.
    MmBuffer take_handed() { return std::move(handed_); }
    std::size_t handed_len() const { return handed_len_; }

    void take_array(const ReplyPosition& at, std::size_t count) override;
    void take_integer(const ReplyPosition& at, long long value) override;
    void take_nil(const ReplyPosition& at) override;

private:
    void take_text(const ReplyPosition& at, bool is_status, const char* bytes,
                   std::size_t len) override;
    void clear() override;
    // The field at this position, or nullptr for an element the reply does
    // not keep (which makes the reply malformed).
    struct Field;
    Field* field_at(const ReplyPosition& at);

    // long_text: a text longer than any field the client reads inline (a
    // name it does not need); reading it as a score fails.
    enum class Kind : uint8_t { absent, integer, text, long_text, handed, nil };
    static constexpr std::size_t kMaxFields = 4;
    static constexpr std::size_t kMaxText = 48;  // a score's text is at most 24 bytes
    struct Field {
        Kind kind = Kind::absent;
        uint8_t len = 0;
        long long integer = 0;
        char text[kMaxText];
    };

    kv_mm* mm_;
    int handed_field_;
    bool is_array_ = false;
    bool malformed_ = false;
    bool no_memory_ = false;
    std::size_t field_count_ = 0;
    std::array<Field, kMaxFields> fields_;
    MmBuffer handed_;
    std::size_t handed_len_ = 0;
};

}  // namespace kelvane

#endif  // KELVANE_POINT_REPLY_H
