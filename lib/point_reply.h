// point_reply.h -- the reply of a function that answers a handful of fields
// (its status first, then numbers, scores, names), or of a native command
// that answers one integer.
//
// Each command declares the shape of its reply (PointShape), and an element
// that does not fit it stops the reader: a reply of another command is
// never read as this one's. Numbers and short texts are kept inline; at most
// one field, chosen by the caller, is a bulk value that goes straight into a
// memory-manager buffer, the one that is handed to the caller. Reading such a
// reply allocates nothing else.
#ifndef KELVANE_POINT_REPLY_H
#define KELVANE_POINT_REPLY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kelvane.h"
#include "memory_manager.h"
#include "reply_field.h"
#include "reply_sink.h"

namespace kelvane {

// What a field after the status may hold.
enum class FieldKind : uint8_t { integer, text, text_or_nil };

// The shape of a reply: a bare integer (DEL, PTTL), or a function's array
// that holds its status alone or its status and exactly `fields` more, of
// the kinds given.
struct PointShape {
    bool bare_integer;
    uint8_t fields;
    std::array<FieldKind, 2> kinds;
};

inline constexpr PointShape kBareInteger{true, 0, {}};
inline constexpr PointShape kStatusOnly{false, 0, {}};
inline constexpr PointShape kStatusCount{false, 1, {FieldKind::integer}};
inline constexpr PointShape kStatusText{false, 1, {FieldKind::text}};
inline constexpr PointShape kStatusName{false, 1, {FieldKind::text_or_nil}};
inline constexpr PointShape kStatusScoreValue{false, 2, {FieldKind::text, FieldKind::text_or_nil}};
inline constexpr PointShape kStatusRankValue{false, 2, {FieldKind::integer, FieldKind::text_or_nil}};

class PointReply final : public ReplySink {
public:
    // handed_field: the index of the field whose bytes become a buffer of mm
    // (-1: none).
    explicit PointReply(const PointShape& shape, kv_mm* mm = nullptr, int handed_field = -1)
        : shape_(shape), mm_(mm), handed_field_(handed_field) {}

    // The status of a function's reply: its first field, one of the store's
    // codes; KV_SERVER_ERROR for a reply of any other shape, KV_NO_MEMORY
    // when the handed field could not be allocated.
    int32_t function_status() const;

    // A reply that is a bare integer (DEL, PTTL).
    bool top_integer(long long* out) const;

    // Field i (0 being the status) of an array reply.
    bool integer(std::size_t i, long long* out) const;
    bool count(std::size_t i, uint32_t* out) const;
    // A score: a number's text, never NaN.
    bool score(std::size_t i, double* out) const;
    bool is_nil(std::size_t i) const;
    // The handed field: its buffer (released by the reply unless taken) and
    // the length of its bytes.
    MmBuffer take_handed() { return std::move(handed_); }
    std::size_t handed_len() const { return handed_len_; }

private:
    bool take_text(const ReplyPosition& at, bool is_bulk, const char* bytes,
                   std::size_t len) override;
    bool take_array(const ReplyPosition& at, std::size_t count) override;
    bool take_integer(const ReplyPosition& at, long long value) override;
    bool take_nil(const ReplyPosition& at) override;
    void clear() override;
    // The field at this position if the shape has room there for an element
    // of this kind, else nullptr.
    ReplyField* field_at(const ReplyPosition& at, FieldKind kind, bool is_nil);

    static constexpr std::size_t kMaxFields = 3;

    PointShape shape_;
    kv_mm* mm_;
    int handed_field_;
    bool is_array_ = false;
    bool no_memory_ = false;
    std::size_t field_count_ = 0;  // as the array announced it
    std::array<ReplyField, kMaxFields> fields_;
    MmBuffer handed_;
    std::size_t handed_len_ = 0;
};

}  // namespace kelvane

#endif  // KELVANE_POINT_REPLY_H
