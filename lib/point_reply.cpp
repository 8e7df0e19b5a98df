// point_reply.cpp -- fields of small replies, checked against their shape.
#include "point_reply.h"


namespace kelvane {
namespace {

bool is_store_status(long long s) {
    switch (s) {
        case KV_SUCCESS:
        case KV_WRONG_REPLY:
        case KV_ALREADY_EXISTS:
        case KV_NOTFOUND:
        case KV_INVALID_PARAMETER:
        case KV_NO_SET_KEY:
            return true;
        default:
            return false;
    }
}

}  // namespace

ReplyField* PointReply::field_at(const ReplyPosition& at, FieldKind kind, bool is_nil) {
    if (at.depth == 0) {
        // Only a bare integer stands alone; a function answers an array.
        return shape_.bare_integer && kind == FieldKind::integer ? &fields_[0] : nullptr;
    }
    if (at.depth != 1 || !is_array_) return nullptr;  // nothing nests in a point reply
    const auto i = static_cast<std::size_t>(at.index);
    if (i == 0) return kind == FieldKind::integer ? &fields_[0] : nullptr;  // the status
    const FieldKind allowed = shape_.kinds[i - 1];
    const bool fits = allowed == kind || (allowed == FieldKind::text_or_nil &&
                                          (kind == FieldKind::text || is_nil));
    return fits ? &fields_[i] : nullptr;
}

bool PointReply::take_array(const ReplyPosition& at, std::size_t count) {
    // The status alone, or the status and every field of the shape.
    if (at.depth != 0 || shape_.bare_integer || (count != 1 && count != 1u + shape_.fields)) {
        return false;
    }
    is_array_ = true;
    field_count_ = count;
    return true;
}

bool PointReply::take_integer(const ReplyPosition& at, long long value) {
    ReplyField* f = field_at(at, FieldKind::integer, false);
    if (f == nullptr) return false;
    f->set_integer(value);
    return true;
}

bool PointReply::take_nil(const ReplyPosition& at) {
    ReplyField* f = field_at(at, FieldKind::text_or_nil, true);
    if (f == nullptr) return false;
    f->kind = ReplyField::Kind::nil;
    return true;
}

bool PointReply::take_text(const ReplyPosition& at, bool is_bulk, const char* bytes,
                           std::size_t len) {
    ReplyField* f = is_bulk ? field_at(at, FieldKind::text, false) : nullptr;
    if (f == nullptr) return false;
    if (at.index == handed_field_) {
        f->kind = ReplyField::Kind::handed;
        handed_ = mm_copy(mm_, bytes, len);
        handed_len_ = len;
        // The reply goes on to its end, so the stream stays in step.
        if (!handed_) no_memory_ = true;
    } else {
        f->set_text(bytes, len);
    }
    return true;
}

void PointReply::clear() {
    is_array_ = no_memory_ = false;
    field_count_ = 0;
    fields_ = {};
    handed_.reset();
    handed_len_ = 0;
}

int32_t PointReply::function_status() const {
    if (!is_array_ || field_count_ == 0 || fields_[0].kind != ReplyField::Kind::integer ||
        !is_store_status(fields_[0].value)) {
        return KV_SERVER_ERROR;
    }
    // Success comes with every field the shape has.
    if (fields_[0].value == KV_SUCCESS && field_count_ != 1u + shape_.fields) {
        return KV_SERVER_ERROR;
    }
    if (no_memory_) return KV_NO_MEMORY;
    return static_cast<int32_t>(fields_[0].value);
}

bool PointReply::top_integer(long long* out) const {
    return shape_.bare_integer && fields_[0].integer(out);
}

bool PointReply::integer(std::size_t i, long long* out) const {
    return is_array_ && i < field_count_ && fields_[i].integer(out);
}

bool PointReply::count(std::size_t i, uint32_t* out) const {
    return is_array_ && i < field_count_ && fields_[i].count(out);
}

bool PointReply::score(std::size_t i, double* out) const {
    return is_array_ && i < field_count_ && fields_[i].score(out);
}

bool PointReply::is_nil(std::size_t i) const {
    return is_array_ && i < field_count_ && fields_[i].kind == ReplyField::Kind::nil;
}

}  // namespace kelvane
