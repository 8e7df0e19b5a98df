// point_reply.cpp -- fields of small replies.
#include "point_reply.h"

#include <cstring>
#include <limits>

#include "score_text.h"

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

PointReply::Field* PointReply::field_at(const ReplyPosition& at) {
    std::size_t i = 0;
    if (at.depth == 1 && is_array_) {
        i = static_cast<std::size_t>(at.index);
    } else if (at.depth != 0) {
        malformed_ = true;  // nested arrays are not part of any point reply
        return nullptr;
    }
    if (i >= kMaxFields) {
        malformed_ = true;
        return nullptr;
    }
    field_count_ = std::max(field_count_, i + 1);
    return &fields_[i];
}

void PointReply::take_array(const ReplyPosition& at, std::size_t) {
    if (at.depth == 0) {
        is_array_ = true;
    } else {
        malformed_ = true;
    }
}

void PointReply::take_integer(const ReplyPosition& at, long long value) {
    if (Field* f = field_at(at)) {
        f->kind = Kind::integer;
        f->integer = value;
    }
}

void PointReply::take_nil(const ReplyPosition& at) {
    if (Field* f = field_at(at)) f->kind = Kind::nil;
}

void PointReply::take_text(const ReplyPosition& at, bool, const char* bytes, std::size_t len) {
    Field* f = field_at(at);
    if (f == nullptr) return;
    if (at.depth == 1 && at.index == handed_field_) {
        f->kind = Kind::handed;
        handed_ = mm_copy(mm_, bytes, len);
        handed_len_ = len;
        if (!handed_) no_memory_ = true;
        return;
    }
    if (len > kMaxText) {
        f->kind = Kind::long_text;
        return;
    }
    f->kind = Kind::text;
    f->len = static_cast<uint8_t>(len);
    std::memcpy(f->text, bytes, len);
}

void PointReply::clear() {
    is_array_ = malformed_ = no_memory_ = false;
    field_count_ = 0;
    fields_ = {};
    handed_.reset();
    handed_len_ = 0;
}

int32_t PointReply::function_status() const {
    if (malformed_ || !is_array_ || field_count_ == 0 || fields_[0].kind != Kind::integer ||
        !is_store_status(fields_[0].integer)) {
        return KV_SERVER_ERROR;
    }
    if (no_memory_) return KV_NO_MEMORY;
    return static_cast<int32_t>(fields_[0].integer);
}

bool PointReply::top_integer(long long* out) const {
    if (malformed_ || is_array_ || fields_[0].kind != Kind::integer) return false;
    *out = fields_[0].integer;
    return true;
}

bool PointReply::integer(std::size_t i, long long* out) const {
    if (!is_array_ || i >= field_count_ || fields_[i].kind != Kind::integer) return false;
    *out = fields_[i].integer;
    return true;
}

bool PointReply::count(std::size_t i, uint32_t* out) const {
    long long n = 0;
    if (!integer(i, &n) || n < 0 || n > std::numeric_limits<uint32_t>::max()) return false;
    *out = static_cast<uint32_t>(n);
    return true;
}

bool PointReply::score(std::size_t i, double* out) const {
    if (!is_array_ || i >= field_count_ || fields_[i].kind != Kind::text) return false;
    return parse_score(fields_[i].text, fields_[i].len, out);
}

bool PointReply::is_nil(std::size_t i) const {
    return is_array_ && i < field_count_ && fields_[i].kind == Kind::nil;
}

}  // namespace kelvane
